// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-sheet.h"

#include "captions/caption-css.h"

#include <QTest>

using namespace Qt::StringLiterals;

class CaptionSheetTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void everythingOfAStyleIsRead();
	void hiddenCaptionHasNoText();
	void textComesBackAsItWas_data();
	void textComesBackAsItWas();
	void wordsOfTheAlignmentAreThoseOfCss_data();
	void wordsOfTheAlignmentAreThoseOfCss();
	void whatIsOutOfRangeIsBounded();
	void otherSheetsAreRefused_data();
	void otherSheetsAreRefused();
};

void CaptionSheetTest::everythingOfAStyleIsRead()
{
	CaptionStyle style;
	style.alignment = u"right"_s;
	style.textColor = QColor(1, 2, 3, 51);
	style.backgroundColor = QColor(4, 5, 6, 255);
	style.opacity = 55;
	style.font = QFont(u"DejaVu Sans"_s, 33, QFont::Bold);
	const std::optional<CaptionSheet> sheet = readCaptionSheet(captionCss(style, u"Hola"_s));
	QVERIFY(sheet.has_value());
	QCOMPARE(sheet->box, CaptionSheet::Side::Right);
	QCOMPARE(sheet->lines, CaptionSheet::Side::Right);
	QCOMPARE(sheet->color.rgba(), QColor(1, 2, 3, 51).rgba());
	QCOMPARE(sheet->background.rgba(), QColor(4, 5, 6).rgba());
	QCOMPARE(sheet->opacity, 0.55);
	QCOMPARE(sheet->family, u"DejaVu Sans"_s);
	QCOMPARE(sheet->fontSize, 33);
	QVERIFY(sheet->bold);
	QCOMPARE(sheet->text, u"Hola"_s);

	style.font.setWeight(QFont::Normal);
	QVERIFY(!readCaptionSheet(captionCss(style, u"Hola"_s))->bold);
}

void CaptionSheetTest::hiddenCaptionHasNoText()
{
	const std::optional<CaptionSheet> sheet = readCaptionSheet(captionCss({}, {}));
	QVERIFY(sheet.has_value());
	QVERIFY(sheet->text.isEmpty());
}

void CaptionSheetTest::textComesBackAsItWas_data()
{
	QTest::addColumn<QString>("text");
	QTest::newRow("plain") << u"Hola"_s;
	QTest::newRow("what ends strings and rules") << u"\"';{}\\ \\A /* */ url(x) <style>"_s;
	QTest::newRow("line breaks") << u"one\ntwo\rthree\ffour\n"_s;
	QTest::newRow("hex after a break") << u"one\nabc"_s;
	QTest::newRow("beyond 16 bits") << u"😀 𝄞"_s;
	QTest::newRow("rule") << u"\"; } #caption-text { display: none; } a::after { content: \""_s;
}

void CaptionSheetTest::textComesBackAsItWas()
{
	QFETCH(const QString, text);
	const std::optional<CaptionSheet> sheet = readCaptionSheet(captionCss({}, text));
	QVERIFY(sheet.has_value());
	QCOMPARE(sheet->text, text);
}

void CaptionSheetTest::wordsOfTheAlignmentAreThoseOfCss_data()
{
	using Side = CaptionSheet::Side;
	QTest::addColumn<QString>("word");
	QTest::addColumn<Side>("box");
	QTest::addColumn<Side>("lines");
	QTest::newRow("left") << u"left"_s << Side::Left << Side::Left;
	QTest::newRow("center") << u"center"_s << Side::Center << Side::Center;
	QTest::newRow("right") << u"right"_s << Side::Right << Side::Right;
	QTest::newRow("in capitals") << u"RIGHT"_s << Side::Center << Side::Right;
	QTest::newRow("no word of CSS's") << u"middle"_s << Side::Center << Side::Left;
	QTest::newRow("none") << QString() << Side::Center << Side::Left;
}

void CaptionSheetTest::wordsOfTheAlignmentAreThoseOfCss()
{
	QFETCH(const QString, word);
	CaptionStyle style;
	style.alignment = word;
	const std::optional<CaptionSheet> sheet = readCaptionSheet(captionCss(style, u"Hola"_s));
	QVERIFY(sheet.has_value());
	QTEST(sheet->box, "box");
	QTEST(sheet->lines, "lines");
}

void CaptionSheetTest::whatIsOutOfRangeIsBounded()
{
	CaptionStyle style;
	style.font.setPointSize(1000000);
	style.opacity = 1000;
	const std::optional<CaptionSheet> large = readCaptionSheet(captionCss(style, u"Hola"_s));
	QVERIFY(large.has_value());
	QCOMPARE(large->fontSize, 1000);
	QCOMPARE(large->opacity, 1.0);
	style.opacity = -5;
	const std::optional<CaptionSheet> small = readCaptionSheet(captionCss(style, u"Hola"_s));
	QVERIFY(small.has_value());
	QCOMPARE(small->opacity, 0.0);
}

void CaptionSheetTest::otherSheetsAreRefused_data()
{
	const QString css = captionCss({}, u"Hola"_s);
	const auto with = [&css](const QString &before, const QString &after) {
		QString changed = css;
		return changed.replace(before, after);
	};
	QTest::addColumn<QString>("css");
	QTest::newRow("empty") << QString();
	QTest::newRow("OBS's own")
		<< u"body { background-color: rgba(0, 0, 0, 0); margin: 0px auto; overflow: hidden; }"_s;
	QTest::newRow("cut") << css.chopped(1);
	QTest::newRow("one rule more") << css + u" p { color: red; }"_s;
	QTest::newRow("another selector") << with(u"::after"_s, u"::before"_s);
	QTest::newRow("another padding") << with(u"10px"_s, u"11px"_s);
	QTest::newRow("another property") << with(u"border-radius"_s, u"border-width"_s);
	QTest::newRow("colour by name") << with(u"rgba(255, 255, 255, 1)"_s, u"white"_s);
	QTest::newRow("alpha that is no number") << with(u"rgba(255, 255, 255, 1)"_s, u"rgba(255, 255, 255, e)"_s);
	QTest::newRow("size in points") << with(u"40px"_s, u"40pt"_s);
	QTest::newRow("no size") << with(u"40px"_s, u"0px"_s);
	QTest::newRow("opacity that is no number") << with(u"opacity: 1"_s, u"opacity: x"_s);
	QTest::newRow("opacity not a number") << with(u"opacity: 1"_s, u"opacity: nan"_s);
	QTest::newRow("family that is no string") << with(u"\"-apple-system\", sans-serif"_s, u"serif"_s);
	QTest::newRow("content that is no string") << with(u"\"Hola\""_s, u"counter(x)"_s);
	QTest::newRow("neither shown nor hidden") << with(u"display: block"_s, u"display: flex"_s);
}

void CaptionSheetTest::otherSheetsAreRefused()
{
	QFETCH(const QString, css);
	QVERIFY(!readCaptionSheet(css).has_value());
}

QTEST_APPLESS_MAIN(CaptionSheetTest)
#include "caption-sheet-test.moc"

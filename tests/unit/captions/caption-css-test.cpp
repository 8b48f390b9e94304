// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-css.h"

#include <QTest>

namespace {

constexpr char hidden[] = " #caption-text { display: none; }";

CaptionStyle withFont(const QFont &font)
{
	CaptionStyle style;
	style.font = font;
	return style;
}

} // namespace

class CaptionCssTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void defaultStyleIsWrittenWhole();
	void emptyTextHidesTheBoxAndHasNoContent();
	void textIsShownThroughTheContentOfAnAfterRule();
	void alignmentIsMappedForTheBoxAndWrittenAsItIsForTheText_data();
	void alignmentIsMappedForTheBoxAndWrittenAsItIsForTheText();
	void opacityIsAFractionOfOne_data();
	void opacityIsAFractionOfOne();
	void fontWeightAbove500IsBold_data();
	void fontWeightAbove500IsBold();
	void fontSizeIsThePointSizeOr40_data();
	void fontSizeIsThePointSizeOr40();
	void colorsAreWrittenInDecimalWithAlphaAsAFraction();
	void fontFamilyPassesThroughAsItIs();
	void placeholdersInTheTextAreNotReplaced();
	void placeholdersInTheAlignmentAreFilledLikeTheTemplates();
	void captionIsEscaped_data();
	void captionIsEscaped();
	void noCaptionEndsItsStringOrItsRule_data();
	void noCaptionEndsItsStringOrItsRule();
	void rightToLeftLinesAreIsolated_data();
	void rightToLeftLinesAreIsolated();
};

void CaptionCssTest::defaultStyleIsWrittenWhole()
{
	QCOMPARE(captionCss({}, {}),
		 "body {   background-color: transparent;   margin: 0px auto;   overflow: hidden;   display: flex;"
		 "   flex-direction: column;   justify-content: flex-end;   align-items: center; }"
		 " #caption-text {   background-color: rgba(0, 0, 0, 0);   opacity: 1;"
		 "   font-family: \"-apple-system\", sans-serif;   font-size: 40px;   font-weight: bold;"
		 "   color: rgba(255, 255, 255, 1);   text-align: center;   white-space: pre-wrap;   padding: 10px;"
		 "   border-radius: 8px;   text-shadow: -2px -2px 0 #000, 2px -2px 0 #000, -2px 2px 0 #000,"
		 " 2px 2px 0 #000, 0px 4px 4px rgba(0,0,0,0.8); }"
		 " #caption-text { display: none; }");
}

void CaptionCssTest::emptyTextHidesTheBoxAndHasNoContent()
{
	const QString css = captionCss({}, "");
	QVERIFY(css.endsWith(hidden));
	QVERIFY(!css.contains("::after"));
	QVERIFY(!css.contains("display: block"));
}

void CaptionCssTest::textIsShownThroughTheContentOfAnAfterRule()
{
	QString rules = captionCss({}, "");
	rules.chop(QLatin1String(hidden).size());
	QCOMPARE(captionCss({}, "Hola"), rules + " #caption-text { display: block; }"
						 " #caption-text::after { content: \"Hola\"; white-space: pre-wrap; }");
}

void CaptionCssTest::alignmentIsMappedForTheBoxAndWrittenAsItIsForTheText_data()
{
	QTest::addColumn<QString>("alignment");
	QTest::addColumn<QString>("position");
	QTest::newRow("left") << "left" << "flex-start";
	QTest::newRow("right") << "right" << "flex-end";
	QTest::newRow("center") << "center" << "center";
	QTest::newRow("capital L") << "Left" << "center";
	QTest::newRow("capitals") << "RIGHT" << "center";
	QTest::newRow("another word") << "justify" << "center";
	QTest::newRow("empty") << "" << "center";
}

void CaptionCssTest::alignmentIsMappedForTheBoxAndWrittenAsItIsForTheText()
{
	QFETCH(QString, alignment);
	QFETCH(QString, position);
	CaptionStyle style;
	style.alignment = alignment;
	const QString css = captionCss(style, "a");
	QVERIFY2(css.contains(" align-items: " + position + ";"), qPrintable(css));
	QVERIFY2(css.contains(" text-align: " + alignment + ";"), qPrintable(css));
}

void CaptionCssTest::opacityIsAFractionOfOne_data()
{
	QTest::addColumn<int>("percent");
	QTest::addColumn<QString>("fraction");
	QTest::newRow("100") << 100 << "1";
	QTest::newRow("55") << 55 << "0.55";
	QTest::newRow("7") << 7 << "0.07";
	QTest::newRow("0") << 0 << "0";
	QTest::newRow("not range-checked") << 250 << "2.5";
}

void CaptionCssTest::opacityIsAFractionOfOne()
{
	QFETCH(int, percent);
	QFETCH(QString, fraction);
	CaptionStyle style;
	style.opacity = percent;
	QVERIFY(captionCss(style, "a").contains("   opacity: " + fraction + ";   "));
}

void CaptionCssTest::fontWeightAbove500IsBold_data()
{
	QTest::addColumn<int>("weight");
	QTest::addColumn<QString>("word");
	QTest::newRow("400") << 400 << "normal";
	QTest::newRow("500") << 500 << "normal";
	QTest::newRow("501") << 501 << "bold";
	QTest::newRow("600") << 600 << "bold";
	QTest::newRow("900") << 900 << "bold";
}

void CaptionCssTest::fontWeightAbove500IsBold()
{
	QFETCH(int, weight);
	QFETCH(QString, word);
	const QString css = captionCss(withFont(QFont("Sans", 20, weight)), "a");
	QVERIFY2(css.contains("   font-weight: " + word + ";   "), qPrintable(css));
}

void CaptionCssTest::fontSizeIsThePointSizeOr40_data()
{
	QTest::addColumn<QFont>("font");
	QTest::addColumn<QString>("size");
	QTest::newRow("points") << QFont("Sans", 72) << "72px";
	QFont pixels("Sans");
	pixels.setPixelSize(33);
	QTest::newRow("no point size, set in pixels") << pixels << "40px";
}

void CaptionCssTest::fontSizeIsThePointSizeOr40()
{
	QFETCH(QFont, font);
	QFETCH(QString, size);
	QVERIFY(captionCss(withFont(font), "a").contains("   font-size: " + size + ";   "));
}

void CaptionCssTest::colorsAreWrittenInDecimalWithAlphaAsAFraction()
{
	CaptionStyle style;
	style.textColor = QColor(1, 20, 255, 128);
	style.backgroundColor = QColor(200, 0, 99, 51);
	const QString css = captionCss(style, "a");
	QVERIFY2(css.contains("   color: rgba(1, 20, 255, 0.501961);   "), qPrintable(css));
	QVERIFY2(css.contains("   background-color: rgba(200, 0, 99, 0.2);   "), qPrintable(css));
}

void CaptionCssTest::fontFamilyPassesThroughAsItIs()
{
	QFont font;
	font.setFamily("A \"%1\" %14 B");
	const QString css = captionCss(withFont(font), "text");
	QVERIFY2(css.contains("   font-family: \"A \"%1\" %14 B\", sans-serif;   "), qPrintable(css));
	QVERIFY(css.contains("content: \"text\";"));
}

void CaptionCssTest::placeholdersInTheTextAreNotReplaced()
{
	QVERIFY(captionCss({}, "100 %1 %7 %14").contains("content: \"100 %1 %7 %14\";"));
}

void CaptionCssTest::placeholdersInTheAlignmentAreFilledLikeTheTemplates()
{
	CaptionStyle style;
	style.alignment = "%13%1";
	QVERIFY(captionCss(style, "a").contains("   text-align: 1center;   "));
}

void CaptionCssTest::captionIsEscaped_data()
{
	QTest::addColumn<QString>("text");
	QTest::addColumn<QString>("escaped");
	QTest::newRow("quotes, semicolon, line break") << "He said \"hi\";\n" << "He said \\\"hi\\\"\\;\\A ";
	QTest::newRow("backslash") << "a\\b" << "a\\\\b";
	QTest::newRow("backslash before a quote") << "\\\"" << "\\\\\\\"";
	QTest::newRow("backslash that looks like a line break") << "\\A " << "\\\\A ";
	QTest::newRow("apostrophe") << "it's" << "it\\'s";
	QTest::newRow("braces") << "{x}" << "\\{x\\}";
	QTest::newRow("line break before a hex digit") << "a\nb" << "a\\A b";
	QTest::newRow("carriage return") << "a\rb" << "a\\D b";
	QTest::newRow("form feed") << "a\fb" << "a\\C b";
	QTest::newRow("NUL") << QString("a") + QChar(u'\0') + "b" << "a\\0 b";
	QTest::newRow("not Latin") << QString::fromUtf8("你好 😀 ñ") << QString::fromUtf8("你好 😀 ñ");
}

void CaptionCssTest::captionIsEscaped()
{
	QFETCH(QString, text);
	QFETCH(QString, escaped);
	QCOMPARE(escapeCssText(text), escaped);
	QVERIFY(captionCss({}, text).endsWith(" #caption-text::after { content: \"" + escaped +
					      "\"; white-space: pre-wrap; }"));
}

void CaptionCssTest::noCaptionEndsItsStringOrItsRule_data()
{
	QTest::addColumn<QString>("text");
	for (ushort unit = 0; unit < 0x100; ++unit) {
		QTest::addRow("unit %d", unit) << QString("a") + QChar(unit) + "b";
		QTest::addRow("unit %d after a backslash", unit) << QString("a\\") + QChar(unit);
	}
}

void CaptionCssTest::noCaptionEndsItsStringOrItsRule()
{
	QFETCH(QString, text);
	const QString escaped = escapeCssText(text);
	for (qsizetype at = 0; at < escaped.size(); ++at) {
		const QChar unit = escaped.at(at);
		QVERIFY(!QString("\"'{};\n\r\f").contains(unit) && !unit.isNull());
		if (unit == '\\') {
			++at;
			QVERIFY2(at < escaped.size(), "a backslash is left that would take the closing quote with it");
			QVERIFY(!QString("\n\r\f").contains(escaped.at(at)));
		}
	}
}

void CaptionCssTest::rightToLeftLinesAreIsolated_data()
{
	QTest::addColumn<QString>("text");
	QTest::addColumn<QString>("expected");
	QTest::addColumn<QString>("inArabic");
	// "<" and ">" stand for the isolate's characters.
	const auto row = [](const char *name, const char *text, const char *expected, const char *inArabic) {
		const auto isolated = [](const char *marked) {
			return QString::fromUtf8(marked).replace('<', QChar(0x2067)).replace('>', QChar(0x2069));
		};
		QTest::newRow(name) << QString::fromUtf8(text) << isolated(expected) << isolated(inArabic);
	};
	row("empty", "", "", "");
	row("Latin", "Hola, 2026!", "Hola, 2026!", "Hola, 2026!");
	row("no letter", "2026 (3.5)!", "2026 (3.5)!", "2026 (3.5)!");
	row("Arabic", "مرحبا بكم.", "<مرحبا بكم.>", "<مرحبا بكم.>");
	row("behind a number and marks", "«2026» مرحبا", "<«2026» مرحبا>", "<«2026» مرحبا>");
	row("with a name in it", "مرحبا OBS.", "<مرحبا OBS.>", "<مرحبا OBS.>");
	row("behind a name", "OBS مرحبا.", "OBS مرحبا.", "<OBS مرحبا.>");
	row("beyond 16 bits", "x \xF0\x9E\xB8\x80", "x \xF0\x9E\xB8\x80", "<x \xF0\x9E\xB8\x80>");
	row("each line by itself", "مرحبا\nHola\n\nOBS مرحبا", "<مرحبا>\nHola\n\nOBS مرحبا",
	    "<مرحبا>\nHola\n\n<OBS مرحبا>");
}

void CaptionCssTest::rightToLeftLinesAreIsolated()
{
	QFETCH(QString, text);
	QFETCH(QString, expected);
	QFETCH(QString, inArabic);
	QCOMPARE(isolateRightToLeftLines(text), expected);
	QCOMPARE(isolateRightToLeftLines(text, Qt::RightToLeft), inArabic);
	QCOMPARE(captionTextRules(text, Qt::RightToLeft), captionTextRules(inArabic));
	if (!text.isEmpty()) {
		QVERIFY(captionCss({}, text).contains("content: \"" + escapeCssText(expected) + "\";"));
	}
}

QTEST_MAIN(CaptionCssTest)
#include "caption-css-test.moc"

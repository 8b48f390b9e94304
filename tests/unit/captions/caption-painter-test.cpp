// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-painter.h"

#include "captions/caption-layout.h"
#include "captions/shadow-blur.h"

#include <QImage>
#include <QTest>

#include <cmath>

using namespace Qt::StringLiterals;

namespace {

constexpr QSize kView(1024, 240);
constexpr QColor kYellow(255, 255, 0);
constexpr QColor kBlue(0, 0, 128);

CaptionSheet sheetOf(const QString &text)
{
	CaptionSheet sheet;
	sheet.background = kBlue;
	sheet.color = kYellow;
	sheet.family = u"DejaVu Sans"_s;
	sheet.text = text;
	return sheet;
}

/** The view with the caption in it, and nothing else. */
QImage viewOf(const CaptionSheet &sheet, QSize size = kView)
{
	QImage view(size, QImage::Format_ARGB32_Premultiplied);
	view.fill(Qt::transparent);
	const CaptionPicture picture = paintCaption(sheet, size);
	for (int y = 0; y < picture.image.height(); ++y) {
		for (int x = 0; x < picture.image.width(); ++x) {
			view.setPixelColor(picture.position + QPoint(x, y), picture.image.pixelColor(x, y));
		}
	}
	return view;
}

template <typename Is> QRect extent(const QImage &image, Is is)
{
	QRect found;
	for (int y = 0; y < image.height(); ++y) {
		for (int x = 0; x < image.width(); ++x) {
			if (is(image.pixelColor(x, y))) {
				found |= QRect(x, y, 1, 1);
			}
		}
	}
	return found;
}

QRect textOf(const QImage &image)
{
	return extent(image, [](const QColor &color) {
		return color.red() > 200 && color.green() > 200 && color.blue() < 60;
	});
}

QRect boxOf(const QImage &image)
{
	return extent(image, [](const QColor &color) { return color.alpha() > 128; });
}

} // namespace

class CaptionPainterTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void boxIsAsWideAsTheTextAtTheLowerEdge();
	void alignmentPlacesTheBox_data();
	void alignmentPlacesTheBox();
	void shorterLinesAreAlignedInTheBox();
	void linesAreBrokenWhereTheyMay_data();
	void linesAreBrokenWhereTheyMay();
	void endOfALongTextStaysInView();
	void breakAtTheEndMakesNoLine();
	void scriptsAreShaped_data();
	void scriptsAreShaped();
	void rightToLeftLineReadsFromTheRight();
	void nothingIsPaintedForNothing_data();
	void nothingIsPaintedForNothing();
	void invisibleCharactersTakeNoRoom();
	void cornersAreRound();
	void outlineIsBlackAroundTheText();
	void opacityIsThatOfTextAndBoxTogether();
	void textIsAsTransparentAsItsColor();
	void hostileSizesAreBorne_data();
	void hostileSizesAreBorne();
	void blurIsAGaussian();
};

void CaptionPainterTest::boxIsAsWideAsTheTextAtTheLowerEdge()
{
	const QImage view = viewOf(sheetOf(u"HOLA"_s));
	const QRect box = boxOf(view);
	const QRect text = textOf(view);
	QCOMPARE(box.bottom(), kView.height() - 1);
	QVERIFY(qAbs(box.center().x() - kView.width() / 2) <= 1);
	// The padding, and what the font leaves around capitals.
	QVERIFY(text.left() - box.left() >= 10 && text.left() - box.left() <= 16);
	QVERIFY(box.right() - text.right() >= 10 && box.right() - text.right() <= 16);
	QVERIFY(box.height() > 20 + 40 && box.height() < 20 + 60);
	QVERIFY(text.height() > 24 && text.height() < 40);
}

void CaptionPainterTest::alignmentPlacesTheBox_data()
{
	QTest::addColumn<CaptionSheet::Side>("side");
	QTest::addColumn<int>("left");
	QTest::newRow("left") << CaptionSheet::Side::Left << 0;
	QTest::newRow("right") << CaptionSheet::Side::Right << -1;
}

void CaptionPainterTest::alignmentPlacesTheBox()
{
	QFETCH(const CaptionSheet::Side, side);
	QFETCH(const int, left);
	CaptionSheet sheet = sheetOf(u"HOLA"_s);
	sheet.box = side;
	const QRect box = boxOf(viewOf(sheet));
	if (left == 0) {
		QCOMPARE(box.left(), 0);
	} else {
		QCOMPARE(box.right(), kView.width() - 1);
	}
}

void CaptionPainterTest::shorterLinesAreAlignedInTheBox()
{
	CaptionSheet sheet = sheetOf(u"HOLA HOLA HOLA\nHH"_s);
	const auto lastLine = [&sheet](CaptionSheet::Side side) {
		sheet.lines = side;
		const QImage view = viewOf(sheet);
		return textOf(view.copy(0, kView.height() - 50, kView.width(), 50));
	};
	const QRect box = boxOf(viewOf(sheet));
	const QRect left = lastLine(CaptionSheet::Side::Left);
	const QRect center = lastLine(CaptionSheet::Side::Center);
	const QRect right = lastLine(CaptionSheet::Side::Right);
	QVERIFY(left.left() - box.left() < 16);
	QVERIFY(box.right() - right.right() < 16);
	QVERIFY(qAbs(center.center().x() - box.center().x()) <= 1);
}

void CaptionPainterTest::linesAreBrokenWhereTheyMay_data()
{
	QTest::addColumn<QString>("text");
	QTest::newRow("words") << u"palabra "_s.repeated(20);
	QTest::newRow("Chinese, which has no blanks") << u"今天天气很好"_s.repeated(20);
	QTest::newRow("Korean") << u"안녕하세요"_s.repeated(20);
	QTest::newRow("Thai, which has no blanks") << u"สวัสดีครับวันนี้อากาศดี"_s.repeated(10);
	QTest::newRow("a word that is wider than the view") << u"A"_s.repeated(100);
	QTest::newRow("Arabic") << u"\u2067"_s + u"مرحبا بكم "_s.repeated(20) + u"\u2069"_s;
}

void CaptionPainterTest::linesAreBrokenWhereTheyMay()
{
	QFETCH(const QString, text);
	const CaptionLayout layout(sheetOf(text), kView);
	QVERIFY(layout.lineCount() > 1);
	QCOMPARE(layout.box().left(), 0);
	QCOMPARE(layout.box().width(), kView.width());
	const QRect drawn = textOf(viewOf(sheetOf(text)));
	QVERIFY(drawn.left() >= 10 - 2 && drawn.right() < kView.width() - 10 + 2);
}

void CaptionPainterTest::endOfALongTextStaysInView()
{
	const QString end = u"\nHH"_s;
	const CaptionSheet lengthy = sheetOf(u"palabra "_s.repeated(500) + end);
	QVERIFY(CaptionLayout(lengthy, kView).box().top() < 0);
	const QImage view = viewOf(lengthy);
	QVERIFY(!view.isNull());
	const QRect lastLine(0, kView.height() - 50, kView.width(), 50);
	QCOMPARE(textOf(view.copy(lastLine)).width(), textOf(viewOf(sheetOf(u"HH"_s))).width());
	QCOMPARE(boxOf(view), QRect({}, kView));
}

void CaptionPainterTest::breakAtTheEndMakesNoLine()
{
	QCOMPARE(CaptionLayout(sheetOf(u"HOLA\n"_s), kView).lineCount(), 1);
	QCOMPARE(CaptionLayout(sheetOf(u"HOLA\n\n"_s), kView).lineCount(), 2);
	QCOMPARE(CaptionLayout(sheetOf(u"\nHOLA"_s), kView).lineCount(), 2);
	QCOMPARE(CaptionLayout(sheetOf(u"\n"_s), kView).lineCount(), 1);
}

void CaptionPainterTest::scriptsAreShaped_data()
{
	QTest::addColumn<QString>("text");
	QTest::addColumn<QString>("apart");
	// In a word the letters have other forms than each alone.
	QTest::newRow("Arabic") << u"سلام"_s << u"س\u200Cل\u200Cا\u200Cم"_s;
	QTest::newRow("Devanagari") << u"क्षत्रिय"_s << u"क्\u200Cषत्\u200Cरिय"_s;
	QTest::newRow("Tamil") << u"கொ"_s << u"க ொ"_s;
}

void CaptionPainterTest::scriptsAreShaped()
{
	QFETCH(const QString, text);
	QFETCH(const QString, apart);
	const QImage shaped = viewOf(sheetOf(text));
	QVERIFY(textOf(shaped).height() > 15);
	QVERIFY(shaped != viewOf(sheetOf(apart)));
}

void CaptionPainterTest::rightToLeftLineReadsFromTheRight()
{
	// A full stop is at the left end of a line of Hebrew, at the right end of one of Spanish.
	CaptionSheet sheet = sheetOf(u"\u2067שלום.\u2069"_s);
	sheet.text = u"\u2067שלום\u2069"_s;
	sheet.box = CaptionSheet::Side::Right;
	const QRect word = textOf(viewOf(sheet));
	sheet.text = u"\u2067שלום.\u2069"_s;
	const QRect sentence = textOf(viewOf(sheet));
	QCOMPARE(sentence.right(), word.right());
	QVERIFY(sentence.left() < word.left());
}

void CaptionPainterTest::nothingIsPaintedForNothing_data()
{
	QTest::addColumn<QString>("text");
	QTest::addColumn<QSize>("view");
	QTest::newRow("no text") << QString() << kView;
	QTest::newRow("no view") << u"HOLA"_s << QSize();
	QTest::newRow("no width") << u"HOLA"_s << QSize(0, 240);
	QTest::newRow("no height") << u"HOLA"_s << QSize(1024, 0);
}

void CaptionPainterTest::nothingIsPaintedForNothing()
{
	QFETCH(const QString, text);
	QFETCH(const QSize, view);
	QVERIFY(paintCaption(sheetOf(text), view).image.isNull());
}

void CaptionPainterTest::invisibleCharactersTakeNoRoom()
{
	const QImage plain = viewOf(sheetOf(u"HOLA"_s));
	QCOMPARE(viewOf(sheetOf(u"\u0001H\rO\u001BL\u007FA\u0085\f"_s)), plain);
	// A box without anything in it, as of a blank.
	QCOMPARE(boxOf(viewOf(sheetOf(u"\u0001\u0002"_s))).width(), 20);
}

void CaptionPainterTest::cornersAreRound()
{
	const QImage view = viewOf(sheetOf(u"HOLA"_s));
	const QRect box = CaptionLayout(sheetOf(u"HOLA"_s), kView).box();
	QCOMPARE(view.pixelColor(box.topLeft()).alpha(), 0);
	QCOMPARE(view.pixelColor(box.bottomRight()).alpha(), 0);
	QCOMPARE(view.pixelColor(box.topLeft() + QPoint(8, 0)).alpha(), 255);
	QCOMPARE(view.pixelColor(box.topLeft() + QPoint(3, 3)).rgba(), kBlue.rgba());
}

void CaptionPainterTest::outlineIsBlackAroundTheText()
{
	CaptionSheet sheet = sheetOf(u"H"_s);
	sheet.background = Qt::transparent;
	const QImage view = viewOf(sheet);
	const QRect text = textOf(view);
	const QRect outline = extent(view, [](const QColor &color) { return color.alpha() == 255; });
	QVERIFY(outline.contains(text.adjusted(-1, -1, 1, 1)));
	QVERIFY(text.adjusted(-3, -3, 3, 3).contains(outline));
	// The shadow falls downwards, and is soft.
	const QRect shadow = extent(view, [](const QColor &color) { return color.alpha() > 8; });
	QVERIFY(shadow.bottom() - text.bottom() >= 5);
	QVERIFY(text.top() - shadow.top() <= 3);
}

void CaptionPainterTest::opacityIsThatOfTextAndBoxTogether()
{
	CaptionSheet sheet = sheetOf(u"H"_s);
	sheet.opacity = 0.5;
	const QImage whole = viewOf(sheetOf(u"H"_s));
	const QImage half = viewOf(sheet);
	const QPoint inBox = boxOf(whole).center() - QPoint(0, boxOf(whole).height() / 2 - 4);
	QVERIFY(qAbs(half.pixelColor(inBox).alpha() - 128) <= 1);
	// Text over the box is not more opaque than the box.
	for (const QPoint &point : {textOf(whole).center(), textOf(whole).topLeft() + QPoint(2, 2)}) {
		QVERIFY(qAbs(half.pixelColor(point).alpha() - 128) <= 1);
	}
}

void CaptionPainterTest::textIsAsTransparentAsItsColor()
{
	CaptionSheet sheet = sheetOf(u"H"_s);
	sheet.background = Qt::white;
	sheet.color = QColor(255, 255, 0, 0);
	// Its outline is drawn all the same.
	QVERIFY(textOf(viewOf(sheet)).isNull());
	QVERIFY(!extent(viewOf(sheet), [](const QColor &color) {
			 return color.alpha() == 255 && color.lightness() < 10;
		 }).isNull());
}

void CaptionPainterTest::hostileSizesAreBorne_data()
{
	QTest::addColumn<QSize>("view");
	QTest::addColumn<int>("fontSize");
	QTest::addColumn<QString>("text");
	QTest::newRow("one pixel") << QSize(1, 1) << 40 << u"HOLA"_s;
	QTest::newRow("narrower than the padding") << QSize(5, 240) << 40 << u"HOLA MUNDO"_s;
	QTest::newRow("flat") << QSize(1024, 3) << 40 << u"HOLA"_s;
	QTest::newRow("largest font") << kView << 1000 << u"HOLA MUNDO"_s;
	QTest::newRow("smallest font") << kView << 1 << u"HOLA MUNDO"_s;
	QTest::newRow("longest text") << kView << 40 << u"a"_s.repeated(100000);
	QTest::newRow("many lines") << kView << 40 << u"\n"_s.repeated(20000);
	QTest::newRow("half a character at the cut") << kView << 40 << u"😀"_s.repeated(9000) + u"a"_s;
	QTest::newRow("marks on one letter") << kView << 40 << u"a"_s + u"\u0301"_s.repeated(4000);
	QTest::newRow("isolates without an end") << kView << 40 << u"\u2067"_s.repeated(4000);
}

void CaptionPainterTest::hostileSizesAreBorne()
{
	QFETCH(const QSize, view);
	QFETCH(const int, fontSize);
	QFETCH(const QString, text);
	CaptionSheet sheet = sheetOf(text);
	sheet.fontSize = fontSize;
	const CaptionPicture picture = paintCaption(sheet, view);
	QVERIFY(!picture.image.isNull());
	QVERIFY(QRect({}, view).contains(QRect(picture.position, picture.image.size())));
}

void CaptionPainterTest::blurIsAGaussian()
{
	QImage mask(21, 21, QImage::Format_Alpha8);
	mask.fill(0);
	mask.scanLine(10)[10] = 255;
	// A dot alone is too weak to be told from rounding: a line is blurred in one direction only.
	for (int x = 0; x < mask.width(); ++x) {
		mask.scanLine(10)[x] = 255;
	}
	const QImage blurred = blurredShadow(mask);
	QCOMPARE(blurred.size(), mask.size());
	for (int distance = 0; distance <= 10; ++distance) {
		const double expected = 255 * std::exp(-distance * distance / 8.0) / (2 * std::sqrt(2 * M_PI));
		QVERIFY(qAbs(blurred.constScanLine(10 + distance)[10] - expected) < 2.5);
		QCOMPARE(blurred.constScanLine(10 - distance)[10], blurred.constScanLine(10 + distance)[10]);
	}
	mask.fill(255);
	QCOMPARE(blurredShadow(mask).constScanLine(10)[10], uchar{255});
}

QTEST_MAIN(CaptionPainterTest)
#include "caption-painter-test.moc"

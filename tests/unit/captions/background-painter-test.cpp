// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/background-painter.h"

#include "captions/caption-css.h"

#include <QElapsedTimer>
#include <QSemaphore>
#include <QTest>
#include <QThreadPool>

using namespace Qt::StringLiterals;

namespace {

constexpr QSize kView(1024, 240);
constexpr int kPatienceMs = 20000;

QByteArray cssOf(const QString &text)
{
	return captionCss({}, text).toUtf8();
}

} // namespace

class BackgroundPainterTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init() { pool = std::make_shared<QThreadPool>(); }

	void ordersAreCarriedOutElsewhere();
	void ofOrdersThatWaitTheLastIsCarriedOut();
	void sameOrderIsCarriedOutOnce();
	void emptyViewHasAnEmptyPictureWhateverTheCss();
	void foreignCssIsToldOf();
	void nobodyWaitsForThePainting();
	void paintersOutliveTheirTasksAndTheOtherWayRound();

private:
	/** All that is under way is done then. */
	bool isIdle() const { return pool->waitForDone(kPatienceMs); }

	std::shared_ptr<QThreadPool> pool;
};

void BackgroundPainterTest::ordersAreCarriedOutElsewhere()
{
	BackgroundPainter painter(pool);
	QVERIFY(!painter.take());
	painter.order(cssOf(u"Hola"_s), kView);
	QVERIFY(isIdle());
	const auto result = painter.take();
	QVERIFY(result.has_value());
	QVERIFY(!result->isForeign);
	QVERIFY(!result->picture.image.isNull());
	QVERIFY2(!painter.take(), "a result is handed over twice");

	painter.order(cssOf({}), kView);
	QVERIFY(isIdle());
	const auto blank = painter.take();
	QVERIFY(blank.has_value());
	QVERIFY(blank->picture.image.isNull());
}

void BackgroundPainterTest::ofOrdersThatWaitTheLastIsCarriedOut()
{
	pool->setMaxThreadCount(1);
	QSemaphore goOn;
	pool->start([&goOn] { goOn.acquire(); });
	BackgroundPainter painter(pool);
	for (const QString &text : {u"a"_s, u"a long caption that nobody waits for"_s, u"i"_s}) {
		painter.order(cssOf(text), kView);
	}
	goOn.release();
	QVERIFY(isIdle());
	const auto result = painter.take();
	QVERIFY(result.has_value());
	QCOMPARE(result->picture.image, paintCaption(*readCaptionSheet(captionCss({}, u"i"_s)), kView).image);
	QVERIFY(!painter.take());
}

void BackgroundPainterTest::sameOrderIsCarriedOutOnce()
{
	BackgroundPainter painter(pool);
	painter.order(cssOf(u"Hola"_s), kView);
	QVERIFY(isIdle());
	QVERIFY(painter.take());
	painter.order(cssOf(u"Hola"_s), kView);
	QVERIFY(isIdle());
	QVERIFY(!painter.take());
	painter.order(cssOf(u"Hola"_s), QSize(512, 240));
	QVERIFY(isIdle());
	QVERIFY(painter.take());
}

void BackgroundPainterTest::emptyViewHasAnEmptyPictureWhateverTheCss()
{
	BackgroundPainter painter(pool);
	painter.order(cssOf(u"Hola"_s), kView);
	painter.order("body { color: red; }", QSize());
	QVERIFY(isIdle());
	const auto result = painter.take();
	QVERIFY(result.has_value());
	QVERIFY(!result->isForeign);
	QVERIFY(result->picture.image.isNull());
}

void BackgroundPainterTest::foreignCssIsToldOf()
{
	BackgroundPainter painter(pool);
	painter.order("body { color: red; }", kView);
	QVERIFY(isIdle());
	const auto result = painter.take();
	QVERIFY(result.has_value());
	QVERIFY(result->isForeign);
	QVERIFY(result->picture.image.isNull());
}

void BackgroundPainterTest::nobodyWaitsForThePainting()
{
	pool->setMaxThreadCount(1);
	QSemaphore goOn;
	pool->start([&goOn] { goOn.acquire(); });
	{
		BackgroundPainter painter(pool);
		painter.order(cssOf(u"Hola"_s), kView);
		QVERIFY(!painter.take());
	}
	// The painter is gone: what it had ordered is not painted any more.
	goOn.release();
	QVERIFY(isIdle());
}

void BackgroundPainterTest::paintersOutliveTheirTasksAndTheOtherWayRound()
{
	for (int round = 0; round < 50; ++round) {
		BackgroundPainter painter(pool);
		for (int number = 0; number < 5; ++number) {
			painter.order(cssOf(QString::number(number)), kView);
			[[maybe_unused]] const auto result = painter.take();
		}
	}
	QVERIFY(isIdle());
}

QTEST_MAIN(BackgroundPainterTest)
#include "background-painter-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-manager.h"

#include "captions/caption-css.h"
#include "captions/caption-source.h"
#include "frontend-stub.h"
#include "log-capture.h"
#include "obs-fixture.h"

#include <QElapsedTimer>
#include <QFile>
#include <QPointer>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <graphics/vec2.h>
#include <obs.hpp>

#include <dlfcn.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <thread>

namespace {

bool browserCreationFails = false;
/** Called before the code under test removes a scene item. */
std::function<void()> beforeRemoval;
/** Called with each scene item that a search has found or that was added, before the caller gets it. */
std::function<void(obs_sceneitem_t *)> itemHook;
/** The JSON of all settings sent to sources since it was emptied. */
QStringList sentSettings;

template <typename Function> Function inLibobs(const char *name)
{
	return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

OBSSourceAutoRelease find(const QString &name)
{
	return obs_get_source_by_name(name.toUtf8().constData());
}

OBSSourceAutoRelease create(const char *id, const QString &name)
{
	return obs_source_create(id, name.toUtf8().constData(), nullptr, nullptr);
}

OBSDataAutoRelease settingsOf(const QString &name)
{
	const OBSSourceAutoRelease source = find(name);
	return obs_source_get_settings(source);
}

QString cssOf(const QString &name)
{
	const OBSDataAutoRelease settings = settingsOf(name);
	return QString::fromUtf8(obs_data_get_string(settings, "css"));
}

QString shown(const QString &text)
{
	return captionCss({}, text);
}

/** A scene, and its end: from OBS 31 on the canvas keeps a scene until it is removed. */
class TestScene {
public:
	explicit TestScene(const char *name) : scene(obs_scene_create(name)) {}
	~TestScene() { obs_source_remove(source()); }

	TestScene(const TestScene &) = delete;
	TestScene &operator=(const TestScene &) = delete;

	operator obs_scene_t *() const { return scene; }
	obs_source_t *source() const { return obs_scene_get_source(scene); }

private:
	const OBSSceneAutoRelease scene;
};

obs_sceneitem_t *itemOf(obs_scene_t *scene, const QString &name)
{
	return obs_scene_find_source(scene, name.toUtf8().constData());
}

vec2 positionOf(obs_sceneitem_t *item)
{
	vec2 position;
	obs_sceneitem_get_pos(item, &position);
	return position;
}

/** Until everything due 500 ms from now has happened: the event loop runs its timers in the order of their times. */
void waitForPlacement()
{
	bool over = false;
	QTimer::singleShot(500, Qt::PreciseTimer, QCoreApplication::instance(), [&over] { over = true; });
	QVERIFY(QTest::qWaitFor([&] { return over; }));
}

} // namespace

obs_source_t *obs_source_create(const char *id, const char *name, obs_data_t *settings, obs_data_t *hotkeys)
{
	static const auto real = inLibobs<decltype(&obs_source_create)>("obs_source_create");
	if (browserCreationFails && QByteArray(id) == "browser_source") {
		return nullptr;
	}
	return real(id, name, settings, hotkeys);
}

void obs_source_update(obs_source_t *source, obs_data_t *settings)
{
	static const auto real = inLibobs<decltype(&obs_source_update)>("obs_source_update");
	sentSettings.append(QString::fromUtf8(obs_data_get_json(settings)));
	real(source, settings);
}

obs_sceneitem_t *obs_scene_find_source(obs_scene_t *scene, const char *name)
{
	static const auto real = inLibobs<decltype(&obs_scene_find_source)>("obs_scene_find_source");
	obs_sceneitem_t *item = real(scene, name);
	if (item && itemHook) {
		itemHook(item);
	}
	return item;
}

obs_sceneitem_t *obs_scene_add(obs_scene_t *scene, obs_source_t *source)
{
	static const auto real = inLibobs<decltype(&obs_scene_add)>("obs_scene_add");
	obs_sceneitem_t *item = real(scene, source);
	if (item && itemHook) {
		itemHook(item);
	}
	return item;
}

void obs_sceneitem_remove(obs_sceneitem_t *item)
{
	static const auto real = inLibobs<decltype(&obs_sceneitem_remove)>("obs_sceneitem_remove");
	if (const auto hook = beforeRemoval) {
		hook();
	}
	real(item);
}

namespace {

/**
 * Removes the first scene item that someone gets on another thread, as a remote control may at any moment, and sees
 * whether the one who got it is kept from losing it.
 */
class ItemRemover {
public:
	ItemRemover()
	{
		itemHook = [this](obs_sceneitem_t *item) { meet(item); };
		beforeRemoval = [this] { wait(); };
	}
	~ItemRemover() { wait(); }

	/** Waits for the removal. True when it was kept out while the caller used the item. */
	bool wasKeptOut()
	{
		wait();
		return removal.valid() && !cameBetween;
	}

private:
	void wait()
	{
		itemHook = nullptr;
		beforeRemoval = nullptr;
		if (removal.valid()) {
			removal.wait();
		}
	}

	void meet(obs_sceneitem_t *item)
	{
		if (removal.valid()) {
			return;
		}
		obs_sceneitem_addref(item);
		removal = std::async(std::launch::async, [item] {
			inLibobs<decltype(&obs_sceneitem_remove)>("obs_sceneitem_remove")(item);
			obs_sceneitem_release(item);
		});
		// Long enough for a removal that nothing holds up.
		cameBetween = removal.wait_for(std::chrono::milliseconds(200)) == std::future_status::ready;
	}

	std::future<void> removal;
	bool cameBetween = false;
};

} // namespace

class CaptionManagerTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void initTestCase();
	void init();
	void cleanup();
	void cleanupTestCase();

	void freshEntriesAndStatesAreEmptyWithAQueueOfThree();
	void displayTimeFollowsTheDuration_data();
	void displayTimeFollowsTheDuration();
	void displayTimeFollowsTheLengthOfTheText_data();
	void displayTimeFollowsTheLengthOfTheText();
	void firstCaptionIsShownAtOnceForItsTime();
	void captionsWaitForTheOneThatIsUp();
	void fourthWaitingCaptionPushesOutTheOldest();
	void textIsBlankedTwoSecondsAfterTheLastCaption();
	void timersOfAStateCallItsTicks();
	void captionStopsTheClearTimer();
	void captionIsLoggedWithItsFirst50Characters();
	void captionWithoutStateIsLoggedAndDropped();
	void synchronisedCaptionNeverStartsTheQueue();
	void synchronisedHeadHoldsBackTheCaptionsBehindIt();
	void clipStartShowsItsCaptionAndStopsBothTimers();
	void clipStartDiscardsAllOlderEntries();
	void clipStartTakesTheFirstOfEqualIds();
	void clipStartOfAnUnknownIdChangesNothing();
	void clipEndBlanksAfter1500MsWhateverItsId();
	void captionReplacesASynchronisedOneAtOnce();
	void captionOfALostClipGoesLikeThatOfAnEndedOne();
	void lostClipLeavesTimedCaptionsAlone();
	void captionsThatWaitedForLostClipsAreShown();
	void captionInFrontOfASynchronisedOneGoes();
	void endOfASessionDropsWhatWaitsAndBlanksWhatIsUp_data();
	void endOfASessionDropsWhatWaitsAndBlanksWhatIsUp();
	void clearedCaptionsAreGone();
	void eventsOfUnknownLanguagesAreIgnoredSilently();
	void languagesDoNotDisturbEachOther();

	void sourcesAreNamedAfterTheLanguageOrItsCode();
	void newSourceIsMadeForTheCanvas_data();
	void newSourceIsMadeForTheCanvas();
	void sameLanguagesAgainChangeNothing();
	void languageAppearingTwiceGetsOneState();
	void droppedLanguageLeavesItsSourceInTheScene();
	void returningLanguageReattachesToItsSource();
	void reattachingSendsThePageAndKeepsTheSize();
	void reattachingSendsNothingThatIsThereAlready();
	void sourceOfAnotherTypeIsReplaced();
	void sourceOfAnotherTypeInAnotherSceneGivesUpItsName();
	void sourceOfAnotherTypeIsReplacedWithoutAScene();
	void removedSourceStillAliveIsNotReattached();
	void failedCreationIsLoggedAndPlacesNothing();
	void sourceIsPlacedAtBottomCentre_data();
	void sourceIsPlacedAtBottomCentre();
	void placementComesAfter500Ms();
	void placementMovesAnItemTheUserHasMoved();
	void placementGoesToTheSceneThatIsCurrentByThen();
	void sourceInAGroupStaysThere();
	void sourceInNoSceneIsPlacedAgain();
	void renamedSourceInNoSceneIsPlacedAgain();
	void sourceShownSomewhereElseIsNotPlaced_data();
	void sourceShownSomewhereElseIsNotPlaced();
	void languagesAndStylePlaceNothing();
	void restoredSourceStaysWhereItIs();
	void sourceThatTurnsUpIsTakenUp();
	void placementWithoutASceneIsMadeUpForLater();
	void placementIntoSomethingThatIsNoSceneDoesNothing();
	void placementOfASourceRemovedByThenDoesNothing();
	void placementThatFailsIsNotLogged();
	void itemIsNotRemovedWhileItIsPlaced_data();
	void itemIsNotRemovedWhileItIsPlaced();
	void itemRemovedByAnotherDuringAMigrationIsStillValid();
	void nothingIsPlacedWhenTheManagerIsGone();
	void styleIsSentToEverySource();
	void unchangedStyleAndTextAreNotSent();
	void textIsSentAsCssOnly();
	void textForAMissingSourceIsLogged();
	void removalOfASourceIsFollowed();
	void removedSourceIsMadeAgain();
	void abandoningRemovesTheSources();
	void clearingLeavesTheSourcesInTheScene();
	void destructionLeavesTheSourcesForReattachment();

	void pageThatIsGoneIsWrittenAgain();
	void pageThatIsTakenMeanwhileIsReplaced();
	void dataFileIsOnlyAName();
	void cssCarriesTheTextOfItsLanguage();

	// To the end: the tests before it run without a browser source, as on an OBS that was built without it.
	void everythingWorksWithAnInstalledBrowserSource();

private:
	LanguageCaptionState &state(const QString &language = "es") { return manager->states.at(language); }
	/** The waiting captions of Spanish, oldest first. */
	QStringList waiting();
	void makeSpanish();

	const QMap<QString, QString> names = {{"es", "Spanish"}, {"de", "German"}};
	const QString spanish = QString::fromUtf8("Talvora Captions — Spanish");
	std::unique_ptr<QTemporaryDir> temporary;
	std::unique_ptr<LogCapture> log;
	std::unique_ptr<ObsFixture> obs;
	std::unique_ptr<TestScene> scene;
	std::unique_ptr<CaptionManager> manager;
};

QStringList CaptionManagerTest::waiting()
{
	QStringList texts;
	for (const CaptionEntry &entry : state().queue) {
		texts.append(entry.text);
	}
	return texts;
}

void CaptionManagerTest::makeSpanish()
{
	manager->setLanguages({"es"}, names);
	log->clear();
	sentSettings.clear();
}

void CaptionManagerTest::initTestCase()
{
	temporary = std::make_unique<QTemporaryDir>();
	QVERIFY(temporary->isValid());
	qputenv("TMPDIR", temporary->path().toUtf8());
	// Lives longer than libobs, whose threads log until its end.
	log = std::make_unique<LogCapture>();
	obs = std::make_unique<ObsFixture>();
	// From OBS 31 on positions are kept relative to the canvas otherwise, and without video there is none.
	const OBSDataAutoRelease ofLibobs = obs_get_private_data();
	obs_data_set_bool(ofLibobs, "AbsoluteCoordinates", true);
}

void CaptionManagerTest::init()
{
	scene = std::make_unique<TestScene>("Scene");
	setCurrentScene(scene->source());
	setCanvasSize(1920, 1080);
	manager = std::make_unique<CaptionManager>();
	browserCreationFails = false;
	sentSettings.clear();
	log->clear();
}

void CaptionManagerTest::cleanup()
{
	manager.reset();
	setCurrentScene(nullptr);
	scene.reset();
	// OBS takes a scene apart on a thread of its own.
	QVERIFY2(QTest::qWaitFor([this] { return !find(spanish); }), "a reference to the caption source is left");
}

void CaptionManagerTest::cleanupTestCase()
{
	obs.reset();
	log.reset();
}

// The queue

void CaptionManagerTest::freshEntriesAndStatesAreEmptyWithAQueueOfThree()
{
	const CaptionEntry entry;
	QVERIFY(entry.text.isEmpty());
	QCOMPARE(entry.displayMs, 3000);
	QCOMPARE(entry.clipId, 0);
	QCOMPARE(entry.syncWithAudio, false);

	std::mutex lock;
	const LanguageCaptionState fresh(lock);
	QVERIFY(fresh.language.isEmpty() && fresh.displayName.isEmpty() && fresh.sourceName.isEmpty());
	QVERIFY(fresh.currentText.isEmpty() && fresh.queue.isEmpty());
	QVERIFY(!fresh.source.get() && !fresh.displayTimer && !fresh.clearTimer);
	QCOMPARE(fresh.maxQueue, 3);
}

void CaptionManagerTest::displayTimeFollowsTheDuration_data()
{
	QTest::addColumn<double>("seconds");
	QTest::addColumn<int>("ms");
	QTest::newRow("0.5 s") << 0.5 << 1800;
	QTest::newRow("2.0 s") << 2.0 << 2500;
	QTest::newRow("10.0 s") << 10.0 << 8000;
	QTest::newRow("half a second is added") << 1.3 << 1800;
	QTest::newRow("just above the least") << 1.302 << 1802;
	QTest::newRow("cut, not rounded") << 2.0009 << 2500;
	QTest::newRow("just below the most") << 7.4999 << 7999;
	QTest::newRow("the most") << 7.5 << 8000;
	QTest::newRow("tiny") << 1e-300 << 1800;
	QTest::newRow("beyond all whole numbers") << 1e300 << 8000;
	QTest::newRow("infinite") << std::numeric_limits<double>::infinity() << 8000;
	// No duration: 60 characters at 75 ms.
	QTest::newRow("zero") << 0.0 << 4500;
	QTest::newRow("negative") << -2.0 << 4500;
	QTest::newRow("not a number") << std::nan("") << 4500;
}

void CaptionManagerTest::displayTimeFollowsTheDuration()
{
	QFETCH(double, seconds);
	QFETCH(int, ms);
	makeSpanish();
	manager->onCaption("es", QString(60, 'x'), seconds, 1, true);
	QCOMPARE(state().queue.first().displayMs, ms);
}

void CaptionManagerTest::displayTimeFollowsTheLengthOfTheText_data()
{
	QTest::addColumn<QString>("text");
	QTest::addColumn<float>("speed");
	QTest::addColumn<int>("ms");
	QTest::newRow("empty") << "" << 1.0f << 1800;
	QTest::newRow("24 characters") << QString(24, 'x') << 1.0f << 1800;
	QTest::newRow("25 characters") << QString(25, 'x') << 1.0f << 1875;
	QTest::newRow("60 characters") << QString(60, 'x') << 1.0f << 4500;
	QTest::newRow("106 characters") << QString(106, 'x') << 1.0f << 7950;
	QTest::newRow("107 characters") << QString(107, 'x') << 1.0f << 8000;
	QTest::newRow("a million characters") << QString(1000000, 'x') << 1.0f << 8000;
	QTest::newRow("30 pairs of UTF-16 units") << QString::fromUtf8("😀").repeated(30) << 1.0f << 4500;
	QTest::newRow("twice as fast") << QString(60, 'x') << 2.0f << 2250;
	QTest::newRow("cut, not rounded") << QString(61, 'x') << 2.0f << 2287;
	QTest::newRow("speed zero") << QString(60, 'x') << 0.0f << 4500;
	QTest::newRow("negative speed") << QString(60, 'x') << -2.0f << 4500;
	QTest::newRow("speed not a number") << QString(60, 'x') << std::nanf("") << 4500;
	QTest::newRow("tiny speed") << QString(60, 'x') << 1e-30f << 8000;
}

void CaptionManagerTest::displayTimeFollowsTheLengthOfTheText()
{
	QFETCH(QString, text);
	QFETCH(float, speed);
	QFETCH(int, ms);
	QCOMPARE(CaptionManager::calcDisplayMs(text, speed), ms);
}

void CaptionManagerTest::firstCaptionIsShownAtOnceForItsTime()
{
	makeSpanish();
	manager->onCaption("es", "Hola", 2.0, 7, false);
	QCOMPARE(state().currentText, "Hola");
	QCOMPARE(cssOf(spanish), shown("Hola"));
	QVERIFY(waiting().isEmpty());
	QVERIFY(state().displayTimer->isActive());
	QCOMPARE(state().displayTimer->interval(), 2500);
	QVERIFY(!state().clearTimer->isActive());
}

void CaptionManagerTest::captionsWaitForTheOneThatIsUp()
{
	makeSpanish();
	manager->onCaption("es", "1", 0, 1, false);
	manager->onCaption("es", "2", 3.0, 2, false);
	manager->onCaption("es", "3", 0, 3, false);
	QCOMPARE(state().currentText, "1");
	QCOMPARE(waiting(), QStringList({"2", "3"}));

	manager->onDisplayTimerTick("es");
	QCOMPARE(state().currentText, "2");
	QCOMPARE(cssOf(spanish), shown("2"));
	QCOMPARE(state().displayTimer->interval(), 3500);
	QCOMPARE(waiting(), QStringList({"3"}));
}

void CaptionManagerTest::fourthWaitingCaptionPushesOutTheOldest()
{
	makeSpanish();
	for (const char *text : {"up", "1", "2", "3"}) {
		manager->onCaption("es", text, 0, 0, false);
	}
	QCOMPARE(waiting(), QStringList({"1", "2", "3"}));
	manager->onCaption("es", "4", 0, 0, false);
	QCOMPARE(waiting(), QStringList({"2", "3", "4"}));
	QCOMPARE(state().currentText, "up");
	manager->onCaption("es", "5", 0, 0, true);
	QCOMPARE(waiting(), QStringList({"3", "4", "5"}));
}

void CaptionManagerTest::textIsBlankedTwoSecondsAfterTheLastCaption()
{
	makeSpanish();
	manager->onCaption("es", "last", 0, 0, false);
	state().displayTimer->stop(); // as a single-shot timer that has fired
	manager->onDisplayTimerTick("es");
	QCOMPARE(state().currentText, "last");
	QVERIFY(state().clearTimer->isActive());
	QCOMPARE(state().clearTimer->interval(), 2000);
	QVERIFY(!state().displayTimer->isActive());

	manager->onClearTimerTick("es");
	QCOMPARE(state().currentText, "");
	QCOMPARE(cssOf(spanish), shown(""));
}

void CaptionManagerTest::timersOfAStateCallItsTicks()
{
	makeSpanish();
	for (const QTimer *timer : {state().displayTimer, state().clearTimer}) {
		QVERIFY(timer->isSingleShot());
		QCOMPARE(timer->timerType(), Qt::PreciseTimer);
		QCOMPARE(timer->parent(), manager.get());
	}
	manager->onCaption("es", "1", 0, 0, false);
	manager->onCaption("es", "2", 0, 0, false);
	state().displayTimer->start(1);
	QVERIFY(QTest::qWaitFor([&] { return state().currentText == "2"; }));
	state().clearTimer->start(1);
	QVERIFY(QTest::qWaitFor([&] { return state().currentText == ""; }));
}

void CaptionManagerTest::captionStopsTheClearTimer()
{
	makeSpanish();
	manager->onClipEnded("es", 1);
	QVERIFY(state().clearTimer->isActive());
	manager->onCaption("es", "next", 0, 0, false);
	QVERIFY(!state().clearTimer->isActive());
}

void CaptionManagerTest::captionIsLoggedWithItsFirst50Characters()
{
	makeSpanish();
	manager->onCaption("es", QString(49, 'x') + "yz", 0, 0, false);
	manager->onCaption("es", "short", 0, 0, false);
	manager->onCaption("es", "spoken", 0, 1, true);
	QCOMPARE(log->lines(LOG_INFO),
		 QStringList({"[talvora-obs] CaptionManager: caption for 'es': \"" + QString(49, 'x') + "y\"",
			      "[talvora-obs] CaptionManager: advancing queue for 'es' (queue=1) [timer fallback]",
			      "[talvora-obs] CaptionManager: caption for 'es': \"short\"",
			      "[talvora-obs] CaptionManager: caption for 'es': \"spoken\""}));
	QVERIFY(log->lines(LOG_WARNING).isEmpty());
}

void CaptionManagerTest::captionWithoutStateIsLoggedAndDropped()
{
	manager->onCaption("fr", "Bonjour", 0, 0, false);
	QCOMPARE(log->lines(LOG_WARNING),
		 QStringList({"[talvora-obs] CaptionManager: no state for language 'fr' (have: 0 states)"}));

	manager->setLanguages({"es", "de"}, names);
	log->clear();
	sentSettings.clear();
	manager->onCaption("fr", "Bonjour", 0, 0, false);
	QCOMPARE(log->ownLines(),
		 QStringList({"[talvora-obs] CaptionManager: no state for language 'fr' (have: 2 states)"}));
	QCOMPARE(log->lines(LOG_WARNING), log->ownLines());
	QVERIFY(sentSettings.isEmpty());
	QVERIFY(waiting().isEmpty());
}

void CaptionManagerTest::synchronisedCaptionNeverStartsTheQueue()
{
	makeSpanish();
	manager->onCaption("es", "spoken", 2.0, 1, true);
	QCOMPARE(waiting(), QStringList({"spoken"}));
	QCOMPARE(state().currentText, "");
	QVERIFY(!state().displayTimer->isActive());
	QCOMPARE(log->ownLines(), QStringList({"[talvora-obs] CaptionManager: caption for 'es': \"spoken\""}));
}

void CaptionManagerTest::synchronisedHeadHoldsBackTheCaptionsBehindIt()
{
	makeSpanish();
	manager->onCaption("es", "spoken", 2.0, 1, true);
	manager->onCaption("es", "timed", 0, 0, false);
	QVERIFY(log->contains(LOG_INFO,
			      "[talvora-obs] CaptionManager: advancing queue for 'es' (queue=2) [timer fallback]"));
	QCOMPARE(state().currentText, "");
	QCOMPARE(waiting(), QStringList({"spoken", "timed"}));
	manager->onDisplayTimerTick("es");
	QCOMPARE(state().currentText, "");
	QVERIFY(!state().displayTimer->isActive());

	manager->onClipStarted("es", 1);
	QCOMPARE(state().currentText, "spoken");
	QCOMPARE(waiting(), QStringList({"timed"}));
}

void CaptionManagerTest::clipStartShowsItsCaptionAndStopsBothTimers()
{
	makeSpanish();
	manager->onCaption("es", "timed", 0, 0, false);
	manager->onCaption("es", "spoken", 2.0, 5, true);
	manager->onClipEnded("es", 4);
	QVERIFY(state().displayTimer->isActive() && state().clearTimer->isActive());

	manager->onClipStarted("es", 5);
	QCOMPARE(state().currentText, "spoken");
	QCOMPARE(cssOf(spanish), shown("spoken"));
	QVERIFY(!state().displayTimer->isActive());
	QVERIFY(!state().clearTimer->isActive());
}

void CaptionManagerTest::clipStartDiscardsAllOlderEntries()
{
	makeSpanish();
	manager->onCaption("es", "1", 0, 1, true);
	manager->onCaption("es", "2", 0, 2, true);
	manager->onCaption("es", "3", 0, 3, true);
	sentSettings.clear();
	manager->onClipStarted("es", 2);
	QCOMPARE(state().currentText, "2");
	QCOMPARE(waiting(), QStringList({"3"}));
	QCOMPARE(sentSettings.size(), 1);
}

void CaptionManagerTest::clipStartTakesTheFirstOfEqualIds()
{
	makeSpanish();
	manager->onCaption("es", "a", 0, 1, true);
	manager->onCaption("es", "b", 0, 1, true);
	manager->onClipStarted("es", 1);
	QCOMPARE(state().currentText, "a");
	QCOMPARE(waiting(), QStringList({"b"}));
}

void CaptionManagerTest::clipStartOfAnUnknownIdChangesNothing()
{
	makeSpanish();
	manager->onClipStarted("es", 0); // nothing waits
	manager->onCaption("es", "up", 0, 1, false);
	manager->onCaption("es", "waits", 0, 2, true);
	manager->onClipEnded("es", 1);
	sentSettings.clear();
	manager->onClipStarted("es", 3);
	manager->onClipStarted("es", 1); // shown already
	QCOMPARE(state().currentText, "up");
	QCOMPARE(waiting(), QStringList({"waits"}));
	QVERIFY(state().displayTimer->isActive() && state().clearTimer->isActive());
	QVERIFY(sentSettings.isEmpty());
}

void CaptionManagerTest::clipEndBlanksAfter1500MsWhateverItsId()
{
	makeSpanish();
	manager->onCaption("es", "spoken", 0, 5, true);
	manager->onClipStarted("es", 5);
	manager->onClipEnded("es", 99);
	QVERIFY(state().clearTimer->isActive());
	QCOMPARE(state().clearTimer->interval(), 1500);
	QCOMPARE(state().currentText, "spoken");
	manager->onClearTimerTick("es");
	QCOMPARE(cssOf(spanish), shown(""));
}

void CaptionManagerTest::captionReplacesASynchronisedOneAtOnce()
{
	makeSpanish();
	manager->onCaption("es", "spoken", 0, 5, true);
	manager->onClipStarted("es", 5);
	manager->onCaption("es", "timed", 0, 0, false);
	QCOMPARE(state().currentText, "timed");
	QVERIFY(state().displayTimer->isActive());
}

void CaptionManagerTest::captionOfALostClipGoesLikeThatOfAnEndedOne()
{
	makeSpanish();
	manager->onCaption("es", "spoken", 0, 5, true);
	manager->onClipStarted("es", 5);
	manager->onClipLost("es");
	QVERIFY(state().clearTimer->isActive());
	QCOMPARE(state().clearTimer->interval(), 1500);
	QCOMPARE(state().currentText, "spoken");
	manager->onClearTimerTick("es");
	QCOMPARE(cssOf(spanish), shown(""));
	state().clearTimer->stop();

	// With nothing up there is nothing to blank.
	manager->onClipLost("es");
	manager->onClipLost("fr");
	QVERIFY(!state().clearTimer->isActive());
}

void CaptionManagerTest::lostClipLeavesTimedCaptionsAlone()
{
	makeSpanish();
	manager->onCaption("es", "timed", 8.0, 1, false);
	manager->onClipLost("es");
	QVERIFY(state().displayTimer->isActive());
	QVERIFY(!state().clearTimer->isActive());

	// Nor does a second loss give the caption more time.
	manager->onDisplayTimerTick("es");
	state().displayTimer->stop();
	QCOMPARE(state().clearTimer->interval(), 2000);
	manager->onClipLost("es");
	QCOMPARE(state().clearTimer->interval(), 2000);
}

void CaptionManagerTest::captionsThatWaitedForLostClipsAreShown()
{
	makeSpanish();
	manager->onCaption("es", "1", 0, 1, false);
	manager->onCaption("es", "2", 0, 2, false);
	manager->onCaption("es", "3", 0, 3, false);
	manager->onClipStarted("es", 2);
	manager->onClipEnded("es", 2);
	QCOMPARE(state().currentText, "2");
	QCOMPARE(waiting(), QStringList({"3"}));
	manager->onClearTimerTick("es");
	QCOMPARE(cssOf(spanish), shown("3"));
	QVERIFY(state().displayTimer->isActive());
	QVERIFY(!state().clearTimer->isActive());

	// The end of a clip blanks a timed caption, too; the next one keeps its turn.
	manager->onCaption("es", "4", 0, 4, false);
	manager->onClearTimerTick("es");
	QCOMPARE(cssOf(spanish), shown(""));
	QCOMPARE(waiting(), QStringList({"4"}));
}

void CaptionManagerTest::captionInFrontOfASynchronisedOneGoes()
{
	makeSpanish();
	manager->onCaption("es", "timed", 0, 1, false);
	manager->onCaption("es", "spoken", 0, 2, true);
	state().displayTimer->stop();
	manager->onDisplayTimerTick("es");
	QCOMPARE(state().currentText, "timed");
	QVERIFY(state().clearTimer->isActive());
	QCOMPARE(state().clearTimer->interval(), 2000);
	// One that comes behind it does not keep it up.
	manager->onCaption("es", "behind", 0, 3, false);
	QVERIFY(state().clearTimer->isActive());
	manager->onClearTimerTick("es");
	QCOMPARE(cssOf(spanish), shown(""));
	QCOMPARE(waiting(), QStringList({"spoken", "behind"}));
}

void CaptionManagerTest::endOfASessionDropsWhatWaitsAndBlanksWhatIsUp_data()
{
	QTest::addColumn<bool>("clipIsPlaying");
	QTest::addColumn<bool>("clipHasEnded");
	QTest::addColumn<int>("ms");
	QTest::newRow("timed") << false << false << 2000;
	QTest::newRow("a clip is playing") << true << false << 2000;
	QTest::newRow("going already") << true << true << 1500;
}

void CaptionManagerTest::endOfASessionDropsWhatWaitsAndBlanksWhatIsUp()
{
	QFETCH(bool, clipIsPlaying);
	QFETCH(bool, clipHasEnded);
	QFETCH(int, ms);
	manager->setLanguages({"es", "de"}, names);
	for (const char *text : {"1", "2", "3"}) {
		manager->onCaption("es", text, 8.0, QByteArray(text).toInt(), false);
	}
	if (clipIsPlaying) {
		manager->onClipStarted("es", 2);
	}
	if (clipHasEnded) {
		manager->onClipEnded("es", 2);
	}
	manager->endSession();
	QVERIFY(waiting().isEmpty());
	QVERIFY(!state().displayTimer->isActive());
	QVERIFY(state().clearTimer->isActive());
	QCOMPARE(state().clearTimer->interval(), ms);
	QVERIFY2(!state("de").clearTimer->isActive(), "nothing is up in German");

	// Neither a clip of that session nor its last drop keeps it up longer.
	manager->onClipStarted("es", 3);
	manager->endSession();
	QVERIFY(QTest::qWaitFor([this] { return cssOf(spanish) == shown(""); }, 2100));
}

void CaptionManagerTest::clearedCaptionsAreGone()
{
	makeSpanish();
	manager->onCaption("es", "up", 0, 0, false);
	manager->onCaption("es", "waits", 0, 0, false);
	manager->onClipEnded("es", 1);
	manager->onCaptionCleared("es");
	QVERIFY(waiting().isEmpty());
	QVERIFY(!state().displayTimer->isActive() && !state().clearTimer->isActive());
	QCOMPARE(state().currentText, "");
	QCOMPARE(cssOf(spanish), shown(""));
}

void CaptionManagerTest::eventsOfUnknownLanguagesAreIgnoredSilently()
{
	makeSpanish();
	manager->onCaptionCleared("fr");
	manager->onClipStarted("fr", 1);
	manager->onClipEnded("fr", 1);
	manager->onDisplayTimerTick("fr");
	manager->onClearTimerTick("fr");
	manager->onClearTimerTick("ES");
	QVERIFY(log->ownLines().isEmpty());
	QVERIFY(sentSettings.isEmpty());
	QVERIFY(!state().displayTimer->isActive() && !state().clearTimer->isActive());
	QCOMPARE(manager->states.size(), 1u);
}

void CaptionManagerTest::languagesDoNotDisturbEachOther()
{
	manager->setLanguages({"es", "de"}, names);
	manager->onCaption("es", "Hola", 0, 1, false);
	manager->onCaption("de", "Hallo", 0, 1, true);
	manager->onClipStarted("de", 1);
	QCOMPARE(cssOf(spanish), shown("Hola"));
	QCOMPARE(cssOf(QString::fromUtf8("Talvora Captions — German")), shown("Hallo"));
	QVERIFY(state("es").displayTimer->isActive());
	manager->onCaptionCleared("es");
	QCOMPARE(state("de").currentText, "Hallo");
}

// The sources

void CaptionManagerTest::sourcesAreNamedAfterTheLanguageOrItsCode()
{
	manager->setLanguages({"fr", "es"}, {{"es", "Spanish"}});
	const QString french = QString::fromUtf8("Talvora Captions \xe2\x80\x94 fr");
	QCOMPARE(state("es").sourceName, QString::fromUtf8("Talvora Captions \xe2\x80\x94 Spanish"));
	QCOMPARE(state("es").displayName, "Spanish");
	QCOMPARE(state("es").language, "es");
	QCOMPARE(state("fr").sourceName, french);
	QCOMPARE(state("fr").displayName, "fr");
	for (const QString &name : {spanish, french}) {
		const OBSSourceAutoRelease source = find(name);
		QVERIFY2(source, qPrintable(name));
		QCOMPARE(obs_source_get_id(source), "browser_source");
	}
	// In the order of the list, not of the codes.
	QCOMPARE(log->ownLines(), QStringList({"[talvora-obs] CaptionManager: created source '" + french + "'",
					       "[talvora-obs] CaptionManager: added state for 'fr'",
					       "[talvora-obs] CaptionManager: created source '" + spanish + "'",
					       "[talvora-obs] CaptionManager: added state for 'es'"}));
	QCOMPARE(log->lines(LOG_INFO).filter("[talvora-obs] "), log->ownLines());
}

void CaptionManagerTest::newSourceIsMadeForTheCanvas_data()
{
	QTest::addColumn<uint32_t>("canvasWidth");
	QTest::addColumn<uint32_t>("canvasHeight");
	QTest::addColumn<int>("width");
	QTest::newRow("1920 by 1080") << 1920u << 1080u << 1536;
	QTest::newRow("1280 by 720") << 1280u << 720u << 1024;
	QTest::newRow("cut, not rounded") << 1366u << 768u << 1092;
	QTest::newRow("no video") << 0u << 0u << 1536;
}

void CaptionManagerTest::newSourceIsMadeForTheCanvas()
{
	QFETCH(uint32_t, canvasWidth);
	QFETCH(uint32_t, canvasHeight);
	QFETCH(int, width);
	setCanvasSize(canvasWidth, canvasHeight);
	manager->setLanguages({"es"}, names);
	const OBSDataAutoRelease settings = settingsOf(spanish);
	QCOMPARE(obs_data_get_bool(settings, "is_local_file"), true);
	QCOMPARE(QString::fromUtf8(obs_data_get_string(settings, "local_file")), manager->getBrowserHtmlPath("es"));
	QCOMPARE(obs_data_get_int(settings, "width"), width);
	QCOMPARE(obs_data_get_int(settings, "height"), 240);
	QCOMPARE(QString::fromUtf8(obs_data_get_string(settings, "css")), shown(""));
}

void CaptionManagerTest::sameLanguagesAgainChangeNothing()
{
	manager->setLanguages({"es", "de"}, names);
	manager->onCaption("es", "Hola", 0, 0, false);
	const OBSSourceAutoRelease before = find(spanish);
	const QTimer *timer = state().displayTimer;
	log->clear();
	sentSettings.clear();

	manager->setLanguages({"de", "es"}, {{"es", "Castilian"}});
	QCOMPARE(manager->states.size(), 2u);
	const OBSSourceAutoRelease after = find(spanish);
	QCOMPARE(after.Get(), before.Get());
	QCOMPARE(state().source.get(), before.Get());
	QCOMPARE(state().displayName, "Spanish");
	QCOMPARE(state().currentText, "Hola");
	QCOMPARE(state().displayTimer, timer);
	QVERIFY(timer->isActive());
	QVERIFY(log->ownLines().isEmpty());
	QVERIFY(sentSettings.isEmpty());
}

void CaptionManagerTest::languageAppearingTwiceGetsOneState()
{
	manager->setLanguages({"es", "es"}, names);
	QCOMPARE(manager->states.size(), 1u);
	QCOMPARE(log->ownLines().filter("created source").size(), 1);
}

void CaptionManagerTest::droppedLanguageLeavesItsSourceInTheScene()
{
	manager->setLanguages({"es", "de"}, names);
	waitForPlacement();
	const QPointer<QTimer> displayTimer = state().displayTimer;
	const QPointer<QTimer> clearTimer = state().clearTimer;
	manager->onCaption("es", "Hola", 0, 0, false);

	manager->setLanguages({"de", "ES"}, names);
	QCOMPARE(cssOf(spanish), shown(""));
	QVERIFY(!manager->states.contains("es"));
	QVERIFY(manager->states.contains("de"));
	QVERIFY(!displayTimer->isActive());
	const OBSSourceAutoRelease source = find(spanish);
	QVERIFY(source);
	QVERIFY(!obs_source_removed(source));
	QVERIFY(itemOf(*scene, spanish));
	QVERIFY(QTest::qWaitFor([&] { return displayTimer.isNull() && clearTimer.isNull(); }));
}

void CaptionManagerTest::returningLanguageReattachesToItsSource()
{
	manager->setLanguages({"es"}, names);
	waitForPlacement();
	const OBSSourceAutoRelease before = find(spanish);
	manager->setLanguages({}, names);
	log->clear();
	manager->setLanguages({"es"}, names);
	QCOMPARE(state().source.get(), before.Get());
	QCOMPARE(log->ownLines(),
		 QStringList({"[talvora-obs] CaptionManager: reattached to existing source '" + spanish + "'",
			      "[talvora-obs] CaptionManager: added state for 'es'"}));
}

void CaptionManagerTest::reattachingSendsThePageAndKeepsTheSize()
{
	const OBSDataAutoRelease old = obs_data_create();
	obs_data_set_int(old, "width", 800);
	obs_data_set_int(old, "height", 100);
	obs_data_set_bool(old, "is_local_file", false);
	obs_data_set_string(old, "css", "body { color: red; }");
	const OBSSourceAutoRelease source =
		obs_source_create("browser_source", spanish.toUtf8().constData(), old, nullptr);

	manager->setLanguages({"es"}, names);
	QCOMPARE(state().source.get(), source.Get());
	QCOMPARE(sentSettings.size(), 1);
	QVERIFY(!sentSettings.first().contains("width") && !sentSettings.first().contains("height"));
	const OBSDataAutoRelease settings = settingsOf(spanish);
	QCOMPARE(obs_data_get_int(settings, "width"), 800);
	QCOMPARE(obs_data_get_int(settings, "height"), 100);
	QCOMPARE(obs_data_get_bool(settings, "is_local_file"), true);
	QCOMPARE(QString::fromUtf8(obs_data_get_string(settings, "local_file")), manager->getBrowserHtmlPath("es"));
	QCOMPARE(cssOf(spanish), shown(""));
}

void CaptionManagerTest::reattachingSendsNothingThatIsThereAlready()
{
	makeSpanish();
	const OBSSourceAutoRelease kept = find(spanish);
	manager->clearAll();
	manager->setLanguages({"es"}, names);
	QVERIFY(sentSettings.isEmpty());
	QCOMPARE(state().source.get(), kept.Get());
}

void CaptionManagerTest::sourceOfAnotherTypeIsReplaced()
{
	{
		const OBSSourceAutoRelease text = create("text_ft2_source_v2", spanish);
		QVERIFY(obs_scene_add(*scene, text));
	}
	manager->setLanguages({"es"}, names);
	QVERIFY(!itemOf(*scene, spanish));
	QCOMPARE(log->ownLines().first(), "[talvora-obs] CaptionManager: migrating source '" + spanish +
						  "' from text_ft2_source_v2 to browser_source");
	QCOMPARE(log->ownLines().at(1), "[talvora-obs] CaptionManager: created source '" + spanish + "'");
	const OBSSourceAutoRelease source = find(spanish);
	QVERIFY(source);
	QCOMPARE(obs_source_get_id(source), "browser_source");
	QCOMPARE(state().source.get(), source.Get());

	waitForPlacement();
	QCOMPARE(obs_sceneitem_get_source(itemOf(*scene, spanish)), source.Get());
}

void CaptionManagerTest::sourceOfAnotherTypeInAnotherSceneGivesUpItsName()
{
	const TestScene other("Other");
	const OBSSourceAutoRelease text = create("text_ft2_source_v2", spanish);
	QVERIFY(obs_scene_add(*scene, text));
	QVERIFY(obs_scene_add(other, text));

	manager->setLanguages({"es"}, names);
	QVERIFY(!itemOf(*scene, spanish));
	QCOMPARE(QString::fromUtf8(obs_source_get_name(text)), spanish + " (old)");
	const QString renamed =
		"[talvora-obs] Talvora: renamed source '" + spanish + "' to '" + spanish + " (old)' to free its name";
	QCOMPARE(log->ownLines().at(1), renamed);
	QVERIFY(log->contains(LOG_INFO, renamed));
	QVERIFY(!obs_source_removed(text));
	QVERIFY(itemOf(other, spanish + " (old)"));
	QCOMPARE(QString::fromUtf8(obs_source_get_name(state().source.get())), spanish);

	waitForPlacement();
	QCOMPARE(obs_sceneitem_get_source(itemOf(*scene, spanish)), state().source.get());
	QVERIFY(!itemOf(*scene, spanish + " (old)"));
}

void CaptionManagerTest::sourceOfAnotherTypeIsReplacedWithoutAScene()
{
	const OBSSourceAutoRelease text = create("text_ft2_source_v2", spanish);
	setCurrentScene(nullptr);
	manager->setLanguages({"es"}, names);
	QCOMPARE(obs_source_get_id(state().source.get()), "browser_source");
	QCOMPARE(QString::fromUtf8(obs_source_get_name(state().source.get())), spanish);
}

void CaptionManagerTest::removedSourceStillAliveIsNotReattached()
{
	const OBSSourceAutoRelease dying = create("browser_source", spanish);
	obs_source_remove(dying);
	manager->setLanguages({"es"}, names);
	QVERIFY(state().source.get());
	QVERIFY(state().source.get() != dying);
	QCOMPARE(QString::fromUtf8(obs_source_get_name(state().source.get())), spanish);
	QVERIFY(log->ownLines().contains("[talvora-obs] CaptionManager: created source '" + spanish + "'"));
}

void CaptionManagerTest::failedCreationIsLoggedAndPlacesNothing()
{
	browserCreationFails = true;
	manager->setLanguages({"es"}, names);
	QCOMPARE(log->lines(LOG_WARNING),
		 QStringList({"[talvora-obs] CaptionManager: failed to create source '" + spanish + "'"}));
	QVERIFY(manager->states.contains("es"));
	QVERIFY(!state().source.get());

	// One of that name which turns up meanwhile is not placed.
	browserCreationFails = false;
	const OBSSourceAutoRelease another = create("browser_source", spanish);
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));

	manager->onCaption("es", "Hola", 0, 0, false);
	QVERIFY(log->contains(LOG_WARNING, "[talvora-obs] CaptionManager: updateObsText for 'es' but source is null"));
}

void CaptionManagerTest::sourceIsPlacedAtBottomCentre_data()
{
	QTest::addColumn<uint32_t>("width");
	QTest::addColumn<uint32_t>("height");
	QTest::addColumn<float>("x");
	QTest::addColumn<float>("y");
	QTest::addColumn<QString>("logged");
	QTest::newRow("1920 by 1080") << 1920u << 1080u << 960.0f << 1020.0f << "(960, 1020)";
	QTest::newRow("1280 by 720") << 1280u << 720u << 640.0f << 660.0f << "(640, 660)";
	QTest::newRow("odd width") << 1367u << 768u << 683.5f << 708.0f << "(684, 708)";
	QTest::newRow("no video") << 0u << 0u << 960.0f << 1020.0f << "(960, 1020)";
}

void CaptionManagerTest::sourceIsPlacedAtBottomCentre()
{
	QFETCH(uint32_t, width);
	QFETCH(uint32_t, height);
	QFETCH(float, x);
	QFETCH(float, y);
	QFETCH(QString, logged);
	setCanvasSize(width, height);
	makeSpanish();
	const OBSSourceAutoRelease source = find(spanish);
	autoPlaceCaptionSource(source);
	obs_sceneitem_t *item = itemOf(*scene, spanish);
	QVERIFY(item);
	QCOMPARE(obs_sceneitem_get_source(item), source.Get());
	QCOMPARE(obs_sceneitem_get_alignment(item), uint32_t{OBS_ALIGN_BOTTOM});
	QCOMPARE(positionOf(item).x, x);
	QCOMPARE(positionOf(item).y, y);
	QCOMPARE(log->ownLines(),
		 QStringList({"[talvora-obs] CaptionManager: placed '" + spanish + "' at bottom-centre " + logged}));
}

void CaptionManagerTest::placementComesAfter500Ms()
{
	// No clock can tell 500 from 501.
	QCOMPARE(CaptionManager::kPlacementDelayMs, 500);
	QElapsedTimer clock;
	clock.start();
	manager->setLanguages({"es"}, names);
	QVERIFY(!itemOf(*scene, spanish));
	QVERIFY(QTest::qWaitFor([&] { return itemOf(*scene, spanish) != nullptr; }));
	QVERIFY2(clock.elapsed() >= 499, qPrintable(QString::number(clock.elapsed())));
	QVERIFY(log->contains(LOG_INFO,
			      "[talvora-obs] CaptionManager: placed '" + spanish + "' at bottom-centre (960, 1020)"));
}

void CaptionManagerTest::placementMovesAnItemTheUserHasMoved()
{
	const OBSSourceAutoRelease source = create("browser_source", spanish);
	obs_sceneitem_t *item = obs_scene_add(*scene, source);
	const vec2 elsewhere = {{{5.0f, 6.0f}}};
	obs_sceneitem_set_pos(item, &elsewhere);
	manager->setLanguages({"es"}, names);
	waitForPlacement();
	QCOMPARE(itemOf(*scene, spanish), item);
	QCOMPARE(obs_sceneitem_get_alignment(item), uint32_t{OBS_ALIGN_BOTTOM});
	QCOMPARE(positionOf(item).x, 960.0f);
	QCOMPARE(positionOf(item).y, 1020.0f);
}

void CaptionManagerTest::placementGoesToTheSceneThatIsCurrentByThen()
{
	const TestScene other("Other");
	manager->setLanguages({"es"}, names);
	setCurrentScene(other.source());
	scene.reset();
	waitForPlacement();
	QVERIFY(itemOf(other, spanish));
}

void CaptionManagerTest::sourceInAGroupStaysThere()
{
	const OBSSourceAutoRelease source = create("browser_source", spanish);
	obs_sceneitem_t *group = obs_scene_add_group(*scene, "Group");
	obs_sceneitem_t *item = obs_scene_add(obs_sceneitem_group_get_scene(group), source);
	const vec2 place = {{{5.0f, 6.0f}}};
	obs_sceneitem_set_pos(item, &place);
	manager->setLanguages({"es"}, names);
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));
	QCOMPARE(positionOf(item).x, 5.0f);
	QCOMPARE(positionOf(item).y, 6.0f);
	QVERIFY(log->contains(LOG_INFO, "[talvora-obs] CaptionManager: left '" + spanish + "' in its group"));

	// Nor is it missed when a session starts.
	log->clear();
	manager->restoreSources();
	manager->placeMissing();
	waitForPlacement();
	QVERIFY(log->ownLines().isEmpty());
}

void CaptionManagerTest::sourceInNoSceneIsPlacedAgain()
{
	manager->setLanguages({"es"}, names);
	manager->restoreSources();
	manager->placeMissing();
	waitForPlacement();
	const QString placed = "[talvora-obs] CaptionManager: placed '" + spanish + "' at bottom-centre (960, 1020)";
	QCOMPARE(log->ownLines().count(placed), 1);

	obs_sceneitem_remove(itemOf(*scene, spanish));
	QVERIFY(!itemOf(*scene, spanish));
	manager->restoreSources();
	manager->placeMissing();
	waitForPlacement();
	QVERIFY(itemOf(*scene, spanish));
	QCOMPARE(log->ownLines().count(placed), 2);

	const TestScene other("Other");
	const OBSSourceAutoRelease source = find(spanish);
	obs_scene_add(other, source);
	obs_sceneitem_remove(itemOf(*scene, spanish));
	manager->restoreSources();
	manager->placeMissing();
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));
}

void CaptionManagerTest::renamedSourceInNoSceneIsPlacedAgain()
{
	makeSpanish();
	waitForPlacement();
	const OBSSourceAutoRelease source = find(spanish);
	obs_source_set_name(source, "Mine");
	obs_sceneitem_remove(itemOf(*scene, "Mine"));
	manager->restoreSources();
	manager->placeMissing();
	waitForPlacement();
	QVERIFY(itemOf(*scene, "Mine"));
}

void CaptionManagerTest::sourceShownSomewhereElseIsNotPlaced_data()
{
	QTest::addColumn<bool>("inAScene");
	QTest::newRow("in a scene of another module") << true;
	QTest::newRow("in no scene, but seen") << false;
}

void CaptionManagerTest::sourceShownSomewhereElseIsNotPlaced()
{
	QFETCH(bool, inAScene);
	makeSpanish();
	waitForPlacement();
	obs_sceneitem_remove(itemOf(*scene, spanish));
	const OBSSourceAutoRelease source = find(spanish);
	// Like a canvas of OBS 32, such a scene is not among those of obs_enum_scenes().
	const OBSSceneAutoRelease vertical = obs_scene_create_private("Vertical");
	if (inAScene) {
		obs_scene_add(vertical, source);
	} else {
		obs_source_inc_showing(source);
	}
	manager->placeMissing();
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));

	if (inAScene) {
		obs_sceneitem_remove(itemOf(vertical, spanish));
	} else {
		obs_source_dec_showing(source);
	}
	manager->placeMissing();
	waitForPlacement();
	QVERIFY(itemOf(*scene, spanish));
}

void CaptionManagerTest::languagesAndStylePlaceNothing()
{
	makeSpanish();
	waitForPlacement();
	obs_sceneitem_remove(itemOf(*scene, spanish));
	manager->setLanguages({"es", "de"}, names);
	manager->setStyle("left", Qt::red, Qt::black, 10, QFont());
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));
	QVERIFY(itemOf(*scene, QString::fromUtf8("Talvora Captions — German")));
}

void CaptionManagerTest::restoredSourceStaysWhereItIs()
{
	makeSpanish();
	waitForPlacement();
	{
		const OBSSourceAutoRelease first = find(spanish);
		obs_sceneitem_remove(itemOf(*scene, spanish));
		obs_source_remove(first);
	}
	QVERIFY(QTest::qWaitFor([this] { return !find(spanish); }));
	// As in a collection in which the captions have been before.
	const OBSSourceAutoRelease second = create("browser_source", spanish);
	obs_sceneitem_t *item = obs_scene_add(*scene, second);
	const vec2 place = {{{5.0f, 6.0f}}};
	obs_sceneitem_set_pos(item, &place);
	manager->restoreSources();
	QCOMPARE(state().source.get(), second.Get());
	waitForPlacement();
	QCOMPARE(positionOf(item).x, 5.0f);
	QCOMPARE(positionOf(item).y, 6.0f);
}

void CaptionManagerTest::sourceThatTurnsUpIsTakenUp()
{
	makeSpanish();
	{
		const OBSSourceAutoRelease first = find(spanish);
		obs_source_remove(first);
	}
	QVERIFY(QTest::qWaitFor([this] { return !find(spanish); }));
	const OBSSourceAutoRelease second = create("browser_source", spanish);
	manager->takeUpSource("Something else");
	QVERIFY(!state().source.get());
	manager->takeUpSource(spanish);
	QCOMPARE(state().source.get(), second.Get());
	QCOMPARE(cssOf(spanish), shown(""));

	// One that has its source keeps it.
	const OBSSourceAutoRelease third = create("browser_source", spanish);
	manager->takeUpSource(spanish);
	QCOMPARE(state().source.get(), second.Get());
}

void CaptionManagerTest::placementWithoutASceneIsMadeUpForLater()
{
	makeSpanish();
	setCurrentScene(nullptr);
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));
	QVERIFY(log->ownLines().isEmpty());

	// It is made up for as soon as there is a scene, and then no more.
	setCurrentScene(scene->source());
	manager->placeUnplaced();
	waitForPlacement();
	QVERIFY(itemOf(*scene, spanish));
	manager->placeUnplaced();
	obs_sceneitem_remove(itemOf(*scene, spanish));
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));
}

void CaptionManagerTest::placementIntoSomethingThatIsNoSceneDoesNothing()
{
	const OBSSourceAutoRelease noScene = create("color_source_v3", "Colour");
	setCurrentScene(noScene);
	makeSpanish();
	waitForPlacement();
	QVERIFY(log->ownLines().isEmpty());
}

void CaptionManagerTest::placementOfASourceRemovedByThenDoesNothing()
{
	makeSpanish();
	const OBSSourceAutoRelease source = find(spanish);
	obs_source_remove(source);
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));
	QVERIFY(log->ownLines().isEmpty());
}

void CaptionManagerTest::placementThatFailsIsNotLogged()
{
	makeSpanish();
	const OBSSourceAutoRelease source = find(spanish);
	obs_source_remove(source); // OBS adds no removed source to a scene
	autoPlaceCaptionSource(source);
	QVERIFY(!itemOf(*scene, spanish));
	QVERIFY(log->ownLines().isEmpty());
}

void CaptionManagerTest::itemIsNotRemovedWhileItIsPlaced_data()
{
	QTest::addColumn<bool>("present");
	QTest::newRow("found") << true;
	QTest::newRow("added") << false;
}

void CaptionManagerTest::itemIsNotRemovedWhileItIsPlaced()
{
	QFETCH(bool, present);
	makeSpanish();
	const OBSSourceAutoRelease source = find(spanish);
	if (present) {
		QVERIFY(obs_scene_add(*scene, source));
	}
	ItemRemover remover;
	autoPlaceCaptionSource(source);
	QVERIFY(remover.wasKeptOut());
	QVERIFY(!itemOf(*scene, spanish));
	QVERIFY(log->contains(LOG_INFO,
			      "[talvora-obs] CaptionManager: placed '" + spanish + "' at bottom-centre (960, 1020)"));
}

void CaptionManagerTest::itemRemovedByAnotherDuringAMigrationIsStillValid()
{
	{
		const OBSSourceAutoRelease text = create("text_ft2_source_v2", spanish);
		QVERIFY(obs_scene_add(*scene, text));
	}
	ItemRemover remover;
	manager->setLanguages({"es"}, names);
	QVERIFY(remover.wasKeptOut());
	QVERIFY(!itemOf(*scene, spanish));
	QCOMPARE(obs_source_get_id(state().source.get()), "browser_source");
}

void CaptionManagerTest::nothingIsPlacedWhenTheManagerIsGone()
{
	makeSpanish();
	const OBSSourceAutoRelease source = find(spanish);
	manager.reset();
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));
	QVERIFY(log->ownLines().isEmpty());
}

void CaptionManagerTest::styleIsSentToEverySource()
{
	manager->setLanguages({"es", "de"}, names);
	manager->onCaption("es", "Hola", 0, 0, false);
	const QTimer *timer = state().displayTimer;
	sentSettings.clear();
	log->clear();

	const QFont font("Serif", 22, QFont::Normal);
	manager->setStyle("left", QColor(1, 2, 3), QColor(4, 5, 6, 51), 55, font);
	const CaptionStyle style = {"left", QColor(1, 2, 3), QColor(4, 5, 6, 51), 55, font};
	QCOMPARE(cssOf(spanish), captionCss(style, "Hola"));
	QCOMPARE(cssOf(QString::fromUtf8("Talvora Captions — German")), captionCss(style, ""));
	QCOMPARE(sentSettings.size(), 2);
	for (const QString &settings : sentSettings) {
		QVERIFY2(settings.startsWith("{\"css\":") && !settings.contains("\"local_file\""),
			 qPrintable(settings));
	}
	QCOMPARE(state().currentText, "Hola");
	QVERIFY(timer->isActive());
	QVERIFY(log->ownLines().isEmpty());

	// The next source is made in that style.
	manager->setLanguages({"es", "fr"}, names);
	QCOMPARE(cssOf(QString::fromUtf8("Talvora Captions — fr")), captionCss(style, ""));
}

void CaptionManagerTest::unchangedStyleAndTextAreNotSent()
{
	makeSpanish();
	const CaptionStyle style;
	manager->setStyle(style.alignment, style.textColor, style.backgroundColor, style.opacity, style.font);
	manager->onCaptionCleared("es");
	QVERIFY(sentSettings.isEmpty());
	manager->onCaption("es", "Hola", 0, 1, false);
	manager->onCaption("es", "Hola", 0, 2, true);
	manager->onClipStarted("es", 2);
	QCOMPARE(sentSettings.size(), 1);
	QCOMPARE(cssOf(spanish), shown("Hola"));
}

void CaptionManagerTest::textIsSentAsCssOnly()
{
	makeSpanish();
	manager->onCaption("es", "Hola", 0, 0, false);
	const OBSDataAutoRelease expected = obs_data_create();
	obs_data_set_string(expected, "css", shown("Hola").toUtf8().constData());
	QCOMPARE(sentSettings, QStringList({QString::fromUtf8(obs_data_get_json(expected))}));
}

void CaptionManagerTest::textForAMissingSourceIsLogged()
{
	makeSpanish();
	manager->onCaption("es", "Hola", 0, 0, false);
	state().source.release();
	log->clear();
	manager->onClearTimerTick("es");
	QCOMPARE(log->ownLines(),
		 QStringList({"[talvora-obs] CaptionManager: updateObsText for 'es' but source is null"}));
	QCOMPARE(log->lines(LOG_WARNING), log->ownLines());
	QCOMPARE(state().currentText, "Hola");
	manager->setStyle("left", Qt::red, Qt::black, 10, QFont());
	QCOMPARE(log->ownLines().size(), 1);
}

void CaptionManagerTest::removalOfASourceIsFollowed()
{
	makeSpanish();
	OBSSourceAutoRelease source = find(spanish);
	const OBSWeakSourceAutoRelease weak = obs_source_get_weak_source(source);
	std::thread([&source] { obs_source_remove(source); }).join();
	QVERIFY(!state().source.get());
	source = nullptr;
	QVERIFY2(obs_weak_source_expired(weak), "a reference is held past the removal");

	manager->onCaption("es", "Hola", 0, 0, false);
	QVERIFY(log->contains(LOG_WARNING, "[talvora-obs] CaptionManager: updateObsText for 'es' but source is null"));
	QCOMPARE(state().sourceName, spanish);
}

void CaptionManagerTest::removedSourceIsMadeAgain()
{
	makeSpanish();
	manager->onCaption("es", "Hola", 0, 0, false);
	{
		const OBSSourceAutoRelease source = find(spanish);
		obs_source_remove(source);
	}
	QVERIFY(!state().source.get());
	// OBS's own threads may hold it for moments.
	QVERIFY(QTest::qWaitFor([this] { return !find(spanish); }));
	manager->setLanguages({"es"}, names);
	manager->setStyle("left", Qt::red, Qt::black, 10, QFont());
	QVERIFY2(!state().source.get(), "it takes a session's start");
	manager->setStyle("center", Qt::white, Qt::transparent, 100, CaptionStyle().font);
	log->clear();
	manager->restoreSources();
	QVERIFY(state().source.get());
	QCOMPARE(log->ownLines(), QStringList({"[talvora-obs] CaptionManager: created source '" + spanish + "'"}));
	QCOMPARE(state().currentText, "");
	QCOMPARE(cssOf(spanish), shown(""));
	waitForPlacement();
	QVERIFY(itemOf(*scene, spanish));
	manager->onCaption("es", "Otra vez", 0, 1, true);
	manager->onClipStarted("es", 1);
	QCOMPARE(cssOf(spanish), shown("Otra vez"));
}

void CaptionManagerTest::abandoningRemovesTheSources()
{
	manager->setLanguages({"es", "de"}, names);
	const QPointer<QTimer> timer = state().displayTimer;
	manager->onCaption("es", "Hola", 0, 0, false);
	OBSSourceAutoRelease source = find(spanish);
	const OBSWeakSourceAutoRelease weak = obs_source_get_weak_source(source);
	state("de").source.release(); // a language without a source is no obstacle

	manager->abandonAll();
	QVERIFY(obs_source_removed(source));
	QVERIFY(manager->states.empty());
	QVERIFY(!timer->isActive());
	source = nullptr;
	QVERIFY2(obs_weak_source_expired(weak), "a reference is held past the removal");
	log->clear();
	waitForPlacement();
	QVERIFY(!itemOf(*scene, spanish));
	QVERIFY(log->ownLines().isEmpty());
	QVERIFY(timer.isNull());
	manager->abandonAll();
}

void CaptionManagerTest::clearingLeavesTheSourcesInTheScene()
{
	manager->setLanguages({"es"}, names);
	waitForPlacement();
	const QPointer<QTimer> timer = state().displayTimer;
	manager->clearAll();
	QVERIFY(manager->states.empty());
	const OBSSourceAutoRelease source = find(spanish);
	QVERIFY(source);
	QVERIFY(!obs_source_removed(source));
	QVERIFY(itemOf(*scene, spanish));
	QVERIFY(QTest::qWaitFor([&] { return timer.isNull(); }));
	manager->clearAll();
}

void CaptionManagerTest::destructionLeavesTheSourcesForReattachment()
{
	manager->setLanguages({"es"}, names);
	waitForPlacement();
	manager->onCaption("es", "Hola", 0, 0, false);
	const OBSSourceAutoRelease source = find(spanish);
	manager.reset();
	QVERIFY(!obs_source_removed(source));
	QVERIFY(itemOf(*scene, spanish));

	manager = std::make_unique<CaptionManager>();
	manager->setLanguages({"es"}, names);
	QCOMPARE(state().source.get(), source.Get());
	QCOMPARE(cssOf(spanish), shown(""));
}

// The page

void CaptionManagerTest::pageThatIsGoneIsWrittenAgain()
{
	const QString path = manager->getBrowserHtmlPath("es");
	QCOMPARE(path, temporary->filePath("talvora_caption_ui_es.html"));
	QFile::remove(path);
	manager->setLanguages({"es"}, names);
	QVERIFY(QFile::exists(path));
	// OBS loads it with every change of the CSS.
	QVERIFY(QFile::remove(path));
	manager->onCaption("es", "Hola", 0, 0, false);
	QVERIFY(QFile::remove(path));
	manager->setStyle("left", Qt::red, Qt::black, 10, QFont());
	QVERIFY(QFile::exists(path));
}

void CaptionManagerTest::pageThatIsTakenMeanwhileIsReplaced()
{
	const QTemporaryDir runtime;
	qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8());
	const QString path = temporary->filePath("talvora_caption_ui_es.html");
	const QString ownPath = runtime.filePath("talvora_caption_ui_es.html");
	manager->setLanguages({"es"}, names);
	QCOMPARE(manager->getBrowserHtmlPath("es"), path);
	// As another user would after the temporary directory has been cleaned.
	QVERIFY(QFile::remove(path));
	QVERIFY(QFile::link("/nowhere", path));
	manager->onCaption("es", "Hola", 0, 0, false);
	const OBSDataAutoRelease settings = settingsOf(spanish);
	QCOMPARE(QString::fromUtf8(obs_data_get_string(settings, "local_file")), ownPath);
	QCOMPARE(manager->getBrowserHtmlPath("es"), ownPath);
	QVERIFY(QFile::exists(ownPath));
	QCOMPARE(cssOf(spanish), shown("Hola"));
	QVERIFY(QFile::remove(path));
	qunsetenv("XDG_RUNTIME_DIR");
}

void CaptionManagerTest::dataFileIsOnlyAName()
{
	manager->setLanguages({"es"}, names);
	manager->onCaption("es", "Hola", 0, 0, false);
	QCOMPARE(manager->getBrowserDataPath("es"), temporary->filePath("talvora_caption_data_es.txt"));
	QVERIFY(!QFile::exists(manager->getBrowserDataPath("es")));
}

void CaptionManagerTest::cssCarriesTheTextOfItsLanguage()
{
	manager->setLanguages({"es", "de"}, names);
	manager->onCaption("es", "Hola", 0, 0, false);
	QCOMPARE(manager->generateCss("es"), shown("Hola"));
	QCOMPARE(manager->generateCss("de"), shown(""));
	QCOMPARE(manager->generateCss("fr"), shown(""));
}

void CaptionManagerTest::everythingWorksWithAnInstalledBrowserSource()
{
	obs_source_info browser = {};
	browser.id = "browser_source";
	browser.type = OBS_SOURCE_TYPE_INPUT;
	browser.get_name = [](void *) { return "Browser"; };
	browser.create = [](obs_data_t *, obs_source_t *source) -> void * { return source; };
	browser.destroy = [](void *) {};
	static QString rendered;
	browser.update = [](void *, obs_data_t *settings) {
		rendered = QString::fromUtf8(obs_data_get_string(settings, "css"));
	};
	obs_register_source(&browser);

	manager->setLanguages({"es"}, names);
	waitForPlacement();
	QVERIFY(itemOf(*scene, spanish));
	manager->onCaption("es", "Hola", 0, 0, false);
	QCOMPARE(rendered, shown("Hola"));
	manager->onClearTimerTick("es");
	QCOMPARE(rendered, shown(""));
	manager->abandonAll();
}

QTEST_MAIN(CaptionManagerTest)
#include "caption-manager-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/scene-watcher.h"

#include "frontend-stub.h"
#include "obs-fixture.h"
#include "test-audio-source.h"

#include <QSignalSpy>
#include <QTest>

#include <optional>
#include <thread>

using namespace Qt::StringLiterals;

class SceneWatcherTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init() { obs.emplace(); }
	void cleanup() { obs.reset(); }

	void tellsOfCreatedRenamedAndRemovedSources();
	void tellsOnceOfASourceThatGoesWithItsLastReference();
	void tellsWithTheNextTurnOfTheEventLoop();
	void tellsOfACollectionOnlyWhenTheEventLoopTurns();
	void collectionIsClearedUntilAnotherIsTold();
	void tellsOfAnotherCollectionAndOfAnotherScene();
	void filtersAreNotSources();
	void hearsOtherThreads();
	void nothingIsLeftConnected();

private:
	std::optional<ObsFixture> obs;
};

void SceneWatcherTest::tellsOfCreatedRenamedAndRemovedSources()
{
	const SceneWatcher watcher;
	const QSignalSpy created(&watcher, &SceneWatcher::sourceCreated);
	const QSignalSpy renamed(&watcher, &SceneWatcher::sourceRenamed);
	const QSignalSpy removed(&watcher, &SceneWatcher::sourceRemoved);
	{
		const TestAudioSource source("Über „x“");
		obs_source_set_name(source.get(), "Voice");
	}
	QCoreApplication::processEvents();
	QCOMPARE(created, (QList<QVariantList>{{u"Über „x“"_s}}));
	QCOMPARE(renamed, (QList<QVariantList>{{u"Über „x“"_s, u"Voice"_s}}));
	// Its end does not tell a second time.
	ObsFixture::waitForDestroyedSources();
	QCoreApplication::processEvents();
	QCOMPARE(removed, (QList<QVariantList>{{u"Voice"_s}}));
}

void SceneWatcherTest::tellsOnceOfASourceThatGoesWithItsLastReference()
{
	const SceneWatcher watcher;
	const QSignalSpy removed(&watcher, &SceneWatcher::sourceRemoved);
	const TestAudioSource known("Known");
	// As when it is deleted in OBS's window: nobody removes it.
	obs_source_release(obs_source_create("test_audio", "Voice", nullptr, nullptr));
	QVERIFY(QTest::qWaitFor([&] { return !removed.isEmpty(); }));
	ObsFixture::waitForDestroyedSources();
	QCoreApplication::processEvents();
	QCOMPARE(removed, (QList<QVariantList>{{u"Voice"_s}}));
}

void SceneWatcherTest::tellsWithTheNextTurnOfTheEventLoop()
{
	const SceneWatcher watcher;
	const QSignalSpy created(&watcher, &SceneWatcher::sourceCreated);
	const TestAudioSource source("Voice");
	QCOMPARE(created.size(), 0);
	QCoreApplication::processEvents();
	QCOMPARE(created.size(), 1);
}

void SceneWatcherTest::tellsOfAnotherCollectionAndOfAnotherScene()
{
	const SceneWatcher watcher;
	const QSignalSpy changed(&watcher, &SceneWatcher::collectionChanged);
	const QSignalSpy sceneChanged(&watcher, &SceneWatcher::sceneChanged);
	for (const obs_frontend_event event :
	     {OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGING, OBS_FRONTEND_EVENT_SCENE_COLLECTION_LIST_CHANGED,
	      OBS_FRONTEND_EVENT_SCENE_COLLECTION_RENAMED, OBS_FRONTEND_EVENT_SCENE_CHANGED}) {
		frontendStub().emitEvent(event);
	}
	QCoreApplication::processEvents();
	QCOMPARE(changed.size(), 0);
	QCOMPARE(sceneChanged.size(), 1);
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED);
	QCoreApplication::processEvents();
	QCOMPARE(changed.size(), 1);
	QCOMPARE(sceneChanged.size(), 1);
}

void SceneWatcherTest::tellsOfACollectionOnlyWhenTheEventLoopTurns()
{
	const SceneWatcher watcher;
	const QSignalSpy changed(&watcher, &SceneWatcher::collectionChanged);
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED);
	// OBS does that while it clears a collection, and counts the sources that are left.
	QCoreApplication::sendPostedEvents();
	QCOMPARE(changed.size(), 0);
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED);
	QVERIFY(QTest::qWaitFor([&] { return changed.size() == 1; }));
	QTest::qWait(20);
	QCOMPARE(changed.size(), 1);
}

void SceneWatcherTest::collectionIsClearedUntilAnotherIsTold()
{
	const SceneWatcher watcher;
	bool clearingWhenTold = true;
	connect(&watcher, &SceneWatcher::collectionChanged, [&] { clearingWhenTold = watcher.isClearing(); });
	QVERIFY(!watcher.isClearing());
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGING);
	QVERIFY(!watcher.isClearing());
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CLEANUP);
	QVERIFY(watcher.isClearing());
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED);
	QVERIFY(watcher.isClearing());
	QCoreApplication::processEvents();
	QVERIFY(!watcher.isClearing());
	QVERIFY(!clearingWhenTold);
}

void SceneWatcherTest::filtersAreNotSources()
{
	obs_source_info info{};
	info.id = "test_filter";
	info.type = OBS_SOURCE_TYPE_FILTER;
	info.output_flags = OBS_SOURCE_AUDIO;
	info.get_name = [](void *) { return "Test filter"; };
	info.create = [](obs_data_t *, obs_source_t *source) -> void * { return source; };
	info.destroy = [](void *) {};
	obs_register_source(&info);

	const SceneWatcher watcher;
	const QSignalSpy created(&watcher, &SceneWatcher::sourceCreated);
	const QSignalSpy renamed(&watcher, &SceneWatcher::sourceRenamed);
	const QSignalSpy removed(&watcher, &SceneWatcher::sourceRemoved);
	obs_source_t *filter = obs_source_create("test_filter", "Voice", nullptr, nullptr);
	obs_source_set_name(filter, "Other");
	obs_source_remove(filter);
	obs_source_release(filter);
	QCoreApplication::processEvents();
	QCOMPARE(created.size() + renamed.size() + removed.size(), 0);
}

void SceneWatcherTest::hearsOtherThreads()
{
	const SceneWatcher watcher;
	const QSignalSpy created(&watcher, &SceneWatcher::sourceCreated);
	std::thread([] { const TestAudioSource source("Elsewhere"); }).join();
	QCoreApplication::processEvents();
	QCOMPARE(created, (QList<QVariantList>{{u"Elsewhere"_s}}));
}

void SceneWatcherTest::nothingIsLeftConnected()
{
	{
		const SceneWatcher watcher;
		QCOMPARE(frontendStub().callbacks.size(), size_t{1});
	}
	QVERIFY(frontendStub().callbacks.empty());
	const TestAudioSource source("Unheard");
	QCoreApplication::processEvents();
}

QTEST_MAIN(SceneWatcherTest)
#include "scene-watcher-test.moc"

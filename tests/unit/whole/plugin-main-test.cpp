// SPDX-License-Identifier: GPL-2.0-or-later
#include "core/talvora-plugin.h"

#include "frontend-stub.h"
#include "log-capture.h"
#include "obs-fixture.h"

#include <obs-module.h>

#include <QTemporaryDir>
#include <QTest>

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <optional>

#include <string>

MODULE_EXPORT uint32_t obs_module_ver(void);
MODULE_EXPORT const char *obs_module_author(void);

namespace {

std::string fallbackLocale, wantedLocale;

} // namespace

// In front of libobs's own, which needs a module that was loaded from a file.
lookup_t *obs_module_load_locale(obs_module_t *, const char *fallback, const char *wanted)
{
	fallbackLocale = fallback;
	wantedLocale = wanted;
	return nullptr;
}

using namespace Qt::StringLiterals;

/** No more threads can be had. */
static bool noThreads = false;

extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*run)(void *), void *argument) noexcept
{
	static const auto create = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
	return noThreads ? EAGAIN : create(thread, attributes, run, argument);
}

/** The module as OBS sees it, from load to unload. One process has one plug-in, so the order of the tests matters. */
class PluginMainTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void initTestCase();
	void cleanupTestCase();
	void init() { log->clear(); }

	void namesItself();
	void textsThatAreMissingAreEnglish();
	void loadRegistersItsTypesAndCallback();
	void unloadBeforeFinishedLoadingOnlyLogs();
	void loadsWhereNoThreadCanBeHad();
	void otherEventsAreIgnored();
	void finishedLoadingInitializes();
	void exitShutsDown();
	void unloadAfterExitOnlyLogs();

private:
	QTemporaryDir home;
	std::optional<ObsFixture> obs;
	std::optional<LogCapture> log;
};

void PluginMainTest::initTestCase()
{
	qputenv("HOME", home.path().toUtf8());
	// Outlives libobs, whose threads log until its end.
	log.emplace();
	obs.emplace();
}

void PluginMainTest::cleanupTestCase()
{
	obs.reset();
	log.reset();
}

void PluginMainTest::namesItself()
{
	QCOMPARE(obs_module_name(), "Talvora");
	QCOMPARE(obs_module_description(), "Talvora — real-time AI dubbing and captions for OBS");
	QCOMPARE(obs_module_author(), "The Talvora authors");
	QCOMPARE(obs_module_ver(), uint32_t{LIBOBS_API_VER});
}

void PluginMainTest::textsThatAreMissingAreEnglish()
{
	obs_module_set_locale("de-DE");
	QCOMPARE(fallbackLocale, "en-US");
	QCOMPARE(wantedLocale, "de-DE");
}

void PluginMainTest::loadRegistersItsTypesAndCallback()
{
	QVERIFY(obs_module_load());
	QCOMPARE(
		log->ownLines(),
		(QStringList{
			u"[talvora-obs] Loading Talvora OBS plugin v1.0.6"_s,
			u"[talvora-obs] Talvora: this OBS has no browser source, so Talvora draws the captions itself"_s}));
	QCOMPARE(obs_source_get_display_name("talvora_audio_capture"), "AudioCaptureFilter.Name");
	QCOMPARE(obs_source_get_display_name("talvora_dubbed_source"), "DubbedSource.TypeName");
	QCOMPARE(obs_source_get_display_name("browser_source"), "DrawnSource.Name");
	QCOMPARE(frontendStub().callbacks.size(), size_t{1});
	QVERIFY(frontendStub().docks.isEmpty());
}

void PluginMainTest::unloadBeforeFinishedLoadingOnlyLogs()
{
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_EXIT);
	QCOMPARE(log->ownLines(), QStringList());
	obs_module_unload();
	QCOMPARE(log->ownLines(), QStringList{u"[talvora-obs] Talvora OBS plugin unloaded"_s});
	QVERIFY(frontendStub().callbacks.empty());
	QVERIFY(obs_module_load());
}

void PluginMainTest::loadsWhereNoThreadCanBeHad()
{
	obs_module_unload();
	noThreads = true;
	const bool loaded = obs_module_load();
	noThreads = false;
	QVERIFY(loaded);
	QVERIFY(log->contains(LOG_INFO, u"[talvora-obs] Loading Talvora OBS plugin v1.0.6"_s));
	obs_module_unload();
	QVERIFY(obs_module_load());
	log->clear();
}

void PluginMainTest::otherEventsAreIgnored()
{
	for (int event = OBS_FRONTEND_EVENT_STREAMING_STARTING; event <= OBS_FRONTEND_EVENT_SCENE_COLLECTION_RENAMED;
	     ++event) {
		if (event != OBS_FRONTEND_EVENT_FINISHED_LOADING && event != OBS_FRONTEND_EVENT_EXIT) {
			frontendStub().emitEvent(static_cast<obs_frontend_event>(event));
		}
	}
	QCOMPARE(log->ownLines(), QStringList());
	QVERIFY(frontendStub().docks.isEmpty());
}

void PluginMainTest::finishedLoadingInitializes()
{
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	QCOMPARE(log->ownLines(),
		 (QStringList{u"[talvora-obs] Talvora plugin initialized. API key: (not set), Languages: "_s,
			      u"[talvora-obs] Talvora plugin initialized"_s}));
	QVERIFY(frontendStub().docks.contains(u"TalvoraDock"_s));
}

void PluginMainTest::exitShutsDown()
{
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_EXIT);
	QCOMPARE(log->ownLines().last(), u"[talvora-obs] Talvora plugin shut down"_s);
	QVERIFY(frontendStub().docks.isEmpty());
}

void PluginMainTest::unloadAfterExitOnlyLogs()
{
	obs_module_unload();
	QCOMPARE(log->ownLines(), QStringList{u"[talvora-obs] Talvora OBS plugin unloaded"_s});
	QVERIFY(frontendStub().callbacks.empty());
}

QTEST_MAIN(PluginMainTest)
#include "plugin-main-test.moc"

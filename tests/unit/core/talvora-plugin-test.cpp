// SPDX-License-Identifier: GPL-2.0-or-later
#include "core/talvora-plugin.h"

#include "captions/caption-manager.h"
#include "client/ws-client.h"
#include "dock/plugin-dock.h"

#include "frontend-stub.h"
#include "heard.h"
#include "log-capture.h"
#include "loopback-service.h"
#include "obs-fixture.h"
#include "test-audio-source.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QWebSocket>

#include <obs.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <optional>
#include <thread>

using namespace Qt::StringLiterals;

class TalvoraPluginTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	// Lifecycle
	void initialValues();
	void initializeSaysItsLines();
	void initializeTwiceBuildsOnce();
	void shutdownBeforeInitializeDoesNothing();
	void shutdownTwiceSaysSoOnce();
	void shutdownOrderIsSaveThenDisconnectThenDetach();
	void destructorShutsDown();
	void noSessionAtStartWithoutKeyOrTarget_data();
	void noSessionAtStartWithoutKeyOrTarget();
	void sessionAtStartWhenAutoConnecting();
	void withoutAFactoryThereIsNoDock();
	void invisibleDockIsRegisteredAllTheSame();
	void visibleDockComesOnScreenWithTheNextTurn();
	void dockVisibilityIsSavedAtShutdown();
	void attachingWaitsForTheEventLoop();

	// Languages
	void maxTargetLanguagesIsToldOnce();
	void resettingTheLimitTellsZero();
	void dubbingOnlyTargetOfTheSourceLanguageGoes();
	void targetWithCaptionsOfTheSourceLanguageStays();
	void targetsAreSaved();

	// Configuration file
	void configFileIsInTheHomeFolder();
	void missingConfigIsSilent();
	void unreadableConfigIsReported_data();
	void unreadableConfigIsReported();
	void configIsLoadedWithItsLine();
	void unwritableConfigIsReported();
	void configIsTheOwnersAlone();
	void configIsMadeForTheOwnerAlone();
	void openConfigIsClosedToOthersWhenItIsLoaded();
	void configIsIndentedJson();

	// Sessions
	void startWithoutKeyTellsTheUserOnce();
	void startWithoutClientIsAnError();
	void startSaysItsLines();
	void stopBeforeInitializeDoesNothing();
	void stateChangesAreLoggedAndTold();
	void errorsAreLoggedAndTold();
	void authenticationSetsTheLimit();
	void endOfSessionIsLogged();
	void interimTranscriptsAreTold();
	void limitsAreForwarded();
	void captionsGoToTheCaptionManager();
	void twoStartsQueueTwoConnects();
	void startFlushesTheDubsAndAttachesTheCapture();
	void changesInASessionReachTheService();
	void stopEndsTheSession();
	void changesOutsideASessionAreOnlySaved();
	void changesWhileReconnectingAreInTheNextAuth();
	void serviceSpeechReachesTheDubOfItsLanguage();

	// Outputs
	void settersStoreAndSave_data();
	void settersStoreAndSave();
	void styleReachesTheCaptionSources_data();
	void styleReachesTheCaptionSources();
	void captionModeLeavesTheCaptionSourcesAlone();
	void clipEventsOfADubReachTheCaptions();
	void captionOfAClipThatIsNotHeardToItsEndGoes_data();
	void captionOfAClipThatIsNotHeardToItsEndGoes();
	void captionOfAPlayingClipStays();
	void nothingIsShownOrSpokenAfterASession_data();
	void nothingIsShownOrSpokenAfterASession();
	void lostConnectionFlushesTheDubs_data();
	void lostConnectionFlushesTheDubs();
	void removedDubComesBackWithTheNextSession();
	void sameAudioSourceNeitherSavesNorAttaches();
	void previewWithoutCaptionLanguageDoesNothing();
	void previewShowsTheTextInEveryCaptionLanguage();

	// Audio capture
	void playedAudioArrivesAtTheService();

	// Changes of the scene
	void outputsComeBackInAnotherCollection();
	void limitThatComesWhileACollectionIsClearedMakesNothingThen();
	void captureBeginsWhenItsSourceAppears();
	void captureEndsWhenItsSourceIsRemoved();
	void captureFollowsTheRenamedSource();
	void sourceThatTakesTheNameIsCaptured();
	void nothingIsWatchedAfterShutdown();
	void onlyASourceThatIsThereIsTakenUp();
	void renewedDubThatIsPutOutByTheCapturedSourceEndsTheCapture();
	void selectionChangesWhileAudioFlows();

private:
	/** A fresh plug-in, its home folder empty. */
	TalvoraPlugin &make();
	void writeConfig(const QByteArray &json) const;
	QJsonObject savedConfig() const;
	QString configPath() const { return home->filePath(u".config/talvora-obs/config.json"_s); }
	/** A session of the plug-in with `service`, authenticated. */
	void authenticate(LoopbackService &service);
	static void setTargets(TalvoraPlugin &plugin, const LanguageTargets &targets);
	/** Gives the Spanish dub a silent chunk of the original, and the clip's events their turn. */
	void playOriginal(size_t frames);
	/** A fresh plug-in with a caption up that the clip being played has brought there. */
	void showCaptionOfAPlayingClip();
	QString spanishCss() const;

	std::optional<ObsFixture> obs;
	std::optional<QTemporaryDir> home;
	std::optional<LogCapture> log;
	TalvoraPlugin *plugin = nullptr;
};

void TalvoraPluginTest::init()
{
	home.emplace();
	qputenv("HOME", home->path().toUtf8());
	// Outlives libobs, whose threads log until its end.
	log.emplace();
	obs.emplace();
	obs_register_source(dubbed_source_info());
	log->clear();
}

void TalvoraPluginTest::cleanup()
{
	// As OBS does before it says that it exits.
	obs_enum_sources(
		[](void *, obs_source_t *source) {
			obs_source_remove(source);
			return true;
		},
		nullptr);
	delete plugin;
	plugin = nullptr;
	setCurrentScene(nullptr);
	qDeleteAll(frontendStub().docks);
	frontendStub().docks.clear();
	obs.reset();
	log.reset();
}

TalvoraPlugin &TalvoraPluginTest::make()
{
	delete plugin;
	plugin = new TalvoraPlugin();
	plugin->setDockFactory(createPluginDock);
	return *plugin;
}

void TalvoraPluginTest::writeConfig(const QByteArray &json) const
{
	QDir().mkpath(QFileInfo(configPath()).path());
	QFile file(configPath());
	QVERIFY(file.open(QIODevice::WriteOnly));
	file.write(json);
}

QJsonObject TalvoraPluginTest::savedConfig() const
{
	QFile file(configPath());
	if (!file.open(QIODevice::ReadOnly)) {
		return {};
	}
	return QJsonDocument::fromJson(file.readAll()).object();
}

void TalvoraPluginTest::setTargets(TalvoraPlugin &changed, const LanguageTargets &targets)
{
	changed.settings.languageTargets = targets;
}

// Lifecycle

void TalvoraPluginTest::initialValues()
{
	const TalvoraPlugin &fresh = make();
	QCOMPARE(fresh.capture.audioSourceRef, nullptr);
	QCOMPARE(fresh.client.wsClient.load(), nullptr);
	QVERIFY(fresh.dubs.dubbedSources.empty());
	QCOMPARE(fresh.captionManager, nullptr);
	QVERIFY(!fresh.dock);
	QCOMPARE(fresh.maxTargetLanguages, 0);
	QVERIFY(!fresh.initialized);
	QCOMPARE(fresh.parent(), nullptr);
	QCOMPARE(fresh.wsState(), WsState::Disconnected);
}

void TalvoraPluginTest::initializeSaysItsLines()
{
	make().initialize();
	QCOMPARE(log->ownLines(),
		 QStringList{u"[talvora-obs] Talvora plugin initialized. API key: (not set), Languages: "_s});

	make();
	writeConfig(R"({"apiKey": "tak_secret", "targetLanguages": [{"code": "fr", "dubbing": false},
								    {"code": "de", "dubbing": false}]})");
	log->clear();
	plugin->initialize();
	QCOMPARE(log->ownLines(),
		 (QStringList{u"[talvora-obs] Talvora: config loaded from "_s + configPath(),
			      u"[talvora-obs] Talvora plugin initialized. API key: (set), Languages: de, fr"_s}));
}

void TalvoraPluginTest::initializeTwiceBuildsOnce()
{
	make().initialize();
	const WSClient *client = plugin->client.wsClient;
	log->clear();
	plugin->initialize();
	QCOMPARE(plugin->client.wsClient.load(), client);
	// A child, so that the thread goes with the plug-in even without a shutdown.
	QCOMPARE(plugin->client.wsThread->parent(), plugin);
	QCOMPARE(log->ownLines(), QStringList());
}

void TalvoraPluginTest::shutdownBeforeInitializeDoesNothing()
{
	make().shutdown();
	QVERIFY(!plugin->capture.shuttingDown);
	QCOMPARE(log->ownLines(), QStringList());
	QVERIFY(!QFile::exists(configPath()));
}

void TalvoraPluginTest::shutdownTwiceSaysSoOnce()
{
	make().initialize();
	log->clear();
	plugin->shutdown();
	plugin->shutdown();
	delete std::exchange(plugin, nullptr);
	QCOMPARE(log->lines(LOG_INFO).count(u"[talvora-obs] Talvora plugin shut down"_s), 1);
}

void TalvoraPluginTest::shutdownOrderIsSaveThenDisconnectThenDetach()
{
	const TestAudioSource voice("Voice");
	writeConfig(R"({"audioSource": "Voice"})");
	make().initialize();
	QCoreApplication::processEvents();
	QVERIFY(plugin->capture.audioSourceRef);
	// A failing save is seen in the log.
	QVERIFY(QFile::remove(configPath()));
	QVERIFY(QDir().mkpath(configPath()));
	log->clear();
	plugin->shutdown();
	QCOMPARE(log->ownLines(), (QStringList{u"[talvora-obs] Talvora: failed to save config to "_s + configPath(),
					       u"[talvora-obs] Talvora: disconnecting..."_s,
					       u"[talvora-obs] Talvora: detached audio capture from 'Voice'"_s,
					       u"[talvora-obs] Talvora plugin shut down"_s}));
	QVERIFY(plugin->capture.shuttingDown);
	QVERIFY(!plugin->initialized);
	QCOMPARE(plugin->capture.audioSourceRef, nullptr);
	QCOMPARE(plugin->captionManager, nullptr);
	QCOMPARE(plugin->client.wsClient.load(), nullptr);
	QCOMPARE(plugin->client.wsThread, nullptr);
	QVERIFY(frontendStub().docks.isEmpty());
}

void TalvoraPluginTest::destructorShutsDown()
{
	make().initialize();
	log->clear();
	delete std::exchange(plugin, nullptr);
	QVERIFY(log->contains(LOG_INFO, u"[talvora-obs] Talvora plugin shut down"_s));
}

void TalvoraPluginTest::noSessionAtStartWithoutKeyOrTarget_data()
{
	QTest::addColumn<QByteArray>("json");
	QTest::newRow("no key") << QByteArray(R"({"autoConnect": true, "targetLanguages": [{"code": "es"}]})");
	QTest::newRow("no target") << QByteArray(R"({"autoConnect": true, "apiKey": "k"})");
	QTest::newRow("not wanted") << QByteArray(
		R"({"autoConnect": false, "apiKey": "k", "targetLanguages": [{"code": "es"}]})");
}

void TalvoraPluginTest::noSessionAtStartWithoutKeyOrTarget()
{
	QFETCH(QByteArray, json);
	writeConfig(json);
	make().initialize();
	QCoreApplication::processEvents();
	QVERIFY(!log->contains(LOG_INFO, u"[talvora-obs] Talvora: startSession() called"_s));
	QVERIFY(!log->contains(LOG_INFO, u"[talvora-obs] Talvora: auto-connecting (autoConnect=true)"_s));
	QCOMPARE(plugin->wsState(), WsState::Disconnected);
}

void TalvoraPluginTest::sessionAtStartWhenAutoConnecting()
{
	writeConfig(R"({"autoConnect": true, "apiKey": "k", "targetLanguages": [{"code": "es", "dubbing": false}]})");
	make().initialize();
	const QStringList lines = log->lines(LOG_INFO);
	const auto first = lines.indexOf(u"[talvora-obs] Talvora: auto-connecting (autoConnect=true)"_s);
	QVERIFY(first >= 0);
	QCOMPARE(lines.value(first + 1), u"[talvora-obs] Talvora: startSession() called"_s);
}

void TalvoraPluginTest::withoutAFactoryThereIsNoDock()
{
	make().setDockFactory(nullptr);
	plugin->initialize();
	QVERIFY(frontendStub().docks.isEmpty());
	QVERIFY(!plugin->dock);
	// What the settings say about a dock that was not there stays.
	plugin->settings.dockVisible = true;
	plugin->shutdown();
	QCOMPARE(savedConfig()[u"dockVisible"], QJsonValue(true));
}

void TalvoraPluginTest::invisibleDockIsRegisteredAllTheSame()
{
	make().initialize();
	QCoreApplication::processEvents();
	QVERIFY(plugin->dock);
	QCOMPARE(frontendStub().docks.value(u"TalvoraDock"_s), plugin->dock);
	QCOMPARE(frontendStub().dockTitles.value(u"TalvoraDock"_s), u"Dock.Title"_s);
	QVERIFY(!plugin->dock->isVisible());
}

void TalvoraPluginTest::visibleDockComesOnScreenWithTheNextTurn()
{
	writeConfig(R"({"dockVisible": true})");
	make().initialize();
	QVERIFY(!plugin->dock->isVisible());
	QCoreApplication::processEvents();
	QVERIFY(plugin->dock->isVisible());
}

void TalvoraPluginTest::dockVisibilityIsSavedAtShutdown()
{
	make().initialize();
	plugin->dock->setVisible(true);
	plugin->shutdown();
	QCOMPARE(savedConfig()[u"dockVisible"], QJsonValue(true));

	make().initialize();
	plugin->dock->setVisible(false);
	plugin->shutdown();
	QCOMPARE(savedConfig()[u"dockVisible"], QJsonValue(false));
}

void TalvoraPluginTest::attachingWaitsForTheEventLoop()
{
	const QString attached = u"[talvora-obs] Talvora: attached audio capture to source 'Voice'"_s;
	const TestAudioSource voice("Voice");
	writeConfig(R"({"audioSource": "Voice"})");
	make().initialize();
	QVERIFY(!log->contains(LOG_INFO, attached));
	QCoreApplication::processEvents();
	QVERIFY(log->contains(LOG_INFO, attached));
}

// Languages

void TalvoraPluginTest::maxTargetLanguagesIsToldOnce()
{
	make();
	const QSignalSpy told(plugin, &TalvoraPlugin::maxTargetLanguagesChanged);
	plugin->setMaxTargetLanguages(3);
	plugin->setMaxTargetLanguages(3);
	QCOMPARE(told.size(), 1);
	QCOMPARE(told.first().first().toInt(), 3);
	QCOMPARE(plugin->currentMaxTargetLanguages(), 3);
}

void TalvoraPluginTest::resettingTheLimitTellsZero()
{
	make().setMaxTargetLanguages(3);
	const QSignalSpy told(plugin, &TalvoraPlugin::maxTargetLanguagesChanged);
	plugin->resetMaxTargetLanguages();
	QCOMPARE(told.size(), 1);
	QCOMPARE(told.first().first().toInt(), 0);
}

void TalvoraPluginTest::dubbingOnlyTargetOfTheSourceLanguageGoes()
{
	make();
	setTargets(*plugin, {{u"es"_s, {true, false}}, {u"fr"_s, {true, false}}});
	plugin->setSourceLanguage(u"es"_s);
	QCOMPARE(plugin->targetLanguageCodes(), QStringList{u"fr"_s});
	QCOMPARE(savedConfig()[u"sourceLanguage"], QJsonValue(u"es"_s));
	const QJsonArray saved = savedConfig()[u"targetLanguages"].toArray();
	QCOMPARE(saved.size(), 1);
	QCOMPARE(saved.first()[u"code"], QJsonValue(u"fr"_s));
}

void TalvoraPluginTest::targetWithCaptionsOfTheSourceLanguageStays()
{
	make();
	setTargets(*plugin, {{u"es"_s, {true, true}}, {u"fr"_s, {false, false}}});
	plugin->setSourceLanguage(u"es"_s);
	plugin->setSourceLanguage(u"fr"_s);
	QCOMPARE(plugin->targetLanguageCodes(), (QStringList{u"es"_s, u"fr"_s}));
	QVERIFY((plugin->currentSettings().languageTargets[u"es"_s] == LanguageTarget{true, true}));
}

void TalvoraPluginTest::targetsAreSaved()
{
	make().setLanguageTargets({{u"de"_s, {false, true}}});
	QCOMPARE(QJsonDocument(savedConfig()[u"targetLanguages"].toArray()).toJson(QJsonDocument::Compact),
		 QByteArray(R"([{"captions":true,"code":"de","dubbing":false}])"));
}

// Configuration file

void TalvoraPluginTest::configFileIsInTheHomeFolder()
{
	qputenv("XDG_CONFIG_HOME", "/nonexistent");
	QCOMPARE(make().configFilePath(), home->path() + u"/.config/talvora-obs/config.json"_s);
	qunsetenv("XDG_CONFIG_HOME");
	QVERIFY(!QFile::exists(QFileInfo(configPath()).path()));
}

void TalvoraPluginTest::missingConfigIsSilent()
{
	make().loadConfig();
	QCOMPARE(log->ownLines(), QStringList());
	QCOMPARE(plugin->currentSettings().toJson(), Settings().toJson());
}

void TalvoraPluginTest::unreadableConfigIsReported_data()
{
	QTest::addColumn<QByteArray>("content");
	QTest::addColumn<QString>("reason");
	QTest::newRow("empty") << QByteArray() << u"illegal value"_s;
	QTest::newRow("cut short") << QByteArray(R"({"apiKey": "tak)") << u"unterminated string"_s;
	QTest::newRow("array") << QByteArray("[1]") << u"no error occurred"_s;
	// What the parser calls this depends on its version.
	const QByteArray binary("\x7f"
				"ELF\0\0",
				6);
	QJsonParseError error;
	QJsonDocument::fromJson(binary, &error);
	QTest::newRow("binary") << binary << error.errorString();
}

void TalvoraPluginTest::unreadableConfigIsReported()
{
	QFETCH(QByteArray, content);
	QFETCH(QString, reason);
	writeConfig(content);
	make().loadConfig();
	QCOMPARE(log->ownLines(), QStringList{u"[talvora-obs] Talvora: failed to parse config: "_s + reason});
	QCOMPARE(log->lines(LOG_WARNING).size(), 1);
	QCOMPARE(plugin->currentSettings().toJson(), Settings().toJson());
	QFile file(configPath());
	QVERIFY(file.open(QIODevice::ReadOnly));
	QCOMPARE(file.readAll(), content);
}

void TalvoraPluginTest::configIsLoadedWithItsLine()
{
	writeConfig(R"({"apiKey": "tak_1"})");
	make().loadConfig();
	QCOMPARE(plugin->currentSettings().apiKey, u"tak_1"_s);
	QCOMPARE(log->lines(LOG_INFO), QStringList{u"[talvora-obs] Talvora: config loaded from "_s + configPath()});
}

void TalvoraPluginTest::unwritableConfigIsReported()
{
	QDir().mkpath(configPath());
	make().setApiKey(u"tak_1"_s);
	QCOMPARE(log->ownLines(), QStringList{u"[talvora-obs] Talvora: failed to save config to "_s + configPath()});
	QCOMPARE(log->lines(LOG_WARNING).size(), 1);
	QCOMPARE(plugin->currentSettings().apiKey, u"tak_1"_s);
}

void TalvoraPluginTest::configIsTheOwnersAlone()
{
	const QFileDevice::Permissions others = QFileDevice::ReadGroup | QFileDevice::WriteGroup |
						QFileDevice::ExeGroup | QFileDevice::ReadOther |
						QFileDevice::WriteOther | QFileDevice::ExeOther;
	writeConfig("{}");
	QVERIFY(QFile::setPermissions(configPath(), QFile::permissions(configPath()) | others));
	make().saveConfig();
	QVERIFY(!(QFile::permissions(configPath()) & others));
	QVERIFY(!(QFile::permissions(QFileInfo(configPath()).path()) & others));
}

void TalvoraPluginTest::configIsMadeForTheOwnerAlone()
{
	const mode_t before = umask(0);
	make().saveConfig();
	umask(before);
	const auto modeOf = [](const QString &path) {
		struct stat found{};
		return ::stat(QFile::encodeName(path).constData(), &found) == 0 ? found.st_mode & 07777 : 0;
	};
	QCOMPARE(modeOf(configPath()), mode_t{0600});
	QCOMPARE(modeOf(QFileInfo(configPath()).path()), mode_t{0700});
}

void TalvoraPluginTest::openConfigIsClosedToOthersWhenItIsLoaded()
{
	writeConfig(R"({"apiKey": "tak_secret"})");
	const QString folder = QFileInfo(configPath()).path();
	QCOMPARE(chmod(QFile::encodeName(configPath()).constData(), 0644), 0);
	QCOMPARE(chmod(QFile::encodeName(folder).constData(), 0755), 0);
	make().loadConfig();
	const QFileDevice::Permissions others =
		QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::ExeOther;
	QVERIFY(!(QFile::permissions(configPath()) & others));
	QVERIFY(!(QFile::permissions(folder) & others));

	// What the owner has forbidden themselves stays forbidden.
	QCOMPARE(chmod(QFile::encodeName(configPath()).constData(), 0444), 0);
	plugin->loadConfig();
	struct stat found{};
	QCOMPARE(::stat(QFile::encodeName(configPath()).constData(), &found), 0);
	QCOMPARE(found.st_mode & 07777, mode_t{0400});
}

void TalvoraPluginTest::configIsIndentedJson()
{
	make().saveConfig();
	QFile file(configPath());
	QVERIFY(file.open(QIODevice::ReadOnly));
	QCOMPARE(file.readAll(), QJsonDocument(Settings().toJson()).toJson(QJsonDocument::Indented));
	QCOMPARE(log->ownLines(), QStringList());
}

// Sessions

void TalvoraPluginTest::startWithoutKeyTellsTheUserOnce()
{
	make().initialize();
	const QSignalSpy told(plugin, &TalvoraPlugin::errorOccurred);
	log->clear();
	plugin->startSession();
	QCOMPARE(told.size(), 1);
	QCOMPARE(told.first().first().toString(), u"No API key set. Enter your key in the Talvora dock."_s);
	// Whatever had been asked of the client would have been done by now.
	QMetaObject::invokeMethod(plugin->client.wsClient, [] {}, Qt::BlockingQueuedConnection);
	QCOMPARE(log->ownLines(),
		 (QStringList{
			 u"[talvora-obs] Talvora: startSession() called"_s,
			 u"[talvora-obs] Talvora: connect() called with no API key"_s,
			 u"[talvora-obs] PluginDock error: No API key set. Enter your key in the Talvora dock."_s}));
	QCOMPARE(log->lines(LOG_WARNING).size(), 2);
	QCOMPARE(plugin->wsState(), WsState::Disconnected);
}

void TalvoraPluginTest::startWithoutClientIsAnError()
{
	make().setApiKey(u"k"_s);
	const QSignalSpy told(plugin, &TalvoraPlugin::errorOccurred);
	plugin->startSession();
	QCOMPARE(log->lines(LOG_ERROR), QStringList{u"[talvora-obs] Talvora: WSClient not initialized"_s});
	QCOMPARE(told.size(), 0);
}

void TalvoraPluginTest::startSaysItsLines()
{
	make().initialize();
	plugin->setApiKey(u"tak_secret"_s);
	log->clear();
	plugin->startSession();
	const QStringList lines = log->ownLines();
	QCOMPARE(lines.value(0), u"[talvora-obs] Talvora: startSession() called"_s);
	QCOMPARE(lines.value(1), u"[talvora-obs] Talvora: connecting to wss://localhost:3002/ws/audio-pipeline "
				 "(wsThread running: YES)"_s);
	QVERIFY(lines.contains(u"[talvora-obs] Talvora: invokeMethod(connectToServer) = OK"_s));
	QVERIFY(!lines.join(u'\n').contains(u"tak_secret"_s));

	plugin->client.wsThread->quit();
	QVERIFY(plugin->client.wsThread->wait());
	log->clear();
	plugin->startSession();
	QVERIFY(log->ownLines().contains(
		u"[talvora-obs] Talvora: connecting to wss://localhost:3002/ws/audio-pipeline (wsThread running: NO)"_s));
}

void TalvoraPluginTest::stopBeforeInitializeDoesNothing()
{
	make().stopSession();
	QCOMPARE(log->ownLines(), QStringList());
}

void TalvoraPluginTest::stateChangesAreLoggedAndTold()
{
	make();
	const QSignalSpy told(plugin, &TalvoraPlugin::wsStateChanged);
	plugin->onWsStateChanged(WsState::Authenticated);
	plugin->onWsStateChanged(WsState::Disconnected);
	QCOMPARE(log->ownLines(),
		 (QStringList{u"[talvora-obs] Talvora: WS state → 3"_s, u"[talvora-obs] Talvora: WS state → 0"_s}));
	QCOMPARE(told.size(), 2);
	QCOMPARE(told.first().first().value<WsState>(), WsState::Authenticated);
}

void TalvoraPluginTest::errorsAreLoggedAndTold()
{
	make();
	const QSignalSpy told(plugin, &TalvoraPlugin::errorOccurred);
	plugin->onWsError(u"Kaputt — %s"_s);
	QCOMPARE(log->lines(LOG_WARNING), QStringList{u"[talvora-obs] Talvora WS error: Kaputt — %s"_s});
	QCOMPARE(told.size(), 1);
	QCOMPARE(told.first().first().toString(), u"Kaputt — %s"_s);
}

void TalvoraPluginTest::authenticationSetsTheLimit()
{
	make();
	const QSignalSpy told(plugin, &TalvoraPlugin::maxTargetLanguagesChanged);
	plugin->onAuthSucceeded({}, {}, 5);
	plugin->onAuthSucceeded({}, {}, 5);
	QCOMPARE(log->lines(LOG_INFO),
		 QStringList(2, u"[talvora-obs] Talvora: session authenticated — maxTargetLanguages=5"_s));
	QCOMPARE(told.size(), 1);
	QCOMPARE(plugin->currentMaxTargetLanguages(), 5);
}

void TalvoraPluginTest::endOfSessionIsLogged()
{
	make().onSessionEnded(1.25, 0.0);
	QCOMPARE(log->lines(LOG_INFO),
		 QStringList{u"[talvora-obs] Talvora: session ended — captions 1.2 min, dubbed 0.0 min"_s});
}

void TalvoraPluginTest::interimTranscriptsAreTold()
{
	make();
	const QSignalSpy told(plugin, &TalvoraPlugin::transcriptUpdated);
	plugin->onTranscriptInterim(u"hello wor"_s);
	QCOMPARE(told.size(), 1);
	QCOMPARE(told.first().first().toString(), u"hello wor"_s);
}

void TalvoraPluginTest::limitsAreForwarded()
{
	make().initialize();
	const QSignalSpy warned(plugin, &TalvoraPlugin::limitWarning);
	const QSignalSpy reached(plugin, &TalvoraPlugin::limitReached);
	Q_EMIT plugin->client.wsClient.load()->limitWarning(u"dubbed"_s, 7);
	Q_EMIT plugin->client.wsClient.load()->limitReached(u"captions"_s);
	QVERIFY(QTest::qWaitFor([&] { return reached.size() == 1; }));
	QCOMPARE(warned.size(), 1);
	QCOMPARE(warned.first(), (QVariantList{u"dubbed"_s, 7}));
	QCOMPARE(reached.first(), QVariantList{u"captions"_s});
}

void TalvoraPluginTest::captionsGoToTheCaptionManager()
{
	make().initialize();
	log->clear();
	// The manager decides about a language it has no source for.
	plugin->onCaptionUpdated(u"es"_s, u"hola"_s, 1.0, 1);
	QCOMPARE(log->lines(LOG_WARNING),
		 QStringList{u"[talvora-obs] CaptionManager: no state for language 'es' (have: 0 states)"_s});

	plugin->setLanguageTargets({{u"es"_s, {false, true}}});
	const auto css = [this] { return plugin->captionManager->generateCss(u"es"_s); };
	plugin->onCaptionUpdated(u"es"_s, u"hola"_s, 1.0, 1);
	QVERIFY(css().contains(u"content: \"hola\""_s));
	// Without the mark it is shown at once, and waits for no clip.
	plugin->onCaptionUpdated(u"es"_s, u"segunda"_s, 1.0, 2);
	plugin->onClipStarted(u"es"_s, 2);
	QVERIFY(css().contains(u"content: \"segunda\""_s));
	plugin->onCaptionCleared(u"es"_s);
	QVERIFY(!css().contains(u"::after"_s));

	plugin->onCaptionUpdated(u"es"_s, u"tercera"_s, 8.0, 3);
	plugin->onClipEnded(u"es"_s, 3);
	QVERIFY(css().contains(u"content: \"tercera\""_s));
	QVERIFY(QTest::qWaitFor([&] { return !css().contains(u"::after"_s); }));

	// Without a manager there is nothing to ask.
	plugin->shutdown();
	plugin->onCaptionUpdated(u"es"_s, u"hola"_s, 1.0, 1);
	plugin->onCaptionCleared(u"es"_s);
	plugin->onClipStarted(u"es"_s, 1);
	plugin->onClipEnded(u"es"_s, 1);
	QCOMPARE(plugin->captionManager, nullptr);
}

void TalvoraPluginTest::authenticate(LoopbackService &service)
{
	QMetaObject::invokeMethod(plugin->client.wsClient, "connectToServer", Qt::QueuedConnection,
				  Q_ARG(QString, u"tak_1"_s), Q_ARG(QString, service.url()), Q_ARG(QString, u"en"_s),
				  Q_ARG(QJsonArray, plugin->buildTargetLanguagesJson()),
				  Q_ARG(QString, plugin->currentSettings().captionMode));
	QVERIFY(QTest::qWaitFor([&] { return service.texts.size() == 1; }));
	service.send(uR"({"type":"auth_ok","maxTargetLanguages":2})"_s);
	QVERIFY(QTest::qWaitFor([&] { return plugin->currentMaxTargetLanguages() == 2; }));
	QCOMPARE(plugin->wsState(), WsState::Authenticated);
}

void TalvoraPluginTest::twoStartsQueueTwoConnects()
{
	make().initialize();
	plugin->setApiKey(u"k"_s);
	plugin->startSession();
	plugin->startSession();
	QMetaObject::invokeMethod(plugin->client.wsClient, [] {}, Qt::BlockingQueuedConnection);
	QCOMPARE(log->lines(LOG_INFO).count(u"[talvora-obs] Talvora: invokeMethod(connectToServer) = OK"_s), 2);
	QCOMPARE(log->lines(LOG_INFO).count(
			 u"[talvora-obs] WSClient: connecting to wss://localhost:3002/ws/audio-pipeline"_s),
		 2);
}

void TalvoraPluginTest::startFlushesTheDubsAndAttachesTheCapture()
{
	make().initialize();
	plugin->setApiKey(u"k"_s);
	plugin->setLanguageTargets({{u"es"_s, {true, false}}});
	plugin->setAudioSource(u"Voice"_s);
	QCOMPARE(plugin->capture.audioSourceRef, nullptr);
	DubbedSource &dub = *plugin->dubs.dubbedSources.at(u"es"_s);
	plugin->onTtsAudioReady(u"es"_s, 1, QByteArray(200, 'x'), 48000);
	QVERIFY(dub.speech.size() > 0);

	const TestAudioSource late("Voice");
	plugin->startSession();
	QCOMPARE(dub.speech.size(), size_t{0});
	QVERIFY(plugin->capture.audioSourceRef);
}

void TalvoraPluginTest::changesInASessionReachTheService()
{
	LoopbackService service;
	make().initialize();
	authenticate(service);
	plugin->setLanguageTargets({{u"es"_s, {false, true}}});
	plugin->setCaptionMode(u"original"_s);
	plugin->setSourceLanguage(u"de"_s);
	plugin->setCaptionMode(u"translated"_s);
	QVERIFY(QTest::qWaitFor([&] { return service.texts.size() == 4; }));
	const auto update = [](const QString &mode) {
		return QJsonObject{
			{u"type"_s, u"config_update"_s},
			{u"targetLanguages"_s,
			 QJsonArray{QJsonObject{{u"code"_s, u"es"_s}, {u"dubbing"_s, false}, {u"captions"_s, true}}}},
			{u"captionMode"_s, mode}};
	};
	QCOMPARE(QJsonDocument::fromJson(service.texts[1].toUtf8()).object(), update(u"translated"_s));
	QCOMPARE(QJsonDocument::fromJson(service.texts[2].toUtf8()).object(), update(u"original"_s));
	// The spoken language is not sent; the next message is that of the caption mode.
	QCOMPARE(QJsonDocument::fromJson(service.texts[3].toUtf8()).object(), update(u"translated"_s));
}

void TalvoraPluginTest::stopEndsTheSession()
{
	LoopbackService service;
	make().initialize();
	authenticate(service);
	plugin->stopSession();
	QVERIFY(QTest::qWaitFor([&] { return plugin->wsState() == WsState::Disconnected; }));
	QVERIFY(QTest::qWaitFor([&] { return service.closeCodes.size() == 1; }));
	QCOMPARE(service.texts.size(), 2);
	QCOMPARE(QJsonDocument::fromJson(service.texts[1].toUtf8())[u"type"], QJsonValue(u"stop"_s));
}

void TalvoraPluginTest::changesOutsideASessionAreOnlySaved()
{
	LoopbackService service;
	make().initialize();
	plugin->setCaptionMode(u"original"_s);
	plugin->setLanguageTargets({{u"es"_s, {false, true}}});
	QCOMPARE(savedConfig()[u"captionMode"], QJsonValue(u"original"_s));
	authenticate(service);
	plugin->setCaptionMode(u"translation"_s);
	QVERIFY(QTest::qWaitFor([&] { return service.texts.size() >= 2; }));
	// Had an earlier change been sent or kept back, it would be here.
	QCOMPARE(service.texts.size(), 2);
	QCOMPARE(QJsonDocument::fromJson(service.texts[0].toUtf8())[u"type"], QJsonValue(u"auth"_s));
	QCOMPARE(QJsonDocument::fromJson(service.texts[1].toUtf8())[u"captionMode"], QJsonValue(u"translation"_s));
}

void TalvoraPluginTest::changesWhileReconnectingAreInTheNextAuth()
{
	LoopbackService service;
	make().initialize();
	plugin->setLanguageTargets({{u"es"_s, {false, true}}});
	authenticate(service);
	service.peer()->abort();
	QVERIFY(QTest::qWaitFor([&] { return plugin->wsState() == WsState::Reconnecting; }));
	plugin->setLanguageTargets({{u"fr"_s, {false, true}}});
	plugin->setCaptionMode(u"original"_s);
	QVERIFY(QTest::qWaitFor([&] { return service.texts.size() == 2; }));
	const QJsonDocument auth = QJsonDocument::fromJson(service.texts[1].toUtf8());
	QCOMPARE(auth[u"type"], QJsonValue(u"auth"_s));
	QCOMPARE(auth[u"captionMode"], QJsonValue(u"original"_s));
	QCOMPARE(auth[u"targetLanguages"].toArray().first().toObject()[u"code"], QJsonValue(u"fr"_s));
}

void TalvoraPluginTest::serviceSpeechReachesTheDubOfItsLanguage()
{
	LoopbackService service;
	make().initialize();
	plugin->setLanguageTargets({{u"es"_s, {true, false}}, {u"fr"_s, {true, false}}});
	authenticate(service);
	service.send(uR"({"type":"tts_start","language":"fr","clipId":4,"sampleRate":48000})"_s);
	service.sendFrame("\x02"
			  "fr" +
			  QByteArray(600, '\1'));
	service.send(uR"({"type":"tts_end","language":"fr"})"_s);
	QVERIFY(QTest::qWaitFor([&] { return plugin->dubs.dubbedSources.at(u"fr"_s)->speech.size() == 300; }));
	QCOMPARE(plugin->dubs.dubbedSources.at(u"es"_s)->speech.size(), size_t{0});
}

// Outputs

using Change = void (*)(TalvoraPlugin &);
Q_DECLARE_METATYPE(Change)

void TalvoraPluginTest::settersStoreAndSave_data()
{
	QTest::addColumn<Change>("change");
	QTest::addColumn<QString>("key");
	QTest::addColumn<QJsonValue>("saved");
	const auto row = [](const char *key, const QJsonValue &saved, Change change) {
		QTest::newRow(key) << change << QString::fromUtf8(key) << saved;
	};
	row("apiKey", u"tak_1"_s, [](TalvoraPlugin &p) { p.setApiKey(u"tak_1"_s); });
	row("captionMode", u"original"_s, [](TalvoraPlugin &p) { p.setCaptionMode(u"original"_s); });
	row("captionAlignment", u"left"_s, [](TalvoraPlugin &p) { p.setCaptionAlignment(u"left"_s); });
	row("captionTextColor", u"#80ff0001"_s,
	    [](TalvoraPlugin &p) { p.setCaptionTextColor(QColor(255, 0, 1, 128)); });
	row("captionBgColor", u"#ff010203"_s, [](TalvoraPlugin &p) { p.setCaptionBgColor(QColor(1, 2, 3)); });
	row("captionOpacity", 250, [](TalvoraPlugin &p) { p.setCaptionOpacity(250); });
	row("captionFont", QFont(u"Serif"_s, 9).toString(),
	    [](TalvoraPlugin &p) { p.setCaptionFont(QFont(u"Serif"_s, 9)); });
	row("duckingLevel", 0.5, [](TalvoraPlugin &p) { p.setDuckingLevel(0.5f); });
	row("ttsVolume", 2.0, [](TalvoraPlugin &p) { p.setTtsVolume(2.0f); });
	row("muteOriginal", true, [](TalvoraPlugin &p) { p.setMuteOriginal(true); });
	row("audioSource", u"Voice"_s, [](TalvoraPlugin &p) { p.setAudioSource(u"Voice"_s); });
	row("sourceLanguage", u"de"_s, [](TalvoraPlugin &p) { p.setSourceLanguage(u"de"_s); });
}

void TalvoraPluginTest::settersStoreAndSave()
{
	QFETCH(Change, change);
	QFETCH(QString, key);
	QFETCH(QJsonValue, saved);
	QList<QJsonValue> told;
	make();
	QObject listener;
	const auto note = [this, &told, key] { told.append(plugin->currentSettings().toJson()[key]); };
	connect(plugin, &TalvoraPlugin::settingsChanged, &listener, note);
	change(*plugin);
	QCOMPARE(plugin->currentSettings().toJson()[key], saved);
	QCOMPARE(savedConfig()[key], saved);
	QCOMPARE(told, QList{saved});
}

void TalvoraPluginTest::styleReachesTheCaptionSources_data()
{
	QTest::addColumn<Change>("change");
	QTest::addColumn<QString>("css");
	const auto row = [](const char *name, const QString &css, Change change) {
		QTest::newRow(name) << change << css;
	};
	row("alignment", u"align-items: flex-start;"_s, [](TalvoraPlugin &p) { p.setCaptionAlignment(u"left"_s); });
	row("text colour", u"color: rgba(255, 0, 1, 1);"_s,
	    [](TalvoraPlugin &p) { p.setCaptionTextColor(QColor(255, 0, 1)); });
	row("background colour", u"background-color: rgba(1, 2, 3, 1);"_s,
	    [](TalvoraPlugin &p) { p.setCaptionBgColor(QColor(1, 2, 3)); });
	row("opacity", u"opacity: 0.35;"_s, [](TalvoraPlugin &p) { p.setCaptionOpacity(35); });
	row("font", u"font-size: 9px;"_s, [](TalvoraPlugin &p) { p.setCaptionFont(QFont(u"Serif"_s, 9)); });
}

static QString captionCss(const char *name)
{
	obs_source_t *source = obs_get_source_by_name(name);
	obs_data_t *data = obs_source_get_settings(source);
	const QString css = QString::fromUtf8(obs_data_get_string(data, "css"));
	obs_data_release(data);
	obs_source_release(source);
	return css;
}

void TalvoraPluginTest::styleReachesTheCaptionSources()
{
	QFETCH(Change, change);
	QFETCH(QString, css);
	make().initialize();
	plugin->setLanguageTargets({{u"es"_s, {false, true}}});
	QVERIFY(!captionCss("Talvora Captions — Spanish").contains(css));
	change(*plugin);
	QVERIFY2(captionCss("Talvora Captions — Spanish").contains(css),
		 captionCss("Talvora Captions — Spanish").toUtf8().constData());
}

void TalvoraPluginTest::captionModeLeavesTheCaptionSourcesAlone()
{
	make().initialize();
	plugin->setLanguageTargets({{u"es"_s, {false, true}}});
	plugin->settings.captionOpacity = 12;
	plugin->setCaptionMode(u"original"_s);
	QVERIFY(!captionCss("Talvora Captions — Spanish").contains(u"opacity: 0.12;"_s));
}

void TalvoraPluginTest::clipEventsOfADubReachTheCaptions()
{
	make().initialize();
	plugin->setLanguageTargets({{u"es"_s, {true, true}}});
	CaptionManager &captions = *plugin->captionManager;
	const auto css = [&] { return captions.generateCss(u"es"_s); };
	captions.onCaption(u"es"_s, u"hola"_s, 1.0, 7, true);
	QVERIFY(!css().contains(u"hola"_s));

	plugin->onTtsAudioReady(u"es"_s, 7, QByteArray(960, 'x'), 48000);
	plugin->onTtsAudioReady(u"es"_s, 7, QByteArray(), 48000);
	const std::vector<float> original(480, 0.0f);
	std::thread([&] {
		plugin->dubs.dubbedSources.at(u"es"_s)->pushOriginalAudio(original.data(), original.data(), 480, 48000,
									  1);
	}).join();
	// Played and over; the caption manager hears of it on this thread, start first.
	QVERIFY(!css().contains(u"hola"_s));
	QCoreApplication::processEvents();
	QVERIFY(css().contains(u"hola"_s));
	QVERIFY(QTest::qWaitFor([&] { return !css().contains(u"hola"_s); }));
}

static void removeSource(const char *name)
{
	const OBSSourceAutoRelease source = obs_get_source_by_name(name);
	obs_source_remove(source);
}

/** Speech of a language for one second, as a piece of a clip. */
static QByteArray secondOfSpeech()
{
	return QByteArray(96000, '\x20');
}

void TalvoraPluginTest::playOriginal(size_t frames)
{
	const std::vector<float> silence(frames, 0.0f);
	plugin->dubs.dubbedSources.at(u"es"_s)->pushOriginalAudio(silence.data(), silence.data(), frames, 48000, 1);
	QCoreApplication::processEvents();
}

void TalvoraPluginTest::showCaptionOfAPlayingClip()
{
	make().initialize();
	plugin->setLanguageTargets({{u"es"_s, {true, true}}});
	plugin->onCaptionUpdated(u"es"_s, u"uno"_s, 8.0, 1);
	plugin->onCaptionUpdated(u"es"_s, u"dos"_s, 8.0, 2);
	plugin->onTtsAudioReady(u"es"_s, 2, secondOfSpeech(), 48000);
	playOriginal(480);
	QVERIFY2(spanishCss().contains(u"\"dos\""_s), "the clip does not show its caption");
}

QString TalvoraPluginTest::spanishCss() const
{
	return plugin->captionManager->generateCss(u"es"_s);
}

void TalvoraPluginTest::captionOfAClipThatIsNotHeardToItsEndGoes_data()
{
	QTest::addColumn<std::function<void(TalvoraPlugin &)>>("end");
	using End = std::function<void(TalvoraPlugin &)>;
	const auto row = [](const char *name, const End &end) { QTest::newRow(name) << end; };
	row("stopped", [](TalvoraPlugin &core) { core.onWsStateChanged(WsState::Disconnected); });
	row("connection lost", [](TalvoraPlugin &core) { core.onWsStateChanged(WsState::Reconnecting); });
	row("started anew", [](TalvoraPlugin &core) {
		core.setApiKey(u"k"_s);
		core.startSession();
	});
	row("dubbing switched off", [](TalvoraPlugin &core) { core.setLanguageTargets({{u"es"_s, {false, true}}}); });
	row("its language is spoken now", [](TalvoraPlugin &core) { core.setSourceLanguage(u"es"_s); });
	row("dub removed", [](TalvoraPlugin &) { removeSource("Talvora Dub — Spanish"); });
	row("pushed out by later speech", [](TalvoraPlugin &core) {
		for (int second = 0; second < 11; ++second) {
			core.onTtsAudioReady(u"es"_s, 3, secondOfSpeech(), 48000);
		}
	});
	row("no sound of the captured source", [](TalvoraPlugin &) {});
}

void TalvoraPluginTest::captionOfAClipThatIsNotHeardToItsEndGoes()
{
	QFETCH(const std::function<void(TalvoraPlugin &)>, end);
	showCaptionOfAPlayingClip();
	end(*plugin);
	// Two seconds without sound, and 1.5 s as after any clip.
	QVERIFY2(QTest::qWaitFor([this] { return !spanishCss().contains(u"::after"_s); }, 4500),
		 "the caption stays although its clip does not");
}

void TalvoraPluginTest::captionOfAPlayingClipStays()
{
	showCaptionOfAPlayingClip();
	QElapsedTimer clock;
	clock.start();
	// A chunk now and then is enough: four times as long as a caption lasts without one.
	while (clock.elapsed() < 8000) {
		plugin->onTtsAudioReady(u"es"_s, 2, QByteArray(960, '\x20'), 48000);
		playOriginal(480);
		QTest::qWait(500);
		QVERIFY2(spanishCss().contains(u"\"dos\""_s),
			 qPrintable(u"the caption went after %1 ms"_s.arg(clock.elapsed())));
	}
}

void TalvoraPluginTest::nothingIsShownOrSpokenAfterASession_data()
{
	QTest::addColumn<WsState>("state");
	QTest::newRow("disconnecting") << WsState::Disconnecting;
	QTest::newRow("disconnected") << WsState::Disconnected;
	QTest::newRow("reconnecting") << WsState::Reconnecting;
}

void TalvoraPluginTest::nothingIsShownOrSpokenAfterASession()
{
	QFETCH(WsState, state);
	make().initialize();
	plugin->setLanguageTargets({{u"es"_s, {true, true}}});
	const QSignalSpy heard(plugin, &TalvoraPlugin::transcriptUpdated);
	const auto everything = [this] {
		plugin->onCaptionUpdated(u"es"_s, u"tarde"_s, 8.0, 1);
		plugin->onTtsAudioReady(u"es"_s, 1, QByteArray(200, 'x'), 48000);
		plugin->onTranscriptInterim(u"late"_s);
	};
	plugin->onWsStateChanged(WsState::Authenticated);
	plugin->onWsStateChanged(state);
	everything();
	QVERIFY(!spanishCss().contains(u"tarde"_s));
	QCOMPARE(plugin->dubs.dubbedSources.at(u"es"_s)->speech.size(), size_t{0});
	QCOMPARE(heard.size(), 0);

	plugin->onWsStateChanged(WsState::Authenticated);
	everything();
	QVERIFY(spanishCss().contains(u"tarde"_s));
	QCOMPARE(plugin->dubs.dubbedSources.at(u"es"_s)->speech.size(), size_t{100});
	QCOMPARE(heard.size(), 1);
}

void TalvoraPluginTest::lostConnectionFlushesTheDubs_data()
{
	QTest::addColumn<WsState>("state");
	QTest::addColumn<bool>("flushed");
	QTest::newRow("disconnected") << WsState::Disconnected << true;
	QTest::newRow("connecting") << WsState::Connecting << false;
	QTest::newRow("connected") << WsState::Connected << false;
	QTest::newRow("authenticated") << WsState::Authenticated << false;
	QTest::newRow("reconnecting") << WsState::Reconnecting << true;
	QTest::newRow("disconnecting") << WsState::Disconnecting << false;
}

void TalvoraPluginTest::lostConnectionFlushesTheDubs()
{
	QFETCH(WsState, state);
	QFETCH(bool, flushed);
	make().setLanguageTargets({{u"es"_s, {true, false}}});
	plugin->onTtsAudioReady(u"es"_s, 1, QByteArray(200, 'x'), 48000);
	plugin->onWsStateChanged(state);
	QCOMPARE(plugin->dubs.dubbedSources.at(u"es"_s)->speech.size(), flushed ? size_t{0} : size_t{100});
}

static bool sourceExists(const char *name)
{
	obs_source_t *source = obs_get_source_by_name(name);
	const bool exists = source && !obs_source_removed(source);
	obs_source_release(source);
	return exists;
}

void TalvoraPluginTest::removedDubComesBackWithTheNextSession()
{
	make().initialize();
	plugin->setApiKey(u"k"_s);
	plugin->setLanguageTargets({{u"es"_s, {true, false}}});
	obs_source_t *dub = obs_get_source_by_name("Talvora Dub — Spanish");
	obs_source_remove(dub);
	obs_source_release(dub);
	QVERIFY(!sourceExists("Talvora Dub — Spanish"));
	plugin->startSession();
	QVERIFY(sourceExists("Talvora Dub — Spanish"));
}

void TalvoraPluginTest::sameAudioSourceNeitherSavesNorAttaches()
{
	make().setAudioSource(u"Voice"_s);
	QVERIFY(log->contains(LOG_WARNING, u"[talvora-obs] Talvora: audio source 'Voice' not found"_s));
	log->clear();
	QVERIFY(QFile::remove(configPath()));
	plugin->setAudioSource(u"Voice"_s);
	QVERIFY(!QFile::exists(configPath()));
	QCOMPARE(log->ownLines(), QStringList());
}

void TalvoraPluginTest::previewWithoutCaptionLanguageDoesNothing()
{
	make().initialize();
	setTargets(*plugin, {{u"es"_s, {false, false}}});
	plugin->settings.captionOpacity = 12;
	log->clear();
	plugin->previewCaptionText(u"Hello"_s);
	QVERIFY(!plugin->captionManager->generateCss(u"es"_s).contains(u"opacity: 0.12;"_s));
	QVERIFY(plugin->captionManager->generateCss(u"es"_s).contains(u"opacity: 1;"_s));
	QCOMPARE(log->ownLines(), QStringList());
}

void TalvoraPluginTest::previewShowsTheTextInEveryCaptionLanguage()
{
	make().initialize();
	setTargets(*plugin, {{u"es"_s, {false, true}}, {u"fr"_s, {true, true}}, {u"de"_s, {true, false}}});
	const QString text = u"Hello there"_s.leftJustified(100, u'!');
	plugin->previewCaptionText(text);
	for (const char *name : {"Talvora Captions — Spanish", "Talvora Captions — French"}) {
		obs_source_t *source = obs_get_source_by_name(name);
		QVERIFY2(source, name);
		obs_data_t *data = obs_source_get_settings(source);
		const QString css = QString::fromUtf8(obs_data_get_string(data, "css"));
		obs_data_release(data);
		obs_source_release(source);
		QVERIFY2(css.contains(text), name);
	}
	// 75 ms for each character, as there is no speech that would say how long.
	const QList<QTimer *> timers = plugin->captionManager->findChildren<QTimer *>();
	QCOMPARE(std::count_if(timers.begin(), timers.end(),
			       [](const QTimer *timer) { return timer->isActive() && timer->interval() == 7500; }),
		 2);
	QVERIFY(!obs_get_source_by_name("Talvora Captions — German"));
}

// Audio capture

void TalvoraPluginTest::playedAudioArrivesAtTheService()
{
	LoopbackService service;
	TestAudioSource voice("Voice");
	make().initialize();
	plugin->setAudioSource(u"Voice"_s);
	authenticate(service);
	for (int chunk = 0; chunk < 3; ++chunk) {
		voice.playConstant(0.5f, 1000);
	}
	const auto received = [&] { return service.frames.join(); };
	QVERIFY(QTest::qWaitFor([&] { return received().size() == 1000 * 2; }));
	// 333, 333 and 334 samples, of which a frame takes 160.
	QByteArray expected;
	for (int sample = 0; sample < 1000; ++sample) {
		expected.append("\xff\x3f");
	}
	QCOMPARE(received(), expected);
	for (const QByteArray &frame : service.frames) {
		QVERIFY2(frame.size() <= 320 && frame.size() % 2 == 0, QByteArray::number(frame.size()));
	}
}

// Changes of the scene

static void removeAllSources()
{
	obs_enum_sources(
		[](void *, obs_source_t *source) {
			obs_source_remove(source);
			return true;
		},
		nullptr);
}

void TalvoraPluginTest::outputsComeBackInAnotherCollection()
{
	writeConfig(
		R"({"audioSource": "Voice", "targetLanguages": [{"code": "es", "dubbing": true, "captions": true}]})");
	std::optional<TestAudioSource> voice("Voice");
	make().initialize();
	QCoreApplication::processEvents();
	QVERIFY(plugin->capture.isCapturing());
	const DubbedSource *dub = plugin->dubs.dubbedSources.at(u"es"_s).get();

	removeAllSources();
	voice.reset();
	QVERIFY(!sourceExists("Talvora Dub — Spanish"));
	QVERIFY(!sourceExists("Talvora Captions — Spanish"));
	QVERIFY(ObsFixture::isGone("Voice"));
	voice.emplace("Voice");
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED);
	QCoreApplication::processEvents();
	QVERIFY(sourceExists("Talvora Dub — Spanish"));
	QVERIFY(sourceExists("Talvora Captions — Spanish"));
	QVERIFY(plugin->capture.isCapturing());
	QCOMPARE(plugin->dubs.dubbedSources.at(u"es"_s).get(), dub);

	const Heard heard("Talvora Dub — Spanish");
	voice->playConstant(0.25f, 1024);
	QCOMPARE(heard.samples, std::vector<float>(1024, 0.25f));
}

void TalvoraPluginTest::limitThatComesWhileACollectionIsClearedMakesNothingThen()
{
	writeConfig(R"({"targetLanguages": [{"code": "es", "dubbing": true, "captions": true},
					    {"code": "fr", "dubbing": true, "captions": true}]})");
	make().initialize();
	const QStringList names{u"Talvora Dub — Spanish"_s, u"Talvora Captions — Spanish"_s};
	const QStringList dropped{u"Talvora Dub — French"_s, u"Talvora Captions — French"_s};
	const auto exists = [](const QString &name) { return sourceExists(name.toUtf8()); };

	removeAllSources();
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CLEANUP);
	plugin->onAuthSucceeded({}, {}, 1);
	QCOMPARE(plugin->targetLanguageCodes(), QStringList{u"es"_s});
	QVERIFY(std::ranges::none_of(names + dropped, exists));
	frontendStub().emitEvent(OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED);
	QCoreApplication::processEvents();
	QVERIFY(std::ranges::all_of(names, exists));
	QVERIFY(std::ranges::none_of(dropped, exists));
	QVERIFY(!plugin->dubs.dubbedSources.contains(u"fr"_s));
}

void TalvoraPluginTest::captureBeginsWhenItsSourceAppears()
{
	make().initialize();
	plugin->setAudioSource(u"Voice"_s);
	QVERIFY(!plugin->capture.isCapturing());
	const QSignalSpy changed(plugin, &TalvoraPlugin::audioSourcesChanged);
	const TestAudioSource other("Other");
	QCoreApplication::processEvents();
	QVERIFY(!plugin->capture.isCapturing());
	const TestAudioSource voice("Voice");
	QCoreApplication::processEvents();
	QVERIFY(plugin->capture.isCapturing());
	QCOMPARE(changed.size(), 2);
}

void TalvoraPluginTest::captureEndsWhenItsSourceIsRemoved()
{
	std::optional<TestAudioSource> voice("Voice");
	make().initialize();
	plugin->setAudioSource(u"Voice"_s);
	log->clear();
	obs_source_remove(voice->get());
	QCoreApplication::processEvents();
	QVERIFY(log->contains(LOG_INFO, u"[talvora-obs] Talvora: detached audio capture from 'Voice'"_s));
	QCOMPARE(plugin->capture.audioSourceRef, nullptr);
	QCOMPARE(plugin->currentSettings().audioSource, u"Voice"_s);
}

void TalvoraPluginTest::captureFollowsTheRenamedSource()
{
	const TestAudioSource voice("Voice");
	make().initialize();
	plugin->setAudioSource(u"Voice"_s);
	const QSignalSpy changed(plugin, &TalvoraPlugin::settingsChanged);
	obs_source_set_name(voice.get(), "Microphone");
	QCoreApplication::processEvents();
	QCOMPARE(plugin->currentSettings().audioSource, u"Microphone"_s);
	QCOMPARE(savedConfig()[u"audioSource"], QJsonValue(u"Microphone"_s));
	QCOMPARE(changed.size(), 1);
	QVERIFY(plugin->capture.isCapturing());
}

void TalvoraPluginTest::sourceThatTakesTheNameIsCaptured()
{
	const TestAudioSource voice("Anything");
	make().initialize();
	plugin->setAudioSource(u"Voice"_s);
	obs_source_set_name(voice.get(), "Voice");
	QCoreApplication::processEvents();
	QVERIFY(plugin->capture.isCapturing());
}

void TalvoraPluginTest::nothingIsWatchedAfterShutdown()
{
	make().initialize();
	plugin->shutdown();
	QVERIFY(frontendStub().callbacks.empty());
	const QSignalSpy changed(plugin, &TalvoraPlugin::audioSourcesChanged);
	const TestAudioSource voice("Voice");
	QCoreApplication::processEvents();
	QCOMPARE(changed.size(), 0);
}

void TalvoraPluginTest::onlyASourceThatIsThereIsTakenUp()
{
	const QString name = u"Talvora Dub — Spanish"_s;
	make().initialize();
	plugin->setLanguageTargets({{u"es"_s, {true, false}}});
	OBSSourceAutoRelease dub = obs_get_source_by_name(qPrintable(name));
	obs_source_remove(dub);
	QVERIFY(!plugin->dubs.dubbedSources.at(u"es"_s)->hasSource());
	// Told late of one that was there for a moment: it is still held by somebody, and then by nobody.
	plugin->onSourceCreated(name);
	QVERIFY(!plugin->dubs.dubbedSources.at(u"es"_s)->hasSource());
	dub = nullptr;
	QVERIFY(ObsFixture::isGone(qPrintable(name)));
	plugin->onSourceCreated(name);
	QVERIFY(!plugin->dubs.dubbedSources.at(u"es"_s)->hasSource());

	const OBSSourceAutoRelease made =
		obs_source_create("talvora_dubbed_source", qPrintable(name), nullptr, nullptr);
	plugin->onSourceCreated(name);
	QVERIFY(plugin->dubs.dubbedSources.at(u"es"_s)->publishes(made));
}

void TalvoraPluginTest::renewedDubThatIsPutOutByTheCapturedSourceEndsTheCapture()
{
	make().initialize();
	plugin->setApiKey(u"k"_s);
	plugin->setLanguageTargets({{u"es"_s, {true, false}}});
	{
		const OBSSourceAutoRelease dub = obs_get_source_by_name("Talvora Dub — Spanish");
		obs_source_remove(dub);
	}
	QVERIFY(ObsFixture::isGone("Talvora Dub — Spanish"));
	TestAudioSource voice("Talvora Dub — Spanish");
	plugin->setAudioSource(u"Talvora Dub — Spanish"_s);
	QVERIFY(plugin->capture.isCapturing());
	plugin->startSession();
	QVERIFY(plugin->dubs.dubbedSources.at(u"es"_s)->publishes(voice.get()));
	QVERIFY(!plugin->capture.isCapturing());
	voice.playConstant(0.5f, 1024);
}

void TalvoraPluginTest::selectionChangesWhileAudioFlows()
{
	make().initialize();
	TestAudioSource voice("Voice");
	plugin->setAudioSource(u"Voice"_s);
	std::atomic<bool> stop = false;
	std::atomic<int> chunks = 0;
	std::thread audio([&] {
		while (!stop) {
			voice.playConstant(0.25f, 480);
			++chunks;
		}
	});
	QRandomGenerator chance(7);
	const QStringList codes{u"es"_s, u"fr"_s, u"it"_s, u"pt"_s};
	for (int round = 0; round < 200; ++round) {
		LanguageTargets targets;
		for (const QString &code : codes) {
			if (chance.bounded(2)) {
				targets[code] = {chance.bounded(2) != 0, false};
			}
		}
		plugin->setLanguageTargets(targets);
		plugin->setSourceLanguage(chance.bounded(3) ? u"en"_s : codes[chance.bounded(4)]);
		plugin->setDuckingLevel(static_cast<float>(chance.generateDouble()));
		plugin->setMuteOriginal(chance.bounded(2) != 0);
		plugin->onTtsAudioReady(codes[chance.bounded(4)], round, QByteArray(9600, 'x'), 24000);
		if (round % 10 == 0) {
			plugin->attachAudioCapture();
			plugin->onWsStateChanged(WsState::Disconnected);
		}
		QCoreApplication::processEvents();
	}
	const int before = chunks;
	QVERIFY(QTest::qWaitFor([&] { return chunks > before + 10; }));
	stop = true;
	audio.join();
	QVERIFY(plugin->capture.isCapturing());
}

QTEST_MAIN(TalvoraPluginTest)
#include "talvora-plugin-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/client-thread.h"

#include "client/ws-client.h"
#include "log-capture.h"
#include "settings/settings.h"

#include <QPointer>
#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <atomic>
#include <optional>
#include <utility>

using namespace Qt::StringLiterals;

class ClientThreadTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	void withoutAClientNothingHappens();
	void clientLivesOnItsOwnThread();
	void nothingRunsBeforeTheStart();
	void startHandsTheStoredValuesToTheClient();
	void updateHandsTheStoredValuesToTheClient();
	void audioReachesTheClient();
	void stopEndsTheThreadAndTheClient();
	void canBeMadeAnew();
	void threadThatHangsIsLeft();

private:
	/** What the client has stored, read on its thread. */
	struct Stored {
		QStringList values;
		QJsonArray targets;
	};
	Stored stored();

	std::optional<LogCapture> log;
	std::optional<QObject> parent;
	std::optional<ClientThread> client;
};

void ClientThreadTest::init()
{
	log.emplace();
	parent.emplace();
	client.emplace();
}

void ClientThreadTest::cleanup()
{
	client->stop();
	client.reset();
	parent.reset();
	log.reset();
}

ClientThreadTest::Stored ClientThreadTest::stored()
{
	Stored found;
	std::atomic<bool> read = false;
	const WSClient *inside = client->wsClient;
	QMetaObject::invokeMethod(
		client->wsClient,
		[&] {
			found = {{inside->apiKey, inside->serverUrl, inside->sourceLanguage, inside->captionMode},
				 inside->targetLanguages};
			// The thread sanitizer does not see what Qt waits with.
			read = true;
		},
		Qt::BlockingQueuedConnection);
	// Waits for nothing: only to be read by this thread.
	return read ? found : Stored();
}

void ClientThreadTest::withoutAClientNothingHappens()
{
	QVERIFY(!client->exists());
	QVERIFY(!client->isRunning());
	QCOMPARE(client->state(), WsState::Disconnected);
	QVERIFY(!client->connectToServer({}));
	client->disconnectFromServer();
	client->updateConfig({});
	const int16_t sample = 1;
	client->enqueueAudio(&sample, 1);
	client->stop();
	QCOMPARE(log->ownLines(), QStringList());
}

void ClientThreadTest::clientLivesOnItsOwnThread()
{
	const WSClient *made = client->make(&*parent);
	client->start();
	QVERIFY(client->exists());
	QVERIFY(client->isRunning());
	QCOMPARE(client->wsThread->objectName(), u"TA-WebSocket"_s);
	QCOMPARE(client->wsThread->parent(), &*parent);
	QCOMPARE(client->wsClient.load(), made);
	QCOMPARE(made->thread(), client->wsThread);
	QCOMPARE(made->parent(), nullptr);
}

void ClientThreadTest::nothingRunsBeforeTheStart()
{
	client->make(&*parent);
	QVERIFY(client->exists());
	QVERIFY(!client->isRunning());
	client->start();
	QVERIFY(client->isRunning());
}

void ClientThreadTest::startHandsTheStoredValuesToTheClient()
{
	Settings chosen;
	chosen.apiKey = u"tak_secret"_s;
	chosen.sourceLanguage = u"fr"_s;
	chosen.captionMode = u"original"_s;
	chosen.languageTargets = {{u"es"_s, {.dubbing = false, .captions = true}}};
	client->make(&*parent);
	client->start();
	QVERIFY(client->connectToServer(chosen));
	const Stored found = stored();
	QCOMPARE(found.values,
		 (QStringList{u"tak_secret"_s, u"wss://localhost:3002/ws/audio-pipeline"_s, u"fr"_s, u"original"_s}));
	QCOMPARE(found.targets, chosen.targetLanguagesJson());
	QVERIFY(client->state() != WsState::Disconnected);

	client->disconnectFromServer();
	QVERIFY(QTest::qWaitFor([this] { return client->state() == WsState::Disconnected; }));
}

void ClientThreadTest::updateHandsTheStoredValuesToTheClient()
{
	Settings chosen;
	chosen.captionMode = u"original"_s;
	chosen.languageTargets = {{u"de"_s, {.dubbing = true, .captions = false}}};
	client->make(&*parent);
	client->start();
	client->updateConfig(chosen);
	const Stored found = stored();
	QCOMPARE(found.values.last(), u"original"_s);
	QCOMPARE(found.targets, chosen.targetLanguagesJson());
}

void ClientThreadTest::audioReachesTheClient()
{
	WSClient *made = client->make(&*parent);
	// Without a connection nothing is queued.
	made->state_ = WsState::Connected;
	const int16_t samples[] = {1, 2, 3};
	client->enqueueAudio(samples, 3);
	QCOMPARE(made->audioRing.held(), sizeof(samples));
}

void ClientThreadTest::stopEndsTheThreadAndTheClient()
{
	const QPointer<WSClient> made = client->make(&*parent);
	client->start();
	client->stop();
	QVERIFY(!made);
	QVERIFY(!client->exists());
	QVERIFY(!client->isRunning());
	QVERIFY(parent->children().isEmpty());
	QCOMPARE(log->lines(LOG_WARNING), QStringList());
}

void ClientThreadTest::canBeMadeAnew()
{
	client->make(&*parent);
	client->start();
	client->stop();
	client->make(&*parent);
	client->start();
	QVERIFY(client->isRunning());
	QCOMPARE(client->state(), WsState::Disconnected);
}

void ClientThreadTest::threadThatHangsIsLeft()
{
	WSClient *made = client->make(&*parent);
	client->start();
	QThread *thread = client->wsThread;
	QSemaphore hanging;
	QSemaphore release;
	QMetaObject::invokeMethod(
		made,
		[&] {
			hanging.release();
			release.acquire();
		},
		Qt::QueuedConnection);
	hanging.acquire();

	// No clock can tell 5000 from 5001.
	QCOMPARE(ClientThread::kThreadStopDeadline, 5000UL);
	client->stop();
	QCOMPARE(log->ownLines(),
		 QStringList{u"[talvora-obs] Talvora: WS thread did not stop in 5 s — detaching (leak to avoid UB)"_s});
	QCOMPARE(log->lines(LOG_WARNING).size(), 1);
	QVERIFY(!client->exists());
	QVERIFY(!client->isRunning());
	QCOMPARE(client->wsThread, nullptr);

	// The thread outlives its former parent unharmed.
	parent.reset();
	release.release();
	QVERIFY(thread->wait(5000));
	delete made;
	delete thread;
}

QTEST_MAIN(ClientThreadTest)
#include "client-thread-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "fault-proxy.h"
#include "heap-guard.h"
#include "log-capture.h"
#include "loopback-service.h"
#include "ws-client-session.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QSignalSpy>
#include <QSslConfiguration>
#include <QStringList>
#include <QTest>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include <sys/resource.h>

/**
 * Stands in for OBS's audio thread: hands over 10 ms of audio every 10 ms while it lives, and notes whether a call had
 * to wait for anything or used the heap.
 */
class AudioThread {
public:
	explicit AudioThread(WSClient &target) : client(target), thread([this] { run(); }) {}
	~AudioThread() { end(); }

	void end()
	{
		ending = true;
		if (thread.joinable()) {
			thread.join();
		}
	}

	std::atomic<int> calls = 0;
	/** Calls in which the thread gave up the processor by itself. */
	std::atomic<int> waits = 0;
	std::atomic<int> allocations = 0;

private:
	static long voluntarySwitches()
	{
		rusage usage{};
		getrusage(RUSAGE_THREAD, &usage);
		return usage.ru_nvcsw;
	}

	void run()
	{
		const auto samples = countingSamples(160);
		while (!ending) {
			HeapGuard guard;
			const long before = voluntarySwitches();
			client.enqueueAudio(samples.data(), samples.size());
			waits += voluntarySwitches() != before;
			guard.stop();
			allocations += guard.calls();
			++calls;
			std::this_thread::sleep_for(std::chrono::milliseconds(10));
		}
	}

	WSClient &client;
	std::atomic<bool> ending = false;
	std::thread thread;
};

/** A session through a proxy, with the audio running. */
struct Session {
	explicit Session(const std::optional<QSslConfiguration> &certificate = std::nullopt,
			 const QHostAddress &address = QHostAddress::LocalHost,
			 const QString &host = QStringLiteral("localhost"))
		: service(certificate), proxy(static_cast<quint16>(QUrl(service.url()).port()), address),
		  url(proxy.url(certificate ? QStringLiteral("wss") : QStringLiteral("ws"), host))
	{
	}

	void connect() { start(client, url); }

	/** Waits for the next "auth" and accepts it. */
	bool accept()
	{
		const auto auths = [this] { return service.texts.filter(R"("type":"auth")").size(); };
		if (!QTest::qWaitFor([&] { return auths() > accepted; })) {
			return false;
		}
		accepted = auths();
		service.send(kAuthOk);
		return QTest::qWaitFor([this] { return client.state() == WsState::Authenticated; });
	}

	bool goesOn()
	{
		const qsizetype before = service.frames.size();
		return QTest::qWaitFor([this, before] { return service.frames.size() > before + 5; });
	}

	bool lost() const
	{
		return QTest::qWaitFor([this] { return client.state() == WsState::Reconnecting; });
	}

	/** The user stops. Says what is wrong then, if anything: nothing may be left, and no audio may have waited. */
	QString flawAtTheEnd()
	{
		// A short session on a busy machine may be over before the audio thread has had a turn.
		(void)QTest::qWaitFor([&] { return audio.calls > 0; });
		QElapsedTimer timer;
		timer.start();
		client.disconnectFromServer();
		const qint64 taken = timer.elapsed();
		audio.end();
		if (taken > 1000) {
			return QStringLiteral("stopping took %1 ms").arg(taken);
		}
		if (client.state() != WsState::Disconnected) {
			return QStringLiteral("state %1 after the end").arg(static_cast<int>(client.state()));
		}
		if (audio.calls == 0 || audio.waits > 0 || audio.allocations > 0) {
			return QStringLiteral("of %1 calls of the audio thread %2 waited, with %3 allocations")
				.arg(audio.calls.load())
				.arg(audio.waits.load())
				.arg(audio.allocations.load());
		}
		// The socket and three timers.
		if (client.children().size() != 4) {
			return QStringLiteral("the client has %1 children").arg(client.children().size());
		}
		if (!QTest::qWaitFor([this] { return proxy.open() == 0; })) {
			return QStringLiteral("%1 connections stay open").arg(proxy.open());
		}
		return {};
	}

	QStringList reasons() const
	{
		QStringList found;
		for (const QList<QVariant> &error : errors) {
			found.append(error.first().toString());
		}
		return found;
	}

	const LogCapture log;
	LoopbackService service;
	FaultProxy proxy;
	const QString url;
	WSClient client;
	const States states{client};
	const QSignalSpy errors{&client, &WSClient::errorOccurred};
	AudioThread audio{client};
	qsizetype accepted = 0;
};

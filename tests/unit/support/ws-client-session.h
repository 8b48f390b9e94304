// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "client/ws-client.h"
#include "loopback-service.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QString>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <memory>
#include <numeric>
#include <vector>

// What the tests of the service client share: a session in a known state, and what it said and showed.

#if defined(__GNUC__)
// QTRY_COMPARE and its kind narrow a duration's count where they are used (Qt 6.8).
#pragma GCC diagnostic ignored "-Wconversion"
#endif

inline constexpr const char *kKey = "tk_secret";
inline constexpr const char *kAuthOk = R"({"type":"auth_ok"})";
inline constexpr const char *kStop = R"({"type":"stop"})";
inline QJsonArray targets(const QString &code)
{
	return {QJsonObject{{"code", code}, {"dubbing", true}, {"captions", true}}};
}

inline QString authText(const QString &key, const QString &source, const QString &target, const QString &mode)
{
	return QStringLiteral(R"({"apiKey":"%1","captionMode":"%4","sourceLanguage":"%2",)"
			      R"("targetLanguages":[{"captions":true,"code":"%3","dubbing":true}],"type":"auth"})")
		.arg(key, source, target, mode);
}

/** Numbers of the states, for lists of them. */
inline constexpr int kDisconnected = 0;
inline constexpr int kConnecting = 1;
inline constexpr int kConnected = 2;
inline constexpr int kAuthenticated = 3;
inline constexpr int kReconnecting = 4;
inline constexpr int kDisconnecting = 5;

/** Samples counting up from `first`. */
inline std::vector<int16_t> countingSamples(size_t count, int16_t first = 0)
{
	std::vector<int16_t> samples(count);
	std::iota(samples.begin(), samples.end(), first);
	return samples;
}

inline QByteArray bytesOf(const std::vector<int16_t> &samples)
{
	return QByteArray(reinterpret_cast<const char *>(samples.data()),
			  static_cast<qsizetype>(samples.size() * sizeof(int16_t)));
}

/** The state changes of a client, in order. */
class States {
public:
	explicit States(WSClient &client)
	{
		QObject::connect(&client, &WSClient::stateChanged, &client,
				 [this](WsState state) { seen.append(static_cast<int>(state)); });
	}
	QList<int> seen;
};

/** Counts every signal a client emits, by signal name. */
class AllSignals {
public:
	explicit AllSignals(WSClient &client)
	{
		const QMetaObject *meta = client.metaObject();
		for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
			if (meta->method(i).methodType() == QMetaMethod::Signal) {
				spies.push_back(std::make_unique<QSignalSpy>(&client, meta->method(i)));
			}
		}
	}
	qsizetype kinds() const { return static_cast<qsizetype>(spies.size()); }
	qsizetype total() const
	{
		qsizetype sum = 0;
		for (const auto &spy : spies) {
			sum += spy->count();
		}
		return sum;
	}

private:
	std::vector<std::unique_ptr<QSignalSpy>> spies;
};

inline void start(WSClient &client, const QString &url)
{
	client.connectToServer(kKey, url, "en", targets("es"), "translated");
}

/** Brings the client up to the state Authenticated, with all that was queued for the service delivered. */
inline bool authenticate(WSClient &client, LoopbackService &service)
{
	const auto auths = [&service] { return service.texts.filter(R"("type":"auth")").size(); };
	const qsizetype before = auths();
	start(client, service.url());
	if (!QTest::qWaitFor([&] { return auths() > before; })) {
		return false;
	}
	service.send(kAuthOk);
	return QTest::qWaitFor([&] { return client.state() == WsState::Authenticated; });
}

/** Waits until the client has handled all that the service has sent so far. */
inline bool delivered(WSClient &client, LoopbackService &service)
{
	QSignalSpy interim(&client, &WSClient::transcriptInterim);
	service.send(R"({"type":"transcript_interim","text":"mark"})");
	return QTest::qWaitFor([&] { return !interim.isEmpty(); });
}

/** Lets the waiting reconnect happen now. */
inline void reconnectNow(WSClient &client)
{
	const auto timers = client.findChildren<QTimer *>();
	const auto waiting = std::find_if(timers.begin(), timers.end(), [](const QTimer *timer) {
		return timer->isSingleShot() && timer->isActive();
	});
	QVERIFY(waiting != timers.end());
	(*waiting)->stop();
	QVERIFY(QMetaObject::invokeMethod(&client, "onReconnectTimerTick"));
}

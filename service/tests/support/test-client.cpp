// SPDX-License-Identifier: GPL-3.0-or-later
#include "test-client.h"

#include <QJsonDocument>
#include <QTest>

QString TestClient::Received::type() const
{
	return frame.isEmpty() ? json.value("type").toString() : QStringLiteral("binary");
}

QString TestClient::Received::language() const
{
	return frame.isEmpty() ? json.value("language").toString() : QString::fromLatin1(frame.mid(1, frame.at(0)));
}

TestClient::TestClient(const QSslConfiguration &tls)
{
	socket.setSslConfiguration(tls);
	connect(&socket, &QWebSocket::textMessageReceived, this, [this](const QString &text) {
		received.append({QJsonDocument::fromJson(text.toUtf8()).object(), {}});
	});
	connect(&socket, &QWebSocket::binaryMessageReceived, this,
		[this](const QByteArray &frame) { received.append({{}, frame}); });
	connect(&socket, &QWebSocket::disconnected, this, [this] { ended = true; });
}

bool TestClient::connectTo(const QString &url)
{
	socket.open(QUrl(url));
	return QTest::qWaitFor([this] { return socket.state() == QAbstractSocket::ConnectedState; }, kTimeoutMs);
}

bool TestClient::start(const QString &url, const QJsonArray &targets, const QString &mode, const QString &source)
{
	if (!connectTo(url)) {
		return false;
	}
	sendAuth(targets, mode, source);
	return waitFor("auth_ok");
}

void TestClient::send(const QJsonObject &message)
{
	socket.sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void TestClient::sendAuth(const QJsonArray &targets, const QString &mode, const QString &source, const QString &key)
{
	send({{"type", "auth"},
	      {"apiKey", key},
	      {"sourceLanguage", source},
	      {"captionMode", mode},
	      {"targetLanguages", targets}});
}

void TestClient::sendAudio(const QByteArray &pcm)
{
	constexpr qsizetype frameBytes = 320;
	for (qsizetype offset = 0; offset < pcm.size(); offset += frameBytes) {
		socket.sendBinaryMessage(pcm.mid(offset, frameBytes));
	}
}

bool TestClient::waitFor(const QString &type, const QString &language, int count, int timeoutMs)
{
	return QTest::qWaitFor([&] { return all(type, language).size() >= count; }, timeoutMs);
}

bool TestClient::waitForEnd(int timeoutMs)
{
	return QTest::qWaitFor([this] { return ended; }, timeoutMs);
}

QList<QJsonObject> TestClient::all(const QString &type, const QString &language) const
{
	QList<QJsonObject> found;
	for (const Received &each : received) {
		if (each.type() == type && (language.isEmpty() || each.language() == language)) {
			found.append(each.json);
		}
	}
	return found;
}

QStringList TestClient::order() const
{
	QStringList types;
	for (const Received &each : received) {
		types.append(each.language().isEmpty() ? each.type() : each.type() + ':' + each.language());
	}
	return types;
}

QByteArray TestClient::audio(const QString &language) const
{
	QByteArray pcm;
	for (const Received &each : received) {
		if (each.type() == QLatin1String("binary") && each.language() == language) {
			pcm += each.frame.mid(1 + language.size());
		}
	}
	return pcm;
}

QJsonObject wants(const QString &code, bool dubbing, bool captions)
{
	return {{"code", code}, {"dubbing", dubbing}, {"captions", captions}};
}

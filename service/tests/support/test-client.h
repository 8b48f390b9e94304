// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QSslConfiguration>
#include <QString>
#include <QWebSocket>

/** A client of the service that keeps everything it hears. */
class TestClient : public QObject {
	Q_OBJECT

public:
	static constexpr int kTimeoutMs = 20000;

	/** One thing received: a text message, or a binary frame. */
	struct Received {
		QJsonObject json;
		QByteArray frame;
		[[nodiscard]] QString type() const;
		[[nodiscard]] QString language() const;
	};

	explicit TestClient(const QSslConfiguration &tls);

	bool connectTo(const QString &url);
	/** Connects, sends "auth" and waits for "auth_ok". */
	bool start(const QString &url, const QJsonArray &targets, const QString &mode = "translated",
		   const QString &source = "en");
	void send(const QJsonObject &message);
	void sendAuth(const QJsonArray &targets, const QString &mode = "translated", const QString &source = "en",
		      const QString &key = "tak_live_local");
	/** Sends audio as clients do, in frames of 320 bytes. */
	void sendAudio(const QByteArray &pcm);

	/** Waits until so many messages of a type (and language, unless empty) have come. */
	bool waitFor(const QString &type, const QString &language = {}, int count = 1, int timeoutMs = kTimeoutMs);
	bool waitForEnd(int timeoutMs = kTimeoutMs);
	[[nodiscard]] QList<QJsonObject> all(const QString &type, const QString &language = {}) const;
	/**
	 * Types of the text messages and "binary" for frames, in order; with the language behind a colon if there is
	 * one.
	 */
	[[nodiscard]] QStringList order() const;
	/** The audio of a language's frames, tags taken off. */
	[[nodiscard]] QByteArray audio(const QString &language) const;

	QWebSocket socket;
	QList<Received> received;
	bool ended = false;
};

/** One element of "targetLanguages". */
QJsonObject wants(const QString &code, bool dubbing, bool captions);

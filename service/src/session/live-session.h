// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "base/event-log.h"
#include "engines/engine-room.h"
#include "session/connection.h"
#include "session/dub-sender.h"
#include "session/wire.h"
#include "sign-in/token-store.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>
#include <optional>

/** What a session needs from the service around it. */
struct SessionSettings {
	/** The credential that is accepted. */
	QString key;
	/** Below 1: no limit. */
	int maxTargetLanguages = 0;
	/** A client is given so long for each of handshake and "auth". */
	int authTimeoutMs = 10000;
	/** Further credentials, each with its limit; may be null. */
	const TokenStore *tokens = nullptr;
	/** Ids from 1 up, never repeated. */
	std::function<int()> nextClipId;
};

/** One client's session: credential, spoken words, captions and dubs. Lives on the network thread. */
class LiveSession : public QObject {
	Q_OBJECT

public:
	LiveSession(Connection &connection, EngineRoom &engines, EventLog &events, SessionSettings settings,
		    QObject *parent);
	~LiveSession() override;

private:
	void onText(const QString &text);
	void onBinary(const QByteArray &frame);
	void authenticate(const QJsonObject &message);
	/** The limit on target languages that comes with a credential; nothing when it is not accepted. */
	[[nodiscard]] std::optional<int> limitOf(const QString &key) const;
	void configure(const QJsonObject &message);
	void applyTargetLimit();
	void startListening();
	void stop();

	void onPartial(const QString &words);
	void onUtterance(const Utterance &utterance);
	void sendCaptions(const QString &sentence, double speechSec, int clipId);
	void requestTranslations(const QString &sentence, double speechSec, int clipId);
	void onTranslation(const QString &language, const QString &sentence, const std::optional<QString> &text,
			   double speechSec, int clipId);
	void sendCaption(const QString &language, const QString &text, double speechSec, int clipId);
	void requestDub(const QString &language, const QString &text, int clipId);

	[[nodiscard]] const Target *target(const QString &language) const;
	[[nodiscard]] bool needsTranslation(const Target &target) const;
	void announceUntranslatable();
	/**
	 * Sends the sentence as an interim transcript: the only message whose text the dock shows and that ends
	 * nothing.
	 */
	void notify(const QString &text);
	void log(const QString &event, QJsonObject details = {});

	Connection &connection;
	EngineRoom &engines;
	EventLog &events;
	SessionSettings settings;
	QTimer authTimer;

	bool authenticated = false;
	QString sourceLanguage;
	bool originalMode = false;
	QList<Target> targets;
	/** Languages about which the user was told that they cannot be had. */
	QSet<QString> announced;

	/** Null when nothing is recognised. */
	std::shared_ptr<AudioQueue> audio;
	DubSender dubs;
	bool droppedAudio = false;
	/** Utterances with the translator. */
	int pendingTranslations = 0;
	double captionSec = 0.0;
	double dubbedSec = 0.0;
};

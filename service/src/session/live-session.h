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

/// What a session needs from the service around it.
struct SessionSettings {
	QString key;                        ///< the credential that is accepted
	int maxTargetLanguages = 0;         ///< below 1: no limit
	int authTimeoutMs = 10000;          ///< a client is given so long for each of handshake and "auth"
	const TokenStore *tokens = nullptr; ///< further credentials, each with its limit; may be null
	std::function<int()> nextClipId;    ///< ids from 1 up, never repeated
};

/// One client's session: credential, spoken words, captions and dubs. Lives on the network thread.
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
	/// The limit on target languages that comes with a credential; nothing when it is not accepted.
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
	/// Sends the sentence as an interim transcript: the only message whose text the dock shows and that ends
	/// nothing.
	void notify(const QString &text);
	void log(const QString &event, QJsonObject details = {});

	Connection &m_connection;
	EngineRoom &m_engines;
	EventLog &m_events;
	SessionSettings m_settings;
	QTimer m_authTimer;

	bool m_authenticated = false;
	QString m_sourceLanguage;
	bool m_originalMode = false;
	QList<Target> m_targets;
	QSet<QString> m_announced; ///< languages about which the user was told that they cannot be had

	std::shared_ptr<AudioQueue> m_audio; ///< null when nothing is recognised
	DubSender m_dubs;
	bool m_droppedAudio = false;
	int m_pendingTranslations = 0; ///< utterances with the translator
	double m_captionSec = 0.0;
	double m_dubbedSec = 0.0;
};

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "audio-ring.h"
#include "service-messages.h"
#include "tts-assembler.h"
#include "ws-state.h"

#include <QAbstractSocket>
#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QObject>
#include <QString>

#include <atomic>
#include <cstddef>
#include <cstdint>

class QTimer;
class QWebSocket;

/**
 * The one connection to the translation service.
 *
 * Lives on the thread "TA-WebSocket": every slot, timer and signal runs there, and other threads reach it by queued
 * invocation only. The two exceptions are enqueueAudio(), called on OBS's audio thread, and state(), callable from
 * any thread.
 */
class WSClient : public QObject {
	Q_OBJECT

public:
	explicit WSClient(QObject *parent = nullptr);
	~WSClient() override;

	/** Current connection state. Any thread. */
	WsState state() const { return state_.load(std::memory_order_acquire); }

	/**
	 * Hands mono signed 16-bit samples at 16000 Hz to the uplink. OBS's audio thread, one caller at a time.
	 * Never blocks and never allocates; what does not fit into the ring is dropped (and logged at debug level).
	 * @param count number of samples
	 */
	void enqueueAudio(const int16_t *samples, size_t count);

public Q_SLOTS:
	/** Opens a session. An empty `serverUrl` means the endpoint this build was made for. */
	void connectToServer(const QString &apiKey, const QString &serverUrl, const QString &sourceLanguage,
			     const QJsonArray &targetLanguages, const QString &captionMode);

	/** Ends the session: says "stop" to the service, drops the connection and does not reconnect. */
	void disconnectFromServer();

	/** Keeps the values for the next "auth" and, while authenticated, sends them to the service at once. */
	void updateConfig(const QJsonArray &targetLanguages, const QString &captionMode);

Q_SIGNALS:
	void authSucceeded(const QJsonObject &voiceProfile, const QJsonObject &limits, int maxTargetLanguages);
	void transcriptInterim(const QString &text);
	void transcriptFinal(const QString &text, const QJsonObject &translations);
	/** @param durationSec seconds; 0 when the service gave none */
	void captionUpdated(const QString &language, const QString &text, double durationSec, int clipId);
	/** Declared for consumers; the service's "caption_clear" is deliberately ignored, so it is never emitted. */
	void captionCleared(const QString &language);
	/**
	 * A piece of synthesised speech: mono signed 16-bit little-endian, an even number of bytes; empty at the
	 * clip's end.
	 * @param sourceSampleRate Hz
	 */
	void ttsAudioReady(const QString &language, int clipId, const QByteArray &pcmData, int sourceSampleRate);
	void limitWarning(const QString &feature, int minutesRemaining);
	void limitReached(const QString &feature);
	void stateChanged(WsState newState);
	/** @param msg an English sentence for the user */
	void errorOccurred(const QString &msg);
	void sessionEnded(double captionMinutes, double dubbedMinutes);

private Q_SLOTS:
	void onConnected();
	void onDisconnected();
	void onTextMessageReceived(const QString &message);
	void onBinaryMessageReceived(const QByteArray &frame);
	void onSocketError(QAbstractSocket::SocketError socketError);
	void onSendTimerTick();
	void onReconnectTimerTick();
	/** The socket, or the service, ends the connection because of what it got. */
	void onAboutToClose();
	/** The service has accepted the connection and says nothing. */
	void onHandshakeTimeout();

private:
	friend class WSClientTest;
	friend class TalvoraPluginTest;

	void setState(WsState state);
	void scheduleReconnect();
	void resetReconnect();
	void openSocket();
	/** Aborts the socket without onDisconnected() hearing of it. */
	void abortSilently();
	/** The socket is of no more use: whatever Qt makes of that, it will be abandoned. */
	void failSocket();
	/** Takes a socket that failed without a `disconnected` for a lost connection. */
	void abandonFailedSocket();
	QNetworkRequest buildOpenRequest() const;
	void sendAuth();
	void sendStop();
	void processJsonMessage(const QJsonObject &msg);
	void handle(const AuthOkMessage &message);
	void handle(const AuthErrorMessage &message);
	void handle(const TranscriptInterimMessage &message);
	void handle(const TranscriptFinalMessage &message);
	void handle(const CaptionMessage &message);
	void handle(const CaptionClearMessage &message);
	void handle(const TtsStartMessage &message);
	void handle(const TtsEndMessage &message);
	void handle(const LimitWarningMessage &message);
	void handle(const LimitReachedMessage &message);
	void handle(const SessionEndedMessage &message);
	void handle(const UnknownMessage &message);
	void emitPendingPcm(const QString &language, PendingTtsClip &clip);

	QWebSocket *socket;
	QTimer *sendTimer;
	QTimer *reconnectTimer;
	/** Runs from the opening of the socket to the end of the handshake. */
	QTimer *handshakeTimer;
	QString apiKey;
	QString serverUrl;
	QString sourceLanguage;
	QJsonArray targetLanguages;
	QString captionMode;
	std::atomic<WsState> state_{WsState::Disconnected};
	/** Reconnects scheduled since the last reset. */
	int reconnectAttempts = 0;
	AudioRing audioRing;
	/** Clips being received, by language. */
	PendingTtsClips pendingTts;
	QString currentTtsLanguage;
	/** The closing of the connection is wanted, so it is not followed by a reconnect. */
	bool intentionalDisconnect = false;
	/** failSocket() was called, and no `disconnected` has come since. */
	bool socketFailed = false;
};

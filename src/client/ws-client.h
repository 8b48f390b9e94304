// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "client/audio-ring.h"
#include "client/service-messages.h"
#include "client/tts-assembler.h"
#include "client/ws-state.h"

#include <QAbstractSocket>
#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QObject>
#include <QPointer>
#include <QString>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

class QTcpSocket;
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
	 * Never blocks and never allocates. Does nothing while there is no connection; what does not fit into the ring
	 * is dropped, which is logged at debug level when it begins.
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
	/**
	 * Follows the stateChanged() it explains, where there is one.
	 * @param msg an English sentence for the user
	 */
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
	/** The socket, or the service, ends the connection in an orderly way. */
	void onAboutToClose();
	/** Something came from the service. */
	void onHeard();
	/** Another second has passed in which this thread was running. */
	void onWatchTick();

private:
	friend class WSClientTest;
	friend class TalvoraPluginTest;
	friend class AudioCaptureTest;
	friend class ClientThreadTest;

	void setState(WsState state);
	void scheduleReconnect();
	void resetReconnect();
	QWebSocket *makeSocket();
	void openSocket();
	/** Ends the connection at once, and nothing is heard of the socket any more. The next attempt has its own. */
	void dropSocket();
	/** Stops and forgets what belongs to one connection. */
	void endConnection();
	/** The service is connected to, or about to be. */
	bool isUnderWay() const;
	/** Takes the connection for lost, once Qt has had the time to say so itself. */
	void failSocket();
	void abandonFailedSocket();
	/** Keeps a text for the user until the state has changed to what it explains; of a connection's, the first. */
	void explain(const QString &text);
	void tellReason();
	/**
	 * Lets in a message of so many bytes, of which the user-interface thread will be told. False, and the
	 * connection is closed, when too much waits for that thread already.
	 */
	bool admit(qint64 bytes);
	/** Bytes that were sent and that the system has not taken yet. */
	qint64 bytesWaiting() const;
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
	/** Ticks every second while there is a socket that may become silent. */
	QTimer *watchTimer;
	/** What `socket` sends through, once it is connected. */
	QPointer<QTcpSocket> transport;
	QString apiKey;
	QString serverUrl;
	QString sourceLanguage;
	QJsonArray targetLanguages;
	QString captionMode;
	std::atomic<WsState> state_{WsState::Disconnected};
	/** Reconnects scheduled since the last reset. */
	int reconnectAttempts = 0;
	AudioRing audioRing;
	/** The newest audio was cut. The audio thread's. */
	bool isOverflowing = false;
	/** Bytes that admit() has let in and of which the user-interface thread has not heard yet. */
	std::shared_ptr<std::atomic<qint64>> untaken = std::make_shared<std::atomic<qint64>>(0);
	/** Clips being received, by language. */
	PendingTtsClips pendingTts;
	QString currentTtsLanguage;
	/** The closing of the connection is wanted, so it is not followed by a reconnect. */
	bool intentionalDisconnect = false;
	/** failSocket() was called, and no `disconnected` has come since. */
	bool socketFailed = false;
	/** Seconds of `watchTimer`, since the socket was opened. */
	int watchTicks = 0;
	/** The same since the handshake began, or since "auth". */
	int unansweredSeconds = 0;
	/** The same since anything was heard. */
	int silentSeconds = 0;
	/** explain() was called since the socket was opened. */
	bool isExplained = false;
	/** What explain() was given and has not been told yet. */
	QString lossReason;
};

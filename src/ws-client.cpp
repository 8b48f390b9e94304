// SPDX-License-Identifier: GPL-2.0-or-later
#include "ws-client.h"

#include "deployment.h"
#include "plugin-support.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QSignalBlocker>
#include <QThread>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>
#include <QtGlobal>

#include <obs-module.h>

#include <algorithm>
#include <array>
#include <bit>
#include <variant>

namespace {

constexpr int kSendIntervalMs = 10;
constexpr int kFirstReconnectDelayMs = 1000;
/** Longest time for resolving, connecting and both handshakes. Qt gives up on a single address after 30 s. */
constexpr int kHandshakeLimitMs = 60000;
/** Keeps the shifted delay within 32 bits. */
constexpr int kMaxDelayDoublings = 20;
/** Attempts of a session counting the first connection, as shown in the log. */
constexpr int kMaxAttempts = 5;
/** Longest uplink frame in bytes: 10 ms of audio. */
constexpr size_t kMaxFrameBytes = 320;
/** Longest message taken from the service in bytes: more than the 10 s of speech a dub queues, at 48000 Hz. */
constexpr quint64 kMaxIncomingBytes = 1024 * 1024;

// Samples go to the wire, which is little-endian, as they lie in memory.
static_assert(std::endian::native == std::endian::little);

/** What the socket, or the service, ends a connection with because it got what it must not. */
bool isRefusal(QWebSocketProtocol::CloseCode code)
{
	return code == QWebSocketProtocol::CloseCodeProtocolError ||
	       code == QWebSocketProtocol::CloseCodeDatatypeNotSupported ||
	       code == QWebSocketProtocol::CloseCodeWrongDatatype || code == QWebSocketProtocol::CloseCodeTooMuchData;
}

} // namespace

WSClient::WSClient(QObject *parent)
	: QObject(parent), socket(new QWebSocket(QString(), QWebSocketProtocol::Version13, this)),
	  sendTimer(new QTimer(this)), reconnectTimer(new QTimer(this)), handshakeTimer(new QTimer(this)),
	  serverUrl(QString::fromLatin1(kServiceEndpoint)), captionMode(QStringLiteral("translated"))
{
	qRegisterMetaType<WsState>();

	socket->setMaxAllowedIncomingFrameSize(kMaxIncomingBytes);
	socket->setMaxAllowedIncomingMessageSize(kMaxIncomingBytes);
	sendTimer->setInterval(kSendIntervalMs);
	sendTimer->setTimerType(Qt::PreciseTimer);
	reconnectTimer->setSingleShot(true);
	reconnectTimer->setTimerType(Qt::PreciseTimer);
	handshakeTimer->setSingleShot(true);
	handshakeTimer->setInterval(kHandshakeLimitMs);

	connect(socket, &QWebSocket::connected, this, &WSClient::onConnected);
	connect(socket, &QWebSocket::disconnected, this, &WSClient::onDisconnected);
	connect(socket, &QWebSocket::aboutToClose, this, &WSClient::onAboutToClose);
	connect(socket, &QWebSocket::textMessageReceived, this, &WSClient::onTextMessageReceived);
	connect(socket, &QWebSocket::binaryMessageReceived, this, &WSClient::onBinaryMessageReceived);
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
	connect(socket, &QWebSocket::errorOccurred, this, &WSClient::onSocketError);
#else
	connect(socket, qOverload<QAbstractSocket::SocketError>(&QWebSocket::error), this, &WSClient::onSocketError);
#endif
	connect(sendTimer, &QTimer::timeout, this, &WSClient::onSendTimerTick);
	connect(reconnectTimer, &QTimer::timeout, this, &WSClient::onReconnectTimerTick);
	connect(handshakeTimer, &QTimer::timeout, this, &WSClient::onHandshakeTimeout);
}

WSClient::~WSClient() = default;

void WSClient::enqueueAudio(const int16_t *samples, size_t count)
{
	const size_t wanted = count * sizeof(int16_t);
	const size_t taken = audioRing.write(samples, wanted);
	if (taken < wanted) {
		talvora_log(LOG_DEBUG, "WSClient: ring buffer full, dropped %zu of %zu bytes", wanted - taken, wanted);
	}
}

void WSClient::connectToServer(const QString &newApiKey, const QString &newServerUrl, const QString &newSourceLanguage,
			       const QJsonArray &newTargetLanguages, const QString &newCaptionMode)
{
	apiKey = newApiKey;
	serverUrl = newServerUrl.isEmpty() ? QString::fromLatin1(kServiceEndpoint) : newServerUrl;
	sourceLanguage = newSourceLanguage;
	targetLanguages = newTargetLanguages;
	captionMode = newCaptionMode;

	intentionalDisconnect = false;
	resetReconnect();
	// A thread that is told to quit may leave a queued disconnectFromServer() undelivered. Its end ends the
	// session too, so that the service hears "stop" and no timer or open socket outlives the thread.
	disconnect(thread(), &QThread::finished, this, nullptr);
	connect(thread(), &QThread::finished, this, &WSClient::disconnectFromServer, Qt::DirectConnection);

	if (socket->state() != QAbstractSocket::UnconnectedState) {
		abortSilently();
	}
	setState(WsState::Connecting);
	talvora_log(LOG_INFO, "WSClient: connecting to %s", qUtf8Printable(serverUrl));
	openSocket();
}

void WSClient::disconnectFromServer()
{
	intentionalDisconnect = true;
	reconnectTimer->stop();
	handshakeTimer->stop();
	sendTimer->stop();
	if (state() == WsState::Authenticated || state() == WsState::Connected) {
		sendStop();
	}
	socket->abort();
	setState(WsState::Disconnected);
}

void WSClient::updateConfig(const QJsonArray &newTargetLanguages, const QString &newCaptionMode)
{
	targetLanguages = newTargetLanguages;
	captionMode = newCaptionMode;
	if (state() == WsState::Authenticated) {
		socket->sendTextMessage(buildConfigUpdateMessage(targetLanguages, captionMode));
	}
}

void WSClient::onConnected()
{
	handshakeTimer->stop();
	talvora_log(LOG_INFO, "WebSocket connected — sending auth");
	setState(WsState::Connected);
	sendAuth();
}

void WSClient::onDisconnected()
{
	socketFailed = false;
	handshakeTimer->stop();
	sendTimer->stop();
	if (state() == WsState::Disconnecting || intentionalDisconnect) {
		setState(WsState::Disconnected);
		return;
	}
	talvora_log(LOG_WARNING, "WebSocket disconnected unexpectedly — scheduling reconnect");
	scheduleReconnect();
}

void WSClient::onTextMessageReceived(const QString &message)
{
	QJsonParseError error;
	const QJsonDocument document = QJsonDocument::fromJson(message.toUtf8(), &error);
	if (!document.isObject()) {
		talvora_log(LOG_WARNING, "WSClient: bad JSON: %s", qUtf8Printable(error.errorString()));
		return;
	}
	processJsonMessage(document.object());
}

void WSClient::onBinaryMessageReceived(const QByteArray &frame)
{
	const QList<TtsSegment> segments = splitTtsFrame(frame, pendingTts);
	for (const TtsSegment &segment : segments) {
		PendingTtsClip &clip = segment.clip->second;
		clip.pcm.append(segment.pcm);
		emitPendingPcm(segment.clip->first, clip);
	}
}

void WSClient::onSocketError(QAbstractSocket::SocketError socketError)
{
	if (state() == WsState::Connecting || socketError == QAbstractSocket::SslInternalError) {
		failSocket();
	}
	const QString reason = socket->errorString();
	talvora_log(LOG_WARNING, "WebSocket error %d: %s", static_cast<int>(socketError), qUtf8Printable(reason));
	Q_EMIT errorOccurred(reason);
}

void WSClient::onSendTimerTick()
{
	if (state() != WsState::Authenticated) {
		return;
	}
	std::array<char, kMaxFrameBytes> frame;
	while (const size_t bytes = audioRing.read(frame.data(), frame.size())) {
		socket->sendBinaryMessage(QByteArray(frame.data(), static_cast<qsizetype>(bytes)));
	}
}

void WSClient::onReconnectTimerTick()
{
	if (intentionalDisconnect) {
		return;
	}
	if (reconnectAttempts >= kMaxAttempts) {
		talvora_log(LOG_ERROR, "WSClient: max reconnect attempts reached — giving up");
		setState(WsState::Disconnected);
		Q_EMIT errorOccurred(
			QStringLiteral("Max reconnect attempts reached. Check your API key and internet connection."));
		return;
	}
	// The first connection counts as attempt 1, so the first reconnect is shown as number 2.
	talvora_log(LOG_INFO, "WSClient: reconnect attempt %d/%d", reconnectAttempts + 1, kMaxAttempts);
	setState(WsState::Connecting);
	openSocket();
}

void WSClient::onAboutToClose()
{
	// No error tells of this, and Qt would go on to read what follows what it has refused: the first reason counts.
	const bool isUp = state() == WsState::Connected || state() == WsState::Authenticated;
	if (!isUp || socketFailed || !isRefusal(socket->closeCode())) {
		return;
	}
	const QString reason = socket->closeReason();
	talvora_log(LOG_WARNING, "WebSocket closed with code %d: %s", static_cast<int>(socket->closeCode()),
		    qUtf8Printable(reason));
	failSocket();
	Q_EMIT errorOccurred(QString::fromUtf8(obs_module_text("Error.ConnectionClosed")) + QLatin1String(": ") +
			     reason);
}

void WSClient::onHandshakeTimeout()
{
	talvora_log(LOG_WARNING, "WebSocket error %d: The service does not answer",
		    static_cast<int>(QAbstractSocket::SocketTimeoutError));
	Q_EMIT errorOccurred(QString::fromUtf8(obs_module_text("Error.NoAnswer")));
	abortSilently();
	onDisconnected();
}

void WSClient::setState(WsState newState)
{
	if (state_.exchange(newState, std::memory_order_acq_rel) != newState) {
		Q_EMIT stateChanged(newState);
	}
}

void WSClient::scheduleReconnect()
{
	setState(WsState::Reconnecting);
	const int delayMs = kFirstReconnectDelayMs << std::min(reconnectAttempts, kMaxDelayDoublings);
	++reconnectAttempts;
	talvora_log(LOG_INFO, "WSClient: reconnecting in %d ms (attempt %d)", delayMs, reconnectAttempts);
	reconnectTimer->start(delayMs);
}

void WSClient::resetReconnect()
{
	reconnectAttempts = 0;
	reconnectTimer->stop();
}

QNetworkRequest WSClient::buildOpenRequest() const
{
	QNetworkRequest request{QUrl(serverUrl)};
	request.setRawHeader("User-Agent", "Talvora-OBS-Plugin/1.0");
	return request;
}

void WSClient::openSocket()
{
	socketFailed = false;
	handshakeTimer->start();
	socket->open(buildOpenRequest());
}

void WSClient::abortSilently()
{
	// abort() reports `disconnected` before it returns, which would be taken for a loss of the connection.
	const QSignalBlocker blocker(socket);
	socket->abort();
	handshakeTimer->stop();
	sendTimer->stop();
}

void WSClient::failSocket()
{
	// Not at once: Qt has not finished with the socket.
	socketFailed = true;
	QMetaObject::invokeMethod(this, &WSClient::abandonFailedSocket, Qt::QueuedConnection);
}

void WSClient::abandonFailedSocket()
{
	// As a rule `disconnected` comes along with the failure. It does not come for an address that cannot be used,
	// for an answer that is no HTTP, and for bytes that TLS cannot read: such a connection would hang for ever.
	if (socketFailed && !intentionalDisconnect) {
		abortSilently();
		onDisconnected();
	}
}

void WSClient::sendAuth()
{
	socket->sendTextMessage(buildAuthMessage(apiKey, sourceLanguage, targetLanguages, captionMode));
}

void WSClient::sendStop()
{
	socket->sendTextMessage(buildStopMessage());
	// The caller drops the connection, and with it what has not been handed to the system.
	socket->flush();
}

void WSClient::processJsonMessage(const QJsonObject &msg)
{
	std::visit([this](const auto &message) { handle(message); }, readServiceMessage(msg));
}

void WSClient::handle(const AuthOkMessage &message)
{
	talvora_log(LOG_INFO, "WSClient: authenticated");
	resetReconnect();
	// What was said before the service listened is stale: begin with fresh audio.
	audioRing.discard();
	setState(WsState::Authenticated);
	sendTimer->start();
	Q_EMIT authSucceeded(message.voiceProfile, message.limits, message.maxTargetLanguages);
}

void WSClient::handle(const AuthErrorMessage &message)
{
	talvora_log(LOG_ERROR, "WSClient: auth failed: %s", qUtf8Printable(message.error));
	intentionalDisconnect = true;
	socket->close(QWebSocketProtocol::CloseCodeNormal, QString());
	Q_EMIT errorOccurred(QStringLiteral("Auth failed: %1").arg(message.error));
}

void WSClient::handle(const TranscriptInterimMessage &message)
{
	Q_EMIT transcriptInterim(message.text);
}

void WSClient::handle(const TranscriptFinalMessage &message)
{
	Q_EMIT transcriptFinal(message.text, message.translations);
}

void WSClient::handle(const CaptionMessage &message)
{
	Q_EMIT captionUpdated(message.language, message.text, message.duration, message.clipId);
}

void WSClient::handle(const CaptionClearMessage &)
{
	// Captions go by their own timing; a service that clears them would only make them flicker.
}

void WSClient::handle(const TtsStartMessage &message)
{
	openTtsClip(pendingTts, message.language, message.clipId, message.sampleRate);
	currentTtsLanguage = message.language;
}

void WSClient::handle(const TtsEndMessage &message)
{
	const QString language = message.language.isEmpty() ? currentTtsLanguage : message.language;
	const auto found = pendingTts.find(language);
	if (found == pendingTts.end()) {
		return;
	}
	PendingTtsClip &clip = found->second;
	emitPendingPcm(language, clip);
	Q_EMIT ttsAudioReady(language, clip.clipId, QByteArray(), clip.sampleRate);
	pendingTts.erase(found);
}

void WSClient::handle(const LimitWarningMessage &message)
{
	Q_EMIT limitWarning(message.feature, message.minutesRemaining);
}

void WSClient::handle(const LimitReachedMessage &message)
{
	Q_EMIT limitReached(message.feature);
}

void WSClient::handle(const SessionEndedMessage &message)
{
	Q_EMIT sessionEnded(message.captionMinutes, message.dubbedMinutes);
	intentionalDisconnect = true;
	setState(WsState::Disconnected);
}

void WSClient::handle(const UnknownMessage &message)
{
	talvora_log(LOG_DEBUG, "WSClient: unknown message type: %s", qUtf8Printable(message.type));
}

void WSClient::emitPendingPcm(const QString &language, PendingTtsClip &clip)
{
	const QByteArray samples = takeWholeSamples(clip);
	if (!samples.isEmpty()) {
		Q_EMIT ttsAudioReady(language, clip.clipId, samples, clip.sampleRate);
	}
}

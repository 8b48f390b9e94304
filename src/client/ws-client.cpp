// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/ws-client.h"

#include "deployment.h"
#include "plugin-support.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QSslSocket>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>
#include <QtGlobal>

#include <obs-module.h>

#include <algorithm>
#include <array>
#include <bit>
#include <utility>
#include <variant>

namespace {

constexpr int kSendIntervalMs = 10;
constexpr int kFirstReconnectDelayMs = 1000;
/** Longest time for resolving, connecting and both handshakes, and then for the answer to "auth". */
constexpr int kAnswerLimitSeconds = 60;
/** Longest time in which nothing is heard from the service. */
constexpr int kSilenceLimitSeconds = 30;
constexpr int kPingIntervalSeconds = 10;
/** Keeps the shifted delay within 32 bits. */
constexpr int kMaxDelayDoublings = 20;
/** Attempts of a session counting the first connection, as shown in the log. */
constexpr int kMaxAttempts = 5;
/** Longest uplink frame in bytes: 10 ms of audio. */
constexpr size_t kMaxFrameBytes = 320;
/** Most that waits in Qt for the system to send it, and in the system: a second of audio each. */
constexpr int kMaxWaitingBytes = 32000;
/** Audio that has piled up so far, 7 s of it, is no more of use: whoever hears it would stay behind. */
constexpr size_t kStaleBytes = AudioRing::kCapacity - kMaxWaitingBytes;
/** Longest message taken from the service: 10 s of speech at 48000 Hz in each of 31 languages. */
constexpr quint64 kMaxIncomingBytes = 32 * 1024 * 1024;
/** Longest text among them. */
constexpr qsizetype kMaxTextBytes = 1024 * 1024;
/** Most that waits in Qt at the end of a second: what is not audio is little, but each ping is answered. */
constexpr qint64 kMaxUnsentBytes = 1024 * 1024;
/** Most that waits for the user-interface thread: a minute of speech in each of 31 languages, and more. */
constexpr qint64 kMaxUntakenBytes = 128 * 1024 * 1024;
/** What a message costs in memory beside what it brings, at most: its signals, which are queued. */
constexpr qint64 kMessageCost = 1024;
/** Segments of a frame that are passed on one by one: more than all languages have in a frame of speech. */
constexpr int kMaxPiecesApart = 256;

// Samples go to the wire, which is little-endian, as they lie in memory.
static_assert(std::endian::native == std::endian::little);

} // namespace

WSClient::WSClient(QObject *parent)
	: QObject(parent), socket(makeSocket()), sendTimer(new QTimer(this)), reconnectTimer(new QTimer(this)),
	  watchTimer(new QTimer(this)), serverUrl(QString::fromLatin1(kServiceEndpoint)),
	  captionMode(QStringLiteral("translated"))
{
	qRegisterMetaType<WsState>();

	sendTimer->setInterval(kSendIntervalMs);
	sendTimer->setTimerType(Qt::PreciseTimer);
	reconnectTimer->setSingleShot(true);
	reconnectTimer->setTimerType(Qt::PreciseTimer);
	watchTimer->setInterval(1000);

	connect(sendTimer, &QTimer::timeout, this, &WSClient::onSendTimerTick);
	connect(reconnectTimer, &QTimer::timeout, this, &WSClient::onReconnectTimerTick);
	connect(watchTimer, &QTimer::timeout, this, &WSClient::onWatchTick);
}

WSClient::~WSClient() = default;

void WSClient::enqueueAudio(const int16_t *samples, size_t count)
{
	const WsState now = state();
	if (now != WsState::Connected && now != WsState::Authenticated) {
		return;
	}
	const size_t wanted = count * sizeof(int16_t);
	const size_t taken = audioRing.write(samples, wanted);
	const bool isCut = taken < wanted;
	if (isCut && !isOverflowing) {
		talvora_log(LOG_DEBUG, "WSClient: ring buffer full, dropped %zu of %zu bytes", wanted - taken, wanted);
	}
	isOverflowing = isCut;
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

	dropSocket();
	setState(WsState::Connecting);
	talvora_log(LOG_INFO, "WSClient: connecting to %s", qUtf8Printable(serverUrl));
	openSocket();
}

void WSClient::disconnectFromServer()
{
	intentionalDisconnect = true;
	reconnectTimer->stop();
	sendTimer->stop();
	if (state() == WsState::Authenticated || state() == WsState::Connected) {
		sendStop();
	}
	dropSocket();
	lossReason.clear();
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
	unansweredSeconds = 0;
	silentSeconds = 0;
	transport = socket->findChild<QTcpSocket *>(QString(), Qt::FindDirectChildrenOnly);
	if (transport) {
		// The system would take megabytes, that is minutes of audio, before it lets a stalled line be seen.
		transport->setSocketOption(QAbstractSocket::SendBufferSizeSocketOption, kMaxWaitingBytes);
	}
	talvora_log(LOG_INFO, "WebSocket connected — sending auth");
	setState(WsState::Connected);
	sendAuth();
}

void WSClient::onDisconnected()
{
	endConnection();
	if (state() == WsState::Disconnecting || intentionalDisconnect) {
		setState(WsState::Disconnected);
	} else {
		talvora_log(LOG_WARNING, "WebSocket disconnected unexpectedly — scheduling reconnect");
		scheduleReconnect();
	}
	tellReason();
}

void WSClient::onTextMessageReceived(const QString &message)
{
	if (intentionalDisconnect) {
		// The session is over; what the connection still brings is for nobody.
		return;
	}
	if (!admit(message.size() * qsizetype{sizeof(QChar)})) {
		return;
	}
	const QByteArray utf8 = message.toUtf8();
	if (utf8.size() > kMaxTextBytes) {
		socket->close(QWebSocketProtocol::CloseCodeTooMuchData, QStringLiteral("Received message is too big."));
		return;
	}
	QJsonParseError error;
	const QJsonDocument document = QJsonDocument::fromJson(utf8, &error);
	if (!document.isObject()) {
		talvora_log(LOG_WARNING, "WSClient: bad JSON: %s", qUtf8Printable(error.errorString()));
		return;
	}
	processJsonMessage(document.object());
}

void WSClient::onBinaryMessageReceived(const QByteArray &frame)
{
	if (intentionalDisconnect) {
		return;
	}
	if (!admit(frame.size())) {
		return;
	}
	int segments = 0;
	splitTtsFrame(frame, pendingTts, [&](const TtsSegment &segment) {
		auto &[language, clip] = *segment.clip;
		clip.pcm.append(segment.pcm);
		if (++segments <= kMaxPiecesApart) {
			emitPendingPcm(language, clip);
		}
	});
	// Whatever else there was goes as one piece for each clip: a piece costs much more than a tag, and a frame has
	// room for millions of tags.
	for (auto &[language, clip] : pendingTts) {
		emitPendingPcm(language, clip);
	}
}

void WSClient::onSocketError(QAbstractSocket::SocketError socketError)
{
	if (isUnderWay() && socketError != QAbstractSocket::TemporaryError) {
		failSocket();
	}
	const QString reason = socket->errorString();
	talvora_log(LOG_WARNING, "WebSocket error %d: %s", static_cast<int>(socketError), qUtf8Printable(reason));
	explain(reason);
}

void WSClient::onSendTimerTick()
{
	if (state() != WsState::Authenticated) {
		return;
	}
	if (const size_t held = audioRing.held(); held > kStaleBytes) {
		talvora_log(LOG_WARNING, "WSClient: the line is too slow, dropped %zu bytes of audio", held);
		audioRing.discard();
	}
	std::array<char, kMaxFrameBytes> frame;
	while (bytesWaiting() < kMaxWaitingBytes) {
		const size_t bytes = audioRing.read(frame.data(), frame.size());
		if (bytes == 0) {
			return;
		}
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
	// What was wrong first counts: Qt goes on to read what follows what it has refused, and says the same twice.
	if (isExplained || state() == WsState::Connecting || state() == WsState::Reconnecting) {
		return;
	}
	const int code = socket->closeCode();
	const QString reason = socket->closeReason();
	talvora_log(intentionalDisconnect ? LOG_INFO : LOG_WARNING, "WebSocket closed with code %d: %s", code,
		    qUtf8Printable(reason));
	failSocket();
	const QString closed = QString::fromUtf8(obs_module_text("Error.ConnectionClosed"));
	explain(reason.isEmpty() ? QStringLiteral("%1 (%2)").arg(closed).arg(code)
				 : closed + QLatin1String(": ") + reason);
}

void WSClient::onHeard()
{
	// A connection that is being closed may bring much more, and still never end.
	if (socket->state() == QAbstractSocket::ConnectedState) {
		silentSeconds = 0;
	}
}

void WSClient::onWatchTick()
{
	// Ticks are counted, and no clock is read: while this thread stands still, as in a machine that is suspended,
	// the service cannot be heard either.
	++watchTicks;
	++unansweredSeconds;
	++silentSeconds;
	const bool isAnswered = state() != WsState::Connecting && state() != WsState::Connected;
	const bool isSilent = state() != WsState::Connecting && silentSeconds >= kSilenceLimitSeconds;
	const bool isDeaf = bytesWaiting() > kMaxUnsentBytes;
	if (isSilent || isDeaf || (!isAnswered && unansweredSeconds >= kAnswerLimitSeconds)) {
		talvora_log(LOG_WARNING, "WebSocket error %d: The service does not answer",
			    static_cast<int>(QAbstractSocket::SocketTimeoutError));
		explain(QString::fromUtf8(obs_module_text("Error.NoAnswer")));
		dropSocket();
		onDisconnected();
	} else if (watchTicks % kPingIntervalSeconds == 0 && socket->state() == QAbstractSocket::ConnectedState) {
		socket->ping();
	}
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

QWebSocket *WSClient::makeSocket()
{
	auto *made = new QWebSocket(QString(), QWebSocketProtocol::Version13, this);
	made->setMaxAllowedIncomingFrameSize(kMaxIncomingBytes);
	made->setMaxAllowedIncomingMessageSize(kMaxIncomingBytes);
	connect(made, &QWebSocket::connected, this, &WSClient::onConnected);
	connect(made, &QWebSocket::disconnected, this, &WSClient::onDisconnected);
	connect(made, &QWebSocket::aboutToClose, this, &WSClient::onAboutToClose);
	connect(made, &QWebSocket::textFrameReceived, this, &WSClient::onHeard);
	connect(made, &QWebSocket::binaryFrameReceived, this, &WSClient::onHeard);
	connect(made, &QWebSocket::pong, this, &WSClient::onHeard);
	connect(made, &QWebSocket::textMessageReceived, this, &WSClient::onTextMessageReceived);
	connect(made, &QWebSocket::binaryMessageReceived, this, &WSClient::onBinaryMessageReceived);
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
	connect(made, &QWebSocket::errorOccurred, this, &WSClient::onSocketError);
#else
	connect(made, qOverload<QAbstractSocket::SocketError>(&QWebSocket::error), this, &WSClient::onSocketError);
#endif
	return made;
}

void WSClient::openSocket()
{
	// open() leaves a socket its reason of an earlier failure, its close code, and a timer for half a frame, which
	// would end the new connection.
	dropSocket();
	socket->deleteLater();
	socket = makeSocket();
	watchTicks = 0;
	unansweredSeconds = 0;
	isExplained = false;
	lossReason.clear();
	watchTimer->start();
	socket->open(buildOpenRequest());
}

void WSClient::dropSocket()
{
	// abort() reports `disconnected` before it returns, which would be taken for a loss of the connection.
	socket->disconnect(this);
	socket->abort();
	endConnection();
}

void WSClient::endConnection()
{
	socketFailed = false;
	sendTimer->stop();
	watchTimer->stop();
	// The rest of a clip cannot follow on another connection, where its id may be another one's.
	pendingTts.clear();
	currentTtsLanguage.clear();
}

bool WSClient::isUnderWay() const
{
	return state() == WsState::Connecting || state() == WsState::Connected || state() == WsState::Authenticated;
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
	// for an answer that is no HTTP, for bytes that TLS cannot read, and while there is something to be sent: such
	// a connection would hang for ever.
	if (socketFailed) {
		dropSocket();
		onDisconnected();
	}
}

void WSClient::explain(const QString &text)
{
	if (!std::exchange(isExplained, true) && !intentionalDisconnect) {
		lossReason = text;
		QMetaObject::invokeMethod(this, &WSClient::tellReason, Qt::QueuedConnection);
	}
}

void WSClient::tellReason()
{
	if (!lossReason.isEmpty()) {
		Q_EMIT errorOccurred(std::exchange(lossReason, QString()));
	}
}

bool WSClient::admit(qint64 bytes)
{
	const qint64 cost = bytes + kMessageCost;
	if (untaken->load() + cost > kMaxUntakenBytes) {
		socket->close(QWebSocketProtocol::CloseCodePolicyViolated,
			      QStringLiteral("More messages than can be taken."));
		return false;
	}
	untaken->fetch_add(cost);
	// Comes behind what the messages before this one have queued for the same thread.
	QMetaObject::invokeMethod(
		QCoreApplication::instance(), [untaken = untaken, cost] { untaken->fetch_sub(cost); },
		Qt::QueuedConnection);
	return true;
}

qint64 WSClient::bytesWaiting() const
{
	// What is sent through TLS waits in another queue, which QWebSocket::bytesToWrite() leaves out.
	const auto *secure = qobject_cast<const QSslSocket *>(transport);
	return socket->bytesToWrite() + (secure ? secure->encryptedBytesToWrite() : 0);
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
	if (state() != WsState::Connected) {
		// No answer to "auth": nothing may switch the microphone on again.
		talvora_log(LOG_DEBUG, "WSClient: unexpected message: auth_ok");
		return;
	}
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
	failSocket();
	explain(QStringLiteral("Auth failed: %1").arg(message.error));
	intentionalDisconnect = true;
	socket->close(QWebSocketProtocol::CloseCodeNormal, QString());
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
	sendTimer->stop();
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

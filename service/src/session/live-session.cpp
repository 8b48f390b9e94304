// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/live-session.h"

#include "base/languages.h"
#include "base/sentence.h"

#include <QJsonDocument>

#include <algorithm>
#include <utility>

namespace {

/** The language that the recogniser understands. */
const QString kSpoken = QStringLiteral("en");
/** Utterances that may wait for the translator. Reached only when it hangs: later ones go untranslated meanwhile. */
constexpr int kMostPendingTranslations = 16;
constexpr double kSecPerMinute = 60.0;

QString untranslated(const QString &sentence)
{
	return QStringLiteral("[English] ") + sentence;
}

} // namespace

LiveSession::LiveSession(Connection &connection_, EngineRoom &engines_, EventLog &events_, SessionSettings settings_,
			 QObject *parent)
	: QObject(parent), connection(connection_), engines(engines_), events(events_), settings(std::move(settings_)),
	  dubs({[this](const QJsonObject &message) { connection.sendJson(message); },
		[this](const QByteArray &frame) { connection.sendBinary(frame); },
		[this](const QString &event, const QString &language, int clipId, double seconds) {
			if (event == QLatin1String("tts_end")) {
				dubbedSec += seconds;
			}
			log(event, {{"language", language}, {"clip_id", clipId}, {"seconds", seconds}});
		}})
{
	connect(&connection, &Connection::textReceived, this, &LiveSession::onText);
	connect(&connection, &Connection::binaryReceived, this, &LiveSession::onBinary);
	authTimer.setSingleShot(true);
	connect(&authTimer, &QTimer::timeout, this, [this] {
		log("auth_timeout");
		connection.close(QWebSocketProtocol::CloseCodePolicyViolated, "No authentication");
	});
	authTimer.start(settings.authTimeoutMs);
}

LiveSession::~LiveSession()
{
	if (audio) {
		audio->end();
	}
}

void LiveSession::onText(const QString &text)
{
	const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
	const QString type = message.value(QLatin1String("type")).toString();
	if (type == QLatin1String("auth") && !authenticated) {
		authenticate(message);
	} else if (type == QLatin1String("config_update") && authenticated) {
		configure(message);
		log("config_update", {{"targets", targets.size()}});
	} else if (type == QLatin1String("stop")) {
		stop();
	} else {
		log("ignored_message", {{"bytes", text.size()}});
	}
}

void LiveSession::onBinary(const QByteArray &frame)
{
	if (audio && !audio->push(frame) && !droppedAudio) {
		droppedAudio = true;
		log("audio_dropped");
	}
}

void LiveSession::authenticate(const QJsonObject &message)
{
	authTimer.stop();
	const std::optional<int> limit = limitOf(message.value(QLatin1String("apiKey")).toString());
	if (!limit) {
		log("auth_error");
		connection.sendJson(messages::authError("Invalid API key"));
		connection.close(QWebSocketProtocol::CloseCodePolicyViolated);
		return;
	}
	authenticated = true;
	settings.maxTargetLanguages = *limit;
	sourceLanguage = message.value(QLatin1String("sourceLanguage")).toString();
	connection.sendJson(messages::authOk(settings.maxTargetLanguages));
	log("auth_ok", {{"source_language", sourceLanguage}});
	if (sourceLanguage == kSpoken) {
		startListening();
	} else {
		notify(QStringLiteral("Only English can be recognised here: while the spoken language is set to %1, "
				      "there will be no captions and no dubbing.")
			       .arg(languageName(sourceLanguage)));
	}
	configure(message);
}

std::optional<int> LiveSession::limitOf(const QString &key) const
{
	if (key == settings.key) {
		return settings.maxTargetLanguages;
	}
	return settings.tokens ? settings.tokens->maxTargetLanguages(key) : std::nullopt;
}

void LiveSession::configure(const QJsonObject &message)
{
	originalMode = message.value(QLatin1String("captionMode")).toString() == QLatin1String("original");
	const QList<Target> before =
		std::exchange(targets, targetsFromJson(message.value(QLatin1String("targetLanguages")).toArray()));
	applyTargetLimit();
	for (const Target &each : before) {
		const Target *now = target(each.code);
		if (!now || !now->dubbing) {
			dubs.leaveOutWaiting(each.code);
		}
	}
	if (!audio) {
		return;
	}
	for (const Target &target : std::as_const(targets)) {
		if (needsTranslation(target) && engines.canTranslate(target.code)) {
			engines.prepare(target.code);
		}
	}
	announceUntranslatable();
}

void LiveSession::applyTargetLimit()
{
	const qsizetype limit = settings.maxTargetLanguages;
	if (limit < 1 || targets.size() <= limit) {
		return;
	}
	targets.resize(limit);
	log("targets_limited", {{"limit", limit}});
	notify(QStringLiteral("Only the first %1 target languages are served.").arg(limit));
}

void LiveSession::startListening()
{
	EngineRoom::DecoderCallbacks callbacks;
	callbacks.unavailable = [this] {
		log("recogniser_unavailable");
		notify(QStringLiteral("Speech recognition is not available: its English model is not installed."));
	};
	callbacks.started = [this](qint64 monoMs) { events.writeAt(monoMs, "utterance_start", connection.number()); };
	callbacks.partial = [this](const QString &words) { onPartial(words); };
	callbacks.ended = [this](const Utterance &utterance) { onUtterance(utterance); };
	audio = engines.startDecoder(this, callbacks);
}

void LiveSession::stop()
{
	log("stop", {{"caption_minutes", captionSec / kSecPerMinute}, {"dubbed_minutes", dubbedSec / kSecPerMinute}});
	connection.sendJson(messages::sessionEnded(captionSec / kSecPerMinute, dubbedSec / kSecPerMinute));
	connection.close(QWebSocketProtocol::CloseCodeNormal);
}

void LiveSession::onPartial(const QString &words)
{
	connection.sendJson(messages::transcriptInterim(capitalisedWords(words)));
}

void LiveSession::onUtterance(const Utterance &utterance)
{
	events.writeAt(utterance.detectedMs, "utterance_end", connection.number(),
		       {{"speech_seconds", utterance.speechSec}});
	const QString sentence = sentenceFromWords(utterance.words);
	if (sentence.isEmpty()) {
		return;
	}
	events.writeAt(utterance.finalMs, "final", connection.number(), {{"text", sentence}});
	connection.sendJson(messages::transcriptFinal(sentence));
	const int clipId = settings.nextClipId();
	sendCaptions(sentence, utterance.speechSec, clipId);
	requestTranslations(sentence, utterance.speechSec, clipId);
}

/** The captions that need no translation. */
void LiveSession::sendCaptions(const QString &sentence, double speechSec, int clipId)
{
	for (const Target &target : std::as_const(targets)) {
		if (!target.captions) {
			continue;
		}
		if (originalMode || target.code == kSpoken) {
			sendCaption(target.code, sentence, speechSec, clipId);
		} else if (!engines.canTranslate(target.code)) {
			sendCaption(target.code, untranslated(sentence), speechSec, clipId);
		}
	}
}

void LiveSession::requestTranslations(const QString &sentence, double speechSec, int clipId)
{
	QStringList languages;
	for (const Target &target : std::as_const(targets)) {
		if (needsTranslation(target) && engines.canTranslate(target.code)) {
			languages.append(target.code);
		}
	}
	if (languages.isEmpty()) {
		return;
	}
	if (pendingTranslations >= kMostPendingTranslations) {
		for (const QString &language : std::as_const(languages)) {
			onTranslation(language, sentence, std::nullopt, speechSec, clipId);
		}
		return;
	}
	++pendingTranslations;
	engines.translate(sentence, languages, this,
			  [this, sentence, speechSec, clipId,
			   last = languages.last()](const QString &language, const std::optional<QString> &text) {
				  if (language == last) {
					  --pendingTranslations;
				  }
				  onTranslation(language, sentence, text, speechSec, clipId);
			  });
}

void LiveSession::onTranslation(const QString &language, const QString &sentence, const std::optional<QString> &text,
				double speechSec, int clipId)
{
	// The user may have switched the language off meanwhile.
	const Target *wanted = target(language);
	if (!wanted) {
		return;
	}
	if (!text) {
		log("translation_failed", {{"language", language}});
	}
	if (wanted->captions && !originalMode) {
		sendCaption(language, text.value_or(untranslated(sentence)), speechSec, clipId);
	}
	if (wanted->dubbing && text && engines.hasVoice(language)) {
		requestDub(language, *text, clipId);
	}
}

void LiveSession::sendCaption(const QString &language, const QString &text, double speechSec, int clipId)
{
	captionSec += speechSec;
	connection.sendJson(messages::caption(language, text, speechSec, clipId));
	log("caption", {{"language", language}, {"clip_id", clipId}, {"text", text}});
}

void LiveSession::requestDub(const QString &language, const QString &text, int clipId)
{
	engines.synthesise(text, language, this, [this, language, clipId](const std::optional<SpeechClip> &clip) {
		const Target *wanted = target(language);
		if (!clip) {
			log("synthesis_failed", {{"language", language}});
		} else if (wanted && wanted->dubbing) {
			dubs.enqueue(language, clipId, *clip);
		}
	});
}

const Target *LiveSession::target(const QString &language) const
{
	const auto found =
		std::find_if(targets.begin(), targets.end(), [&](const Target &each) { return each.code == language; });
	return found == targets.end() ? nullptr : &*found;
}

/** Original captions are not translated, and nobody is dubbed into the language they speak. */
bool LiveSession::needsTranslation(const Target &target) const
{
	return target.code != kSpoken && (target.dubbing || (target.captions && !originalMode));
}

void LiveSession::announceUntranslatable()
{
	QStringList names;
	for (const Target &target : std::as_const(targets)) {
		if (needsTranslation(target) && !engines.canTranslate(target.code) &&
		    !announced.contains(target.code)) {
			announced.insert(target.code);
			names.append(languageName(target.code));
		}
	}
	if (!names.isEmpty()) {
		notify(QStringLiteral("No translation into %1 here: captions show the spoken English, and there is no "
				      "dubbing.")
			       .arg(names.join(QLatin1String(", "))));
	}
}

void LiveSession::notify(const QString &text)
{
	connection.sendJson(messages::transcriptInterim(text));
	log("notice", {{"text", text}});
}

void LiveSession::log(const QString &event, QJsonObject details)
{
	events.write(event, connection.number(), std::move(details));
}

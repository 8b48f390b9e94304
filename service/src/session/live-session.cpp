// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/live-session.h"

#include "base/languages.h"
#include "base/sentence.h"

#include <QJsonDocument>

#include <algorithm>
#include <utility>

namespace {

// The language that the recogniser understands.
const QString kSpoken = QStringLiteral("en");
// Utterances that may wait for the translator. Reached only when it hangs: later ones go untranslated meanwhile.
constexpr int kMostPendingTranslations = 16;
constexpr double kSecPerMinute = 60.0;

QString untranslated(const QString &sentence)
{
	return QStringLiteral("[English] ") + sentence;
}

} // namespace

LiveSession::LiveSession(Connection &connection, EngineRoom &engines, EventLog &events, SessionSettings settings,
			 QObject *parent)
	: QObject(parent), m_connection(connection), m_engines(engines), m_events(events),
	  m_settings(std::move(settings)),
	  m_dubs({[this](const QJsonObject &message) { m_connection.sendJson(message); },
		  [this](const QByteArray &frame) { m_connection.sendBinary(frame); },
		  [this](const QString &event, const QString &language, int clipId, double seconds) {
			  if (event == QLatin1String("tts_end")) {
				  m_dubbedSec += seconds;
			  }
			  log(event, {{"language", language}, {"clip_id", clipId}, {"seconds", seconds}});
		  }})
{
	connect(&connection, &Connection::textReceived, this, &LiveSession::onText);
	connect(&connection, &Connection::binaryReceived, this, &LiveSession::onBinary);
	m_authTimer.setSingleShot(true);
	connect(&m_authTimer, &QTimer::timeout, this, [this] {
		log("auth_timeout");
		m_connection.close(QWebSocketProtocol::CloseCodePolicyViolated, "No authentication");
	});
	m_authTimer.start(m_settings.authTimeoutMs);
}

LiveSession::~LiveSession()
{
	if (m_audio) {
		m_audio->end();
	}
}

void LiveSession::onText(const QString &text)
{
	const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
	const QString type = message.value(QLatin1String("type")).toString();
	if (type == QLatin1String("auth") && !m_authenticated) {
		authenticate(message);
	} else if (type == QLatin1String("config_update") && m_authenticated) {
		configure(message);
		log("config_update", {{"targets", m_targets.size()}});
	} else if (type == QLatin1String("stop")) {
		stop();
	} else {
		log("ignored_message", {{"bytes", text.size()}});
	}
}

void LiveSession::onBinary(const QByteArray &frame)
{
	if (m_audio && !m_audio->push(frame) && !m_droppedAudio) {
		m_droppedAudio = true;
		log("audio_dropped");
	}
}

void LiveSession::authenticate(const QJsonObject &message)
{
	m_authTimer.stop();
	const std::optional<int> limit = limitOf(message.value(QLatin1String("apiKey")).toString());
	if (!limit) {
		log("auth_error");
		m_connection.sendJson(messages::authError("Invalid API key"));
		m_connection.close(QWebSocketProtocol::CloseCodePolicyViolated);
		return;
	}
	m_authenticated = true;
	m_settings.maxTargetLanguages = *limit;
	m_sourceLanguage = message.value(QLatin1String("sourceLanguage")).toString();
	m_connection.sendJson(messages::authOk(m_settings.maxTargetLanguages));
	log("auth_ok", {{"source_language", m_sourceLanguage}});
	if (m_sourceLanguage == kSpoken) {
		startListening();
	} else {
		notify(QStringLiteral("Only English can be recognised here: while the spoken language is set to %1, "
				      "there will be no captions and no dubbing.")
			       .arg(languageName(m_sourceLanguage)));
	}
	configure(message);
}

std::optional<int> LiveSession::limitOf(const QString &key) const
{
	if (key == m_settings.key) {
		return m_settings.maxTargetLanguages;
	}
	return m_settings.tokens ? m_settings.tokens->maxTargetLanguages(key) : std::nullopt;
}

void LiveSession::configure(const QJsonObject &message)
{
	m_originalMode = message.value(QLatin1String("captionMode")).toString() == QLatin1String("original");
	const QList<Target> before =
		std::exchange(m_targets, targetsFromJson(message.value(QLatin1String("targetLanguages")).toArray()));
	applyTargetLimit();
	for (const Target &each : before) {
		const Target *now = target(each.code);
		if (!now || !now->dubbing) {
			m_dubs.leaveOutWaiting(each.code);
		}
	}
	if (!m_audio) {
		return;
	}
	for (const Target &target : std::as_const(m_targets)) {
		if (needsTranslation(target) && m_engines.canTranslate(target.code)) {
			m_engines.prepare(target.code);
		}
	}
	announceUntranslatable();
}

void LiveSession::applyTargetLimit()
{
	const qsizetype limit = m_settings.maxTargetLanguages;
	if (limit < 1 || m_targets.size() <= limit) {
		return;
	}
	m_targets.resize(limit);
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
	callbacks.started = [this](qint64 monoMs) {
		m_events.writeAt(monoMs, "utterance_start", m_connection.number());
	};
	callbacks.partial = [this](const QString &words) { onPartial(words); };
	callbacks.ended = [this](const Utterance &utterance) { onUtterance(utterance); };
	m_audio = m_engines.startDecoder(this, callbacks);
}

void LiveSession::stop()
{
	log("stop",
	    {{"caption_minutes", m_captionSec / kSecPerMinute}, {"dubbed_minutes", m_dubbedSec / kSecPerMinute}});
	m_connection.sendJson(messages::sessionEnded(m_captionSec / kSecPerMinute, m_dubbedSec / kSecPerMinute));
	m_connection.close(QWebSocketProtocol::CloseCodeNormal);
}

void LiveSession::onPartial(const QString &words)
{
	m_connection.sendJson(messages::transcriptInterim(capitalisedWords(words)));
}

void LiveSession::onUtterance(const Utterance &utterance)
{
	m_events.writeAt(utterance.detectedMs, "utterance_end", m_connection.number(),
			 {{"speech_seconds", utterance.speechSec}});
	const QString sentence = sentenceFromWords(utterance.words);
	if (sentence.isEmpty()) {
		return;
	}
	m_events.writeAt(utterance.finalMs, "final", m_connection.number(), {{"text", sentence}});
	m_connection.sendJson(messages::transcriptFinal(sentence));
	const int clipId = m_settings.nextClipId();
	sendCaptions(sentence, utterance.speechSec, clipId);
	requestTranslations(sentence, utterance.speechSec, clipId);
}

// The captions that need no translation.
void LiveSession::sendCaptions(const QString &sentence, double speechSec, int clipId)
{
	for (const Target &target : std::as_const(m_targets)) {
		if (!target.captions) {
			continue;
		}
		if (m_originalMode || target.code == kSpoken) {
			sendCaption(target.code, sentence, speechSec, clipId);
		} else if (!m_engines.canTranslate(target.code)) {
			sendCaption(target.code, untranslated(sentence), speechSec, clipId);
		}
	}
}

void LiveSession::requestTranslations(const QString &sentence, double speechSec, int clipId)
{
	QStringList languages;
	for (const Target &target : std::as_const(m_targets)) {
		if (needsTranslation(target) && m_engines.canTranslate(target.code)) {
			languages.append(target.code);
		}
	}
	if (languages.isEmpty()) {
		return;
	}
	if (m_pendingTranslations >= kMostPendingTranslations) {
		for (const QString &language : std::as_const(languages)) {
			onTranslation(language, sentence, std::nullopt, speechSec, clipId);
		}
		return;
	}
	++m_pendingTranslations;
	m_engines.translate(sentence, languages, this,
			    [this, sentence, speechSec, clipId,
			     last = languages.last()](const QString &language, const std::optional<QString> &text) {
				    if (language == last) {
					    --m_pendingTranslations;
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
	if (wanted->captions && !m_originalMode) {
		sendCaption(language, text.value_or(untranslated(sentence)), speechSec, clipId);
	}
	if (wanted->dubbing && text && m_engines.hasVoice(language)) {
		requestDub(language, *text, clipId);
	}
}

void LiveSession::sendCaption(const QString &language, const QString &text, double speechSec, int clipId)
{
	m_captionSec += speechSec;
	m_connection.sendJson(messages::caption(language, text, speechSec, clipId));
	log("caption", {{"language", language}, {"clip_id", clipId}, {"text", text}});
}

void LiveSession::requestDub(const QString &language, const QString &text, int clipId)
{
	m_engines.synthesise(text, language, this, [this, language, clipId](const std::optional<SpeechClip> &clip) {
		const Target *wanted = target(language);
		if (!clip) {
			log("synthesis_failed", {{"language", language}});
		} else if (wanted && wanted->dubbing) {
			m_dubs.enqueue(language, clipId, *clip);
		}
	});
}

const Target *LiveSession::target(const QString &language) const
{
	const auto found = std::find_if(m_targets.begin(), m_targets.end(),
					[&](const Target &each) { return each.code == language; });
	return found == m_targets.end() ? nullptr : &*found;
}

// Original captions are not translated, and nobody is dubbed into the language they speak.
bool LiveSession::needsTranslation(const Target &target) const
{
	return target.code != kSpoken && (target.dubbing || (target.captions && !m_originalMode));
}

void LiveSession::announceUntranslatable()
{
	QStringList names;
	for (const Target &target : std::as_const(m_targets)) {
		if (needsTranslation(target) && !m_engines.canTranslate(target.code) &&
		    !m_announced.contains(target.code)) {
			m_announced.insert(target.code);
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
	m_connection.sendJson(messages::transcriptInterim(text));
	log("notice", {{"text", text}});
}

void LiveSession::log(const QString &event, QJsonObject details)
{
	m_events.write(event, m_connection.number(), std::move(details));
}

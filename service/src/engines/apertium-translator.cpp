// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/apertium-translator.h"

#include "base/sentence.h"

namespace {

const QString &spanishMode()
{
	static const QString mode = QStringLiteral("eng-spa");
	return mode;
}

/** The mode that leads on from Spanish; empty for Spanish itself and for what cannot be reached. */
QString modeFromSpanish(const QString &language)
{
	if (language == QLatin1String("pt")) {
		return QStringLiteral("es-pt_BR");
	}
	if (language == QLatin1String("fr")) {
		return QStringLiteral("es-fr");
	}
	if (language == QLatin1String("it")) {
		return QStringLiteral("spa-ita");
	}
	return {};
}

} // namespace

bool ApertiumTranslator::canTranslate(const QString &language) const
{
	if (!ApertiumPipe::isInstalled(spanishMode())) {
		return false;
	}
	const QString mode = modeFromSpanish(language);
	return mode.isEmpty() ? language == QLatin1String("es") : ApertiumPipe::isInstalled(mode);
}

void ApertiumTranslator::prepare(const QString &language)
{
	if (!canTranslate(language)) {
		return;
	}
	pipe(spanishMode()).start();
	const QString mode = modeFromSpanish(language);
	if (!mode.isEmpty()) {
		pipe(mode).start();
	}
}

std::optional<QString> ApertiumTranslator::translate(const QString &sentence, const QString &language)
{
	if (!canTranslate(language)) {
		return std::nullopt;
	}
	const std::optional<QString> spanish = toSpanish(sentence);
	const QString mode = modeFromSpanish(language);
	const std::optional<QString> text = !spanish || mode.isEmpty() ? spanish : pipe(mode).translate(*spanish);
	if (!text || tidied(*text).isEmpty()) {
		return std::nullopt;
	}
	return tidied(*text);
}

std::optional<QString> ApertiumTranslator::toSpanish(const QString &sentence)
{
	if (sentence == lastSentence && !lastSpanish.isEmpty()) {
		return lastSpanish;
	}
	std::optional<QString> spanish = pipe(spanishMode()).translate(sentence);
	lastSentence = sentence;
	lastSpanish = spanish.value_or(QString());
	return spanish;
}

ApertiumPipe &ApertiumTranslator::pipe(const QString &mode)
{
	std::unique_ptr<ApertiumPipe> &entry = pipes[mode];
	if (!entry) {
		entry = std::make_unique<ApertiumPipe>(mode);
	}
	return *entry;
}

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "engines/apertium-pipe.h"
#include "engines/engines.h"

#include <map>
#include <memory>

/** Rule-based translation with Apertium: English to Spanish, and on from there to Portuguese, French and Italian. */
class ApertiumTranslator : public Translator {
public:
	[[nodiscard]] bool canTranslate(const QString &language) const override;
	void prepare(const QString &language) override;
	std::optional<QString> translate(const QString &sentence, const QString &language) override;

private:
	ApertiumPipe &pipe(const QString &mode);
	std::optional<QString> toSpanish(const QString &sentence);

	/** By mode. */
	std::map<QString, std::unique_ptr<ApertiumPipe>> pipes;
	// Several languages of one sentence share the hop to Spanish.
	QString lastSentence;
	QString lastSpanish;
};

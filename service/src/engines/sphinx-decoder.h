// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

#include <cstddef>
#include <cstdint>
#include <memory>

/**
 * The part of PocketSphinx that differs between its versions: finding speech in a stream of fixed pieces, and the
 * words of the utterance that is open. One file per version implements create(). One thread at a time.
 */
class SphinxDecoder {
public:
	/** Loads the English models (0.3 s). Null when they cannot be loaded. */
	static std::unique_ptr<SphinxDecoder> create();

	virtual ~SphinxDecoder() = default;

	/** Samples that feed() takes. */
	[[nodiscard]] virtual size_t pieceSamples() const = 0;
	/** Silence, in seconds, after which feed() reports the end of the speech. */
	[[nodiscard]] virtual double pauseSec() const = 0;
	/** Takes one piece; true while the speaker speaks. */
	virtual bool feed(const int16_t *piece) = 0;
	/** The words so far of the open utterance. */
	virtual QString partial() = 0;
	/** Ends the open utterance and gives its words; the next piece may open another. May block for a second. */
	virtual QString finish() = 0;
};

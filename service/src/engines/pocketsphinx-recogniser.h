// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "engines/engines.h"
#include "engines/sphinx-decoder.h"

#include <vector>

/** English speech recognition with PocketSphinx: cuts the stream into utterances at pauses (and after 15 s). */
class PocketSphinxRecogniser : public Recogniser {
public:
	/** Loads the models; null when they are not installed. */
	static std::unique_ptr<Recogniser> create();

	explicit PocketSphinxRecogniser(std::unique_ptr<SphinxDecoder> decoder);
	void process(std::span<const int16_t> samples, RecogniserListener &listener) override;

private:
	void processPiece(RecogniserListener &listener);
	void startUtterance(RecogniserListener &listener);
	void reportPartial(RecogniserListener &listener);
	void endUtterance(double silenceSec, RecogniserListener &listener);

	std::unique_ptr<SphinxDecoder> decoder;
	/** Filled up to pieceSamples(), then fed. */
	std::vector<int16_t> piece;
	bool speaking = false;
	size_t utteranceSamples = 0;
	size_t nextPartialAt = 0;
	QString lastPartial;
};

// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/pocketsphinx-recogniser.h"

#include "base/clock.h"

#include <algorithm>

namespace {

/** Nobody waits longer than this for a caption, even of somebody who never pauses. */
constexpr size_t kLongestUtterance = size_t{15} * kUplinkRate;
/** Asking for the words so far costs time: a few times a second is enough to read along. */
constexpr size_t kPartialInterval = kUplinkRate * 3 / 10;

} // namespace

std::unique_ptr<Recogniser> PocketSphinxRecogniser::create()
{
	std::unique_ptr<SphinxDecoder> decoder = SphinxDecoder::create();
	return decoder ? std::make_unique<PocketSphinxRecogniser>(std::move(decoder)) : nullptr;
}

PocketSphinxRecogniser::PocketSphinxRecogniser(std::unique_ptr<SphinxDecoder> decoder_) : decoder(std::move(decoder_))
{
	piece.reserve(decoder->pieceSamples());
}

void PocketSphinxRecogniser::process(std::span<const int16_t> samples, RecogniserListener &listener)
{
	while (!samples.empty()) {
		const size_t taken = std::min(decoder->pieceSamples() - piece.size(), samples.size());
		piece.insert(piece.end(), samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(taken));
		samples = samples.subspan(taken);
		if (piece.size() == decoder->pieceSamples()) {
			processPiece(listener);
			piece.clear();
		}
	}
}

void PocketSphinxRecogniser::processPiece(RecogniserListener &listener)
{
	const bool heard = decoder->feed(piece.data());
	if (heard && !speaking) {
		startUtterance(listener);
	}
	if (!speaking) {
		return;
	}
	utteranceSamples += piece.size();
	if (!heard) {
		endUtterance(decoder->pauseSec(), listener);
	} else if (utteranceSamples >= kLongestUtterance) {
		endUtterance(0.0, listener);
	} else if (utteranceSamples >= nextPartialAt) {
		reportPartial(listener);
	}
}

void PocketSphinxRecogniser::startUtterance(RecogniserListener &listener)
{
	speaking = true;
	utteranceSamples = 0;
	nextPartialAt = kPartialInterval;
	lastPartial.clear();
	listener.utteranceStarted();
}

void PocketSphinxRecogniser::reportPartial(RecogniserListener &listener)
{
	nextPartialAt = utteranceSamples + kPartialInterval;
	const QString words = decoder->partial();
	if (!words.isEmpty() && words != lastPartial) {
		lastPartial = words;
		listener.partialWords(words);
	}
}

void PocketSphinxRecogniser::endUtterance(double silenceSec, RecogniserListener &listener)
{
	speaking = false;
	const qint64 detectedMs = monotonicMs();
	const QString words = decoder->finish();
	const double seconds = static_cast<double>(utteranceSamples) / kUplinkRate - silenceSec;
	listener.utteranceEnded(words, std::max(seconds, 0.0), detectedMs);
}

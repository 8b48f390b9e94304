// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/pocketsphinx-recogniser.h"

#include "base/clock.h"

#include <algorithm>

namespace {

// Nobody waits longer than this for a caption, even of somebody who never pauses.
constexpr std::size_t kLongestUtterance = std::size_t{15} * kUplinkRate;
// Asking for the words so far costs time: a few times a second is enough to read along.
constexpr std::size_t kPartialInterval = kUplinkRate * 3 / 10;

} // namespace

std::unique_ptr<Recogniser> PocketSphinxRecogniser::create()
{
	std::unique_ptr<SphinxDecoder> decoder = SphinxDecoder::create();
	return decoder ? std::make_unique<PocketSphinxRecogniser>(std::move(decoder)) : nullptr;
}

PocketSphinxRecogniser::PocketSphinxRecogniser(std::unique_ptr<SphinxDecoder> decoder) : m_decoder(std::move(decoder))
{
	m_piece.reserve(m_decoder->pieceSamples());
}

void PocketSphinxRecogniser::process(std::span<const int16_t> samples, RecogniserListener &listener)
{
	while (!samples.empty()) {
		const std::size_t taken = std::min(m_decoder->pieceSamples() - m_piece.size(), samples.size());
		m_piece.insert(m_piece.end(), samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(taken));
		samples = samples.subspan(taken);
		if (m_piece.size() == m_decoder->pieceSamples()) {
			processPiece(listener);
			m_piece.clear();
		}
	}
}

void PocketSphinxRecogniser::processPiece(RecogniserListener &listener)
{
	const bool speaking = m_decoder->feed(m_piece.data());
	if (speaking && !m_speaking) {
		startUtterance(listener);
	}
	if (!m_speaking) {
		return;
	}
	m_utteranceSamples += m_piece.size();
	if (!speaking) {
		endUtterance(m_decoder->pauseSec(), listener);
	} else if (m_utteranceSamples >= kLongestUtterance) {
		endUtterance(0.0, listener);
	} else if (m_utteranceSamples >= m_nextPartialAt) {
		reportPartial(listener);
	}
}

void PocketSphinxRecogniser::startUtterance(RecogniserListener &listener)
{
	m_speaking = true;
	m_utteranceSamples = 0;
	m_nextPartialAt = kPartialInterval;
	m_lastPartial.clear();
	listener.utteranceStarted();
}

void PocketSphinxRecogniser::reportPartial(RecogniserListener &listener)
{
	m_nextPartialAt = m_utteranceSamples + kPartialInterval;
	const QString words = m_decoder->partial();
	if (!words.isEmpty() && words != m_lastPartial) {
		m_lastPartial = words;
		listener.partialWords(words);
	}
}

void PocketSphinxRecogniser::endUtterance(double silenceSec, RecogniserListener &listener)
{
	m_speaking = false;
	const qint64 detectedMs = monotonicMs();
	const QString words = m_decoder->finish();
	const double seconds = static_cast<double>(m_utteranceSamples) / kUplinkRate - silenceSec;
	listener.utteranceEnded(words, std::max(seconds, 0.0), detectedMs);
}

// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/sphinx-decoder.h"

#include "engines/engines.h"

#include <pocketsphinx.h>
#include <pocketsphinx/err.h>

namespace {

/**
 * Seconds of audio that the endpointer looks at, and the share of it that must be silent (or speech) to change its
 * mind.
 */
constexpr double kWindowSec = 0.4;
constexpr double kRatio = 0.9;

struct ConfigDeleter {
	void operator()(ps_config_t *config) const { ps_config_free(config); }
};

struct DecoderDeleter {
	void operator()(ps_decoder_t *decoder) const { ps_free(decoder); }
};

struct EndpointerDeleter {
	void operator()(ps_endpointer_t *endpointer) const { ps_endpointer_free(endpointer); }
};

using Config = std::unique_ptr<ps_config_t, ConfigDeleter>;
using Decoder = std::unique_ptr<ps_decoder_t, DecoderDeleter>;
using Endpointer = std::unique_ptr<ps_endpointer_t, EndpointerDeleter>;

/** Version 5 has an endpointer beside the decoder, which hands out the speech with a little audio before it. */
class SphinxDecoder5 : public SphinxDecoder {
public:
	SphinxDecoder5(Config config_, Decoder decoder_, Endpointer endpointer_)
		: config(std::move(config_)), decoder(std::move(decoder_)), endpointer(std::move(endpointer_)),
		  samplesPerPiece(ps_endpointer_frame_size(endpointer.get()))
	{
	}

	[[nodiscard]] size_t pieceSamples() const override { return samplesPerPiece; }
	[[nodiscard]] double pauseSec() const override { return kWindowSec; }

	bool feed(const int16_t *piece) override
	{
		const int16 *speech = ps_endpointer_process(endpointer.get(), piece);
		if (speech) {
			if (!open) {
				ps_start_utt(decoder.get());
				open = true;
			}
			ps_process_raw(decoder.get(), speech, samplesPerPiece, FALSE, FALSE);
		}
		return ps_endpointer_in_speech(endpointer.get()) != 0;
	}

	QString partial() override
	{
		int32 score = 0;
		return open ? QString::fromUtf8(ps_get_hyp(decoder.get(), &score)) : QString();
	}

	QString finish() override
	{
		if (!open) {
			return {};
		}
		ps_end_utt(decoder.get());
		const QString words = partial();
		open = false;
		return words;
	}

private:
	Config config;
	Decoder decoder;
	Endpointer endpointer;
	size_t samplesPerPiece;
	bool open = false;
};

} // namespace

std::unique_ptr<SphinxDecoder> SphinxDecoder::create()
{
	err_set_logfp(nullptr);
	Config config(ps_config_init(nullptr));
	if (!config) {
		return nullptr;
	}
	ps_config_set_str(config.get(), "hmm", TALVORA_SPHINX_MODELS "/en-us/en-us");
	ps_config_set_str(config.get(), "lm", TALVORA_SPHINX_MODELS "/en-us/en-us.lm.bin");
	ps_config_set_str(config.get(), "dict", TALVORA_SPHINX_MODELS "/en-us/cmudict-en-us.dict");
	Decoder decoder(ps_init(config.get()));
	Endpointer endpointer(ps_endpointer_init(kWindowSec, kRatio, PS_VAD_LOOSE, kUplinkRate, 0));
	if (!decoder || !endpointer) {
		return nullptr;
	}
	return std::make_unique<SphinxDecoder5>(std::move(config), std::move(decoder), std::move(endpointer));
}

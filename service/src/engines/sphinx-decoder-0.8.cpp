// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/sphinx-decoder.h"

#include "engines/engines.h"

#include <pocketsphinx.h>
#include <sphinxbase/err.h>

namespace {

constexpr size_t kPieceSamples = kUplinkRate / 50;
/** The decoder's feature frames are 10 ms long. */
constexpr const char *kPauseFrames = "40";
constexpr double kPauseSec = 0.4;

struct ConfigDeleter {
	void operator()(cmd_ln_t *config) const { cmd_ln_free_r(config); }
};

struct DecoderDeleter {
	void operator()(ps_decoder_t *decoder) const { ps_free(decoder); }
};

using Config = std::unique_ptr<cmd_ln_t, ConfigDeleter>;
using Decoder = std::unique_ptr<ps_decoder_t, DecoderDeleter>;

/** Version 0.8 finds speech itself, inside an utterance that is always open. */
class SphinxDecoder08 : public SphinxDecoder {
public:
	SphinxDecoder08(Config config_, Decoder decoder_) : config(std::move(config_)), decoder(std::move(decoder_))
	{
		ps_start_stream(decoder.get());
		ps_start_utt(decoder.get());
	}

	[[nodiscard]] size_t pieceSamples() const override { return kPieceSamples; }
	[[nodiscard]] double pauseSec() const override { return kPauseSec; }

	bool feed(const int16_t *piece) override
	{
		ps_process_raw(decoder.get(), piece, kPieceSamples, FALSE, FALSE);
		return ps_get_in_speech(decoder.get()) != 0;
	}

	QString partial() override
	{
		int32 score = 0;
		return QString::fromUtf8(ps_get_hyp(decoder.get(), &score));
	}

	QString finish() override
	{
		ps_end_utt(decoder.get());
		const QString words = partial();
		ps_start_utt(decoder.get());
		return words;
	}

private:
	Config config;
	Decoder decoder;
};

} // namespace

std::unique_ptr<SphinxDecoder> SphinxDecoder::create()
{
	err_set_logfp(nullptr);
	Config config(cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", TALVORA_SPHINX_MODELS "/en-us/en-us", "-lm",
				  TALVORA_SPHINX_MODELS "/en-us/en-us.lm.bin", "-dict",
				  TALVORA_SPHINX_MODELS "/en-us/cmudict-en-us.dict", "-vad_postspeech", kPauseFrames,
				  nullptr));
	if (!config) {
		return nullptr;
	}
	Decoder decoder(ps_init(config.get()));
	if (!decoder) {
		return nullptr;
	}
	return std::make_unique<SphinxDecoder08>(std::move(config), std::move(decoder));
}

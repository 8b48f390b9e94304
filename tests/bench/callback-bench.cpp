// SPDX-License-Identifier: GPL-2.0-or-later
// The whole capture callback through libobs, chunk by chunk at the pace of real time, with all languages speaking;
// beside it as many sources, each with OBS's own gain filter.
#include "core/talvora-plugin.h"
#include "settings/language-catalogue.h"

#include "obs-session.h"
#include "test-audio-source.h"
#include "timing.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <obs-module.h>

#include <algorithm>
#include <deque>
#include <string>
#include <thread>

namespace {

constexpr size_t kFrames = 1024;
constexpr double kChunkSeconds = static_cast<double>(kFrames) / 48000;
/** Chunks between two pieces of speech, and before the first one is measured. */
constexpr size_t kChunksPerPiece = 50;
const char *const kMicrophone = "Microphone";

TalvoraPlugin &startedPlugin()
{
	static TalvoraPlugin *const plugin = [] {
		static const QTemporaryDir home;
		qputenv("HOME", home.path().toUtf8());
		TalvoraPlugin *made = TalvoraPlugin::instance();
		made->initialize();
		return made;
	}();
	return *plugin;
}

bool loadGainFilter()
{
	static const bool loaded = [] {
		obs_module_t *module = nullptr;
		return obs_open_module(&module, TALVORA_OBS_FILTERS, nullptr) == MODULE_SUCCESS &&
		       obs_init_module(module);
	}();
	return loaded;
}

/** A source with a gain filter. */
class FilteredSource {
public:
	explicit FilteredSource(const std::string &name) : source(name.c_str())
	{
		obs_data_t *settings = obs_data_create();
		obs_data_set_double(settings, "db", -6.0);
		obs_source_t *filter = obs_source_create("gain_filter", (name + " gain").c_str(), settings, nullptr);
		obs_source_filter_add(source.get(), filter);
		obs_source_release(filter);
		obs_data_release(settings);
	}

	TestAudioSource source;
};

/** Sorts. @param share 0 to 1 */
double percentile(std::vector<double> &seconds, double share)
{
	std::sort(seconds.begin(), seconds.end());
	const auto rank = static_cast<size_t>(share * static_cast<double>(seconds.size()));
	return seconds[std::min(rank, seconds.size() - 1)];
}

void callback(benchmark::State &state)
{
	startObs();
	if (!loadGainFilter()) {
		state.SkipWithError("OBS's filters do not load");
		return;
	}
	TalvoraPlugin &plugin = startedPlugin();
	TestAudioSource microphone(kMicrophone);
	LanguageTargets targets;
	std::deque<FilteredSource> peers;
	for (const LanguageInfo &language : kSupportedLanguages) {
		if (targets.size() < state.range(0)) {
			targets[language.code] = {true, false};
			peers.emplace_back("Peer " + language.name.toStdString());
		}
	}
	// The spoken language gets no dub: here none of them is spoken.
	plugin.setSourceLanguage(QStringLiteral("none"));
	plugin.setLanguageTargets(targets);
	plugin.setAudioSource(QString::fromLatin1(kMicrophone));
	plugin.attachAudioCapture();

	const std::vector<float> left = noise(kFrames, 1);
	const std::vector<float> right = noise(kFrames, 2);
	const std::vector<int16_t> pcm = speechNoise(kChunksPerPiece * kFrames / 2, 3);
	const QByteArray piece(reinterpret_cast<const char *>(pcm.data()), static_cast<qsizetype>(2 * pcm.size()));
	const auto speak = [&] {
		for (auto language = targets.keyBegin(); language != targets.keyEnd(); ++language) {
			plugin.onTtsAudioReady(*language, 1, piece, 24000);
		}
	};
	speak();

	std::vector<double> ours;
	std::vector<double> theirs;
	size_t chunk = 0;
	auto due = std::chrono::steady_clock::now();
	for (auto _ : state) {
		if (chunk++ % kChunksPerPiece == 0) {
			speak();
			QCoreApplication::processEvents();
		}
		due += std::chrono::nanoseconds(static_cast<int64_t>(kChunkSeconds * 1e9));
		std::this_thread::sleep_until(due);
		const double mine = secondsOf([&] { microphone.play(left, right); });
		ours.push_back(mine);
		theirs.push_back(secondsOf([&] {
			for (FilteredSource &peer : peers) {
				peer.source.play(left, right);
			}
		}));
		state.SetIterationTime(mine);
	}
	state.SetItemsProcessed(state.iterations());
	state.counters["ours_median_us"] = 1e6 * percentile(ours, 0.5);
	state.counters["ours_p999_us"] = 1e6 * percentile(ours, 0.999);
	state.counters["gain_median_us"] = 1e6 * percentile(theirs, 0.5);
	state.counters["gain_p999_us"] = 1e6 * percentile(theirs, 0.999);
	plugin.setAudioSource(QString());
	plugin.setLanguageTargets({});
	QCoreApplication::processEvents();
}
BENCHMARK(callback)->Name("callback")->Arg(1)->Arg(8)->Arg(16)->Iterations(300)->UseManualTime();
BENCHMARK(callback)->Name("callback")->Arg(31)->Iterations(2000)->UseManualTime();

} // namespace

// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/dubbed-source.h"
#include "heap-guard.h"
#include "hostile-samples.h"
#include "log-capture.h"
#include "obs-fixture.h"
#include "plain-dub.h"

#include <obs.h>
#include <util/platform.h>

#include <QTest>
#include <QThread>

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

/** What the dubbed source handed to OBS with one chunk. */
struct Output {
	obs_source_t *source;
	std::vector<float> left;
	std::vector<float> right;
	obs_source_audio audio;
};

/** Written only while recording, by the one thread that pushes the original. */
std::vector<Output> outputs;
std::atomic<bool> recording{false};
std::atomic<int> outputCount{0};
std::atomic<bool> refuseToCreate{false};

template <typename Function> Function *next(const char *name)
{
	return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// In front of libobs's own: what they are called with is looked at, then they do their work.

extern "C" __attribute__((visibility("default"))) void obs_source_output_audio(obs_source_t *source,
									       const obs_source_audio *audio)
{
	static auto *const original = next<decltype(obs_source_output_audio)>("obs_source_output_audio");
	// OBS's own buffers may grow; what is asserted is that the dubbed source does not allocate.
	const HeapGuard::Permit permit;
	++outputCount;
	if (recording) {
		const auto *left = reinterpret_cast<const float *>(audio->data[0]);
		const auto *right = reinterpret_cast<const float *>(audio->data[1]);
		outputs.push_back({source, {left, left + audio->frames}, {right, right + audio->frames}, *audio});
	}
	original(source, audio);
}

extern "C" __attribute__((visibility("default"))) obs_source_t *
obs_source_create(const char *id, const char *name, obs_data_t *settings, obs_data_t *hotkeys)
{
	static auto *const original = next<decltype(obs_source_create)>("obs_source_create");
	return refuseToCreate ? nullptr : original(id, name, settings, hotkeys);
}

namespace {

constexpr const char *kSpanishName = "Talvora Dub \xE2\x80\x94 Spanish";
constexpr const char *kSpanishOldName = "Talvora Dub \xE2\x80\x94 Spanish (old)";

struct Event {
	char kind; // 's'tarted or 'e'nded
	std::string language;
	int clipId;

	bool operator==(const Event &) const = default;
};

/** A dubbed source with its events, and what is needed to drive it. */
class Dub {
public:
	Dub() : dub("es", "Spanish")
	{
		dub.onClipStarted = [this](const std::string &language, int id) {
			events.push_back({'s', language, id});
		};
		dub.onClipEnded = [this](const std::string &language, int id) {
			events.push_back({'e', language, id});
		};
		outputs.clear();
	}

	/** Pushes a stereo chunk and returns what came out. */
	Output play(const std::vector<float> &left, const std::vector<float> &right, uint32_t rate = 48000)
	{
		const size_t before = outputs.size();
		dub.pushOriginalAudio(left.data(), right.data(), left.size(), rate, timestamp);
		timestamp += left.size() * 1000000000ULL / rate;
		return outputs.size() > before ? outputs.back() : Output{};
	}

	/** Pushes a chunk of one value on both channels. */
	Output play(size_t frames, float value = 0.0f, uint32_t rate = 48000)
	{
		const std::vector<float> samples(frames, value);
		return play(samples, samples, rate);
	}

	/** Queues speech of one value, at 48000 Hz: the first sample rises to it from the last one. */
	void speak(int clipId, size_t count, int16_t value, int rate = 48000)
	{
		const std::vector<int16_t> pcm(count, value);
		dub.pushTtsAudio(clipId, pcm.data(), pcm.size(), rate);
	}

	void speakToEnd(int clipId, size_t count, int16_t value, int rate = 48000)
	{
		speak(clipId, count, value, rate);
		dub.ttsClipEnded(clipId);
	}

	DubbedSource *operator->() { return &dub; }

	std::vector<Event> events;
	uint64_t timestamp = 1000000000;

private:
	DubbedSource dub;
};

obs_source_t *find(const char *name)
{
	obs_source_t *source = obs_get_source_by_name(name);
	obs_source_release(source);
	return source;
}

/** As the user or OBS does it. */
void remove_source(const char *name)
{
	obs_source_t *source = obs_get_source_by_name(name);
	obs_source_remove(source);
	obs_source_release(source);
}

QString createdLine()
{
	return QStringLiteral("[talvora-obs] DubbedSource: created 'Talvora Dub \u2014 Spanish'");
}

QString reattachedLine()
{
	return QStringLiteral("[talvora-obs] DubbedSource: reattached to existing 'Talvora Dub \u2014 Spanish'");
}

QString renamedLine()
{
	return QStringLiteral("[talvora-obs] Talvora: renamed source 'Talvora Dub \u2014 Spanish' to "
			      "'Talvora Dub \u2014 Spanish (old)' to free its name");
}

/** Nobody holds the source any more. OBS's own threads may for moments. */
bool let_go(obs_weak_source_t *source)
{
	return QTest::qWaitFor([source] { return obs_weak_source_expired(source); }, 5000);
}

/** Equal, or both NaN: which NaN comes out of an operation is the machine's choice. */
bool same_samples(const std::vector<float> &a, const std::vector<float> &b)
{
	return std::equal(a.begin(), a.end(), b.begin(), b.end(),
			  [](float x, float y) { return x == y || (std::isnan(x) && std::isnan(y)); });
}

} // namespace

class DubbedSourceTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	void typeDescribesItself();
	void typeHasOnePropertyOfInformation();
	void defaults();
	void createsItsSource();
	void reattachesToASourceOfThatNameWhateverItsType();
	void removedSourceThatIsStillHeldGivesUpItsName();
	void withoutASourceItStaysUsable();
	void destructorLeavesASourceThatOthersHold();
	void forgottenSourceIsNotReleased();
	void removedSourceIsLetGoAtOnce();
	void restoringMakesARemovedSourceAgain();
	void restoringFindsASourceMadeMeanwhile();
	void restoringLeavesAPresentSourceAlone();
	void restoringDropsTheSpeechQueuedMeanwhile();
	void restoringRenamesARemovedSourceThatIsStillHeld();
	void restoringThatFailsLeavesItUsable();
	void publishesItsOwnSourceAlone();
	void withoutASourceTheRateIsNotTaken();
	void emptyChunkDoesNothing();
	void levelsAreClamped_data();
	void levelsAreClamped();

	void originalGoesThroughUntouchedWithoutSpeech();
	void outputIsDescribedExactly();
	void obsHearsEverySampleWithContiguousTimestamps();
	void shortClipThatIsEndedIsPlayedAtOnce();
	void shortClipThatIsNotEndedWaits();
	void speechAt24000HzDoublesItsLength();
	void speechFollowsTheRateOfTheOriginal();
	void startedIsCalledWhenTheFirstSampleOfTheClipIsPlayed();
	void callbacksComeOnTheThreadOfTheOriginal();
	void missingCallbacksAreHarmless();
	void duckingFallsIn7200SamplesAndRisesIn14400();
	void oneSampleOfSpeechDucksItsChunk();
	void muteRampsToSilence();
	void withoutDuckingMuteEffectivelyDoesNotMove();
	void withoutDuckingSpeechLeavesTheOriginalAlone();
	void moreThanTenSecondsLoseTheOldest();
	void speechAndOriginalAreClippedAtFullScale();
	void originalBeyondFullScaleIsLeftAloneWhereNoSpeechIs();
	void speechIsOnBothChannelsFromTheStartOfTheChunk();
	void ttsLevelScalesTheSpeech();
	void flushIsImmediateAndSilent();
	void clipThatHasStartedIsToldWhenItIsDropped_data();
	void clipThatHasStartedIsToldWhenItIsDropped();
	void timeSinceHeardIsThatOfTheStartedClip();
	void matchesTheTranscription();
	void allocatesNothingForChunksOfUpToOneSecond();
	void longerChunksArePlayed();
	void speechIsTakenWhileObsIsBusyWithAChunk();
	void threadsAndRemovalTogether();

private:
	std::optional<LogCapture> log;
	std::optional<ObsFixture> obs;
};

void DubbedSourceTest::init()
{
	log.emplace();
	obs.emplace();
	obs_register_source(dubbed_source_info());
	outputs.clear();
	outputCount = 0;
	recording = true;
	refuseToCreate = false;
}

void DubbedSourceTest::cleanup()
{
	recording = false;
	obs.reset();
	log.reset();
}

void DubbedSourceTest::typeDescribesItself()
{
	const obs_source_info *info = dubbed_source_info();
	QCOMPARE(info->id, "talvora_dubbed_source");
	QCOMPARE(info->type, OBS_SOURCE_TYPE_INPUT);
	QCOMPARE(info->output_flags, static_cast<uint32_t>(OBS_SOURCE_AUDIO | OBS_SOURCE_DO_NOT_DUPLICATE |
							   OBS_SOURCE_DO_NOT_SELF_MONITOR));
	QCOMPARE(info->icon_type, OBS_ICON_TYPE_AUDIO_OUTPUT);
	QCOMPARE(info->get_name(nullptr), "DubbedSource.TypeName");
	QCOMPARE(info->create(nullptr, nullptr), nullptr);
	info->destroy(nullptr);
	QCOMPARE(dubbed_source_info(), info);
}

void DubbedSourceTest::typeHasOnePropertyOfInformation()
{
	obs_properties_t *properties = dubbed_source_info()->get_properties(nullptr);
	obs_property_t *property = obs_properties_first(properties);
	QVERIFY(property);
	QCOMPARE(obs_property_name(property), "info");
	QCOMPARE(obs_property_get_type(property), OBS_PROPERTY_TEXT);
	QCOMPARE(obs_property_text_type(property), OBS_TEXT_INFO);
	QCOMPARE(obs_property_description(property), "DubbedSource.InfoText");
	QVERIFY(!obs_property_next(&property));
	obs_properties_destroy(properties);
}

void DubbedSourceTest::defaults()
{
	DubbedSource dub("es", "Spanish");
	QCOMPARE(dub.duckingLevel.load(), 0.2f);
	QCOMPARE(dub.ttsLevel.load(), 1.0f);
	QCOMPARE(dub.muteOriginal.load(), false);
	QCOMPARE(dub.outputSampleRate.load(), 48000u);
	QCOMPARE(dub.originalGain.value(), 1.0f);
	QCOMPARE(dub.speech.size(), size_t{0});
	QVERIFY(!dub.speech.isPlaying());
	QVERIFY(!dub.onClipStarted);
	QVERIFY(!dub.onClipEnded);
}

void DubbedSourceTest::createsItsSource()
{
	{
		const DubbedSource dub("es", "Spanish");
		obs_source_t *source = find(kSpanishName);
		QVERIFY(source);
		QCOMPARE(obs_source_get_id(source), "talvora_dubbed_source");
		QCOMPARE(log->ownLines(), QStringList{createdLine()});
	}
	QVERIFY(ObsFixture::isGone(kSpanishName));
	const QStringList lines = log->lines(LOG_INFO).filter(QStringLiteral("[talvora-obs] "));
	QCOMPARE(lines.size(), 2);
	QCOMPARE(lines[1], QStringLiteral("[talvora-obs] DubbedSource: detached from 'Talvora Dub \u2014 Spanish'"));
}

void DubbedSourceTest::reattachesToASourceOfThatNameWhateverItsType()
{
	obs_source_t *existing = obs_source_create("some_other_type", kSpanishName, nullptr, nullptr);
	{
		Dub dub;
		QCOMPARE(log->ownLines(), QStringList{reattachedLine()});
		QVERIFY(log->contains(LOG_INFO, reattachedLine()));
		QCOMPARE(dub.play(10).source, existing);
	}
	// The one reference it found is the one it gave back.
	obs_weak_source_t *weak = obs_source_get_weak_source(existing);
	obs_source_release(existing);
	QVERIFY(let_go(weak));
	obs_weak_source_release(weak);
}

void DubbedSourceTest::removedSourceThatIsStillHeldGivesUpItsName()
{
	obs_source_t *removed = obs_source_create("talvora_dubbed_source", kSpanishName, nullptr, nullptr);
	obs_source_remove(removed);
	Dub dub;
	const Output output = dub.play(10);
	QVERIFY(output.source);
	QVERIFY(output.source != removed);
	QCOMPARE(obs_source_get_name(output.source), kSpanishName);
	QCOMPARE(obs_source_get_name(removed), kSpanishOldName);
	QCOMPARE(log->ownLines(), (QStringList{renamedLine(), createdLine()}));
	QVERIFY(log->contains(LOG_INFO, renamedLine()));
	obs_source_release(removed);
}

void DubbedSourceTest::withoutASourceItStaysUsable()
{
	refuseToCreate = true;
	{
		Dub dub;
		const QString line = QStringLiteral(
			"[talvora-obs] DubbedSource: failed to create OBS source 'Talvora Dub \u2014 Spanish'");
		QCOMPARE(log->ownLines(), QStringList{line});
		QVERIFY(log->contains(LOG_ERROR, line));
		dub.speakToEnd(1, 100, 1000);
		dub.play(1024);
		QCOMPARE(outputCount.load(), 0);
		QVERIFY2(dub.events.empty(), "nothing is played");
		dub.speak(2, 600000, 1000);
		dub->flush();
		dub->forgetSource();
	}
	QCOMPARE(log->ownLines().last(),
		 QStringLiteral("[talvora-obs] DubbedSource: detached from 'Talvora Dub \u2014 Spanish'"));
}

void DubbedSourceTest::destructorLeavesASourceThatOthersHold()
{
	obs_source_t *held = nullptr;
	{
		const DubbedSource dub("es", "Spanish");
		held = obs_get_source_by_name(kSpanishName);
	}
	QCOMPARE(find(kSpanishName), held);
	QVERIFY(!obs_source_removed(held));
	obs_weak_source_t *weak = obs_source_get_weak_source(held);
	obs_source_release(held);
	QVERIFY(let_go(weak));
	obs_weak_source_release(weak);
}

void DubbedSourceTest::forgottenSourceIsNotReleased()
{
	obs_source_t *source = nullptr;
	{
		Dub dub;
		source = find(kSpanishName);
		dub->forgetSource();
		dub.play(1024);
		QCOMPARE(outputCount.load(), 0);
	}
	QCOMPARE(find(kSpanishName), source);
	obs_source_release(source);
	QVERIFY(ObsFixture::isGone(kSpanishName));
}

void DubbedSourceTest::restoringMakesARemovedSourceAgain()
{
	Dub dub;
	remove_source(kSpanishName);
	QVERIFY(ObsFixture::isGone(kSpanishName));
	QCOMPARE(dub.play(10).source, nullptr);
	log->clear();

	QVERIFY(!dub->hasSource());
	dub->restoreSource();
	QVERIFY(dub->hasSource());
	QCOMPARE(log->ownLines(), QStringList{createdLine()});
	obs_source_t *restored = find(kSpanishName);
	QVERIFY(restored);
	QCOMPARE(obs_source_get_id(restored), "talvora_dubbed_source");
	const Output output = dub.play(10, 0.5f);
	QCOMPARE(output.source, restored);
	QCOMPARE(output.left, std::vector<float>(10, 0.5f));

	// And again, as often as OBS removes it.
	remove_source(kSpanishName);
	QVERIFY(ObsFixture::isGone(kSpanishName));
	dub->restoreSource();
	QVERIFY(dub.play(10).source);
}

void DubbedSourceTest::restoringFindsASourceMadeMeanwhile()
{
	Dub dub;
	remove_source(kSpanishName);
	QVERIFY(ObsFixture::isGone(kSpanishName));
	obs_source_t *loaded = obs_source_create("talvora_dubbed_source", kSpanishName, nullptr, nullptr);
	log->clear();
	dub->restoreSource();
	QCOMPARE(log->ownLines(), QStringList{reattachedLine()});
	QCOMPARE(dub.play(10).source, loaded);
	obs_source_release(loaded);
}

void DubbedSourceTest::restoringLeavesAPresentSourceAlone()
{
	Dub dub;
	obs_source_t *present = find(kSpanishName);
	dub.speakToEnd(1, 2000, 16384);
	dub.play(1000, 0.5f);
	const float gain = dub->originalGain.value();
	QVERIFY(gain < 1.0f);
	log->clear();

	dub->restoreSource();
	QCOMPARE(log->ownLines(), QStringList());
	QCOMPARE(find(kSpanishName), present);
	QCOMPARE(dub->originalGain.value(), gain);
	QCOMPARE(dub.play(1000).left, std::vector<float>(1000, 0.5f));
	QCOMPARE(dub.events, (std::vector<Event>{{'s', "es", 1}, {'e', "es", 1}}));
}

void DubbedSourceTest::restoringDropsTheSpeechQueuedMeanwhile()
{
	Dub dub;
	dub.speak(1, 48000, 16384);
	dub.play(10000, 0.5f);
	QVERIFY(dub->originalGain.value() < 1.0f);
	remove_source(kSpanishName);
	dub.speakToEnd(2, 1000, 16384);
	dub->restoreSource();
	QCOMPARE(dub->originalGain.value(), 1.0f);
	QCOMPARE(dub.play(1000, 0.5f).left, std::vector<float>(1000, 0.5f));
	QVERIFY2(dub.events == (std::vector<Event>{{'s', "es", 1}}), "dropped clips are not told");
	dub.speakToEnd(3, 100, 16384);
	QCOMPARE(dub.play(100).left, std::vector<float>(100, 0.5f));
}

void DubbedSourceTest::restoringRenamesARemovedSourceThatIsStillHeld()
{
	Dub dub;
	obs_source_t *held = obs_get_source_by_name(kSpanishName);
	obs_source_remove(held);
	log->clear();
	dub->restoreSource();
	QCOMPARE(obs_source_get_name(held), kSpanishOldName);
	QCOMPARE(log->ownLines(), (QStringList{renamedLine(), createdLine()}));
	obs_source_t *restored = find(kSpanishName);
	QVERIFY(restored);
	QVERIFY(restored != held);
	QCOMPARE(obs_source_get_name(restored), kSpanishName);
	QCOMPARE(dub.play(10).source, restored);
	obs_source_release(held);
}

void DubbedSourceTest::restoringThatFailsLeavesItUsable()
{
	Dub dub;
	remove_source(kSpanishName);
	QVERIFY(ObsFixture::isGone(kSpanishName));
	refuseToCreate = true;
	dub->restoreSource();
	QCOMPARE(dub.play(10).source, nullptr);
	refuseToCreate = false;
	dub->restoreSource();
	QVERIFY(dub.play(10).source);
}

void DubbedSourceTest::publishesItsOwnSourceAlone()
{
	obs_source_t *other = obs_source_create("talvora_dubbed_source", "Other", nullptr, nullptr);
	obs_source_t *own = obs_source_create("some_other_type", kSpanishName, nullptr, nullptr);
	{
		DubbedSource dub("es", "Spanish");
		QVERIFY2(dub.publishes(own), "whatever its type");
		QVERIFY(!dub.publishes(other));
		QVERIFY(!dub.publishes(nullptr));
		obs_source_remove(own);
		QVERIFY2(!dub.publishes(own), "no longer once OBS has removed it");
		QVERIFY(!dub.publishes(nullptr));
	}
	obs_source_release(own);
	obs_source_release(other);
}

void DubbedSourceTest::removedSourceIsLetGoAtOnce()
{
	Dub dub;
	obs_source_t *source = obs_get_source_by_name(kSpanishName);
	obs_weak_source_t *weak = obs_source_get_weak_source(source);
	obs_source_remove(source);
	obs_source_release(source);
	QVERIFY2(let_go(weak), "nothing is held past the signal");
	obs_weak_source_release(weak);

	dub.speakToEnd(1, 100, 1000);
	dub.play(1024);
	QCOMPARE(outputCount.load(), 0);
	QVERIFY(dub.events.empty());
}

void DubbedSourceTest::withoutASourceTheRateIsNotTaken()
{
	DubbedSource dub("es", "Spanish");
	const std::vector<float> silence(10);
	dub.pushOriginalAudio(silence.data(), silence.data(), 10, 44100, 0);
	QCOMPARE(dub.outputSampleRate.load(), 44100u);
	dub.pushOriginalAudio(silence.data(), silence.data(), 0, 96000, 0);
	QCOMPARE(dub.outputSampleRate.load(), 44100u);
	obs_source_remove(find(kSpanishName));
	dub.pushOriginalAudio(silence.data(), silence.data(), 10, 96000, 0);
	QCOMPARE(dub.outputSampleRate.load(), 44100u);
}

void DubbedSourceTest::emptyChunkDoesNothing()
{
	Dub dub;
	dub.speakToEnd(1, 100, 1000);
	dub.play(0);
	QCOMPARE(outputCount.load(), 0);
	QVERIFY(dub.events.empty());
}

void DubbedSourceTest::levelsAreClamped_data()
{
	QTest::addColumn<float>("level");
	QTest::addColumn<float>("stored");
	QTest::newRow("inside") << 0.3f << 0.3f;
	QTest::newRow("0") << 0.0f << 0.0f;
	QTest::newRow("1") << 1.0f << 1.0f;
	QTest::newRow("above") << 1.5f << 1.0f;
	QTest::newRow("just above") << std::nextafter(1.0f, 2.0f) << 1.0f;
	QTest::newRow("below") << -0.5f << 0.0f;
	QTest::newRow("just below") << std::nextafter(0.0f, -1.0f) << 0.0f;
	QTest::newRow("NaN") << std::numeric_limits<float>::quiet_NaN() << 1.0f;
	QTest::newRow("infinity") << std::numeric_limits<float>::infinity() << 1.0f;
	QTest::newRow("minus infinity") << -std::numeric_limits<float>::infinity() << 0.0f;
}

void DubbedSourceTest::levelsAreClamped()
{
	QFETCH(float, level);
	QFETCH(float, stored);
	DubbedSource dub("es", "Spanish");
	// Not QCOMPARE, to which floats that are next to each other are the same.
	dub.setDuckingLevel(level);
	QVERIFY(dub.duckingLevel.load() == stored);
	dub.setTtsLevel(level);
	QVERIFY(dub.ttsLevel.load() == stored);
}

void DubbedSourceTest::originalGoesThroughUntouchedWithoutSpeech()
{
	Dub dub;
	const std::vector<float> left{0.1f, -0.2f, 1.0f, -1.0f, 0.0f};
	const std::vector<float> right{0.5f, 0.4f, 0.3f, 0.2f, 0.1f};
	const Output output = dub.play(left, right);
	QCOMPARE(output.left, left);
	QCOMPARE(output.right, right);

	// Mono comes as the same pointer twice.
	dub->pushOriginalAudio(left.data(), left.data(), left.size(), 48000, 0);
	QCOMPARE(outputs.back().left, left);
	QCOMPARE(outputs.back().right, left);
}

void DubbedSourceTest::outputIsDescribedExactly()
{
	Dub dub;
	dub.timestamp = 987654321012345;
	const Output output = dub.play(1000, 0.5f, 44100);
	QCOMPARE(output.source, find(kSpanishName));
	QCOMPARE(output.audio.frames, 1000u);
	QCOMPARE(output.audio.speakers, SPEAKERS_STEREO);
	QCOMPARE(output.audio.format, AUDIO_FORMAT_FLOAT_PLANAR);
	QCOMPARE(output.audio.samples_per_sec, 44100u);
	QCOMPARE(output.audio.timestamp, uint64_t{987654321012345});
	for (size_t plane = 2; plane < MAX_AV_PLANES; ++plane) {
		QCOMPARE(output.audio.data[plane], nullptr);
	}
}

void DubbedSourceTest::obsHearsEverySampleWithContiguousTimestamps()
{
	struct Heard {
		std::vector<float> left;
		std::vector<float> right;
		std::vector<uint64_t> timestamps;
	} heard;
	const auto hear = [](void *data, obs_source_t *, const audio_data *audio, bool) {
		auto *all = static_cast<Heard *>(data);
		const auto *left = reinterpret_cast<const float *>(audio->data[0]);
		const auto *right = reinterpret_cast<const float *>(audio->data[1]);
		all->left.insert(all->left.end(), left, left + audio->frames);
		all->right.insert(all->right.end(), right, right + audio->frames);
		all->timestamps.push_back(audio->timestamp);
	};

	Dub dub;
	obs_source_t *source = find(kSpanishName);
	obs_source_add_audio_capture_callback(source, hear, &heard);
	std::mt19937 random(21);
	std::uniform_real_distribution<float> sample(-0.4f, 0.4f);
	dub.speakToEnd(1, 5000, 8192);
	std::vector<float> left;
	std::vector<float> right;
	std::vector<uint64_t> timestamps;
	// What every chunk must be: speech of a quarter over the original at the gain of the moment.
	float gain = 1.0f;
	const float fall = (1.0f - 0.2f) / (48000.0f * 0.15f);
	const float rise = (1.0f - 0.2f) / (48000.0f * 0.3f);
	size_t played = 0;
	for (const size_t frames : std::initializer_list<size_t>{1024, 480, 1024, 4096, 1, 1024}) {
		std::vector<float> l(frames);
		std::vector<float> r(frames);
		std::generate(l.begin(), l.end(), [&] { return sample(random); });
		std::generate(r.begin(), r.end(), [&] { return sample(random); });
		const bool voiced = played < 5000;
		timestamps.push_back(dub.timestamp);
		dub.play(l, r);
		for (size_t i = 0; i < frames; ++i, ++played) {
			gain = voiced ? std::max(gain - fall, 0.2f) : std::min(gain + rise, 1.0f);
			const float voice = played < 5000 ? 0.25f : 0.0f;
			left.push_back(l[i] * gain + voice);
			right.push_back(r[i] * gain + voice);
		}
	}
	obs_source_remove_audio_capture_callback(source, hear, &heard);
	QCOMPARE(heard.left, left);
	QCOMPARE(heard.right, right);
	QCOMPARE(heard.timestamps, timestamps);
}

void DubbedSourceTest::shortClipThatIsEndedIsPlayedAtOnce()
{
	Dub dub;
	dub.speakToEnd(1, 24000, 16384);
	QCOMPARE(dub.play(1024).left, std::vector<float>(1024, 0.5f));
}

void DubbedSourceTest::shortClipThatIsNotEndedWaits()
{
	Dub dub;
	dub.speak(1, 24000, 16384);
	QCOMPARE(dub.play(1024).left, std::vector<float>(1024, 0.0f));
	QVERIFY(dub.events.empty());
	dub->ttsClipEnded(1);
	QCOMPARE(dub.play(1024).left, std::vector<float>(1024, 0.5f));
}

void DubbedSourceTest::speechAt24000HzDoublesItsLength()
{
	Dub dub;
	dub.speakToEnd(1, 1000, 16384, 24000);
	const Output output = dub.play(4096);
	// From silence the first input sample is reached in two steps.
	QCOMPARE(output.left[0], 0.25f);
	QVERIFY(std::all_of(output.left.begin() + 1, output.left.begin() + 2000, [](float s) { return s == 0.5f; }));
	QVERIFY(std::all_of(output.left.begin() + 2000, output.left.end(), [](float s) { return s == 0.0f; }));
}

void DubbedSourceTest::speechFollowsTheRateOfTheOriginal()
{
	Dub dub;
	dub.play(10, 0.0f, 96000);
	dub.speakToEnd(1, 100, 16384, 24000);
	const Output output = dub.play(1024, 0.0f, 96000);
	QCOMPARE(output.left[399], 0.5f);
	QCOMPARE(output.left[400], 0.0f);
}

void DubbedSourceTest::startedIsCalledWhenTheFirstSampleOfTheClipIsPlayed()
{
	Dub dub;
	dub.speak(7, 1000, 100);
	dub.speak(7, 1000, 100);
	dub.speak(8, 1000, 100);
	dub->ttsClipEnded(7);
	dub->ttsClipEnded(8);
	QVERIFY(dub.events.empty());
	dub.play(1999);
	QCOMPARE(dub.events, (std::vector<Event>{{'s', "es", 7}}));
	dub.play(1);
	QCOMPARE(dub.events, (std::vector<Event>{{'s', "es", 7}, {'e', "es", 7}}));
	dub.play(1);
	QCOMPARE(dub.events, (std::vector<Event>{{'s', "es", 7}, {'e', "es", 7}, {'s', "es", 8}}));
	dub.play(1000);
	QCOMPARE(dub.events, (std::vector<Event>{{'s', "es", 7}, {'e', "es", 7}, {'s', "es", 8}, {'e', "es", 8}}));
}

void DubbedSourceTest::callbacksComeOnTheThreadOfTheOriginal()
{
	DubbedSource dub("es", "Spanish");
	std::vector<std::thread::id> threads;
	const auto note = [&](const std::string &, int) { threads.push_back(std::this_thread::get_id()); };
	dub.onClipStarted = note;
	dub.onClipEnded = note;
	const std::vector<int16_t> pcm(10);
	dub.pushTtsAudio(1, pcm.data(), pcm.size(), 48000);
	dub.ttsClipEnded(1);
	std::thread audio([&] {
		const std::vector<float> silence(100);
		dub.pushOriginalAudio(silence.data(), silence.data(), 100, 48000, 0);
	});
	const std::thread::id expected = audio.get_id();
	audio.join();
	QVERIFY((threads == std::vector<std::thread::id>{expected, expected}));
}

void DubbedSourceTest::missingCallbacksAreHarmless()
{
	DubbedSource dub("es", "Spanish");
	const std::vector<int16_t> pcm(10, 16384);
	dub.pushTtsAudio(1, pcm.data(), pcm.size(), 48000);
	dub.ttsClipEnded(1);
	const std::vector<float> silence(100);
	dub.pushOriginalAudio(silence.data(), silence.data(), 100, 48000, 0);
	QCOMPARE(outputs.back().left[9], 0.5f);
}

void DubbedSourceTest::duckingFallsIn7200SamplesAndRisesIn14400()
{
	Dub dub;
	dub->setDuckingLevel(0.2f);
	// Speech that is silent leaves the gain to be seen.
	dub.speakToEnd(1, 9000, 0);
	const std::vector<float> down = dub.play(9000, 1.0f).left;
	QVERIFY(down[0] == 0.999888897f);
	QVERIFY(down[3599] == 0.600028992f);
	// The rounding of the single-precision sum costs one sample on the way down and two on the way up.
	QVERIFY(down[7199] == 0.200051278f);
	QVERIFY(down[7200] == 0.2f);
	QVERIFY(down[8999] == 0.2f);

	const std::vector<float> up = dub.play(15000, 1.0f).left;
	QVERIFY(up[0] == 0.200055555f);
	QVERIFY(up[7199] == 0.599971056f);
	QVERIFY(up[14399] == 0.999942064f);
	QVERIFY(up[14400] == 0.999997616f);
	QVERIFY(up[14401] == 1.0f);
	QVERIFY(up[14999] == 1.0f);
}

void DubbedSourceTest::oneSampleOfSpeechDucksItsChunk()
{
	Dub dub;
	dub->setDuckingLevel(0.2f);
	dub.speakToEnd(1, 1, 0);
	const std::vector<float> down = dub.play(3600, 1.0f).left;
	QVERIFY(down[0] == 0.999888897f);
	QVERIFY(down[3599] == 0.600028992f);
}

void DubbedSourceTest::muteRampsToSilence()
{
	Dub dub;
	dub->setMuteOriginal(true);
	const std::vector<float> muted = dub.play(9100, 1.0f).left;
	QVERIFY(muted[0] == 0.999888897f);
	QVERIFY(muted[4499] == 0.500036240f);
	QVERIFY(muted[8999] > 0.0f);
	QVERIFY(muted[9000] == 0.0f);
	QVERIFY(muted[9099] == 0.0f);

	// Speech does not bring the original back.
	dub.speakToEnd(1, 1000, 0);
	QCOMPARE(dub.play(1000, 1.0f).left, std::vector<float>(1000, 0.0f));
	dub->setMuteOriginal(false);
	QCOMPARE(dub.play(20000, 1.0f).left.back(), 1.0f);
}

void DubbedSourceTest::withoutDuckingMuteEffectivelyDoesNotMove()
{
	Dub dub;
	dub->setDuckingLevel(1.0f);
	dub->setMuteOriginal(true);
	// A step of 1e-8 is less than half the distance to the next number.
	QVERIFY(dub.play(48000, 1.0f).left == std::vector<float>(48000, 1.0f));
}

void DubbedSourceTest::withoutDuckingSpeechLeavesTheOriginalAlone()
{
	Dub dub;
	dub->setDuckingLevel(1.0f);
	dub.speakToEnd(1, 1000, 0);
	QCOMPARE(dub.play(1000, 0.5f).left, std::vector<float>(1000, 0.5f));
}

void DubbedSourceTest::moreThanTenSecondsLoseTheOldest()
{
	Dub dub;
	dub.speak(1, 48000, 8192);
	dub.speak(2, 432000, 16384);
	dub.speak(3, 48000, 24576);
	dub->ttsClipEnded(2);
	dub->ttsClipEnded(3);
	const std::vector<float> played = dub.play(480001).left;
	// Of the first clip nothing is left, and it is not told.
	QCOMPARE(played[0], 0.5f);
	QCOMPARE(played[431999], 0.5f);
	QCOMPARE(played[432000], 0.75f);
	QCOMPARE(played[479999], 0.75f);
	QCOMPARE(played[480000], 0.0f);
	QCOMPARE(dub.events, (std::vector<Event>{{'s', "es", 2}, {'e', "es", 2}, {'s', "es", 3}, {'e', "es", 3}}));
}

void DubbedSourceTest::speechAndOriginalAreClippedAtFullScale()
{
	Dub dub;
	dub->setDuckingLevel(1.0f);
	dub.speakToEnd(1, 100, 24576);
	QCOMPARE(dub.play(100, 0.5f).left, std::vector<float>(100, 1.0f));
	dub->flush();
	dub.speakToEnd(2, 100, -24576);
	const Output output = dub.play(std::vector<float>(100, -0.5f), std::vector<float>(100, 0.5f));
	QCOMPARE(output.left, std::vector<float>(100, -1.0f));
	QCOMPARE(output.right, std::vector<float>(100, -0.25f));
}

void DubbedSourceTest::originalBeyondFullScaleIsLeftAloneWhereNoSpeechIs()
{
	Dub dub;
	dub->setDuckingLevel(1.0f);
	dub.speakToEnd(1, 50, 0);
	const std::vector<float> played = dub.play(100, 1.5f).left;
	QCOMPARE(played[49], 1.0f);
	QCOMPARE(played[50], 1.5f);
}

void DubbedSourceTest::speechIsOnBothChannelsFromTheStartOfTheChunk()
{
	Dub dub;
	dub->setDuckingLevel(1.0f);
	dub.speakToEnd(1, 3, 16384);
	const Output output = dub.play({0.1f, 0.1f, 0.1f, 0.1f}, {0.2f, 0.2f, 0.2f, 0.2f});
	QCOMPARE(output.left, (std::vector<float>{0.1f + 0.5f, 0.1f + 0.5f, 0.1f + 0.5f, 0.1f}));
	QCOMPARE(output.right, (std::vector<float>{0.2f + 0.5f, 0.2f + 0.5f, 0.2f + 0.5f, 0.2f}));
}

void DubbedSourceTest::ttsLevelScalesTheSpeech()
{
	Dub dub;
	dub->setTtsLevel(0.5f);
	dub.speakToEnd(1, 3, 16384);
	QCOMPARE(dub.play(3).left, std::vector<float>(3, 0.25f));
	dub->setTtsLevel(0.0f);
	dub.speakToEnd(2, 3, 16384);
	QCOMPARE(dub.play(3).left, std::vector<float>(3, 0.0f));
	QVERIFY2(dub.events.size() == 4, "speech at level 0 is still played");
}

void DubbedSourceTest::flushIsImmediateAndSilent()
{
	Dub dub;
	dub.speak(1, 48000, 16384);
	dub.speak(2, 48000, 16384);
	QVERIFY(dub.play(10000, 0.5f).left.back() != 0.5f);
	QCOMPARE(dub.events, (std::vector<Event>{{'s', "es", 1}}));
	dub->flush();
	QCOMPARE(dub.play(1000, 0.5f).left, std::vector<float>(1000, 0.5f));
	dub->ttsClipEnded(1);
	dub.play(1000);
	QVERIFY2(dub.events.size() == 1, "dropped clips are not told");
}

void DubbedSourceTest::clipThatHasStartedIsToldWhenItIsDropped_data()
{
	QTest::addColumn<std::function<void(std::optional<Dub> &)>>("drop");
	QTest::addColumn<bool>("told");
	using Drop = std::function<void(std::optional<Dub> &)>;
	const auto row = [](const char *name, const Drop &drop, bool told) { QTest::newRow(name) << drop << told; };
	row("flushed", [](std::optional<Dub> &dub) { (*dub)->flush(); }, true);
	row("destroyed", [](std::optional<Dub> &dub) { dub.reset(); }, true);
	row("pushed out", [](std::optional<Dub> &dub) { dub->speak(2, 480000, 100); }, true);
	row("part of it pushed out", [](std::optional<Dub> &dub) { dub->speak(2, 440000, 100); }, false);
	row(
		"heard to its end",
		[](std::optional<Dub> &dub) {
			(*dub)->ttsClipEnded(1);
			dub->play(48000);
			(*dub)->flush();
		},
		false);
}

void DubbedSourceTest::clipThatHasStartedIsToldWhenItIsDropped()
{
	QFETCH(const std::function<void(std::optional<Dub> &)>, drop);
	QFETCH(bool, told);
	std::vector<Event> lost;
	std::optional<Dub> dub(std::in_place);
	(*dub)->onClipLost = [&](const std::string &language, int clipId) { lost.push_back({'l', language, clipId}); };
	dub->speak(1, 48000, 100);
	(*dub)->flush();
	QVERIFY2(lost.empty(), "a clip that has not started is told");
	dub->speak(1, 48000, 100);
	dub->play(10);
	drop(dub);
	std::vector<Event> expected;
	if (told) {
		expected.push_back({'l', "es", 1});
	}
	QCOMPARE(lost, expected);
}

void DubbedSourceTest::timeSinceHeardIsThatOfTheStartedClip()
{
	using namespace std::chrono_literals;
	Dub dub;
	QVERIFY(!dub->timeSinceHeard());
	dub.speak(1, 48000, 100);
	QVERIFY2(!dub->timeSinceHeard(), "the clip has not started");
	dub.play(48000);
	std::this_thread::sleep_for(20ms);
	const std::optional<std::chrono::nanoseconds> dry = dub->timeSinceHeard();
	QVERIFY2(dry >= 20ms, "a clip that has run dry counts from its last sample");
	dub.play(10);
	QVERIFY2(dub->timeSinceHeard() >= dry, "a chunk without speech counts");
	dub.speak(1, 48000, 100);
	dub.play(10);
	QVERIFY(dub->timeSinceHeard() < dry);
	dub->ttsClipEnded(1);
	dub.play(48000);
	QVERIFY2(!dub->timeSinceHeard(), "the clip has ended");
}

void DubbedSourceTest::matchesTheTranscription()
{
	std::mt19937 random(22);
	std::uniform_real_distribution<float> unit(0.0f, 1.0f);
	std::uniform_int_distribution<size_t> length(1, 5000);
	Dub dub;
	PlainDub plain;
	for (int chunk = 0; chunk < 1500; ++chunk) {
		const int clipId = 1 + chunk / 10;
		switch (random() % 8) {
		case 0:
			plain.ducking = unit(random);
			dub->setDuckingLevel(plain.ducking);
			break;
		case 1:
			plain.voiceLevel = unit(random);
			dub->setTtsLevel(plain.voiceLevel);
			break;
		case 2:
			plain.mute = random() % 4 == 0;
			dub->setMuteOriginal(plain.mute);
			break;
		case 3:
			dub->ttsClipEnded(clipId);
			plain.speech.endClip(clipId);
			break;
		case 4:
			if (random() % 8 == 0) {
				dub->flush();
				plain.speech.clear();
				plain.gain = 1.0f;
			}
			break;
		default: {
			std::vector<int16_t> pcm(length(random));
			std::generate(pcm.begin(), pcm.end(), [&] { return static_cast<int16_t>(random() & 0xffff); });
			dub->pushTtsAudio(clipId, pcm.data(), pcm.size(), 24000);
			plain.speech.push(clipId, pcm, 24000, 48000);
		}
		}

		const size_t frames = length(random);
		std::vector<float> left = hostileSamples(random, frames);
		std::vector<float> right = hostileSamples(random, frames);
		const Output output = dub.play(left, right);

		plain.mix(left, right, 48000);
		QVERIFY2(same_samples(output.left, left), qPrintable(QString::number(chunk)));
		QVERIFY2(same_samples(output.right, right), qPrintable(QString::number(chunk)));
		outputs.clear();
	}
}

void DubbedSourceTest::allocatesNothingForChunksOfUpToOneSecond()
{
	DubbedSource dub("es", "Spanish");
	std::atomic<int> events{0};
	dub.onClipStarted = [&events](const std::string &, int) { ++events; };
	dub.onClipEnded = [&events](const std::string &, int) { ++events; };
	const std::vector<int16_t> pcm(400, 1000);
	for (int id = 1; id <= 1000; ++id) {
		dub.pushTtsAudio(id, pcm.data(), pcm.size(), 48000);
		dub.ttsClipEnded(id);
	}
	const std::vector<float> original(48000, 0.5f);
	HeapGuard guard;
	for (const size_t frames : std::initializer_list<size_t>{1, 480, 1024, 4096, 8192, 48000, 48000, 48000, 48000,
								 48000, 48000, 48000, 48000, 48000}) {
		dub.pushOriginalAudio(original.data(), original.data(), frames, 48000, 1);
	}
	guard.stop();
	QVERIFY2(guard.calls() == 0, guard.report());
	QCOMPARE(events.load(), 2000);
	QCOMPARE(outputCount.load(), 14);
}

void DubbedSourceTest::longerChunksArePlayed()
{
	Dub dub;
	dub.speakToEnd(1, 100000, 16384);
	QCOMPARE(dub.play(100000).left, std::vector<float>(100000, 0.5f));
	QCOMPARE(dub.play(100).left, std::vector<float>(100, 0.0f));
}

void DubbedSourceTest::speechIsTakenWhileObsIsBusyWithAChunk()
{
	using namespace std::chrono_literals;
	struct Busy {
		std::promise<void> entered;
		std::promise<void> finish;
		static void work(void *data, obs_source_t *, const audio_data *, bool)
		{
			auto *busy = static_cast<Busy *>(data);
			busy->entered.set_value();
			busy->finish.get_future().wait();
		}
	} busy;

	Dub dub;
	obs_source_t *source = obs_get_source_by_name(kSpanishName);
	obs_source_add_audio_capture_callback(source, Busy::work, &busy);
	std::thread audio([&dub] { dub.play(100); });
	const bool entered = busy.entered.get_future().wait_for(10s) == std::future_status::ready;
	std::future<void> handedOver = std::async(std::launch::async, [&dub] { dub.speakToEnd(1, 100, 16384); });
	const bool waited = handedOver.wait_for(10s) != std::future_status::ready;
	busy.finish.set_value();
	handedOver.wait();
	audio.join();
	obs_source_remove_audio_capture_callback(source, Busy::work, &busy);
	obs_source_release(source);
	QVERIFY(entered);
	QVERIFY2(!waited, "handing speech over waited for the chunk");
	QCOMPARE(dub.play(100).left, std::vector<float>(100, 0.5f));
}

// Under a sanitizer this is where a race or a wrong order of locks shows.
void DubbedSourceTest::threadsAndRemovalTogether()
{
	recording = false;
	for (int round = 0; round < 20; ++round) {
		auto dub = std::make_unique<DubbedSource>("es", "Spanish");
		std::atomic<int> started{0};
		std::atomic<int> ended{0};
		dub->onClipStarted = [&](const std::string &, int) { ++started; };
		dub->onClipEnded = [&](const std::string &, int) { ++ended; };
		std::atomic<bool> stop{false};
		outputCount = 0;
		std::thread audio([&] {
			std::vector<float> chunk(1024, 0.25f);
			for (uint64_t timestamp = os_gettime_ns(); !stop; timestamp += 21333333) {
				dub->pushOriginalAudio(chunk.data(), chunk.data(), chunk.size(), 48000, timestamp);
			}
		});
		obs_weak_source_t *weak = nullptr;
		std::thread obsThread([&] {
			while (outputCount < 300) {
				std::this_thread::yield();
			}
			obs_source_t *source = obs_get_source_by_name(kSpanishName);
			weak = obs_source_get_weak_source(source);
			obs_source_remove(source);
			obs_source_release(source);
		});
		const std::vector<int16_t> pcm(2000, 3000);
		for (int id = 1; id <= 200; ++id) {
			dub->pushTtsAudio(id, pcm.data(), pcm.size(), 24000);
			dub->pushTtsAudio(id, pcm.data(), pcm.size(), 24000);
			dub->ttsClipEnded(id);
			dub->setDuckingLevel(static_cast<float>(id % 10) / 10.0f);
			dub->setTtsLevel(static_cast<float>(id % 7) / 7.0f);
			dub->setMuteOriginal(id % 5 == 0);
			if (id % 50 == 0) {
				dub->flush();
			}
			std::this_thread::yield();
		}
		obsThread.join();
		stop = true;
		audio.join();
		QVERIFY2(let_go(weak), "a reference was held past the removal");
		obs_weak_source_release(weak);
		QVERIFY(ended <= started);
		QVERIFY(started - ended <= 200);
		QVERIFY(ObsFixture::isGone(kSpanishName));

		// Nothing is output any more.
		outputCount = 0;
		const std::vector<float> chunk(1024);
		dub->pushOriginalAudio(chunk.data(), chunk.data(), chunk.size(), 48000, os_gettime_ns());
		QCOMPARE(outputCount.load(), 0);
	}
}

QTEST_APPLESS_MAIN(DubbedSourceTest)
#include "dubbed-source-test.moc"

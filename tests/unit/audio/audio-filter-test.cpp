// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/audio-filter.h"
#include "log-capture.h"
#include "obs-fixture.h"

#include <obs.h>

#include <QTest>

#include <array>
#include <vector>

class AudioFilterTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void describesItself();
	void createReadsTheOutputRate_data();
	void createReadsTheOutputRate();
	void createWithoutAudioTakes48000Hz();
	void destroyOfNullIsIgnored();
	void hasNoProperties();
	void returnsTheAudioUnchanged();
	void worksAsAFilterOfARealSource();
};

void AudioFilterTest::describesItself()
{
	const obs_source_info *info = audio_capture_filter_info();
	QCOMPARE(info->id, "talvora_audio_capture");
	QCOMPARE(info->type, OBS_SOURCE_TYPE_FILTER);
	QCOMPARE(info->output_flags, uint32_t{OBS_SOURCE_AUDIO});
	QCOMPARE(info->get_name(nullptr), "AudioCaptureFilter.Name");
	QCOMPARE(audio_capture_filter_info(), info);
}

void AudioFilterTest::createReadsTheOutputRate_data()
{
	QTest::addColumn<uint32_t>("rate");
	QTest::addColumn<QString>("line");
	QTest::newRow("48000 Hz") << 48000u
				  << QStringLiteral("[talvora-obs] Talvora audio capture filter created (rate=48000)");
	QTest::newRow("44100 Hz") << 44100u
				  << QStringLiteral("[talvora-obs] Talvora audio capture filter created (rate=44100)");
}

void AudioFilterTest::createReadsTheOutputRate()
{
	QFETCH(uint32_t, rate);
	QFETCH(QString, line);
	const LogCapture log;
	const ObsFixture obs(rate);
	void *filter = audio_capture_filter_info()->create(nullptr, nullptr);
	QVERIFY(filter);
	QCOMPARE(log.ownLines(), QStringList{line});
	QVERIFY(log.contains(LOG_INFO, line));
	audio_capture_filter_info()->destroy(filter);
}

void AudioFilterTest::createWithoutAudioTakes48000Hz()
{
	// libobs is there but has no audio yet.
	QVERIFY(obs_startup("en-US", nullptr, nullptr));
	{
		const LogCapture log;
		void *filter = audio_capture_filter_info()->create(nullptr, nullptr);
		QCOMPARE(log.ownLines(), QStringList{QStringLiteral(
						 "[talvora-obs] Talvora audio capture filter created (rate=48000)")});
		audio_capture_filter_info()->destroy(filter);
	}
	obs_shutdown();
}

void AudioFilterTest::destroyOfNullIsIgnored()
{
	audio_capture_filter_info()->destroy(nullptr);
}

void AudioFilterTest::hasNoProperties()
{
	obs_properties_t *properties = audio_capture_filter_info()->get_properties(nullptr);
	QVERIFY(properties);
	QCOMPARE(obs_properties_first(properties), nullptr);
	obs_properties_destroy(properties);
}

void AudioFilterTest::returnsTheAudioUnchanged()
{
	std::array<float, 4> left{0.1f, -2.0f, 3.0f, 0.0f};
	std::array<float, 4> right{1.0f, 2.0f, 3.0f, 4.0f};
	const auto leftBefore = left;
	const auto rightBefore = right;
	obs_audio_data audio = {};
	audio.data[0] = reinterpret_cast<uint8_t *>(left.data());
	audio.data[1] = reinterpret_cast<uint8_t *>(right.data());
	audio.frames = 4;
	audio.timestamp = 123456789;
	QCOMPARE(audio_capture_filter_info()->filter_audio(nullptr, &audio), &audio);
	QCOMPARE(audio.data[0], reinterpret_cast<uint8_t *>(left.data()));
	QCOMPARE(audio.data[1], reinterpret_cast<uint8_t *>(right.data()));
	QCOMPARE(audio.frames, 4u);
	QCOMPARE(audio.timestamp, uint64_t{123456789});
	QCOMPARE(left, leftBefore);
	QCOMPARE(right, rightBefore);
}

namespace {

/** A source that does nothing but exist: tests push audio into it. */
const obs_source_info *bare_source_info()
{
	static const obs_source_info info = [] {
		obs_source_info type = {};
		type.id = "test_bare_source";
		type.type = OBS_SOURCE_TYPE_INPUT;
		type.output_flags = OBS_SOURCE_AUDIO;
		type.get_name = [](void *) { return "bare"; };
		type.create = [](obs_data_t *, obs_source_t *source) -> void * { return source; };
		type.destroy = [](void *) {};
		return type;
	}();
	return &info;
}

} // namespace

void AudioFilterTest::worksAsAFilterOfARealSource()
{
	const LogCapture log;
	const ObsFixture obs;
	obs_register_source(bare_source_info());
	obs_register_source(audio_capture_filter_info());
	obs_source_t *source = obs_source_create("test_bare_source", "speaker", nullptr, nullptr);
	obs_source_t *filter = obs_source_create("talvora_audio_capture", "capture", nullptr, nullptr);
	QVERIFY(source && filter);
	obs_source_filter_add(source, filter);

	std::vector<float> heard;
	const auto hear = [](void *samples, obs_source_t *, const audio_data *audio, bool) {
		const auto *plane = reinterpret_cast<const float *>(audio->data[0]);
		static_cast<std::vector<float> *>(samples)->assign(plane, plane + audio->frames);
	};
	obs_source_add_audio_capture_callback(source, hear, &heard);
	const std::vector<float> samples{0.5f, -0.25f, 1.5f, 0.0f};
	obs_source_audio audio = {};
	audio.data[0] = audio.data[1] = reinterpret_cast<const uint8_t *>(samples.data());
	audio.frames = 4;
	audio.speakers = SPEAKERS_STEREO;
	audio.format = AUDIO_FORMAT_FLOAT_PLANAR;
	audio.samples_per_sec = 48000;
	obs_source_output_audio(source, &audio);
	QCOMPARE(heard, samples);

	obs_source_remove_audio_capture_callback(source, hear, &heard);
	obs_source_filter_remove(source, filter);
	obs_source_release(filter);
	obs_source_release(source);
}

QTEST_APPLESS_MAIN(AudioFilterTest)
#include "audio-filter-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/audio-capture.h"

#include "audio/dubbed-outputs.h"
#include "client/client-thread.h"
#include "client/ws-client.h"
#include "heap-guard.h"
#include "heard.h"
#include "log-capture.h"
#include "obs-fixture.h"
#include "settings/settings.h"
#include "test-audio-source.h"

#include <QTest>

#include <obs.hpp>

#include <dlfcn.h>

#include <array>
#include <optional>
#include <vector>

// In front of libobs's own: its buffers may still grow, which is not the plug-in's allocation.
extern "C" __attribute__((visibility("default"))) void obs_source_output_audio(obs_source_t *source,
									       const obs_source_audio *audio)
{
	static auto *const original =
		reinterpret_cast<decltype(&obs_source_output_audio)>(dlsym(RTLD_NEXT, "obs_source_output_audio"));
	const HeapGuard::Permit permit;
	original(source, audio);
}

using namespace Qt::StringLiterals;

/** Capture, dubs and client put together as the plug-in does it; the client's thread does not run. */
class AudioCaptureTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	void initialValues();
	void attachAndDetachSayTheirLines();
	void missingSourceIsReported();
	void sourcesWithoutCapturableAudioAreRefused_data();
	void sourcesWithoutCapturableAudioAreRefused();
	void destroyedSourceIsNoticedAtDetach();
	void wrongRateIsReportedOncePerProcess();
	void mutedEmptyAndLateChunksDoNothing();
	void dubbedSourcesHearTheWholeChunk();
	void bothChannelsGoUp();
	void attachingForgetsTheCarry();
	void staleSourceIsNotHeard();
	void restoreAttachesOnlyWhatIsNotCaptured();
	void lostSourceIsForgotten();
	void sourceThatADubIsPutOutByIsNotCaptured();
	void dubThatIsPutOutByTheCapturedSourceEndsTheCapture();
	void captureCallbackNeverTouchesTheHeap();

private:
	/** Chooses the source and captures it. */
	void choose(const QString &name);
	void select(const LanguageTargets &targets);
	WSClient &service() { return *client->wsClient; }

	std::optional<LogCapture> log;
	std::optional<ObsFixture> obs;
	Settings settings;
	std::optional<ClientThread> client;
	std::optional<DubbedOutputs> dubs;
	std::optional<AudioCapture> capture;
};

void AudioCaptureTest::init()
{
	// Outlives libobs, whose threads log until its end.
	log.emplace();
	obs.emplace();
	obs_register_source(dubbed_source_info());
	settings = {};
	client.emplace();
	client->make(this);
	dubs.emplace(settings);
	capture.emplace(settings, *dubs, *client);
	connect(&*dubs, &DubbedOutputs::changed, this, [this] { capture->recheck(); });
	log->clear();
}

void AudioCaptureTest::cleanup()
{
	capture.reset();
	dubs.reset();
	client->stop();
	client.reset();
	obs.reset();
	log.reset();
}

void AudioCaptureTest::choose(const QString &name)
{
	settings.audioSource = name;
	capture->attach();
}

void AudioCaptureTest::select(const LanguageTargets &targets)
{
	settings.languageTargets = targets;
	dubs->update();
}

void AudioCaptureTest::initialValues()
{
	QCOMPARE(capture->captureSampleRate.load(), 48000u);
	QCOMPARE(capture->captureChannels.load(), 2u);
	QCOMPARE(capture->captureConverter.carried(), size_t{0});
	QCOMPARE(capture->audioSourceRef, nullptr);
	QVERIFY(!capture->shuttingDown);
	QVERIFY(!capture->isCapturing());
}

void AudioCaptureTest::attachAndDetachSayTheirLines()
{
	const TestAudioSource voice("Voice");
	const TestAudioSource other("Other voice");
	choose(u"Voice"_s);
	choose(u"Other voice"_s);
	choose(QString());
	QCOMPARE(log->lines(LOG_INFO),
		 (QStringList{u"[talvora-obs] Talvora: attached audio capture to source 'Voice'"_s,
			      u"[talvora-obs] Talvora: detached audio capture from 'Voice'"_s,
			      u"[talvora-obs] Talvora: attached audio capture to source 'Other voice'"_s,
			      u"[talvora-obs] Talvora: detached audio capture from 'Other voice'"_s}));
	log->clear();
	capture->detach();
	QCOMPARE(log->ownLines(), QStringList());
}

void AudioCaptureTest::missingSourceIsReported()
{
	choose(u"Nobody"_s);
	QCOMPARE(log->ownLines(), QStringList{u"[talvora-obs] Talvora: audio source 'Nobody' not found"_s});
	QCOMPARE(log->lines(LOG_WARNING).size(), 1);
	QCOMPARE(capture->audioSourceRef, nullptr);
}

void AudioCaptureTest::sourcesWithoutCapturableAudioAreRefused_data()
{
	QTest::addColumn<QByteArray>("id");
	QTest::addColumn<uint32_t>("flags");
	QTest::newRow("browser source with audio") << QByteArray("browser_source") << uint32_t{OBS_SOURCE_AUDIO};
	QTest::newRow("no audio") << QByteArray("test_silent") << uint32_t{0};
	QTest::newRow("one of our own dubs") << QByteArray("talvora_dubbed_source") << uint32_t{OBS_SOURCE_AUDIO};
}

void AudioCaptureTest::sourcesWithoutCapturableAudioAreRefused()
{
	QFETCH(QByteArray, id);
	QFETCH(uint32_t, flags);
	const TestAudioSource source("Refused", id.constData(), flags);
	choose(u"Refused"_s);
	QCOMPARE(log->lines(LOG_WARNING),
		 QStringList{u"[talvora-obs] Talvora: source 'Refused' (type=%1) does not produce capturable audio, "
			     u"skipping"_s.arg(QString::fromUtf8(id))});
	QCOMPARE(capture->audioSourceRef, nullptr);
}

void AudioCaptureTest::destroyedSourceIsNoticedAtDetach()
{
	{
		const TestAudioSource voice("Voice");
		choose(u"Voice"_s);
	}
	QVERIFY(ObsFixture::isGone("Voice"));
	log->clear();
	capture->detach();
	QCOMPARE(log->lines(LOG_INFO),
		 QStringList{u"[talvora-obs] Talvora: audio source 'Voice' was already destroyed, skipping detach"_s});
	QCOMPARE(capture->audioSourceRef, nullptr);
	log->clear();
	capture->detach();
	QCOMPARE(log->ownLines(), QStringList());
}

void AudioCaptureTest::wrongRateIsReportedOncePerProcess()
{
	const QString warning =
		u"[talvora-obs] Talvora: audio sample rate is 44100 Hz (expected 48000). Downsampling will produce "
		"incorrect output. Change OBS audio settings to 48 kHz."_s;
	obs.reset();
	obs.emplace(44100);
	obs_register_source(dubbed_source_info());
	{
		TestAudioSource voice("Voice");
		select({{u"es"_s, {true, false}}});
		choose(u"Voice"_s);
		QCOMPARE(capture->captureSampleRate.load(), 44100u);
		const Heard heard("Talvora Dub — Spanish");
		voice.playConstant(0.25f, 1000, 44100);
		voice.playConstant(0.25f, 1000, 44100);
		capture->attach();
		voice.playConstant(0.25f, 1000, 44100);
		QCOMPARE(log->lines(LOG_WARNING).count(warning), 1);
		QCOMPARE(heard.samples, std::vector<float>(3000, 0.25f));
		QCOMPARE(service().audioRing.held(), size_t{0});
	}
}

void AudioCaptureTest::mutedEmptyAndLateChunksDoNothing()
{
	// Without a connection nothing is queued.
	service().state_ = WsState::Connected;
	select({{u"es"_s, {true, false}}});
	const TestAudioSource voice("Voice");
	choose(u"Voice"_s);
	const Heard heard("Talvora Dub — Spanish");

	const std::vector<float> plane(48, 0.5f);
	audio_data chunk{};
	chunk.data[0] = reinterpret_cast<uint8_t *>(const_cast<float *>(plane.data()));
	chunk.frames = 48;
	audio_data empty = chunk;
	empty.frames = 0;
	audio_data nothing = chunk;
	nothing.data[0] = nullptr;

	AudioCapture::audioCaptureCallback(&*capture, voice.get(), &chunk, true);
	AudioCapture::audioCaptureCallback(&*capture, voice.get(), nullptr, false);
	AudioCapture::audioCaptureCallback(&*capture, voice.get(), &empty, false);
	AudioCapture::audioCaptureCallback(&*capture, voice.get(), &nothing, false);
	capture->setShuttingDown(true);
	AudioCapture::audioCaptureCallback(&*capture, voice.get(), &chunk, false);
	capture->setShuttingDown(false);
	QVERIFY(heard.samples.empty());
	QCOMPARE(service().audioRing.held(), size_t{0});

	// The same chunk, and nothing in the way: one channel is heard on both.
	AudioCapture::audioCaptureCallback(&*capture, voice.get(), &chunk, false);
	QCOMPARE(capture->captureChannels.load(), 1u);
	QCOMPARE(heard.samples, plane);
	QCOMPARE(service().audioRing.held(), size_t{16 * 2});
}

void AudioCaptureTest::dubbedSourcesHearTheWholeChunk()
{
	// Without a connection nothing is queued.
	service().state_ = WsState::Connected;
	select({{u"es"_s, {true, false}}, {u"fr"_s, {true, false}}});
	TestAudioSource voice("Voice");
	choose(u"Voice"_s);
	const Heard spanish("Talvora Dub — Spanish");
	const Heard french("Talvora Dub — French");
	voice.playConstant(0.25f, 10000);
	QCOMPARE(capture->captureChannels.load(), 2u);
	QCOMPARE(spanish.samples, std::vector<float>(10000, 0.25f));
	QCOMPARE(french.samples, std::vector<float>(10000, 0.25f));
	// The uplink takes 8192 of them.
	QCOMPARE(capture->captureConverter.carried(), size_t{8192 % 3});
	QCOMPARE(service().audioRing.held(), size_t{8192 / 3 * 2});
}

void AudioCaptureTest::bothChannelsGoUp()
{
	// Without a connection nothing is queued.
	service().state_ = WsState::Connected;
	TestAudioSource voice("Voice");
	choose(u"Voice"_s);
	voice.play(std::vector<float>(3, 0.5f), std::vector<float>(3, -0.25f));
	int16_t sample = 0;
	QCOMPARE(service().audioRing.read(&sample, sizeof(sample)), sizeof(sample));
	// 32767 times the mean of the two.
	QCOMPARE(sample, int16_t{4095});
}

void AudioCaptureTest::attachingForgetsTheCarry()
{
	TestAudioSource voice("Voice");
	choose(u"Voice"_s);
	voice.playConstant(0.5f, 1000);
	QCOMPARE(capture->captureConverter.carried(), size_t{1});
	capture->captureChannels = 1;
	capture->attach();
	QCOMPARE(capture->captureConverter.carried(), size_t{0});
	QCOMPARE(capture->captureChannels.load(), 2u);
}

void AudioCaptureTest::staleSourceIsNotHeard()
{
	TestAudioSource first("First");
	TestAudioSource second("Second");
	choose(u"First"_s);
	choose(u"Second"_s);
	// What a source that OBS is destroying may still do.
	const std::vector<float> plane(1000, 0.5f);
	audio_data chunk{};
	chunk.data[0] = reinterpret_cast<uint8_t *>(const_cast<float *>(plane.data()));
	chunk.frames = 1000;
	AudioCapture::audioCaptureCallback(&*capture, first.get(), &chunk, false);
	QCOMPARE(capture->captureConverter.carried(), size_t{0});
	AudioCapture::audioCaptureCallback(&*capture, second.get(), &chunk, false);
	QCOMPARE(capture->captureConverter.carried(), size_t{1});
}

void AudioCaptureTest::restoreAttachesOnlyWhatIsNotCaptured()
{
	const QString attached = u"[talvora-obs] Talvora: attached audio capture to source 'Voice'"_s;
	capture->restore();
	QCOMPARE(log->ownLines(), QStringList());
	const TestAudioSource voice("Voice");
	settings.audioSource = u"Voice"_s;
	capture->restore();
	QCOMPARE(log->ownLines(), QStringList{attached});
	capture->restore();
	QCOMPARE(log->ownLines(), QStringList{attached});
	QVERIFY(capture->isCapturing());
}

void AudioCaptureTest::lostSourceIsForgotten()
{
	const TestAudioSource voice("Voice");
	choose(u"Voice"_s);
	log->clear();
	capture->forgetLostSource();
	QCOMPARE(log->ownLines(), QStringList());
	obs_source_remove(voice.get());
	capture->forgetLostSource();
	QCOMPARE(log->ownLines(), QStringList{u"[talvora-obs] Talvora: detached audio capture from 'Voice'"_s});
	QCOMPARE(capture->audioSourceRef, nullptr);
	capture->forgetLostSource();
	QCOMPARE(log->ownLines().size(), 1);
}

void AudioCaptureTest::sourceThatADubIsPutOutByIsNotCaptured()
{
	TestAudioSource voice("Talvora Dub — Spanish");
	select({{u"es"_s, {true, false}}});
	QVERIFY(dubs->dubbedSources.at(u"es"_s)->publishes(voice.get()));
	choose(u"Talvora Dub — Spanish"_s);
	QVERIFY(log->contains(LOG_WARNING,
			      u"[talvora-obs] Talvora: source 'Talvora Dub — Spanish' (type=test_audio) does "
			      "not produce capturable audio, skipping"_s));
	QVERIFY(!capture->isCapturing());
	voice.playConstant(0.5f, 1024);
}

void AudioCaptureTest::dubThatIsPutOutByTheCapturedSourceEndsTheCapture()
{
	TestAudioSource voice("Talvora Dub — Spanish");
	choose(u"Talvora Dub — Spanish"_s);
	QVERIFY(capture->isCapturing());
	select({{u"es"_s, {true, false}}});
	QVERIFY(!capture->isCapturing());
	voice.playConstant(0.5f, 1024);
}

void AudioCaptureTest::captureCallbackNeverTouchesTheHeap()
{
	// Without a connection nothing is queued.
	service().state_ = WsState::Connected;
	const TestAudioSource voice("Voice");
	select({{u"es"_s, {true, false}}, {u"fr"_s, {true, false}}});
	choose(u"Voice"_s);
	dubs->deliver(u"es"_s, 1, QByteArray(200000, 'x'), 24000);
	dubs->deliver(u"es"_s, 1, QByteArray(), 24000);

	std::vector<float> plane(48000, 0.5f);
	audio_data chunk{};
	chunk.data[0] = chunk.data[1] = reinterpret_cast<uint8_t *>(plane.data());
	// The start of a clip is posted to the user-interface thread, the one allocation that is meant.
	chunk.frames = 1024;
	AudioCapture::audioCaptureCallback(&*capture, voice.get(), &chunk, false);
	QVERIFY(dubs->dubbedSources.at(u"es"_s)->speech.isPlaying());

	HeapGuard guard;
	for (const uint32_t frames : std::array<uint32_t, 8>{1, 2, 480, 1024, 1024, 4096, 8192, 10000}) {
		chunk.frames = frames;
		AudioCapture::audioCaptureCallback(&*capture, voice.get(), &chunk, false);
	}
	guard.stop();
	QVERIFY2(guard.calls() == 0, guard.report());
	QVERIFY(dubs->dubbedSources.at(u"es"_s)->speech.isPlaying());
}

QTEST_MAIN(AudioCaptureTest)
#include "audio-capture-test.moc"

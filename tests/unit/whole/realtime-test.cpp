// SPDX-License-Identifier: GPL-2.0-or-later
// What the plug-in does on OBS's audio thread: the capture callback, and in it the mixing of every dub.
#include "client/ws-client.h"
#include "core/talvora-plugin.h"
#include "dock/plugin-dock.h"

#include "blocking-guard.h"
#include "frontend-stub.h"
#include "heap-guard.h"
#include "log-capture.h"
#include "obs-fixture.h"
#include "test-audio-source.h"

#include <QApplication>
#include <QTemporaryDir>
#include <QTest>

#include <dlfcn.h>

#include <array>
#include <atomic>
#include <chrono>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <thread>
#include <utility>
#include <vector>

// In front of libobs's own: what it does with a chunk is OBS's business.
extern "C" __attribute__((visibility("default"))) void obs_source_output_audio(obs_source_t *source,
									       const obs_source_audio *audio)
{
	static auto *const original =
		reinterpret_cast<decltype(&obs_source_output_audio)>(dlsym(RTLD_NEXT, "obs_source_output_audio"));
	const HeapGuard::Permit heapPermit;
	const BlockingGuard::Permit blockingPermit;
	original(source, audio);
}

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** How many times as long the same work may take in a build that watches every access to memory. */
#ifdef __SANITIZE_ADDRESS__
constexpr int64_t kSlower = 3;
#else
constexpr int64_t kSlower = 1;
#endif

} // namespace

class TalvoraPluginTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void initTestCase();
	void cleanupTestCase();

	void guardSeesLocksWaitsAndHoldTimes();
	void callbackWaitsForNothingButItsLocks();
	void withoutAConnectionNothingIsQueuedOrLogged_data();
	void withoutAConnectionNothingIsQueuedOrLogged();
	void clipCostsOnePostedEventAtItsStartAndOneAtItsEnd();
	void callbackMeetsItsLocksShortly();

private:
	/** One chunk as OBS's audio thread hands it over. */
	void play(uint32_t frames);

	std::optional<QTemporaryDir> home;
	std::optional<LogCapture> log;
	std::optional<ObsFixture> obs;
	std::optional<TestAudioSource> voice;
	TalvoraPlugin *plugin = nullptr;
	std::vector<float> plane = std::vector<float>(48000, 0.5f);
};

void TalvoraPluginTest::initTestCase()
{
	home.emplace();
	qputenv("HOME", home->path().toUtf8());
	log.emplace();
	obs.emplace();
	obs_register_source(dubbed_source_info());
	voice.emplace("Voice");
	plugin = new TalvoraPlugin();
	plugin->setDockFactory(createPluginDock);
	plugin->initialize();
	plugin->setLanguageTargets({{u"es"_s, {true, false}}, {u"fr"_s, {true, false}}});
	plugin->setAudioSource(u"Voice"_s);
}

void TalvoraPluginTest::cleanupTestCase()
{
	voice.reset();
	// As OBS does before it says that it exits.
	obs_enum_sources(
		[](void *, obs_source_t *source) {
			obs_source_remove(source);
			return true;
		},
		nullptr);
	delete plugin;
	qDeleteAll(frontendStub().docks);
	frontendStub().docks.clear();
	obs.reset();
	log.reset();
}

void TalvoraPluginTest::play(uint32_t frames)
{
	audio_data chunk{};
	chunk.data[0] = chunk.data[1] = reinterpret_cast<uint8_t *>(plane.data());
	chunk.frames = frames;
	AudioCapture::audioCaptureCallback(&plugin->capture, voice->get(), &chunk, false);
}

void TalvoraPluginTest::guardSeesLocksWaitsAndHoldTimes()
{
	std::mutex mutex;
	std::shared_mutex shared;
	std::atomic<bool> taken = false;
	const HoldTimes holds(&mutex);
	BlockingGuard guard;
	{
		const std::lock_guard one(mutex);
		const std::shared_lock two(shared);
	}
	QCOMPARE(guard.locks(), size_t{2});
	QVERIFY(guard.locked(&mutex));
	QVERIFY(guard.locked(&shared));
	QVERIFY(!guard.locked(&guard));
	QCOMPARE(guard.contentions(), 0);
	QCOMPARE(guard.waits(), 0);
	QCOMPARE(guard.firstWait(), "none");
	QCOMPARE(holds.count(), 0);

	std::thread other;
	{
		const BlockingGuard::Permit permit;
		other = std::thread([&] {
			const std::lock_guard one(mutex);
			taken = true;
			// Until the watched thread has come to it.
			while (guard.contentions() == 0) {
				std::this_thread::sleep_for(1ms);
			}
			std::this_thread::sleep_for(20ms);
		});
		while (!taken) {
			std::this_thread::sleep_for(1ms);
		}
	}
	QCOMPARE(guard.waits(), 0);
	{
		const std::lock_guard one(mutex);
	}
	QCOMPARE(guard.contentions(), 1);
	QVERIFY(guard.longestWait() > 0);
	std::this_thread::sleep_for(1ms);
	QCOMPARE(guard.waits(), 1);
	QVERIFY(QByteArray(guard.firstWait()).endsWith("nanosleep"));
	guard.stop();
	other.join();
	QCOMPARE(holds.count(), 1);
	QVERIFY(holds.longestOnClock() >= 19'000'000);
	QVERIFY(holds.longestOnProcessor() < holds.longestOnClock());
}

void TalvoraPluginTest::callbackWaitsForNothingButItsLocks()
{
	plugin->onTtsAudioReady(u"es"_s, 1, QByteArray(200000, 'x'), 24000);
	plugin->onTtsAudioReady(u"es"_s, 1, QByteArray(), 24000);
	// The start of a clip is posted to the user-interface thread, see below.
	play(1024);

	HeapGuard heap;
	BlockingGuard guard;
	for (const uint32_t frames : std::array<uint32_t, 8>{1, 2, 480, 1024, 1024, 4096, 8192, 10000}) {
		play(frames);
	}
	guard.stop();
	heap.stop();
	QVERIFY2(heap.calls() == 0, heap.report());
	QVERIFY2(guard.waits() == 0, guard.firstWait());
	QCOMPARE(guard.contentions(), 0);
	const DubbedSource &spanish = *plugin->dubs.dubbedSources.at(u"es"_s);
	const DubbedSource &french = *plugin->dubs.dubbedSources.at(u"fr"_s);
	for (const void *lock : std::initializer_list<const void *>{&plugin->dubs.dubbedMutex, &spanish.sourceLock,
								    &spanish.lock, &french.sourceLock, &french.lock}) {
		QVERIFY(guard.locked(lock));
	}
	QCOMPARE(guard.locks(), size_t{5});
}

void TalvoraPluginTest::withoutAConnectionNothingIsQueuedOrLogged_data()
{
	QTest::addColumn<WsState>("state");
	QTest::newRow("disconnected") << WsState::Disconnected;
	QTest::newRow("connecting") << WsState::Connecting;
	QTest::newRow("reconnecting") << WsState::Reconnecting;
}

/** OBS plays for hours without a session, or while the service is away: longer than the uplink's queue would hold. */
void TalvoraPluginTest::withoutAConnectionNothingIsQueuedOrLogged()
{
	QFETCH(WsState, state);
	WSClient &client = *plugin->client.wsClient;
	client.setState(state);
	QCoreApplication::processEvents();
	// The end of a clip would be posted.
	plugin->dubs.flush();
	play(1024);
	log->clear();
	HeapGuard heap;
	BlockingGuard guard;
	for (int chunk = 0; chunk < 470; ++chunk) {
		play(1024);
	}
	guard.stop();
	heap.stop();
	QCOMPARE(log->ownLines(), QStringList());
	QCOMPARE(client.audioRing.held(), size_t{0});
	QVERIFY2(heap.calls() == 0, heap.report());
	QVERIFY2(guard.waits() == 0, guard.firstWait());
}

void TalvoraPluginTest::clipCostsOnePostedEventAtItsStartAndOneAtItsEnd()
{
	plugin->setLanguageTargets({{u"es"_s, {true, false}}});
	// Speech is taken again only in another session.
	plugin->onWsStateChanged(WsState::Disconnected);
	plugin->onWsStateChanged(WsState::Authenticated);
	const auto cost = [](const auto &action) {
		HeapGuard heap;
		BlockingGuard guard;
		action();
		guard.stop();
		heap.stop();
		return std::pair(heap.calls(), guard.waits());
	};
	// What Qt needs for one event of this size: memory for it, and waking the user-interface thread up.
	const auto post = [this] {
		QMetaObject::invokeMethod(
			plugin,
			[self = plugin, code = u"es"_s, clip = 1] {
				self->dubs.dubbedSources.contains(code + QString::number(clip));
			},
			Qt::QueuedConnection);
	};
	for (int i = 0; i < 4; ++i) {
		post();
	}
	QCoreApplication::processEvents();
	const std::pair posted = cost(post);
	QVERIFY(posted.first > 0);
	const std::pair nothing(0, 0);

	// 2400 samples at 24 kHz are 4800 frames: the start in the first chunk of 1024, the end in the fifth.
	plugin->onTtsAudioReady(u"es"_s, 5, QByteArray(4800, 'x'), 24000);
	plugin->onTtsAudioReady(u"es"_s, 5, QByteArray(), 24000);
	QCOMPARE(cost([this] { play(1024); }), posted);
	for (int chunk = 2; chunk <= 4; ++chunk) {
		QCOMPARE(cost([this] { play(1024); }), nothing);
	}
	QCOMPARE(cost([this] { play(1024); }), posted);
	QCOMPARE(cost([this] { play(1024); }), nothing);
}

void TalvoraPluginTest::callbackMeetsItsLocksShortly()
{
	DubbedSource &spanish = *plugin->dubs.dubbedSources.at(u"es"_s);
	const HoldTimes map(&plugin->dubs.dubbedMutex);
	const HoldTimes source(&spanish.sourceLock);
	const HoldTimes speech(&spanish.lock);

	std::atomic<bool> stop = false;
	std::atomic<int> chunks = 0;
	int contentions = 0;
	int64_t longest = 0;
	std::thread audio([&] {
		BlockingGuard guard;
		while (!stop) {
			play(1024);
			++chunks;
		}
		contentions = guard.contentions();
		longest = guard.longestWait();
	});

	const QByteArray piece(96000, 'x');
	for (int clip = 1; clip <= 100; ++clip) {
		// Two seconds of speech in one piece, every setting of a dub, and dubs that come and go.
		plugin->onTtsAudioReady(u"es"_s, clip, piece, 24000);
		plugin->onTtsAudioReady(u"es"_s, clip, QByteArray(), 24000);
		plugin->setDuckingLevel(0.01f * static_cast<float>(clip % 100));
		plugin->setMuteOriginal(clip % 2 == 0);
		plugin->setLanguageTargets(
			clip % 2 == 0 ? LanguageTargets{{u"es"_s, {true, false}}}
				      : LanguageTargets{{u"es"_s, {true, false}}, {u"fr"_s, {true, false}}});
		if (clip % 10 == 0) {
			// Speech is taken again only in another session.
			plugin->onWsStateChanged(WsState::Disconnected);
			plugin->onWsStateChanged(WsState::Authenticated);
		}
		QCoreApplication::processEvents();
	}
	QVERIFY(QTest::qWaitFor([&] { return chunks >= 100; }));
	stop = true;
	audio.join();

	const auto ms = [](int64_t ns) { return static_cast<double>(ns) / 1e6; };
	qInfo("held at most (ms of processor, of clock): dubs %.3f %.3f, source %.3f %.3f, speech %.3f %.3f",
	      ms(map.longestOnProcessor()), ms(map.longestOnClock()), ms(source.longestOnProcessor()),
	      ms(source.longestOnClock()), ms(speech.longestOnProcessor()), ms(speech.longestOnClock()));
	qInfo("%d chunks met a lock taken %d times, for at most %.3f ms", chunks.load(), contentions, ms(longest));
	// Each change of the dubs but the first, which changes nothing.
	QVERIFY(map.count() >= 99);
	QVERIFY(source.count() > 0);
	QVERIFY(speech.count() >= 200);
	// The processor's time is what the plug-in can answer for. On a busy machine of two cores it was 63 us, 22 us
	// and, for two seconds of speech that are put into the queue, 78 us at most: some ten times as much is no
	// longer the same work. A chunk of 1024 frames lasts 21.3 ms.
	QVERIFY(map.longestOnProcessor() < kSlower * 500'000);
	QVERIFY(source.longestOnProcessor() < kSlower * 500'000);
	QVERIFY(speech.longestOnProcessor() < kSlower * 1'000'000);
}

QTEST_MAIN(TalvoraPluginTest)

#include "realtime-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/speech-queue.h"
#include "heap-guard.h"
#include "plain-speech-queue.h"

#include <QTest>

#include <algorithm>
#include <chrono>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

namespace {

using Event = PlainSpeechQueue::Event;
using Taken = PlainSpeechQueue::Taken;

Taken take(SpeechQueue &queue, size_t frames, uint32_t rate = 48000)
{
	Taken result;
	result.samples.resize(frames);
	const size_t taken = queue.take(
		result.samples.data(), frames, rate, [&](int id) { result.events.push_back({'s', id}); },
		[&](int id) { result.events.push_back({'e', id}); });
	result.samples.resize(taken);
	return result;
}

void pushPiece(SpeechQueue &queue, int clipId, const int16_t *pcm, size_t count, int speechRate, uint32_t outputRate)
{
	queue.append(clipId, queue.resample(pcm, count, speechRate, outputRate));
}

/** A piece whose samples all differ, at 48000 Hz unless said. */
void push(SpeechQueue &queue, int clipId, size_t count, int16_t first = 1, int rate = 48000)
{
	std::vector<int16_t> pcm(count);
	for (size_t i = 0; i < count; ++i) {
		pcm[i] = static_cast<int16_t>(static_cast<size_t>(first) + i % 30000);
	}
	pushPiece(queue, clipId, pcm.data(), pcm.size(), rate, 48000);
}

/** Milliseconds as samples at 48000 Hz. */
constexpr size_t ms(size_t count)
{
	return count * 48;
}

std::vector<float> values(std::initializer_list<int> pcm)
{
	std::vector<float> result;
	for (const int sample : pcm) {
		result.push_back(static_cast<float>(sample) / 32768.0f);
	}
	return result;
}

} // namespace

class SpeechQueueTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void constants();
	void halfSecondThatIsEndedIsPlayedAtOnce();
	void halfSecondThatIsNotEndedWaits();
	void playsFrom800MsOn();
	void prebufferFollowsTheOutputRate();
	void prebufferIsComputedIn32Bits();
	void speechAt24000HzDoublesExactly();
	void interpolatesInAStraightLine();
	void resamplesContinuouslyOverPieces();
	void lengthFollowsTheRates_data();
	void lengthFollowsTheRates();
	void missingRatesAreReplaced();
	void samplesAreScaledBy32768();
	void sameClipExtendsItsMarker();
	void otherClipGetsAMarkerOfItsOwn();
	void clipWhoseEndIsLostDoesNotHoldUpTheNext();
	void clipsAfterOneThatIsTooLongStayInStep();
	void clipIsStartedOnlyWithItsFirstSample();
	void clipThatRunsDryWaitsForItsEndOrMore();
	void endAfterTheLastSampleIsToldWithTheNextChunk();
	void endOfAnUnknownClipIsIgnored();
	void endHitsTheFirstClipOfThatId();
	void speechWithoutClipIsNotPlayedByItself();
	void speechWithoutClipIsHeardInTheClipThatFollows();
	void overflowLosesTheOldestSamples();
	void overflowTakesClipsAwayUnheard();
	void overflowOfOnePieceCountsWhatIsKept();
	void clearForgetsEverything();
	void hostileRateCostsNoMoreThanAFullQueue();
	void manyTinyClipsStayCheap();
	void clipsThatNeverRunOutNeedNoMoreRoom();
	void takeAllocatesNothing();
	void matchesTheTranscription_data();
	void matchesTheTranscription();

private:
	static std::vector<ClipMarker> markers(const SpeechQueue &queue)
	{
		return {queue.markers.begin() + static_cast<ptrdiff_t>(queue.frontIndex), queue.markers.end()};
	}
};

void SpeechQueueTest::constants()
{
	QCOMPARE(SpeechQueue::kCapacity, size_t{480000});
	QCOMPARE(SpeechQueue::kPrebufferMs, 800u);
	QCOMPARE(SpeechQueue::kDefaultOutputRate, 48000u);
	QCOMPARE(SpeechQueue::kDefaultSpeechRate, 24000);
}

void SpeechQueueTest::halfSecondThatIsEndedIsPlayedAtOnce()
{
	SpeechQueue queue;
	push(queue, 1, ms(500));
	queue.endClip(1);
	const Taken played = take(queue, 1024);
	QCOMPARE(played.samples.size(), size_t{1024});
	QCOMPARE(played.events, (std::vector<Event>{{'s', 1}}));
	QVERIFY(queue.isPlaying());
}

void SpeechQueueTest::halfSecondThatIsNotEndedWaits()
{
	SpeechQueue queue;
	push(queue, 1, ms(500));
	QCOMPARE(take(queue, 1024), Taken{});
	QVERIFY(!queue.isPlaying());
	QCOMPARE(queue.size(), ms(500));
}

void SpeechQueueTest::playsFrom800MsOn()
{
	SpeechQueue queue;
	push(queue, 1, 38399);
	QCOMPARE(take(queue, 1024), Taken{});
	push(queue, 1, 1);
	QCOMPARE(take(queue, 1024).samples.size(), size_t{1024});
	// Once playing it goes on below that.
	QCOMPARE(take(queue, 1024).samples.size(), size_t{1024});
}

void SpeechQueueTest::prebufferFollowsTheOutputRate()
{
	SpeechQueue queue;
	push(queue, 1, 35279);
	QCOMPARE(take(queue, 100, 44100), Taken{});
	push(queue, 1, 1);
	QCOMPARE(take(queue, 100, 44100).samples.size(), size_t{100});
}

void SpeechQueueTest::prebufferIsComputedIn32Bits()
{
	// 5368710 x 800 is 704 beyond 32 bits: nothing needs to be queued at that rate.
	SpeechQueue queue;
	push(queue, 1, 1);
	QCOMPARE(take(queue, 1, 5368710).samples.size(), size_t{1});
}

void SpeechQueueTest::speechAt24000HzDoublesExactly()
{
	SpeechQueue queue;
	for (const size_t count : std::initializer_list<size_t>{1, 2, 319, 320, 9677}) {
		const size_t before = queue.size();
		push(queue, 1, count, 1, 24000);
		QCOMPARE(queue.size() - before, 2 * count);
	}
}

void SpeechQueueTest::interpolatesInAStraightLine()
{
	SpeechQueue queue;
	const int16_t pcm[] = {300, 900, -600};
	pushPiece(queue, 1, pcm, 3, 16000, 48000);
	queue.endClip(1);
	QCOMPARE(take(queue, 100).samples, values({100, 200, 300, 500, 700, 900, 400, -100, -600}));
}

void SpeechQueueTest::resamplesContinuouslyOverPieces()
{
	const int16_t pcm[] = {100, -5000, 32767, -32768, 7, 8, 9, 10000, 2, 1};
	SpeechQueue whole;
	pushPiece(whole, 1, pcm, 10, 22050, 48000);
	whole.endClip(1);
	SpeechQueue pieces;
	for (const int16_t &sample : pcm) {
		pushPiece(pieces, 1, &sample, 1, 22050, 48000);
	}
	pieces.endClip(1);
	QCOMPARE(take(pieces, 100), take(whole, 100));
}

void SpeechQueueTest::lengthFollowsTheRates_data()
{
	QTest::addColumn<int>("speechRate");
	QTest::addColumn<uint32_t>("outputRate");
	QTest::addColumn<size_t>("made");
	QTest::newRow("24000 to 48000") << 24000 << 48000u << size_t{48000};
	QTest::newRow("48000 to 48000") << 48000 << 48000u << size_t{24000};
	QTest::newRow("16000 to 48000") << 16000 << 48000u << size_t{72000};
	QTest::newRow("22050 to 48000") << 22050 << 48000u << size_t{52244};
	QTest::newRow("24000 to 44100") << 24000 << 44100u << size_t{44100};
	QTest::newRow("96000 to 48000") << 96000 << 48000u << size_t{12000};
}

void SpeechQueueTest::lengthFollowsTheRates()
{
	QFETCH(int, speechRate);
	QFETCH(uint32_t, outputRate);
	QFETCH(size_t, made);
	SpeechQueue queue;
	const std::vector<int16_t> pcm(24000, 1000);
	pushPiece(queue, 1, pcm.data(), pcm.size(), speechRate, outputRate);
	// The phase is a sum of 24000 roundings.
	QVERIFY2(queue.size() == made || queue.size() + 1 == made, qPrintable(QString::number(queue.size())));
}

void SpeechQueueTest::missingRatesAreReplaced()
{
	const int16_t pcm[] = {1, 2, 3};
	for (const int speechRate : {0, -1, std::numeric_limits<int>::min()}) {
		SpeechQueue queue;
		pushPiece(queue, 1, pcm, 3, speechRate, 0);
		QCOMPARE(queue.size(), size_t{6});
		queue.clear();
		pushPiece(queue, 1, pcm, 3, speechRate, 24000);
		QCOMPARE(queue.size(), size_t{3});
	}
	SpeechQueue queue;
	pushPiece(queue, 1, pcm, 3, 12000, 0);
	QCOMPARE(queue.size(), size_t{12});
}

void SpeechQueueTest::samplesAreScaledBy32768()
{
	SpeechQueue queue;
	const int16_t pcm[] = {32767, -32768, 0, 16384};
	pushPiece(queue, 1, pcm, 4, 48000, 48000);
	queue.endClip(1);
	QCOMPARE(take(queue, 4).samples, (std::vector<float>{0.999969482421875f, -1.0f, 0.0f, 0.5f}));
}

void SpeechQueueTest::sameClipExtendsItsMarker()
{
	SpeechQueue queue;
	push(queue, 7, 100);
	push(queue, 7, 200);
	QCOMPARE(markers(queue).size(), size_t{1});
	QCOMPARE(markers(queue)[0].clipId, 7);
	QCOMPARE(markers(queue)[0].samplesRemaining, uint64_t{300});
	queue.endClip(7);
	QCOMPARE(take(queue, 1000).events, (std::vector<Event>{{'s', 7}, {'e', 7}}));
}

void SpeechQueueTest::otherClipGetsAMarkerOfItsOwn()
{
	SpeechQueue queue;
	push(queue, 7, 100);
	push(queue, 8, 200);
	push(queue, 7, 50);
	const auto found = markers(queue);
	QCOMPARE(found.size(), size_t{3});
	QCOMPARE(found[0].samplesRemaining, uint64_t{100});
	QCOMPARE(found[1].samplesRemaining, uint64_t{200});
	QCOMPARE(found[2].samplesRemaining, uint64_t{50});
	QVERIFY(!found[1].started);
	QVERIFY(found[0].ended);
	QVERIFY(found[1].ended);
	QVERIFY(!found[2].ended);
}

void SpeechQueueTest::clipWhoseEndIsLostDoesNotHoldUpTheNext()
{
	SpeechQueue queue;
	push(queue, 1, ms(900));
	QCOMPARE(take(queue, ms(1000)).events, (std::vector<Event>{{'s', 1}}));
	// "tts_end" of 1 never comes.
	push(queue, 2, ms(300));
	queue.endClip(2);
	QCOMPARE(take(queue, ms(1000)).events, (std::vector<Event>{{'e', 1}, {'s', 2}, {'e', 2}}));
	QVERIFY(markers(queue).empty());
}

void SpeechQueueTest::clipsAfterOneThatIsTooLongStayInStep()
{
	SpeechQueue queue;
	push(queue, 1, ms(15000));
	queue.endClip(1);
	QCOMPARE(take(queue, ms(10000)).events, (std::vector<Event>{{'s', 1}, {'e', 1}}));
	push(queue, 2, ms(500));
	queue.endClip(2);
	QCOMPARE(take(queue, ms(500)).events, (std::vector<Event>{{'s', 2}, {'e', 2}}));
}

void SpeechQueueTest::clipIsStartedOnlyWithItsFirstSample()
{
	SpeechQueue queue;
	push(queue, 7, 100);
	push(queue, 8, 100, 5000);
	queue.endClip(7);
	queue.endClip(8);
	QCOMPARE(take(queue, 60).events, (std::vector<Event>{{'s', 7}}));
	QCOMPARE(take(queue, 40).events, (std::vector<Event>{{'e', 7}}));
	QCOMPARE(take(queue, 60).events, (std::vector<Event>{{'s', 8}}));
	const Taken rest = take(queue, 60);
	QCOMPARE(rest.events, (std::vector<Event>{{'e', 8}}));
	QCOMPARE(rest.samples.size(), size_t{40});
	QCOMPARE(rest.samples.back(), 5099.0f / 32768.0f);
	QVERIFY(!queue.isPlaying());
}

void SpeechQueueTest::clipThatRunsDryWaitsForItsEndOrMore()
{
	SpeechQueue queue;
	push(queue, 7, ms(800));
	Taken played = take(queue, ms(900));
	QCOMPARE(played.samples.size(), ms(800));
	QCOMPARE(played.events, (std::vector<Event>{{'s', 7}}));
	QVERIFY(!queue.isPlaying());

	// 0.8 s more are needed, not the next sample.
	push(queue, 7, ms(800) - 1);
	QCOMPARE(take(queue, 1024), Taken{});
	push(queue, 7, 1);
	played = take(queue, ms(800));
	QCOMPARE(played.samples.size(), ms(800));
	QVERIFY2(played.events.empty(), "a clip is started once");

	push(queue, 7, 10);
	QCOMPARE(take(queue, 1024), Taken{});
	queue.endClip(7);
	played = take(queue, 1024);
	QCOMPARE(played.samples.size(), size_t{10});
	QCOMPARE(played.events, (std::vector<Event>{{'e', 7}}));
}

void SpeechQueueTest::endAfterTheLastSampleIsToldWithTheNextChunk()
{
	SpeechQueue queue;
	push(queue, 7, ms(800));
	take(queue, ms(800));
	QCOMPARE(take(queue, 1024), Taken{});
	queue.endClip(7);
	const Taken ended = take(queue, 1024);
	QVERIFY(ended.samples.empty());
	QCOMPARE(ended.events, (std::vector<Event>{{'e', 7}}));
	QVERIFY(!queue.isPlaying());
	QVERIFY(markers(queue).empty());
	QCOMPARE(take(queue, 1024), Taken{});
}

void SpeechQueueTest::endOfAnUnknownClipIsIgnored()
{
	SpeechQueue queue;
	queue.endClip(7);
	push(queue, 8, 100);
	queue.endClip(7);
	QCOMPARE(take(queue, 100), Taken{});
}

void SpeechQueueTest::endHitsTheFirstClipOfThatId()
{
	SpeechQueue queue;
	push(queue, 7, 100);
	push(queue, 8, 100);
	push(queue, 7, 100);
	queue.endClip(7);
	const auto found = markers(queue);
	QVERIFY(found[0].ended);
	QVERIFY(!found[2].ended);
}

void SpeechQueueTest::speechWithoutClipIsNotPlayedByItself()
{
	SpeechQueue queue;
	push(queue, 0, ms(1000));
	QVERIFY(markers(queue).empty());
	QCOMPARE(queue.size(), ms(1000));
	QCOMPARE(take(queue, 1024), Taken{});
}

void SpeechQueueTest::speechWithoutClipIsHeardInTheClipThatFollows()
{
	SpeechQueue queue;
	push(queue, 0, 3, 100);
	push(queue, 5, 3, 200);
	queue.endClip(5);
	const Taken played = take(queue, 1024);
	QCOMPARE(played.samples, values({100, 101, 102}));
	QCOMPARE(played.events, (std::vector<Event>{{'s', 5}, {'e', 5}}));
	QCOMPARE(queue.size(), size_t{3});
}

void SpeechQueueTest::overflowLosesTheOldestSamples()
{
	SpeechQueue queue;
	push(queue, 1, 240000, 1);
	push(queue, 1, 240000, 1);
	QCOMPARE(queue.size(), size_t{480000});
	push(queue, 1, 5, 32000);
	QCOMPARE(queue.size(), size_t{480000});
	QCOMPARE(markers(queue)[0].samplesRemaining, uint64_t{480000});
	queue.endClip(1);
	const Taken played = take(queue, 480000);
	QCOMPARE(played.samples.size(), size_t{480000});
	QCOMPARE(played.samples.front(), 6.0f / 32768.0f);
	QCOMPARE(played.samples.back(), 32004.0f / 32768.0f);
}

void SpeechQueueTest::overflowTakesClipsAwayUnheard()
{
	SpeechQueue queue;
	push(queue, 1, 1000);
	push(queue, 2, 479000);
	push(queue, 3, 1000, 500);
	auto found = markers(queue);
	QCOMPARE(found.size(), size_t{2});
	QCOMPARE(found[0].clipId, 2);
	QCOMPARE(found[0].samplesRemaining, uint64_t{479000});
	QVERIFY2(take(queue, 1).events == (std::vector<Event>{{'s', 2}}), "a dropped clip is not told");

	// A clip that has run dry goes with the first sample that is dropped.
	SpeechQueue dry;
	push(dry, 1, ms(800));
	take(dry, ms(800));
	push(dry, 0, 480000);
	QCOMPARE(markers(dry).size(), size_t{1});
	push(dry, 2, 1);
	QCOMPARE(markers(dry).size(), size_t{1});
	QCOMPARE(markers(dry)[0].clipId, 2);
	QCOMPARE(markers(dry)[0].samplesRemaining, uint64_t{1});
}

void SpeechQueueTest::overflowOfOnePieceCountsWhatIsKept()
{
	SpeechQueue queue;
	push(queue, 4, 500000, 1);
	QCOMPARE(queue.size(), size_t{480000});
	QCOMPARE(markers(queue)[0].samplesRemaining, uint64_t{480000});
	const Taken played = take(queue, 1);
	QCOMPARE(played.samples[0], static_cast<float>(1 + 20000) / 32768.0f);
}

void SpeechQueueTest::clearForgetsEverything()
{
	SpeechQueue queue;
	const int16_t pcm[] = {30000};
	pushPiece(queue, 1, pcm, 1, 32000, 48000); // leaves a phase of a half and a last sample
	push(queue, 2, ms(900));
	take(queue, 10);
	queue.clear();
	QCOMPARE(queue.size(), size_t{0});
	QVERIFY(!queue.isPlaying());
	QVERIFY(markers(queue).empty());
	QCOMPARE(take(queue, 1024), Taken{});

	pushPiece(queue, 3, pcm, 1, 24000, 48000);
	queue.endClip(3);
	QCOMPARE(take(queue, 10).samples, values({15000, 30000}));
}

void SpeechQueueTest::hostileRateCostsNoMoreThanAFullQueue()
{
	// At 1 Hz these would be 24 thousand million samples.
	const std::vector<int16_t> pcm(500000, 1000);
	SpeechQueue queue;
	const auto start = std::chrono::steady_clock::now();
	pushPiece(queue, 1, pcm.data(), pcm.size(), 1, 48000);
	const auto elapsed = std::chrono::steady_clock::now() - start;
	QVERIFY2(elapsed < std::chrono::seconds(5), "one piece took seconds");
	QCOMPARE(queue.size(), size_t{480000});
	QCOMPARE(markers(queue)[0].samplesRemaining, uint64_t{480000});
	QCOMPARE(take(queue, 100).samples, std::vector<float>(100, 1000.0f / 32768.0f));
	pushPiece(queue, 1, pcm.data(), 1, std::numeric_limits<int>::max(), 1);
	pushPiece(queue, 1, pcm.data(), 1, 1, std::numeric_limits<uint32_t>::max());
	QCOMPARE(queue.size(), size_t{480000});
}

void SpeechQueueTest::manyTinyClipsStayCheap()
{
	SpeechQueue queue;
	const int16_t sample = 5;
	const auto start = std::chrono::steady_clock::now();
	for (int id = 1; id <= 500000; ++id) {
		pushPiece(queue, id, &sample, 1, 48000, 48000);
	}
	QCOMPARE(markers(queue).size(), size_t{480000});
	QCOMPARE(markers(queue).front().clipId, 20001);
	const auto elapsed = std::chrono::steady_clock::now() - start;
	QVERIFY2(elapsed < std::chrono::seconds(20), "half a million clips took too long");
}

void SpeechQueueTest::clipsThatNeverRunOutNeedNoMoreRoom()
{
	SpeechQueue queue;
	const size_t room = queue.markers.capacity();
	int last = 0;
	const auto pushClip = [&] {
		push(queue, ++last, 10);
		queue.endClip(last);
	};
	while (static_cast<size_t>(last) < room / 2) {
		pushClip();
	}
	std::vector<Event> told;
	std::vector<Event> expected;
	for (int clip = 1; clip <= 1000; ++clip) {
		pushClip();
		const Taken played = take(queue, 10);
		QCOMPARE(played.samples.size(), size_t{10});
		told.insert(told.end(), played.events.begin(), played.events.end());
		expected.insert(expected.end(), {{'s', clip}, {'e', clip}});
	}
	QCOMPARE(told, expected);
	QCOMPARE(queue.markers.capacity(), room);
}

void SpeechQueueTest::takeAllocatesNothing()
{
	SpeechQueue queue;
	for (int id = 1; id <= 1000; ++id) {
		push(queue, id, 100);
		queue.endClip(id);
	}
	std::vector<float> out(48000);
	int events = 0;
	const SpeechQueue::ClipEvent count = [&events](int) { ++events; };
	HeapGuard guard;
	size_t taken = 0;
	for (int chunk = 0; chunk < 4; ++chunk) {
		taken += queue.take(out.data(), out.size(), 48000, count, count);
	}
	guard.stop();
	QVERIFY2(guard.calls() == 0, guard.report());
	QCOMPARE(taken, size_t{100000});
	QCOMPARE(events, 2000);
}

void SpeechQueueTest::matchesTheTranscription_data()
{
	QTest::addColumn<uint32_t>("seed");
	QTest::addColumn<size_t>("longestPiece");
	QTest::addColumn<int>("operations");
	QTest::newRow("short pieces") << 11u << size_t{500} << 20000;
	QTest::newRow("pieces of up to half a second") << 12u << size_t{12000} << 4000;
	QTest::newRow("pieces that overflow") << 13u << size_t{300000} << 300;
}

void SpeechQueueTest::matchesTheTranscription()
{
	QFETCH(uint32_t, seed);
	QFETCH(size_t, longestPiece);
	QFETCH(int, operations);

	std::mt19937 random(seed);
	const int speechRates[] = {24000, 24000, 24000, 22050, 16000, 48000, 44100, 8000, 96000, 0, -5, 11025};
	const uint32_t outputRates[] = {48000, 48000, 48000, 44100, 96000, 8000};
	std::uniform_int_distribution<int> sample(-32768, 32767);
	std::uniform_int_distribution<size_t> length(0, longestPiece);
	std::uniform_int_distribution<int> clip(0, 4);
	SpeechQueue queue;
	PlainSpeechQueue expected;
	uint32_t rate = 48000;
	for (int operation = 0; operation < operations; ++operation) {
		const auto dice = random() % 100;
		if (dice < 35) {
			std::vector<int16_t> pcm(length(random));
			std::generate(pcm.begin(), pcm.end(), [&] { return static_cast<int16_t>(sample(random)); });
			const int speechRate = speechRates[random() % std::size(speechRates)];
			const int id = clip(random);
			pushPiece(queue, id, pcm.data(), pcm.size(), speechRate, rate);
			expected.push(id, pcm, speechRate, rate);
		} else if (dice < 50) {
			const int id = clip(random);
			queue.endClip(id);
			expected.endClip(id);
		} else if (dice < 51) {
			queue.clear();
			expected.clear();
		} else if (dice < 53) {
			rate = outputRates[random() % std::size(outputRates)];
		} else {
			const size_t frames = length(random) * 2;
			const Taken wanted = expected.take(frames, rate);
			const Taken got = take(queue, frames, rate);
			QVERIFY2(got.events == wanted.events, qPrintable(QString::number(operation)));
			QVERIFY2(got.samples == wanted.samples, qPrintable(QString::number(operation)));
		}
		QCOMPARE(queue.size(), expected.queue.size());
		QCOMPARE(queue.isPlaying(), expected.playing);
		const auto found = markers(queue);
		QCOMPARE(found.size(), expected.markers.size());
		const uint64_t counted = std::accumulate(
			found.begin(), found.end(), uint64_t{0},
			[](uint64_t sum, const ClipMarker &marker) { return sum + marker.samplesRemaining; });
		QVERIFY2(counted <= queue.size(), qPrintable(QString::number(operation)));
		for (size_t i = 0; i < found.size(); ++i) {
			QCOMPARE(found[i].clipId, expected.markers[i].clipId);
			QCOMPARE(found[i].samplesRemaining, expected.markers[i].samplesRemaining);
			QCOMPARE(found[i].started, expected.markers[i].started);
			QCOMPARE(found[i].ended, expected.markers[i].ended);
		}
	}
}

QTEST_APPLESS_MAIN(SpeechQueueTest)
#include "speech-queue-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/capture-converter.h"
#include "heap-guard.h"
#include "hostile-samples.h"
#include "plain-capture.h"

#include <QTest>

#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <span>
#include <vector>

namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

std::vector<int16_t> to_vector(std::span<const int16_t> samples)
{
	return {samples.begin(), samples.end()};
}

/** One output sample of three equal inputs on both channels. */
int16_t converted(float value)
{
	CaptureConverter converter;
	const float samples[] = {value, value, value};
	return converter.convert(samples, samples, 3)[0];
}

} // namespace

class CaptureConverterTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void constants();
	void monoGivesTheSameAsStereoWithIdenticalChannels();
	void chunksOf1000FramesGive333And333And334();
	void chunkOf1024FramesGives341Or342();
	void chunkOf10000FramesGivesCarryPlus8192OverThree();
	void framesBeyond8192AreNotRead();
	void fullScale_data();
	void fullScale();
	void averagesTheChannelsAndEveryThreeSamples();
	void oneAndTwoFramesWaitForTheNextChunk();
	void emptyChunkKeepsWhatWaits();
	void resetForgetsWhatWaits();
	void everyChunkLengthMatchesTheTranscription();
	void chunksOfChangingLengthMatchTheTranscription();
	void allocatesNothing();
};

void CaptureConverterTest::constants()
{
	QCOMPARE(CaptureConverter::kMaxFrames, size_t{8192});
	QCOMPARE(CaptureConverter::kDecimation, size_t{3});
	QCOMPARE(CaptureConverter::kMaxOutput, size_t{2736});
}

void CaptureConverterTest::monoGivesTheSameAsStereoWithIdenticalChannels()
{
	std::mt19937 random(1);
	const std::vector<float> samples = hostileSamples(random, 1024);
	// Two arrays, as OBS has for two channels.
	const std::vector<float> right(samples.begin(), samples.end());
	CaptureConverter mono;
	CaptureConverter stereo;
	QCOMPARE(to_vector(mono.convert(samples.data(), samples.data(), 1024)),
		 to_vector(stereo.convert(samples.data(), right.data(), 1024)));

	// The average of a sample with itself is the sample.
	QCOMPARE(converted(0.25f), int16_t{8191});
}

void CaptureConverterTest::chunksOf1000FramesGive333And333And334()
{
	const std::vector<float> silence(1000);
	CaptureConverter converter;
	for (int round = 0; round < 3; ++round) {
		QCOMPARE(converter.convert(silence.data(), silence.data(), 1000).size(), size_t{333});
		QCOMPARE(converter.carried(), size_t{1});
		QCOMPARE(converter.convert(silence.data(), silence.data(), 1000).size(), size_t{333});
		QCOMPARE(converter.carried(), size_t{2});
		QCOMPARE(converter.convert(silence.data(), silence.data(), 1000).size(), size_t{334});
		QCOMPARE(converter.carried(), size_t{0});
	}
}

void CaptureConverterTest::chunkOf1024FramesGives341Or342()
{
	const std::vector<float> silence(1024);
	CaptureConverter converter;
	QCOMPARE(converter.convert(silence.data(), silence.data(), 1024).size(), size_t{341});
	QCOMPARE(converter.convert(silence.data(), silence.data(), 1024).size(), size_t{341});
	QCOMPARE(converter.convert(silence.data(), silence.data(), 1024).size(), size_t{342});
	QCOMPARE(converter.carried(), size_t{0});
}

void CaptureConverterTest::chunkOf10000FramesGivesCarryPlus8192OverThree()
{
	const std::vector<float> silence(10000);
	CaptureConverter converter;
	QCOMPARE(converter.convert(silence.data(), silence.data(), 10000).size(), size_t{2730});
	QCOMPARE(converter.carried(), size_t{2});
	QCOMPARE(converter.convert(silence.data(), silence.data(), 10000).size(), size_t{2731});
	QCOMPARE(converter.carried(), size_t{1});
	QCOMPARE(converter.convert(silence.data(), silence.data(), 10000).size(), size_t{2731});
	QCOMPARE(converter.carried(), size_t{0});
}

void CaptureConverterTest::framesBeyond8192AreNotRead()
{
	std::vector<float> samples(10000, 0.5f);
	std::fill(samples.begin() + 8192, samples.end(), -0.5f);
	CaptureConverter converter;
	converter.convert(samples.data(), samples.data(), samples.size());
	QCOMPARE(converter.carried(), size_t{2});
	// The two that wait are the last ones before the bound, not the chunk's last ones.
	const float one = 0.5f;
	const auto joined = converter.convert(&one, &one, 1);
	QCOMPARE(joined.size(), size_t{1});
	QCOMPARE(joined[0], int16_t{16383});
}

void CaptureConverterTest::fullScale_data()
{
	QTest::addColumn<float>("input");
	QTest::addColumn<int>("output");
	QTest::newRow("1.0") << 1.0f << 32767;
	QTest::newRow("just above 1.0") << std::nextafter(1.0f, 2.0f) << 32767;
	QTest::newRow("2.0") << 2.0f << 32767;
	QTest::newRow("greatest float") << FLT_MAX << 32767;
	QTest::newRow("infinity") << kInfinity << 32767;
	QTest::newRow("NaN") << kNan << 32767;
	QTest::newRow("NaN with its sign set") << -kNan << 32767;
	QTest::newRow("-1.0") << -1.0f << -32767;
	QTest::newRow("just below -1.0") << std::nextafter(-1.0f, -2.0f) << -32767;
	QTest::newRow("-2.0") << -2.0f << -32767;
	QTest::newRow("lowest float") << -FLT_MAX << -32767;
	QTest::newRow("minus infinity") << -kInfinity << -32767;
	QTest::newRow("below 1.0 truncates") << 0.9999f << 32763;
	QTest::newRow("above -1.0 truncates toward zero") << -0.9999f << -32763;
	QTest::newRow("less than one step") << 0.00003f << 0;
	QTest::newRow("less than one step down") << -0.00003f << 0;
	QTest::newRow("smallest float") << FLT_TRUE_MIN << 0;
	QTest::newRow("silence") << 0.0f << 0;
	QTest::newRow("minus zero") << -0.0f << 0;
	QTest::newRow("half") << 0.5f << 16383;
	QTest::newRow("minus half") << -0.5f << -16383;
}

void CaptureConverterTest::fullScale()
{
	QFETCH(float, input);
	QFETCH(int, output);
	QCOMPARE(int{converted(input)}, output);
}

void CaptureConverterTest::averagesTheChannelsAndEveryThreeSamples()
{
	const float left[] = {0.9f, 0.0f, 0.0f, -0.3f, -0.3f, -0.3f};
	const float right[] = {0.0f, 0.9f, 0.0f, 0.1f, 0.1f, 0.1f};
	CaptureConverter converter;
	const auto out = converter.convert(left, right, 6);
	QCOMPARE(out.size(), size_t{2});
	QCOMPARE(int{out[0]}, 9830);  // 0.3
	QCOMPARE(int{out[1]}, -3276); // -0.1
}

void CaptureConverterTest::oneAndTwoFramesWaitForTheNextChunk()
{
	const float a = 0.3f;
	const float b = 0.6f;
	const float c = -0.3f;
	CaptureConverter converter;
	QCOMPARE(converter.convert(&a, &a, 1).size(), size_t{0});
	QCOMPARE(converter.carried(), size_t{1});
	QCOMPARE(converter.convert(&b, &b, 1).size(), size_t{0});
	QCOMPARE(converter.carried(), size_t{2});
	const auto out = converter.convert(&c, &c, 1);
	QCOMPARE(out.size(), size_t{1});
	QCOMPARE(int{out[0]}, 6553); // 0.2
	QCOMPARE(converter.carried(), size_t{0});
}

void CaptureConverterTest::emptyChunkKeepsWhatWaits()
{
	const float samples[] = {0.5f, 0.5f};
	CaptureConverter converter;
	converter.convert(samples, samples, 2);
	QCOMPARE(converter.convert(samples, samples, 0).size(), size_t{0});
	QCOMPARE(converter.carried(), size_t{2});
	QCOMPARE(int{converter.convert(samples, samples, 1)[0]}, 16383);
}

void CaptureConverterTest::resetForgetsWhatWaits()
{
	const float loud[] = {0.9f, 0.9f};
	const float quiet[] = {0.1f, 0.1f, 0.1f};
	CaptureConverter converter;
	converter.convert(loud, loud, 2);
	converter.reset();
	QCOMPARE(converter.carried(), size_t{0});
	const auto out = converter.convert(quiet, quiet, 3);
	QCOMPARE(out.size(), size_t{1});
	QCOMPARE(int{out[0]}, 3276);
}

void CaptureConverterTest::everyChunkLengthMatchesTheTranscription()
{
	std::mt19937 random(2);
	const std::vector<float> left = hostileSamples(random, 9000);
	const std::vector<float> right = hostileSamples(random, 9000);
	CaptureConverter converter;
	PlainCapture transcription;
	for (size_t frames = 0; frames <= 9000; ++frames) {
		const std::vector<float> l(left.begin(), left.begin() + static_cast<ptrdiff_t>(frames));
		const std::vector<float> r(right.begin(), right.begin() + static_cast<ptrdiff_t>(frames));
		const std::vector<int16_t> expected = transcription.convert(l, r);
		QVERIFY2(to_vector(converter.convert(l.data(), r.data(), frames)) == expected,
			 qPrintable(QStringLiteral("chunk of %1 frames").arg(frames)));
	}
}

void CaptureConverterTest::chunksOfChangingLengthMatchTheTranscription()
{
	std::mt19937 random(3);
	std::uniform_int_distribution<size_t> length(0, 12000);
	CaptureConverter converter;
	PlainCapture transcription;
	for (int chunk = 0; chunk < 500; ++chunk) {
		const size_t frames = chunk % 2 ? length(random) : length(random) % 10;
		const std::vector<float> l = hostileSamples(random, frames);
		const std::vector<float> r = hostileSamples(random, frames);
		QVERIFY2(to_vector(converter.convert(l.data(), r.data(), frames)) == transcription.convert(l, r),
			 qPrintable(QStringLiteral("chunk %1, of %2 frames").arg(chunk).arg(frames)));
	}
}

void CaptureConverterTest::allocatesNothing()
{
	const std::vector<float> silence(10000);
	CaptureConverter converter;
	HeapGuard guard;
	for (const size_t frames : std::initializer_list<size_t>{0, 1, 2, 480, 1000, 1024, 4096, 8192, 10000}) {
		converter.convert(silence.data(), silence.data(), frames);
	}
	converter.reset();
	guard.stop();
	QVERIFY2(guard.calls() == 0, guard.report());
}

QTEST_APPLESS_MAIN(CaptureConverterTest)
#include "capture-converter-test.moc"

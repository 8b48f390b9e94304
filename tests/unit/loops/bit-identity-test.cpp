// SPDX-License-Identifier: GPL-2.0-or-later
// The fast code gives, bit for bit, what the arithmetic gives when it is written down one sample after the other.
// Built twice: with the vector code that suits the machine, and with the code every machine has.
#include "audio/capture-converter.h"
#include "audio/gain-ramp.h"
#include "audio/speech-queue.h"
#include "captions/caption-css.h"
#include "client/tts-assembler.h"
#include "loops/sample-loops.h"

#include "hostile-samples.h"
#include "plain-capture.h"
#include "plain-dub.h"
#include "plain-tts-scan.h"

#include <QTest>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr size_t kLongestChunk = 9000;
/** Chunk lengths that are tried with the same samples before new ones are drawn. */
constexpr size_t kLengthsPerDraw = 50;

/** NaN has many forms, which are all the same to whoever hears it. */
bool sameBits(float a, float b)
{
	return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b) || (std::isnan(a) && std::isnan(b));
}

bool sameBits(const std::vector<float> &a, const std::vector<float> &b)
{
	return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](float x, float y) { return sameBits(x, y); });
}

/** Whether the next `count` gains are the same, made at once and one by one. */
bool sameGains(GainRamp &fast, GainRamp &plain, size_t count)
{
	std::vector<float> filled(count);
	fast.fill(filled.data(), count);
	bool same = true;
	for (const float gain : filled) {
		same &= sameBits(plain.next(), gain);
	}
	return same && sameBits(plain.value(), fast.value());
}

std::vector<int16_t> randomSpeech(std::mt19937 &random, size_t count)
{
	std::vector<int16_t> pcm(count);
	for (int16_t &sample : pcm) {
		const auto bits = random();
		// Full scale often enough.
		sample = bits % 16 == 0 ? (bits & 16 ? int16_t{32767} : int16_t{-32768})
					: static_cast<int16_t>(bits >> 8);
	}
	return pcm;
}

/** Whether a dozen pieces of speech come out the same, resampled and queued in either way. */
bool sameSpeech(std::mt19937 &random, int speechRate, uint32_t outputRate)
{
	std::uniform_int_distribution<size_t> length(0, 2000);
	SpeechQueue fast;
	PlainSpeechQueue plain;
	for (int piece = 0; piece < 12; ++piece) {
		const std::vector<int16_t> pcm = randomSpeech(random, speechRate == 7 ? 2 : length(random));
		fast.append(1, fast.resample(pcm.data(), pcm.size(), speechRate, outputRate));
		plain.push(1, pcm, speechRate, outputRate);
		// So that no phase of one rate is all that another starts from.
		const std::vector<int16_t> more = randomSpeech(random, 3);
		fast.append(1, fast.resample(more.data(), more.size(), 22050, 48000));
		plain.push(1, more, 22050, 48000);
	}
	fast.endClip(1);
	plain.endClip(1);
	std::vector<float> taken(fast.size());
	const SpeechQueue::ClipEvent ignore = [](int) {};
	fast.take(taken.data(), taken.size(), outputRate, ignore, ignore);
	return !taken.empty() && sameBits(taken, plain.take(taken.size() + 1, outputRate).samples);
}

} // namespace

class BitIdentityTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void loopsWriteAsMuchAsTheyAreTold();
	void captureOfEveryLengthAtEveryCarry();
	void gainOnEveryWayAtEveryRate();
	void gainOnRandomWays();
	void gainWhoseStepIsHalfWay();
	void mixOfEveryLength();
	void speechAtEveryRate();
	void speechAtRandomRates();
	void speechThatOverflows();
	void framesOfManyTags_data();
	void framesOfManyTags();
	void captionText();
};

void BitIdentityTest::loopsWriteAsMuchAsTheyAreTold()
{
	constexpr size_t kSpare = 64;
	const std::vector<float> in(3 * (40 + kSpare), 0.25f);
	const std::vector<int16_t> pcm(40 + kSpare, 8192);
	const std::vector<unsigned char> bytes(40 + kSpare, 2);
	for (size_t count = 0; count <= 40; ++count) {
		const auto isWritten = [count](auto untouched, const auto &write) {
			std::vector<decltype(untouched)> out(count + kSpare, untouched);
			write(out.data());
			const auto end = out.begin() + static_cast<ptrdiff_t>(count);
			return std::count(out.begin(), end, untouched) == 0 &&
			       std::count(end, out.end(), untouched) == kSpare;
		};
		QVERIFY(isWritten(9.0f, [&](float *out) { sample_loops::downmix(in.data(), in.data(), count, out); }));
		QVERIFY(isWritten(int16_t{9},
				  [&](int16_t *out) { sample_loops::decimateAndQuantise(in.data(), count, out); }));
		QVERIFY(isWritten(9.0f,
				  [&](float *out) { sample_loops::applyGains(in.data(), in.data(), count, out); }));
		for (const bool left : {true, false}) {
			std::vector<float> other(count + kSpare);
			QVERIFY(isWritten(9.0f, [&](float *out) {
				sample_loops::mixVoice(in.data(), in.data(), in.data(), in.data(), 1.0f, count,
						       left ? out : other.data(), left ? other.data() : out);
			}));
		}
		QVERIFY(isWritten(9.0f, [&](float *out) { sample_loops::line(0.0f, 0.1f, count, out); }));
		QVERIFY(isWritten(static_cast<unsigned char>(9),
				  [&](unsigned char *out) { sample_loops::markTags(bytes.data(), count, out); }));
		std::vector<float> stretched(count + sample_loops::kStretchRoom + kSpare, 9.0f);
		uint64_t position = 0;
		QCOMPARE(sample_loops::stretch(0.0f, pcm.data(), count, position,
					       static_cast<uint64_t>(sample_loops::kWholePhase), stretched.data()),
			 count);
		QVERIFY(std::count(stretched.end() - kSpare, stretched.end(), 9.0f) == kSpare);
	}
}

void BitIdentityTest::captureOfEveryLengthAtEveryCarry()
{
	std::mt19937 random(31);
	std::vector<float> left;
	std::vector<float> right;
	for (size_t carry = 0; carry < CaptureConverter::kDecimation; ++carry) {
		for (size_t frames = 1; frames <= kLongestChunk; ++frames) {
			if (frames % kLengthsPerDraw == 1) {
				left = hostileSamples(random, kLongestChunk + 8);
				right = hostileSamples(random, kLongestChunk + 8);
			}
			CaptureConverter converter;
			PlainCapture plain;
			converter.convert(left.data(), right.data(), carry);
			plain.convert({left.begin(), left.begin() + static_cast<ptrdiff_t>(carry)},
				      {right.begin(), right.begin() + static_cast<ptrdiff_t>(carry)});
			// Anywhere in memory, as OBS hands it over.
			const size_t offset = frames % 8;
			const auto made = converter.convert(left.data() + offset, right.data() + offset, frames);
			const auto from = [&](const std::vector<float> &plane) {
				const auto first = plane.begin() + static_cast<ptrdiff_t>(offset);
				return std::vector<float>(first, first + static_cast<ptrdiff_t>(frames));
			};
			const std::vector<int16_t> expected = plain.convert(from(left), from(right));
			QVERIFY2(std::equal(made.begin(), made.end(), expected.begin(), expected.end()),
				 qPrintable(QStringLiteral("%1 frames, %2 carried").arg(frames).arg(carry)));
		}
	}
}

void BitIdentityTest::gainOnEveryWayAtEveryRate()
{
	for (const uint32_t rate : {8000u, 44100u, 48000u, 96000u, 192000u}) {
		for (int percent = 0; percent <= 100; ++percent) {
			const float ducking = static_cast<float>(percent) / 100.0f;
			GainRamp fast;
			GainRamp plain;
			for (const float target : {ducking, 1.0f, 0.0f, ducking}) {
				fast.aim(target, ducking, rate);
				plain.aim(target, ducking, rate);
				// All the way, or for a while where the way is endless.
				for (int chunk = 0; chunk < 16 && (chunk < 2 || fast.value() != target); ++chunk) {
					QVERIFY2(sameGains(fast, plain, chunk % 2 ? kLongestChunk : 1024),
						 qPrintable(QStringLiteral("%1 Hz, ducked to %2, going to %3")
								    .arg(rate)
								    .arg(ducking)
								    .arg(target)));
				}
			}
		}
	}
}

void BitIdentityTest::gainOnRandomWays()
{
	std::mt19937 random(32);
	std::uniform_real_distribution<float> level(0.0f, 1.0f);
	std::uniform_int_distribution<size_t> length(1, 3000);
	std::uniform_int_distribution<uint32_t> rate(1, 200000);
	GainRamp fast;
	GainRamp plain;
	for (int chunk = 0; chunk < 200000; ++chunk) {
		// Very small levels too: the smaller the gain, the finer its steps.
		const float target = chunk % 5 == 0 ? level(random) * 1e-5f : level(random);
		const float ducking = chunk % 7 == 0 ? 1.0f - level(random) * 1e-5f : level(random);
		const uint32_t hertz = rate(random);
		fast.aim(target, ducking, hertz);
		plain.aim(target, ducking, hertz);
		QVERIFY2(sameGains(fast, plain, length(random)), qPrintable(QString::number(chunk)));
	}
}

void BitIdentityTest::gainWhoseStepIsHalfWay()
{
	// Between a half and one, floats are this far apart: the step is exactly between two of them.
	constexpr float kDistance = 0x1p-24f;
	int found = 0;
	for (uint32_t rate = 1000; rate < 60000; rate += 7) {
		for (int percent = 0; percent < 100; ++percent) {
			const float ducking = static_cast<float>(percent) / 100.0f;
			const float step = (1.0f - ducking) / (static_cast<float>(rate) * 0.3f);
			if (std::fmod(step, kDistance) != kDistance / 2) {
				continue;
			}
			++found;
			GainRamp fast;
			GainRamp plain;
			for (const float target : {0.0f, 1.0f}) {
				for (const size_t count : {size_t{777}, size_t{1277}, size_t{1777}, size_t{2277}}) {
					fast.aim(target, ducking, rate);
					plain.aim(target, ducking, rate);
					QVERIFY2(sameGains(fast, plain, count),
						 qPrintable(
							 QStringLiteral("%1 Hz, ducked to %2").arg(rate).arg(ducking)));
				}
			}
		}
	}
	QVERIFY2(found >= 100, qPrintable(QStringLiteral("only %1 such steps").arg(found)));
}

void BitIdentityTest::mixOfEveryLength()
{
	std::mt19937 random(33);
	std::vector<float> left;
	std::vector<float> right;
	std::vector<float> gains;
	std::vector<float> voice;
	for (size_t frames = 1; frames <= kLongestChunk; ++frames) {
		if (frames % kLengthsPerDraw == 1) {
			left = hostileSamples(random, kLongestChunk);
			right = hostileSamples(random, kLongestChunk);
			gains = hostileSamples(random, kLongestChunk);
			voice = hostileSamples(random, kLongestChunk);
		}
		const float level = static_cast<float>(frames % 101) / 100.0f;
		std::vector<float> ducked(frames);
		std::vector<float> mixedLeft(frames);
		std::vector<float> mixedRight(frames);
		sample_loops::applyGains(left.data(), gains.data(), frames, ducked.data());
		sample_loops::mixVoice(left.data(), right.data(), gains.data(), voice.data(), level, frames,
				       mixedLeft.data(), mixedRight.data());
		bool same = true;
		for (size_t i = 0; i < frames; ++i) {
			const float spoken = voice[i] * level;
			const float plainLeft = left[i] * gains[i];
			const float plainRight = right[i] * gains[i];
			same &= sameBits(ducked[i], plainLeft);
			same &= sameBits(mixedLeft[i], std::clamp(plainLeft + spoken, -1.0f, 1.0f));
			same &= sameBits(mixedRight[i], std::clamp(plainRight + spoken, -1.0f, 1.0f));
		}
		QVERIFY2(same, qPrintable(QStringLiteral("%1 frames").arg(frames)));
	}
}

void BitIdentityTest::speechAtEveryRate()
{
	std::mt19937 random(34);
	const int speechRates[] = {8000,  11025, 12000, 16000,  22050, 24000, 32000,      44100,
				   48000, 88200, 96000, 192000, 7,     23999, 1000000007, 2147483647};
	const uint32_t outputRates[] = {8000, 16000, 22050, 32000, 44100, 48000, 47999, 88200, 96000, 192000};
	for (const int speechRate : speechRates) {
		for (const uint32_t outputRate : outputRates) {
			QVERIFY2(sameSpeech(random, speechRate, outputRate),
				 qPrintable(QStringLiteral("%1 Hz to %2 Hz").arg(speechRate).arg(outputRate)));
		}
	}
}

void BitIdentityTest::speechAtRandomRates()
{
	std::mt19937 random(38);
	std::uniform_int_distribution<int> speech(4000, 200000);
	std::uniform_int_distribution<uint32_t> output(4000, 200000);
	for (int number = 0; number < 2000; ++number) {
		const int speechRate = speech(random);
		const uint32_t outputRate = output(random);
		QVERIFY2(sameSpeech(random, speechRate, outputRate),
			 qPrintable(QStringLiteral("%1 Hz to %2 Hz").arg(speechRate).arg(outputRate)));
	}
}

void BitIdentityTest::speechThatOverflows()
{
	std::mt19937 random(35);
	SpeechQueue fast;
	PlainSpeechQueue plain;
	for (const size_t count :
	     {size_t{100}, size_t{239999}, size_t{524288}, size_t{17}, size_t{240001}, size_t{120000}}) {
		const std::vector<int16_t> pcm = randomSpeech(random, count);
		for (const int speechRate : {24000, 22050}) {
			fast.append(1, fast.resample(pcm.data(), pcm.size(), speechRate, 48000));
			plain.push(1, pcm, speechRate, 48000);
		}
	}
	fast.endClip(1);
	plain.endClip(1);
	QCOMPARE(fast.size(), SpeechQueue::kCapacity);
	std::vector<float> taken(fast.size());
	const SpeechQueue::ClipEvent ignore = [](int) {};
	fast.take(taken.data(), taken.size(), 48000, ignore, ignore);
	QVERIFY(sameBits(taken, plain.take(taken.size(), 48000).samples));
}

void BitIdentityTest::framesOfManyTags_data()
{
	QTest::addColumn<QByteArray>("alphabet");
	QTest::addColumn<int>("frames");
	QTest::addColumn<int>("longest");
	QTest::newRow("hardly anything but tags") << QByteArrayLiteral("\2\2\3enesfil-") << 60000 << 40;
	QTest::newRow("tags and their neighbours")
		<< QByteArrayLiteral("\0\1\2\3\11\12\13ennEN@[`{-,.\x80\xff") << 30000 << 300;
	QTest::newRow("noise") << QByteArray() << 300 << 40000;
}

void BitIdentityTest::framesOfManyTags()
{
	QFETCH(QByteArray, alphabet);
	QFETCH(int, frames);
	QFETCH(int, longest);
	std::mt19937 random(36);
	std::uniform_int_distribution<int> length(0, longest);
	const QList<QSet<QString>> selections = {
		{"en"}, {"en", "es"}, {"fil"}, {"en", "es", "fil", "nn", "E-", "--"}, {"ee-nn-es-e", "en"}, {}};
	for (int number = 0; number < frames; ++number) {
		const QSet<QString> &open = selections[number % selections.size()];
		QByteArray frame(length(random), Qt::Uninitialized);
		for (char &byte : frame) {
			const auto bits = random();
			byte = alphabet.isEmpty() ? static_cast<char>(bits)
						  : alphabet[static_cast<qsizetype>(
							    bits % static_cast<unsigned>(alphabet.size()))];
		}
		// Most frames begin as they should, and many have more tags anywhere.
		for (const QString &code : open) {
			const QByteArray tag = static_cast<char>(code.size()) + code.toLatin1();
			if (number % 3 != 0) {
				const auto places = static_cast<unsigned>(frame.size() + 1);
				frame.insert(static_cast<qsizetype>(random() % places), tag);
			}
			if (number % 4 != 0) {
				frame.prepend(tag);
			}
		}

		PendingTtsClips clips;
		for (const QString &code : open) {
			openTtsClip(clips, code, 1, 24000);
		}
		QList<std::pair<QString, QByteArray>> segments;
		splitTtsFrame(frame, clips, [&](const TtsSegment &segment) {
			segments.append({segment.clip->first, segment.pcm.toByteArray()});
		});
		QVERIFY2(segments == plainSplit(frame, open), frame.toHex().constData());
	}
}

void BitIdentityTest::captionText()
{
	std::mt19937 random(37);
	const QString alphabet = QString::fromUtf8("\\\"'{};%1A \n\r\fé😀") + QChar(u'\0') + QChar(u'\xd800');
	for (int number = 0; number < 100000; ++number) {
		QString text;
		for (auto left = random() % 60; left > 0; --left) {
			text += alphabet[static_cast<qsizetype>(random() % static_cast<unsigned>(alphabet.size()))];
		}
		QString escaped = text;
		const std::pair<QString, QString> replacements[] = {{"\\", "\\\\"}, {"\"", "\\\""},
								    {"'", "\\'"},   {"\n", "\\A "},
								    {"{", "\\{"},   {"}", "\\}"},
								    {";", "\\;"},   {"\r", "\\D "},
								    {"\f", "\\C "}, {QString(QChar(u'\0')), "\\0 "}};
		for (const auto &[from, to] : replacements) {
			escaped.replace(from, to);
		}
		QCOMPARE(escapeCssText(text), escaped);
	}
}

QTEST_APPLESS_MAIN(BitIdentityTest)
#include "bit-identity-test.moc"

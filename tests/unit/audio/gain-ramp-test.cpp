// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/gain-ramp.h"

#include <QTest>

#include <cmath>
#include <random>

namespace {

/** Moves on by `samples` towards `target`. */
void run(GainRamp &ramp, float target, float duckingLevel, uint32_t rate, int samples)
{
	ramp.aim(target, duckingLevel, rate);
	for (int i = 0; i < samples; ++i) {
		ramp.next();
	}
}

/** How many samples it takes to get there. */
int samples_until(GainRamp &ramp, float target, float duckingLevel, uint32_t rate)
{
	ramp.aim(target, duckingLevel, rate);
	int samples = 0;
	while (ramp.value() != target && samples < 1000000) {
		ramp.next();
		++samples;
	}
	return samples;
}

} // namespace

class GainRampTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void constants();
	void startsAtFullLevel();
	void fallsIn150Ms_data();
	void fallsIn150Ms();
	void risesIn300Ms_data();
	void risesIn300Ms();
	void duckingTo20PercentTakes7200SamplesDownAnd14400Up();
	void muteGoesToSilenceAtThePaceOfDucking();
	void withoutDuckingItEffectivelyDoesNotMove();
	void neverPassesTheTarget();
	void staysWhereItIs();
	void resetIsImmediate();
	void rateOfZeroIsHarmless();
	void matchesTheTranscription();

private:
	void rates();
};

void GainRampTest::constants()
{
	QCOMPARE(GainRamp::kRiseSeconds, 0.3f);
	QCOMPARE(GainRamp::kFallSeconds, 0.15f);
	QCOMPARE(GainRamp::kMinStep, 1e-8f);
}

void GainRampTest::startsAtFullLevel()
{
	QCOMPARE(GainRamp().value(), 1.0f);
}

void GainRampTest::rates()
{
	QTest::addColumn<uint32_t>("rate");
	QTest::addColumn<float>("ducked");
	QTest::newRow("48000 Hz to 0.2") << 48000u << 0.2f;
	QTest::newRow("44100 Hz to 0.2") << 44100u << 0.2f;
	QTest::newRow("48000 Hz to 0") << 48000u << 0.0f;
	QTest::newRow("48000 Hz to 0.9") << 48000u << 0.9f;
	QTest::newRow("96000 Hz to 0.5") << 96000u << 0.5f;
}

void GainRampTest::fallsIn150Ms_data()
{
	rates();
}

// Rounding of the single-precision sum moves the arrival a little, the more the smaller the step is.
void GainRampTest::fallsIn150Ms()
{
	QFETCH(uint32_t, rate);
	QFETCH(float, ducked);
	const double expected = rate * 0.15;
	GainRamp ramp;
	const int samples = samples_until(ramp, ducked, ducked, rate);
	QVERIFY2(std::abs(samples - expected) <= expected * 0.005, qPrintable(QString::number(samples)));

	GainRamp half;
	run(half, ducked, ducked, rate, static_cast<int>(rate * 0.075));
	QVERIFY2(std::abs(half.value() - (1.0f + ducked) / 2.0f) < 1e-3f, qPrintable(QString::number(half.value())));
}

void GainRampTest::risesIn300Ms_data()
{
	rates();
}

void GainRampTest::risesIn300Ms()
{
	QFETCH(uint32_t, rate);
	QFETCH(float, ducked);
	const double expected = rate * 0.3;
	GainRamp ramp;
	samples_until(ramp, ducked, ducked, rate);
	const int samples = samples_until(ramp, 1.0f, ducked, rate);
	QVERIFY2(std::abs(samples - expected) <= expected * 0.005, qPrintable(QString::number(samples)));
}

void GainRampTest::duckingTo20PercentTakes7200SamplesDownAnd14400Up()
{
	GainRamp ramp;
	// The rounding of the single-precision sum costs one sample on the way down and two on the way up.
	run(ramp, 0.2f, 0.2f, 48000, 7200);
	QVERIFY(ramp.value() == 0.200051278f);
	run(ramp, 0.2f, 0.2f, 48000, 1);
	QVERIFY(ramp.value() == 0.2f);
	run(ramp, 1.0f, 0.2f, 48000, 14400);
	QVERIFY(ramp.value() == 0.999942064f);
	run(ramp, 1.0f, 0.2f, 48000, 1);
	QVERIFY(ramp.value() == 0.999997616f);
	run(ramp, 1.0f, 0.2f, 48000, 1);
	QVERIFY(ramp.value() == 1.0f);
}

void GainRampTest::muteGoesToSilenceAtThePaceOfDucking()
{
	GainRamp ramp;
	const int samples = samples_until(ramp, 0.0f, 0.2f, 48000);
	QCOMPARE(ramp.value(), 0.0f);
	// 1.0 at 0.8 per 7200 samples, and one for the rounding
	QCOMPARE(samples, 9001);
}

void GainRampTest::withoutDuckingItEffectivelyDoesNotMove()
{
	GainRamp ramp;
	run(ramp, 0.0f, 1.0f, 48000, 48000);
	// Half the distance to the next smaller number is 3e-8, so that each step of 1e-8 is rounded away.
	QVERIFY(ramp.value() == 1.0f);
}

void GainRampTest::neverPassesTheTarget()
{
	GainRamp ramp;
	run(ramp, 0.2f, 0.2f, 48000, 7199);
	QVERIFY(ramp.value() > 0.2f);
	run(ramp, 0.2f, 0.2f, 48000, 100);
	QCOMPARE(ramp.value(), 0.2f);
	run(ramp, 1.0f, 0.2f, 48000, 14399);
	QVERIFY(ramp.value() < 1.0f);
	run(ramp, 1.0f, 0.2f, 48000, 100);
	QCOMPARE(ramp.value(), 1.0f);
	// One step that would go far beyond.
	run(ramp, 0.5f, 0.0f, 1, 1);
	QCOMPARE(ramp.value(), 0.5f);
}

void GainRampTest::staysWhereItIs()
{
	GainRamp ramp;
	run(ramp, 1.0f, 0.2f, 48000, 1000);
	QCOMPARE(ramp.value(), 1.0f);
}

void GainRampTest::resetIsImmediate()
{
	GainRamp ramp;
	run(ramp, 0.0f, 0.0f, 48000, 48000);
	QCOMPARE(ramp.value(), 0.0f);
	ramp.reset();
	QCOMPARE(ramp.value(), 1.0f);
}

void GainRampTest::rateOfZeroIsHarmless()
{
	GainRamp ramp;
	run(ramp, 0.2f, 0.2f, 0, 1);
	QCOMPARE(ramp.value(), 0.2f);
	GainRamp unmoving;
	run(unmoving, 0.5f, 1.0f, 0, 1);
	QCOMPARE(unmoving.value(), 1.0f);
}

void GainRampTest::matchesTheTranscription()
{
	std::mt19937 random(4);
	std::uniform_real_distribution<float> level(0.0f, 1.0f);
	std::uniform_int_distribution<int> length(1, 3000);
	const uint32_t rates[] = {8000, 44100, 48000, 96000};
	GainRamp ramp;
	float gain = 1.0f;
	for (int chunk = 0; chunk < 500; ++chunk) {
		const float d = chunk % 7 ? level(random) : static_cast<float>(chunk % 2);
		const float target = chunk % 5 == 0 ? 0.0f : chunk % 2 ? d : 1.0f;
		const uint32_t rate = rates[random() % 4];
		float step = gain <= target ? (1.0f - d) / (static_cast<float>(rate) * 0.3f)
					    : (1.0f - d) / (static_cast<float>(rate) * 0.15f);
		if (step < 1e-8f) {
			step = 1e-8f;
		}
		ramp.aim(target, d, rate);
		for (int i = length(random); i > 0; --i) {
			if (gain < target) {
				gain = gain + step;
				if (gain > target) {
					gain = target;
				}
			} else if (gain > target) {
				gain = gain - step;
				if (gain < target) {
					gain = target;
				}
			}
			QCOMPARE(ramp.next(), gain);
			QVERIFY(ramp.value() == gain);
		}
	}
}

QTEST_APPLESS_MAIN(GainRampTest)
#include "gain-ramp-test.moc"

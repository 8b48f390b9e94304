// SPDX-License-Identifier: GPL-3.0-or-later
#include "base/clock.h"
#include "base/languages.h"
#include "engines/apertium-translator.h"
#include "engines/espeak-synthesiser.h"
#include "engines/pocketsphinx-recogniser.h"
#include "recordings.h"

#include <QDir>
#include <QFile>
#include <QTest>
#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <ctime>
#include <span>

namespace {

class Listener : public RecogniserListener {
public:
	int started = 0;
	QStringList partials;
	QStringList finals;
	QList<double> seconds;

	void utteranceStarted() override { ++started; }
	void partialWords(const QString &words) override { partials.append(words); }
	void utteranceEnded(const QString &words, double speechSec, qint64) override
	{
		finals.append(words);
		seconds.append(speechSec);
	}
};

/** Kills the process groups of this process's children; gives their number. */
int killChildren()
{
	int killed = 0;
	for (const QString &task : QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
		QFile file(QStringLiteral("/proc/self/task/%1/children").arg(task));
		if (!file.open(QIODevice::ReadOnly)) {
			continue;
		}
		for (const QByteArray &pid : file.readAll().simplified().split(' ')) {
			killed += pid.toInt() > 0 && ::kill(-pid.toInt(), SIGKILL) == 0 ? 1 : 0;
		}
	}
	return killed;
}

double rms(const QByteArray &pcm)
{
	double sum = 0;
	for (qsizetype i = 0; i + 1 < pcm.size(); i += 2) {
		const double sample = qFromLittleEndian<qint16>(pcm.constData() + i);
		sum += sample * sample;
	}
	return std::sqrt(sum / (static_cast<double>(pcm.size()) / 2.0));
}

} // namespace

class EnginesTest : public QObject {
	Q_OBJECT

	std::unique_ptr<Recogniser> recogniser;

private Q_SLOTS:
	// The recogniser adapts itself to what it hears: each test has a fresh one.
	void init()
	{
		recogniser = PocketSphinxRecogniser::create();
		QVERIFY2(recogniser, "the English model is not installed");
	}

	void recognisesAReadSentence()
	{
		const std::vector<int16_t> speech = recordings::readSentence();
		QVERIFY2(!speech.empty(), "the recording is not installed");
		Listener listener;
		recogniser->process(recordings::silence(0.5), listener);
		const std::clock_t start = std::clock();
		recogniser->process(speech, listener);
		recogniser->process(recordings::silence(1.5), listener);
		const double processorSec = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
		qInfo("%.2f s of processor time per second of audio",
		      processorSec / (static_cast<double>(speech.size()) / kUplinkRate + 1.5));
		QCOMPARE(listener.started, 1);
		QCOMPARE(listener.finals.size(), 1);
		QVERIFY2(listener.finals.first().contains("young man"), qPrintable(listener.finals.first()));
		QVERIFY2(!listener.partials.isEmpty(), "no partial result came while the speaker spoke");
		QVERIFY2(listener.seconds.first() > 2.0 && listener.seconds.first() < 3.5,
			 qPrintable(QString::number(listener.seconds.first())));
	}

	void recognisesAnAnnouncementOfTelephoneQuality()
	{
		const std::vector<int16_t> speech = recordings::announcement("cannot-complete-as-dialed");
		QVERIFY2(!speech.empty(), "the recording is not installed");
		Listener listener;
		recogniser->process(recordings::silence(0.5), listener);
		recogniser->process(speech, listener);
		recogniser->process(recordings::silence(1.5), listener);
		const QString words = listener.finals.join(' ');
		QVERIFY2(words.contains("cannot be completed as dialed"), qPrintable(words));
	}

	void silenceIsNoUtterance()
	{
		Listener listener;
		recogniser->process(recordings::silence(10.0), listener);
		QCOMPARE(listener.started, 0);
		QVERIFY(listener.finals.isEmpty());
	}

	void aSpeakerWhoNeverPausesIsCutAfterFifteenSeconds()
	{
		// The pause at the ends of the recording is shorter than what ends an utterance.
		std::vector<int16_t> speech = recordings::readSentence();
		QVERIFY(!speech.empty());
		const auto quiet = [](int16_t sample) { return std::abs(sample) < 1000; };
		speech.erase(speech.begin(), std::find_if_not(speech.begin(), speech.end(), quiet));
		speech.erase(std::find_if_not(speech.rbegin(), speech.rend(), quiet).base(), speech.end());
		Listener listener;
		for (int i = 0; i < 7; ++i) {
			recogniser->process(speech, listener);
		}
		recogniser->process(recordings::silence(1.5), listener);
		QVERIFY2(listener.finals.size() >= 2, "the utterance was never cut");
		for (const double seconds : std::as_const(listener.seconds)) {
			QVERIFY2(seconds <= 15.1, qPrintable(QString::number(seconds)));
		}
	}

	void anyNumberOfSamplesAtATimeGivesTheSameWords()
	{
		const std::vector<int16_t> speech = recordings::announcement("cannot-complete-as-dialed");
		Listener listener;
		recogniser->process(recordings::silence(0.5), listener);
		for (size_t at = 0; at < speech.size(); at += 7) {
			recogniser->process(std::span(speech).subspan(at, std::min<size_t>(7, speech.size() - at)),
					    listener);
		}
		recogniser->process(recordings::silence(1.5), listener);
		QVERIFY2(listener.finals.join(' ').contains("cannot be completed"),
			 qPrintable(listener.finals.join(' ')));
	}

	void translatesIntoFourLanguages_data()
	{
		QTest::addColumn<QString>("language");
		QTest::addColumn<QString>("word");
		QTest::newRow("Spanish") << "es" << "casa";
		QTest::newRow("Portuguese") << "pt" << "casa";
		QTest::newRow("French") << "fr" << "maison";
		QTest::newRow("Italian") << "it" << "casa";
	}

	void translatesIntoFourLanguages()
	{
		QFETCH(QString, language);
		QFETCH(QString, word);
		ApertiumTranslator translator;
		QVERIFY(translator.canTranslate(language));
		const std::optional<QString> text = translator.translate("The house is big.", language);
		QVERIFY2(text, "no translation came");
		QVERIFY2(text->contains(word, Qt::CaseInsensitive), qPrintable(*text));
		QVERIFY2(text->endsWith('.'), qPrintable(*text));
		QVERIFY2(text->at(0).isUpper(), qPrintable(*text));
	}

	void translatesSentenceAfterSentence()
	{
		ApertiumTranslator translator;
		translator.prepare("es");
		for (const char *number : {"one", "two", "three"}) {
			const QString sentence = QStringLiteral("I have %1 dogs.").arg(number);
			const std::optional<QString> text = translator.translate(sentence, "es");
			QVERIFY2(text && text->contains("perros"), qPrintable(text.value_or("nothing")));
		}
		const qint64 start = monotonicMs();
		QVERIFY(translator.translate("Another house is small.", "es"));
		qInfo("a warm translation takes %lld ms", static_cast<long long>(monotonicMs() - start));
	}

	void marksOfTheTranslatorsOwnNotationPassThrough()
	{
		ApertiumTranslator translator;
		const std::optional<QString> text = translator.translate("The [house] is ^big$ @ {1} \\ <x>.", "es");
		QVERIFY(text);
		QVERIFY2(text->contains("[") && text->contains("^") && text->contains("$") && text->contains("@") &&
				 text->contains("{1}") && text->contains("\\") && text->contains("<x>"),
			 qPrintable(*text));
		const std::optional<QString> next = translator.translate("The house is big.", "es");
		QVERIFY2(next && next->contains("casa"), "the pipeline did not survive");
	}

	void otherLanguagesAreNotTranslated()
	{
		ApertiumTranslator translator;
		for (const char *language : {"de", "en", "ja", "", "../../x"}) {
			QVERIFY2(!translator.canTranslate(language), language);
			QVERIFY2(!translator.translate("The house is big.", language), language);
		}
	}

	void aKilledPipelineIsStartedAgain()
	{
		ApertiumPipe pipe("eng-spa");
		QVERIFY(pipe.translate("The house is big."));
		QVERIFY2(killChildren() > 0, "no child process was found");
		pipe.translate("The house is big."); // may be lost
		const std::optional<QString> text = pipe.translate("The house is big.");
		QVERIFY2(text && text->contains("casa"), "the pipeline was not started again");
	}

	void speaksEveryLanguageThatHasAVoice()
	{
		EspeakSynthesiser synthesiser;
		int voices = 0;
		for (const QString &language : languageCodes()) {
			if (!synthesiser.hasVoice(language)) {
				continue;
			}
			++voices;
			const std::optional<SpeechClip> clip = synthesiser.synthesise("1 2 3 4 5", language);
			QVERIFY2(clip, qPrintable("no speech: " + language));
			QCOMPARE(clip->sampleRate, 22050);
			QVERIFY2(clip->seconds() > 0.5 && clip->seconds() < 8.0,
				 qPrintable(QStringLiteral("%1: %2 s").arg(language).arg(clip->seconds())));
			QVERIFY2(rms(clip->pcm) > 300.0, qPrintable("too quiet: " + language));
		}
		QCOMPARE(voices, 30);
		QVERIFY(!synthesiser.hasVoice("fil"));
		QVERIFY(!synthesiser.synthesise("1 2 3", "fil"));
	}

	void longerTextsTakeLonger()
	{
		EspeakSynthesiser synthesiser;
		const auto one = synthesiser.synthesise("La casa es grande.", "es");
		const auto three =
			synthesiser.synthesise("La casa es grande. La casa es grande. La casa es grande.", "es");
		QVERIFY(one && three);
		QVERIFY(one->seconds() > 0.6 && one->seconds() < 3.0);
		QVERIFY(three->seconds() > 2.0 * one->seconds());
	}
};

QTEST_GUILESS_MAIN(EnginesTest)
#include "engines-test.moc"

// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/dub-sender.h"

#include <QElapsedTimer>
#include <QTest>

class DubSenderTest : public QObject {
	Q_OBJECT

	static SpeechClip clip(double seconds)
	{
		return {QByteArray(static_cast<qsizetype>(seconds * 1000) * 2, 'x'), 1000};
	}

	QStringList sent;
	qsizetype pcmBytes = 0;

	DubSender::Output output()
	{
		return {[this](const QJsonObject &json) {
				sent.append(json.value("type").toString() + ':' + json.value("language").toString());
			},
			[this](const QByteArray &frame) { pcmBytes += frame.size() - 3; },
			[this](const QString &event, const QString &, int id, double) {
				if (event == "tts_dropped") {
					sent.append(QStringLiteral("dropped %1").arg(id));
				}
			}};
	}

private Q_SLOTS:
	void init()
	{
		sent.clear();
		pcmBytes = 0;
	}

	void aShortClipGoesOutAtOnce()
	{
		DubSender sender(output());
		sender.enqueue("es", 1, clip(2.0));
		QCOMPARE(sent, (QStringList{"tts_start:es", "tts_end:es"}));
		QCOMPARE(pcmBytes, 4000);
	}

	void clipsOfALanguageFollowEachOther()
	{
		DubSender sender(output());
		sender.enqueue("es", 1, clip(1.0));
		sender.enqueue("es", 2, clip(1.0));
		QCOMPARE(sent, (QStringList{"tts_start:es", "tts_end:es", "tts_start:es", "tts_end:es"}));
	}

	void speechIsSentFiveSecondsAheadOfItsPlaying()
	{
		DubSender sender(output());
		QElapsedTimer timer;
		timer.start();
		sender.enqueue("es", 1, clip(6.0));
		QCOMPARE(sent, QStringList{"tts_start:es"});
		QCOMPARE(pcmBytes, 5 * 2000);
		QVERIFY(QTest::qWaitFor([this] { return sent.last() == "tts_end:es"; }));
		QVERIFY2(timer.elapsed() >= 700, "the last second was sent too early");
		QCOMPARE(pcmBytes, 6 * 2000);
	}

	void languagesDoNotWaitForEachOther()
	{
		DubSender sender(output());
		sender.enqueue("es", 1, clip(6.0));
		sender.enqueue("fr", 1, clip(1.0));
		QCOMPARE(sent, (QStringList{"tts_start:es", "tts_start:fr", "tts_end:fr"}));
	}

	void theOldestWaitingClipIsLeftOutWhenTwentySecondsWait()
	{
		DubSender sender(output());
		sender.enqueue("es", 1, clip(10.0));
		sender.enqueue("es", 2, clip(8.0));
		sender.enqueue("es", 3, clip(6.0));
		QCOMPARE(sent, (QStringList{"tts_start:es", "dropped 2"}));
	}

	void whatWaitsForALanguageCanBeLeftOut()
	{
		DubSender sender(output());
		sender.enqueue("es", 1, clip(6.0));
		sender.enqueue("fr", 1, clip(6.0));
		sender.enqueue("es", 2, clip(2.0));
		sender.enqueue("es", 3, clip(2.0));
		sender.leaveOutWaiting("es");
		sender.leaveOutWaiting("it");
		QCOMPARE(sent, (QStringList{"tts_start:es", "tts_start:fr", "dropped 3", "dropped 2"}));
		QVERIFY2(QTest::qWaitFor([this] { return sent.contains("tts_end:es"); }),
			 "the clip that had begun was not finished");
		QVERIFY2(QTest::qWaitFor([this] { return sent.contains("tts_end:fr"); }),
			 "another language was left out");
		QCOMPARE(sent.size(), 6);
	}
};

QTEST_GUILESS_MAIN(DubSenderTest)
#include "dub-sender-test.moc"

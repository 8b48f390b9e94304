// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/wire.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QMap>
#include <QTest>

namespace {

QByteArray compact(const QJsonObject &object)
{
	return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

/** Whether a receiver with these clips open sees a tag at `at`; gives its language. */
bool tagAt(const QByteArray &frame, qsizetype at, const QStringList &open, QString *language)
{
	if (at + 2 >= frame.size()) {
		return false;
	}
	const qsizetype length = static_cast<quint8>(frame.at(at));
	if (length < 2 || length > 10 || at + 1 + length > frame.size()) {
		return false;
	}
	*language = QString::fromLatin1(frame.mid(at + 1, length));
	return isLanguageTag(*language) && open.contains(*language);
}

/** What such a receiver takes out of one frame, per language. */
QMap<QString, QByteArray> taken(const QByteArray &frame, const QStringList &open)
{
	QMap<QString, QByteArray> result;
	QString current;
	for (qsizetype at = 0; at < frame.size(); ++at) {
		QString language;
		if (tagAt(frame, at, open, &language)) {
			current = language;
			at += language.size();
		} else if (!current.isEmpty()) {
			result[current] += frame.at(at);
		}
	}
	return result;
}

} // namespace

class WireTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void messagesHaveTheAgreedShape()
	{
		QCOMPARE(compact(messages::authOk(3)),
			 R"({"limits":{},"maxTargetLanguages":3,"type":"auth_ok","voiceProfile":{}})");
		QCOMPARE(compact(messages::authError("No")), R"({"error":"No","type":"auth_error"})");
		QCOMPARE(compact(messages::transcriptInterim("So")), R"({"text":"So","type":"transcript_interim"})");
		QCOMPARE(compact(messages::transcriptFinal("So.")),
			 R"({"text":"So.","translations":{},"type":"transcript_final"})");
		QCOMPARE(compact(messages::caption("es", "Hola.", 1.5, 7)),
			 R"({"clipId":7,"duration":1.5,"language":"es","text":"Hola.","type":"caption"})");
		QCOMPARE(compact(messages::ttsStart("es", 7, 22050)),
			 R"({"clipId":7,"language":"es","sampleRate":22050,"type":"tts_start"})");
		QCOMPARE(compact(messages::ttsEnd("es")), R"({"language":"es","type":"tts_end"})");
		QCOMPARE(compact(messages::sessionEnded(1.5, 0.25)),
			 R"({"type":"session_ended","usage":{"captionMinutes":1.5,"dubbedMinutes":0.25}})");
	}

	void targetsAreReadAndNonsenseIsLeftOut()
	{
		const QByteArray json =
			R"([{"code":"es","dubbing":true,"captions":false}, 5, {"code":"e"}, {"code":"es"},
			{"code":"fil","captions":true}, {"code":"ab1"}, {"dubbing":true}, {"code":"abcdefghijk"}, null])";
		const QList<Target> targets = targetsFromJson(QJsonDocument::fromJson(json).array());
		QCOMPARE(targets.size(), 2);
		QCOMPARE(targets.at(0).code, "es");
		QVERIFY(targets.at(0).dubbing && !targets.at(0).captions);
		QCOMPARE(targets.at(1).code, "fil");
		QVERIFY(!targets.at(1).dubbing && targets.at(1).captions);
	}

	void clipsAreCutIntoTaggedFrames()
	{
		const QList<QByteArray> frames = taggedFrames("es", QByteArray(1000, 'x'), 400);
		QCOMPARE(frames.size(), 3);
		QCOMPARE(frames.at(0), QByteArray("\2es") + QByteArray(400, 'x'));
		QCOMPARE(frames.at(1), QByteArray("\2es") + QByteArray(400, 'x'));
		QCOMPARE(frames.at(2), QByteArray("\2es") + QByteArray(200, 'x'));
	}

	// Cutting takes time in proportion to the clip, even when no tag is in it: ten minutes of speech at once.
	void aLongClipIsCutAtOnce()
	{
		const QByteArray pcm(qsizetype{600} * 22050 * 2, '\0');
		QElapsedTimer timer;
		timer.start();
		const QList<QByteArray> frames = taggedFrames("es", pcm, 8820);
		QCOMPARE(frames.size(), 3000);
		QVERIFY2(timer.elapsed() < 5000, qPrintable(QStringLiteral("%1 ms").arg(timer.elapsed())));
	}

	void anEmptyClipHasNoFrames() { QVERIFY(taggedFrames("es", {}, 400).isEmpty()); }

	void audioThatLooksLikeATagArrivesWhole_data()
	{
		QTest::addColumn<QByteArray>("lookalike");
		QTest::newRow("own tag") << QByteArray("\2es");
		QTest::newRow("another language") << QByteArray("\2fr");
		QTest::newRow("three letters") << QByteArray("\3fil");
		QTest::newRow("twice in a row") << QByteArray("\2es\2es");
		QTest::newRow("interleaved") << QByteArray("\2es\3fil\2fr");
	}

	void audioThatLooksLikeATagArrivesWhole()
	{
		QFETCH(QByteArray, lookalike);
		const QStringList open{"es", "fil", "fr"};
		for (qsizetype before = 0; before < 12; ++before) {
			QByteArray pcm = QByteArray(before, 'x') + lookalike + QByteArray(12, 'y');
			pcm.resize(pcm.size() / 2 * 2);
			QByteArray arrived;
			for (const QByteArray &frame : taggedFrames("es", pcm, 10)) {
				const QMap<QString, QByteArray> parts = taken(frame, open);
				QCOMPARE(parts.keys(), QStringList{"es"});
				QVERIFY2(parts.value("es").size() % 2 == 0, "a frame ends within a sample");
				QVERIFY2(parts.value("es").size() <= 10, "a frame is longer than asked for");
				arrived += parts.value("es");
			}
			QCOMPARE(arrived, pcm);
		}
	}
};

QTEST_GUILESS_MAIN(WireTest)
#include "wire-test.moc"

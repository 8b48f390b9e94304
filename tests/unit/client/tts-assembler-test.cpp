// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/tts-assembler.h"

#include <QPair>
#include <QTest>

namespace {

using Segments = QList<QPair<QString, QByteArray>>;

QByteArray tag(const QByteArray &code)
{
	return QByteArray(1, static_cast<char>(code.size())) + code;
}

PendingTtsClips openClips(const QStringList &languages)
{
	PendingTtsClips clips;
	int clipId = 0;
	for (const QString &language : languages) {
		openTtsClip(clips, language, ++clipId, 22050);
	}
	return clips;
}

Segments split(const QByteArray &frame, const QStringList &languages)
{
	PendingTtsClips clips = openClips(languages);
	Segments segments;
	splitTtsFrame(frame, clips, [&](const TtsSegment &segment) {
		segments.append({segment.clip->first, segment.pcm.toByteArray()});
	});
	return segments;
}

} // namespace

class TtsAssemblerTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void aFreshClipHasTheDefaults()
	{
		const PendingTtsClip clip;
		QCOMPARE(clip.clipId, 0);
		QCOMPARE(clip.sampleRate, 24000);
		QVERIFY(clip.pcm.isEmpty());
	}

	void openingTakesIdAndRate()
	{
		PendingTtsClips clips;
		openTtsClip(clips, "es", 7, 16000);
		QCOMPARE(clips.size(), size_t{1});
		QCOMPARE(clips.at("es").clipId, 7);
		QCOMPARE(clips.at("es").sampleRate, 16000);
	}

	void clipIdZeroKeepsTheDefaultRate()
	{
		PendingTtsClips clips;
		openTtsClip(clips, "es", 0, 16000);
		QCOMPARE(clips.at("es").clipId, 0);
		QCOMPARE(clips.at("es").sampleRate, 24000);
	}

	void openingAgainWithTheSameIdKeepsHeldBytesAndRate()
	{
		PendingTtsClips clips;
		openTtsClip(clips, "es", 7, 16000);
		clips.at("es").pcm = "x";
		openTtsClip(clips, "es", 7, 8000);
		QCOMPARE(clips.at("es").pcm, QByteArray("x"));
		QCOMPARE(clips.at("es").sampleRate, 16000);
	}

	void openingWithANewIdDropsHeldBytes()
	{
		PendingTtsClips clips;
		openTtsClip(clips, "es", 7, 16000);
		clips.at("es").pcm = "x";
		openTtsClip(clips, "es", 8, 8000);
		QCOMPARE(clips.at("es").clipId, 8);
		QCOMPARE(clips.at("es").sampleRate, 8000);
		QVERIFY(clips.at("es").pcm.isEmpty());
	}

	void frameIsCutAtTagsOfOpenClips_data()
	{
		QTest::addColumn<QByteArray>("frame");
		QTest::addColumn<QStringList>("open");
		QTest::addColumn<Segments>("expected");
		const QByteArray pcm("\x10\x20\x30\x40", 4);
		const QByteArray en = tag("en");
		const QByteArray es = tag("es");

		QTest::newRow("one segment") << en + pcm << QStringList{"en"} << Segments{{"en", pcm}};
		QTest::newRow("tag alone gives an empty segment") << en << QStringList{"en"} << Segments{{"en", ""}};
		QTest::newRow("two languages in frame order")
			<< es + pcm + en + "abcd" << QStringList{"en", "es"} << Segments{{"es", pcm}, {"en", "abcd"}};
		QTest::newRow("same language twice")
			<< en + pcm + en + "ab" << QStringList{"en"} << Segments{{"en", pcm}, {"en", "ab"}};
		QTest::newRow("empty segment between")
			<< en + es + pcm << QStringList{"en", "es"} << Segments{{"en", ""}, {"es", pcm}};
		QTest::newRow("tag at the very end")
			<< en + pcm + es << QStringList{"en", "es"} << Segments{{"en", pcm}, {"es", ""}};
		QTest::newRow("PCM that looks like a tag of an open clip splits")
			<< en + "\x11" + es + "\x12\x13" << QStringList{"en", "es"}
			<< Segments{{"en", "\x11"}, {"es", "\x12\x13"}};
		QTest::newRow("PCM that looks like a tag of no open clip does not split")
			<< en + "\x11" + es + "\x12\x13" << QStringList{"en", "fr"}
			<< Segments{{"en", "\x11" + es + "\x12\x13"}};
		QTest::newRow("a cut-off tag is PCM") << en + pcm +
								 "\x02"
								 "e"
						      << QStringList{"en"}
						      << Segments{{"en", pcm + "\x02"
									       "e"}};
		QTest::newRow("no clip open") << en + pcm << QStringList{} << Segments{};
		QTest::newRow("empty frame") << QByteArray() << QStringList{"en"} << Segments{};
		QTest::newRow("unknown language, one clip: whole frame is its audio")
			<< es + pcm << QStringList{"en"} << Segments{{"en", es + pcm}};
		QTest::newRow("unknown language, two clips: dropped")
			<< es + pcm << QStringList{"en", "fr"} << Segments{};
		QTest::newRow("no tag, one clip: whole frame is its audio")
			<< pcm << QStringList{"en"} << Segments{{"en", pcm}};
		QTest::newRow("one byte, one clip")
			<< QByteArray("\x02") << QStringList{"en"} << Segments{{"en", "\x02"}};
		QTest::newRow("no tag, two clips: dropped") << pcm << QStringList{"en", "es"} << Segments{};
		QTest::newRow("tag later than the start, two clips: dropped")
			<< pcm + en + pcm << QStringList{"en", "es"} << Segments{};
		QTest::newRow("tag later than the start, one clip: all of it is audio")
			<< pcm + en + pcm << QStringList{"en"} << Segments{{"en", pcm + en + pcm}};
		QTest::newRow("letter case counts") << tag("EN") + pcm << QStringList{"en", "es"} << Segments{};
		QTest::newRow("capital letters and dash")
			<< tag("pt-BR") + pcm << QStringList{"pt-BR", "es"} << Segments{{"pt-BR", pcm}};
		QTest::newRow("a longer code is not its beginning")
			<< tag("en-US") + pcm << QStringList{"en", "es"} << Segments{};
		QTest::newRow("ten letters are the longest")
			<< tag("abcdefghij") + pcm << QStringList{"abcdefghij", "es"} << Segments{{"abcdefghij", pcm}};
		QTest::newRow("eleven letters are no tag")
			<< tag("abcdefghijk") + pcm << QStringList{"abcdefghijk", "es"} << Segments{};
		QTest::newRow("one letter is no tag") << tag("e") + pcm << QStringList{"e", "es"} << Segments{};
		QTest::newRow("zero length is no tag")
			<< QByteArray(1, '\0') + pcm << QStringList{"", "es"} << Segments{};
		for (const char *edge : {"AZ", "az", "ZA", "za", "--"}) {
			// At the start and further on, where it is looked for in another way.
			QTest::newRow(edge) << tag(edge) + pcm + tag(edge) + pcm << QStringList{edge, "es"}
					    << Segments{{edge, pcm}, {edge, pcm}};
		}
		for (const char *neighbour : {"@A", "A@", "[Z", "Z[", "`a", "a`", "{z", "z{", ",-", "-."}) {
			QTest::newRow(neighbour)
				<< tag("es") + pcm + tag(neighbour) + pcm << QStringList{neighbour, "es"}
				<< Segments{{"es", pcm + tag(neighbour) + pcm}};
		}
		QTest::newRow("digit is no tag character") << tag("e1") + pcm << QStringList{"e1", "es"} << Segments{};
		QTest::newRow("underscore is no tag character")
			<< tag("pt_BR") + pcm << QStringList{"pt_BR", "es"} << Segments{};
		QTest::newRow("byte above ASCII is no tag character")
			<< tag("e\xF1") + pcm << QStringList{QString::fromLatin1("e\xF1"), "es"} << Segments{};
		QTest::newRow("length byte above 127 is no tag")
			<< QByteArray("\xFF") + pcm << QStringList{"en", "es"} << Segments{};
	}
	void frameIsCutAtTagsOfOpenClips()
	{
		QFETCH(QByteArray, frame);
		QFETCH(QStringList, open);
		QFETCH(Segments, expected);
		QCOMPARE(split(frame, open), expected);
	}

	/** Whatever comes from outside, the segments lie within the frame and in order. */
	void anyBytesAreCutWithinTheFrame()
	{
		PendingTtsClips clips = openClips({"en", "es", "pt-BR"});
		uint32_t random = 12345;
		const char alphabet[] = "\x02\x05\x0B"
					"ens-ptBR\xFF";
		for (int round = 0; round < 20000; ++round) {
			QByteArray frame;
			for (int length = round % 40; length > 0; --length) {
				random = random * 1664525u + 1013904223u;
				frame.append(alphabet[(random >> 16) % (sizeof alphabet - 1)]);
			}
			qsizetype end = 0;
			splitTtsFrame(frame, clips, [&](const TtsSegment &segment) {
				const qsizetype begin = segment.pcm.data() - frame.constData();
				QVERIFY2(begin >= end && begin + segment.pcm.size() <= frame.size(),
					 frame.toHex().constData());
				end = begin + segment.pcm.size();
			});
			if (QTest::currentTestFailed()) {
				return;
			}
		}
	}

	void wholeSamplesAreTakenAndAnOddByteStays()
	{
		PendingTtsClip clip;
		clip.pcm = QByteArray(400, 'a') + 'z';
		QCOMPARE(takeWholeSamples(clip), QByteArray(400, 'a'));
		QCOMPARE(clip.pcm, QByteArray("z"));
		QVERIFY(takeWholeSamples(clip).isEmpty());
		QCOMPARE(clip.pcm, QByteArray("z"));
		clip.pcm.append("y");
		QCOMPARE(takeWholeSamples(clip), QByteArray("zy"));
		QVERIFY(clip.pcm.isEmpty());
		QVERIFY(takeWholeSamples(clip).isEmpty());
	}
};

QTEST_APPLESS_MAIN(TtsAssemblerTest)
#include "tts-assembler-test.moc"

// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/script.h"

#include <QTemporaryDir>
#include <QTest>

using namespace script;

class ScriptTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void everyStepIsUnderstood()
	{
		QString error;
		const auto script = Script::parse(
			R"([{"expect":"auth"}, {"after_ms":5}, {"after_audio_bytes":640}, {"send":{"type":"x"}},
			    {"send_text":"no json"}, {"refuse_auth":"Expired"}, {"send_binary_hex":"02657300"},
			    {"send_tts":{"language":"es"}}, {"close":true}, {"close":1011}, {"drop":true}])",
			".", &error);
		QVERIFY2(script, qPrintable(error));
		const Steps &steps = script->forConnection(1);
		QCOMPARE(steps.size(), 11);
		QCOMPARE(std::get<Expect>(steps.at(0)).type, "auth");
		QCOMPARE(std::get<AfterMs>(steps.at(1)).ms, 5);
		QCOMPARE(std::get<AfterAudioBytes>(steps.at(2)).bytes, 640);
		QCOMPARE(std::get<SendText>(steps.at(3)).text, R"({"type":"x"})");
		QCOMPARE(std::get<SendText>(steps.at(4)).text, "no json");
		QCOMPARE(std::get<SendText>(steps.at(5)).text, R"({"error":"Expired","type":"auth_error"})");
		QCOMPARE(std::get<SendBinary>(steps.at(6)).frame, QByteArray("\2es\0", 4));
		const auto &tts = std::get<SendTts>(steps.at(7));
		QCOMPARE(tts.clipId, 1);
		QCOMPARE(tts.sampleRate, 24000);
		QCOMPARE(tts.frameBytes, 4800);
		QVERIFY(tts.pcm.isEmpty() && tts.start && tts.end);
		QCOMPARE(std::get<Close>(steps.at(8)).code, 1000);
		QCOMPARE(std::get<Close>(steps.at(9)).code, 1011);
		QVERIFY(std::holds_alternative<Drop>(steps.at(10)));
	}

	void connectionsHaveTheirOwnStepsAndTheLastRepeats()
	{
		QString error;
		const auto script = Script::parse(
			R"({"connections":[[{"drop":true}], [{"expect":"auth"}, {"close":true}]]})", ".", &error);
		QVERIFY2(script, qPrintable(error));
		QCOMPARE(script->forConnection(1).size(), 1);
		QCOMPARE(script->forConnection(2).size(), 2);
		QCOMPARE(script->forConnection(9).size(), 2);
	}

	void aSineHasTheAskedLengthAndLevel()
	{
		QString error;
		const auto script = Script::parse(
			R"([{"send_tts":{"language":"es","pcm":"sine 440 0.5s","sample_rate":16000}}])", ".", &error);
		QVERIFY2(script, qPrintable(error));
		const QByteArray pcm = std::get<SendTts>(script->forConnection(1).at(0)).pcm;
		QCOMPARE(pcm.size(), 16000);
		qint16 peak = 0;
		for (qsizetype i = 0; i < pcm.size(); i += 2) {
			peak = std::max(peak, qFromLittleEndian<qint16>(pcm.constData() + i));
		}
		QVERIFY2(peak >= 16300 && peak <= 16384, qPrintable(QString::number(peak)));
	}

	void pcmIsReadFromAFileBesideTheScript()
	{
		const QTemporaryDir dir;
		QFile pcm(dir.filePath("clip.pcm"));
		QVERIFY(pcm.open(QIODevice::WriteOnly));
		pcm.write("abcd");
		pcm.close();
		QFile file(dir.filePath("script.json"));
		QVERIFY(file.open(QIODevice::WriteOnly));
		file.write(R"([{"send_tts":{"language":"es","pcm":"clip.pcm"}}])");
		file.close();
		QString error;
		const auto script = Script::load(file.fileName(), &error);
		QVERIFY2(script, qPrintable(error));
		QCOMPARE(std::get<SendTts>(script->forConnection(1).at(0)).pcm, "abcd");
	}

	void faultsAreNamed_data()
	{
		QTest::addColumn<QByteArray>("json");
		QTest::addColumn<QString>("named");
		QTest::newRow("not JSON") << QByteArray("[{") << "not JSON";
		QTest::newRow("no list") << QByteArray("{}") << "connections";
		QTest::newRow("unknown step") << QByteArray(R"([{"expect":"auth"},{"dance":1}])") << "step 2";
		QTest::newRow("wrong value") << QByteArray(R"([{"after_ms":"soon"}])") << "after_ms";
		QTest::newRow("two members") << QByteArray(R"([{"after_ms":1,"drop":true}])") << "exactly one";
		QTest::newRow("no language") << QByteArray(R"([{"send_tts":{}}])") << "language";
		QTest::newRow("odd frames")
			<< QByteArray(R"([{"send_tts":{"language":"es","frame_bytes":3}}])") << "even";
		QTest::newRow("endless clip")
			<< QByteArray(R"([{"send_tts":{"language":"es","sample_rate":192001,"pcm":"sine 440 600s"}}])")
			<< "at most 192000";
		QTest::newRow("missing file")
			<< QByteArray(R"([{"send_tts":{"language":"es","pcm":"no.pcm"}}])") << "no.pcm";
		QTest::newRow("second connection")
			<< QByteArray(R"({"connections":[[],[{"x":1}]]})") << "connection 2, step 1";
	}

	void faultsAreNamed()
	{
		QFETCH(QByteArray, json);
		QFETCH(QString, named);
		QString error;
		QVERIFY(!Script::parse(json, ".", &error));
		QVERIFY2(error.contains(named), qPrintable(error));
	}
};

QTEST_GUILESS_MAIN(ScriptTest)
#include "script-test.moc"

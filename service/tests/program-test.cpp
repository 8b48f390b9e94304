// SPDX-License-Identifier: GPL-3.0-or-later
#include "certificate.h"
#include "recordings.h"
#include "test-client.h"

#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

/** The program as its users run it. */
class ProgramTest : public QObject {
	Q_OBJECT

	Certificate certificate;
	QTemporaryDir dir;
	std::unique_ptr<QProcess> program;
	QString url;
	QString signInUrl;

	void start(const QStringList &arguments)
	{
		program = std::make_unique<QProcess>();
		program->start(SERVICE_PROGRAM,
			       QStringList{"--port", "0", "--sign-in-port", "0", "--certificate", certificate.file(),
					   "--private-key", certificate.keyFile()} +
				       arguments);
		const bool said = QTest::qWaitFor([this] { return program->canReadLine(); }, 20000);
		QVERIFY2(said, program->readAllStandardError().constData());
		static const QRegularExpression form(R"(^listening on (wss://localhost:\d+/ws/audio-pipeline)\n$)");
		const QRegularExpressionMatch match = form.match(QString::fromUtf8(program->readLine()));
		QVERIFY2(match.hasMatch(), "the first line is not the ready line");
		url = match.captured(1);
		QVERIFY(QTest::qWaitFor([this] { return program->canReadLine(); }, 20000));
		static const QRegularExpression signInForm(R"(^sign-in at (https://localhost:\d+/auth)\n$)");
		const QRegularExpressionMatch signIn = signInForm.match(QString::fromUtf8(program->readLine()));
		QVERIFY2(signIn.hasMatch(), "the second line does not tell where to sign in");
		signInUrl = signIn.captured(1);
	}

	void startScript(const QByteArray &json, const QStringList &arguments = {})
	{
		QFile file(dir.filePath("script.json"));
		QVERIFY(file.open(QIODevice::WriteOnly));
		file.write(json);
		file.close();
		start(QStringList{"--script", file.fileName()} + arguments);
	}

	// The object that a sign-in is answered with; empty when it is refused.
	QJsonObject signIn(const QString &email, const QString &password)
	{
		QNetworkRequest request(QUrl(signInUrl + "/login"));
		request.setSslConfiguration(certificate.clientTls());
		request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
		QNetworkAccessManager network;
		const QJsonObject body{{"email", email}, {"password", password}};
		const std::unique_ptr<QNetworkReply> reply(
			network.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact)));
		if (!QTest::qWaitFor([&] { return reply->isFinished(); }, 20000)) {
			return {};
		}
		return QJsonDocument::fromJson(reply->readAll()).object();
	}

	// Output and exit status of a run that ends by itself.
	static std::pair<QString, int> run(const QStringList &arguments)
	{
		QProcess process;
		process.setProcessChannelMode(QProcess::MergedChannels);
		process.start(SERVICE_PROGRAM, arguments);
		const bool ended = process.waitForFinished(20000);
		return {QString::fromUtf8(process.readAll()), ended ? process.exitCode() : -1};
	}

	QList<QJsonObject> lines(const QString &path) const
	{
		QFile file(path);
		QList<QJsonObject> result;
		if (file.open(QIODevice::ReadOnly)) {
			for (const QByteArray &line : file.readAll().split('\n')) {
				if (!line.isEmpty()) {
					result.append(QJsonDocument::fromJson(line).object());
				}
			}
		}
		return result;
	}

private Q_SLOTS:
	void initTestCase() { QVERIFY2(certificate.isValid(), "mkcert made no certificate"); }

	void cleanup()
	{
		if (program) {
			program->terminate();
			program->waitForFinished(20000);
			program.reset();
		}
	}

	void helpExplainsOptionsAndScripts()
	{
		const auto [text, status] = run({"--help"});
		QCOMPARE(status, 0);
		for (const char *word : {"--port",         "--certificate",
					 "--private-key",  "--key",
					 "--sign-in-port", "--accounts",
					 "--add-account",  "--max-target-languages",
					 "--script",       "--record",
					 "--events",       "expect",
					 "after_ms",       "after_audio_bytes",
					 "send_tts",       "send_binary_hex",
					 "refuse_auth",    "drop",
					 "close",          "connections"}) {
			QVERIFY2(text.contains(word), word);
		}
	}

	void faultsOfTheCommandLineAreNamed_data()
	{
		const QString pem = certificate.file();
		const QString key = certificate.keyFile();
		QTest::addColumn<QStringList>("arguments");
		QTest::addColumn<QString>("named");
		QTest::addColumn<int>("status");
		QTest::newRow("nothing") << QStringList{} << "--certificate" << 2;
		QTest::newRow("unknown option") << QStringList{"--colour"} << "colour" << 2;
		QTest::newRow("stray argument") << QStringList{"stray"} << "stray" << 2;
		QTest::newRow("port") << QStringList{"--port", "70000"} << "--port" << 2;
		QTest::newRow("no certificate file")
			<< QStringList{"--certificate", "/no.pem", "--private-key", key} << "/no.pem" << 1;
		QTest::newRow("no key file")
			<< QStringList{"--certificate", pem, "--private-key", "/no.pem"} << "/no.pem" << 1;
		QTest::newRow("no key in the file")
			<< QStringList{"--certificate", pem, "--private-key", pem} << "no private key" << 1;
		QTest::newRow("no script")
			<< QStringList{"--certificate", pem, "--private-key", key, "--script", "/no.json"} << "/no.json"
			<< 1;
		QTest::newRow("record file")
			<< QStringList{"--certificate", pem, "--private-key", key, "--record", "/no/record"}
			<< "/no/record" << 1;
		QTest::newRow("sign-in port") << QStringList{"--sign-in-port", "-1"} << "--sign-in-port" << 2;
		QTest::newRow("account without a file") << QStringList{"--add-account", "a@b"} << "--accounts" << 2;
		QTest::newRow("no accounts file")
			<< QStringList{"--certificate", pem, "--private-key", key, "--accounts", "/no.json"}
			<< "/no.json" << 1;
		QTest::newRow("events file")
			<< QStringList{"--certificate", pem, "--private-key", key, "--events", "/no/events"}
			<< "/no/events" << 1;
	}

	void faultsOfTheCommandLineAreNamed()
	{
		QFETCH(QStringList, arguments);
		QFETCH(QString, named);
		const auto [text, status] = run(arguments);
		QTEST(status, "status");
		QVERIFY2(text.contains(named), qPrintable(text));
	}

	void aTakenPortIsNamed()
	{
		QTcpServer other;
		QVERIFY(other.listen(QHostAddress::LocalHost));
		const QString port = QString::number(other.serverPort());
		const auto [text, status] = run({"--certificate", certificate.file(), "--private-key",
						 certificate.keyFile(), "--sign-in-port", "0", "--port", port});
		QCOMPARE(status, 1);
		QVERIFY2(text.contains("port " + port), qPrintable(text));
	}

	void aTakenSignInPortIsNamed()
	{
		QTcpServer other;
		QVERIFY(other.listen(QHostAddress::LocalHost));
		const QString port = QString::number(other.serverPort());
		const auto [text, status] = run({"--certificate", certificate.file(), "--private-key",
						 certificate.keyFile(), "--port", "0", "--sign-in-port", port});
		QCOMPARE(status, 1);
		QVERIFY2(text.contains("port " + port), qPrintable(text));
	}

	void theKeyOfASignInOpensASession()
	{
		start({"--max-target-languages", "2"});
		const QJsonObject answer = signIn("demo@talvora.local", "talvora");
		QCOMPARE(answer.value("max_target_languages").toInt(), 2);
		TestClient c(certificate.clientTls());
		QVERIFY(c.connectTo(url));
		c.sendAuth({}, "translated", "en", answer.value("token").toString());
		QVERIFY(c.waitFor("auth_ok"));
		QCOMPARE(c.all("auth_ok").first().value("maxTargetLanguages").toInt(), 2);
	}

	void anAddedAccountCanSignIn()
	{
		const QString file = dir.filePath("accounts.json");
		for (const char *password : {"first", "second one "}) {
			QProcess process;
			process.start(SERVICE_PROGRAM, {"--accounts", file, "--add-account", "me@talvora.test",
							"--max-target-languages", "4"});
			process.write(password);
			process.write("\n");
			process.closeWriteChannel();
			QVERIFY(process.waitForFinished(60000));
			QCOMPARE(process.exitCode(), 0);
		}
		start({"--accounts", file});
		QVERIFY2(signIn("me@talvora.test", "first").isEmpty(), "the password was not replaced");
		const QJsonObject answer = signIn("me@talvora.test", "second one ");
		QCOMPARE(answer.value("max_target_languages").toInt(), 4);
		QVERIFY(!answer.value("token").toString().isEmpty());
		TestClient c(certificate.clientTls());
		QVERIFY(c.connectTo(url));
		c.sendAuth({}, "translated", "en", answer.value("token").toString());
		QVERIFY(c.waitFor("auth_ok"));
		QCOMPARE(c.all("auth_ok").first().value("maxTargetLanguages").toInt(), 4);
	}

	void noAccountIsAddedWithoutAPassword()
	{
		const QString file = dir.filePath("none.json");
		QProcess process;
		process.start(SERVICE_PROGRAM, {"--accounts", file, "--add-account", "me@talvora.test"});
		process.closeWriteChannel();
		QVERIFY(process.waitForFinished(20000));
		QCOMPARE(process.exitCode(), 1);
		QVERIFY(!QFile::exists(file));
	}

	void signalsEndItCleanly_data()
	{
		QTest::addColumn<int>("signal");
		QTest::newRow("SIGINT") << SIGINT;
		QTest::newRow("SIGTERM") << SIGTERM;
	}

	void signalsEndItCleanly()
	{
		QFETCH(int, signal);
		start({});
		TestClient c(certificate.clientTls());
		QVERIFY(c.start(url, {wants("es", true, true), wants("pt", false, true)}));
		c.sendAudio(recordings::bytes(recordings::readSentence()));
		QVERIFY(c.waitFor("transcript_interim"));
		::kill(static_cast<pid_t>(program->processId()), signal);
		QVERIFY(program->waitForFinished(20000));
		QCOMPARE(program->exitStatus(), QProcess::NormalExit);
		QCOMPARE(program->exitCode(), 0);
		QVERIFY(c.waitForEnd());
	}

	void realSpeechIsCaptionedAndDubbed()
	{
		const QString events = dir.filePath("events");
		start({"--events", events, "--max-target-languages", "5"});
		TestClient c(certificate.clientTls());
		QVERIFY(c.start(url, {wants("es", true, true), wants("fr", true, true)}));
		QCOMPARE(c.all("auth_ok").first().value("maxTargetLanguages").toInt(), 5);
		c.sendAudio(recordings::bytes(recordings::silence(0.5)) +
			    recordings::bytes(recordings::announcement("cannot-complete-as-dialed")) +
			    recordings::bytes(recordings::silence(2.0)));
		QVERIFY(c.waitFor("tts_end", "es"));
		QVERIFY(c.waitFor("tts_end", "fr"));
		QVERIFY(c.all("transcript_final").first().value("text").toString().contains("cannot be completed"));
		const QString spanish = c.all("caption", "es").first().value("text").toString();
		QVERIFY2(spanish.contains("completad"), qPrintable(spanish));
		QVERIFY2(c.all("caption", "es").first().value("duration").toDouble() > 0.8, "implausible duration");
		QVERIFY2(c.audio("es").size() > 22050, "less than half a second of Spanish speech");
		QVERIFY2(c.audio("fr").size() > 22050, "less than half a second of French speech");
		QStringList names;
		for (const QJsonObject &line : lines(events)) {
			names.append(line.value("event").toString());
		}
		QVERIFY(names.contains("final") && names.contains("caption") && names.contains("tts_end"));
	}

	// Faster than real time, on a machine that may be slower than that: every session gets its answer all the same,
	// and those that have ended cost nothing any more.
	void twentyShortSessionsInARowAreAllAnswered()
	{
		const QByteArray speech = recordings::bytes(recordings::silence(0.5)) +
					  recordings::bytes(recordings::announcement("cannot-complete-as-dialed")) +
					  recordings::bytes(recordings::silence(1.0));
		const QByteArray rest = recordings::bytes(recordings::silence(30.0));
		start({});
		for (int session = 1; session <= 20; ++session) {
			TestClient c(certificate.clientTls());
			QVERIFY(c.start(url, {wants("es", true, true)}));
			c.sendAudio(speech);
			QVERIFY2(c.waitFor("transcript_final"),
				 qPrintable(QStringLiteral("session %1 got no answer").arg(session)));
			QVERIFY(c.all("transcript_final").first().value("text").toString().contains("call"));
			c.sendAudio(rest);
			if (session % 2 == 0) {
				c.send({{"type", "stop"}});
				QVERIFY(c.waitForEnd());
			}
		}
	}

	void aScriptAnswersAndTheRecordKeepsWhatCame()
	{
		const QString record = dir.filePath("record");
		startScript(R"([{"expect":"auth"}, {"send":{"type":"auth_ok","maxTargetLanguages":2}},
				{"after_audio_bytes":680}, {"send":{"type":"limit_warning","feature":"dubbed","minutesRemaining":3}},
				{"after_ms":50},
				{"send_tts":{"language":"es","clip_id":9,"pcm":"sine 440 0.1s","sample_rate":16000,"frame_bytes":800}},
				{"send_binary_hex":"0266720102"}, {"expect":"stop"},
				{"send":{"type":"session_ended","usage":{}}}, {"close":true}])",
			    {"--record", record});
		TestClient c(certificate.clientTls());
		QVERIFY(c.start(url, {wants("es", true, true)}));
		c.sendAudio(QByteArray(680, 'a'));
		QVERIFY(c.waitFor("binary", "fr"));
		c.send({{"type", "stop"}});
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.order(),
			 (QStringList{"auth_ok", "limit_warning", "tts_start:es", "binary:es", "binary:es", "binary:es",
				      "binary:es", "tts_end:es", "binary:fr", "session_ended"}));
		QCOMPARE(c.audio("es").size(), 3200);
		QCOMPARE(c.all("tts_start").first().value("clipId").toInt(), 9);
		QCOMPARE(c.all("tts_start").first().value("sampleRate").toInt(), 16000);

		QVERIFY(QTest::qWaitFor([&] { return lines(record).last().value("kind") == "close"; }));
		QList<int> frames;
		for (const QJsonObject &line : lines(record)) {
			if (line.value("kind") == "binary") {
				frames.append(line.value("bytes").toInt());
			}
		}
		QCOMPARE(frames, (QList<int>{320, 320, 40}));
		QCOMPARE(lines(record).at(1).value("text").toString(),
			 R"({"apiKey":"tak_live_local","captionMode":"translated","sourceLanguage":"en",)"
			 R"("targetLanguages":[{"captions":true,"code":"es","dubbing":true}],"type":"auth"})");
		QFile pcm(record + ".1.pcm");
		QVERIFY(pcm.open(QIODevice::ReadOnly));
		QCOMPARE(pcm.readAll(), QByteArray(680, 'a'));
	}

	void aScriptDropsTheFirstConnectionAndServesTheSecond()
	{
		startScript(R"({"connections":[[{"expect":"auth"}, {"send":{"type":"auth_ok"}}, {"drop":true}],
					       [{"expect":"auth"}, {"refuse_auth":"Expired"}, {"close":1008}]]})");
		TestClient first(certificate.clientTls());
		QVERIFY(first.start(url, {}));
		QVERIFY(first.waitForEnd());
		TestClient second(certificate.clientTls());
		QVERIFY(second.connectTo(url));
		second.sendAuth({});
		QVERIFY(second.waitForEnd());
		QCOMPARE(second.all("auth_error").first().value("error").toString(), "Expired");
		QCOMPARE(second.socket.closeCode(), QWebSocketProtocol::CloseCodePolicyViolated);
		TestClient third(certificate.clientTls());
		QVERIFY(third.connectTo(url));
		third.sendAuth({});
		QVERIFY2(third.waitFor("auth_error"), "the last connection's steps were not repeated");
	}
};

QTEST_GUILESS_MAIN(ProgramTest)
#include "program-test.moc"

// SPDX-License-Identifier: GPL-3.0-or-later
#include "sign-in/http-reader.h"

#include <QTest>

class HttpReaderTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void aRequestIsReadWhole()
	{
		HttpReader reader;
		QCOMPARE(reader.feed("POST /auth/login?a=b HTTP/1.1\r\nHost: localhost\r\n"
				     "CONTENT-Length:  4 \r\nX-Empty:\r\n\r\nbody"),
			 HttpReader::State::Done);
		QCOMPARE(reader.request().method, "POST");
		QCOMPARE(reader.request().target, "/auth/login?a=b");
		QCOMPARE(reader.request().headers.value("host"), "localhost");
		QCOMPARE(reader.request().headers.value("x-empty", "?"), "");
		QCOMPARE(reader.request().body, "body");
	}

	void aRequestMayComeByteByByte()
	{
		const QByteArray text = "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\n\r\nabc";
		HttpReader reader;
		for (qsizetype i = 0; i + 1 < text.size(); ++i) {
			QCOMPARE(reader.feed(text.mid(i, 1)), HttpReader::State::Reading);
		}
		QCOMPARE(reader.feed("c"), HttpReader::State::Done);
		QCOMPARE(reader.request().body, "abc");
	}

	void whatFollowsTheRequestIsLeftOut()
	{
		HttpReader reader;
		QCOMPARE(reader.feed("GET / HTTP/1.1\r\nHost: a\r\n\r\nGET /b HTTP/1.1\r\n\r\n"),
			 HttpReader::State::Done);
		QCOMPARE(reader.feed("more"), HttpReader::State::Done);
		QCOMPARE(reader.request().target, "/");
		QCOMPARE(reader.request().body, "");
	}

	void unusualRequestsAreRefused_data()
	{
		QTest::addColumn<QByteArray>("text");
		QTest::addColumn<int>("status");
		const QByteArray host = "Host: a\r\n";
		QTest::newRow("no words") << QByteArray("\r\n\r\n") << 400;
		QTest::newRow("two words") << "GET /\r\n" + host + "\r\n" << 400;
		QTest::newRow("four words") << "GET / b HTTP/1.1\r\n" + host + "\r\n" << 400;
		QTest::newRow("another protocol") << "GET / HTTP/2.0\r\n" + host + "\r\n" << 400;
		QTest::newRow("no path") << "GET http://a/ HTTP/1.1\r\n" + host + "\r\n" << 400;
		QTest::newRow("control character in the path") << "GET /\x01 HTTP/1.1\r\n" + host + "\r\n" << 400;
		QTest::newRow("not ASCII in the path") << "GET /\xe4 HTTP/1.1\r\n" + host + "\r\n" << 400;
		QTest::newRow("method") << "G(T / HTTP/1.1\r\n" + host + "\r\n" << 400;
		QTest::newRow("no host") << QByteArray("GET / HTTP/1.1\r\nA: b\r\n\r\n") << 400;
		QTest::newRow("no header at all") << QByteArray("GET / HTTP/1.1\r\n\r\n") << 400;
		QTest::newRow("two hosts") << "GET / HTTP/1.1\r\n" + host + host + "\r\n" << 400;
		QTest::newRow("header without colon") << "GET / HTTP/1.1\r\n" + host + "abc\r\n\r\n" << 400;
		QTest::newRow("header without name") << "GET / HTTP/1.1\r\n" + host + ": b\r\n\r\n" << 400;
		QTest::newRow("blank before the colon") << "GET / HTTP/1.1\r\n" + host + "A : b\r\n\r\n" << 400;
		QTest::newRow("folded header") << "GET / HTTP/1.1\r\n" + host + " b: c\r\n\r\n" << 400;
		QTest::newRow("line without return") << QByteArray("GET / HTTP/1.1\nHost: a\r\n\r\n") << 400;
		QTest::newRow("lone return") << "GET / HTTP/1.1\r\n" + host + "A: b\rc\r\n\r\n" << 400;
		QTest::newRow("chunked body") << "POST / HTTP/1.1\r\n" + host + "Transfer-Encoding: chunked\r\n\r\n"
					      << 400;
		QTest::newRow("negative length") << "POST / HTTP/1.1\r\n" + host + "Content-Length: -1\r\n\r\n" << 400;
		QTest::newRow("length with sign") << "POST / HTTP/1.1\r\n" + host + "Content-Length: +1\r\n\r\n" << 400;
		QTest::newRow("empty length") << "POST / HTTP/1.1\r\n" + host + "Content-Length:\r\n\r\n" << 400;
		QTest::newRow("two lengths")
			<< "POST / HTTP/1.1\r\n" + host + "Content-Length: 1\r\nContent-Length: 2\r\n\r\n"
			<< 400;
		QTest::newRow("endless length")
			<< "POST / HTTP/1.1\r\n" + host + "Content-Length: 99999999999999999999\r\n\r\n"
			<< 400;
		QTest::newRow("body too long") << "POST / HTTP/1.1\r\n" + host + "Content-Length: 16385\r\n\r\n" << 413;
		QTest::newRow("head too long") << "GET / HTTP/1.1\r\nHost: " + QByteArray(20000, 'a') + "\r\n\r\n"
					       << 431;
		QTest::newRow("head without end") << QByteArray(20000, 'a') << 431;
	}

	void unusualRequestsAreRefused()
	{
		QFETCH(QByteArray, text);
		HttpReader reader;
		QCOMPARE(reader.feed(text), HttpReader::State::Refused);
		QTEST(reader.status(), "status");
		QCOMPARE(reader.feed("GET / HTTP/1.1\r\nHost: a\r\n\r\n"), HttpReader::State::Refused);
	}

	void aHeadOfTheGreatestLengthIsReadInWhateverPieces()
	{
		const QByteArray start = "GET / HTTP/1.1\r\nHost: a\r\nA: ";
		const QByteArray longest = start + QByteArray(16384 - start.size(), 'a');
		HttpReader whole;
		QCOMPARE(whole.feed(longest + "\r\n\r\n"), HttpReader::State::Done);
		HttpReader bytes;
		for (const char c : longest + "\r\n\r") {
			QCOMPARE(bytes.feed(QByteArray(1, c)), HttpReader::State::Reading);
		}
		QCOMPARE(bytes.feed("\n"), HttpReader::State::Done);

		HttpReader longer;
		QCOMPARE(longer.feed(longest + "a\r\n\r\n"), HttpReader::State::Refused);
		HttpReader endless;
		QCOMPARE(endless.feed(longest + "aaa"), HttpReader::State::Reading);
		QCOMPARE(endless.feed("a"), HttpReader::State::Refused);
	}

	void aBodyOfTheGreatestLengthIsRead()
	{
		HttpReader reader;
		QCOMPARE(reader.feed("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 16384\r\n\r\n"),
			 HttpReader::State::Reading);
		QCOMPARE(reader.feed(QByteArray(16384, 'x')), HttpReader::State::Done);
		QCOMPARE(reader.request().body.size(), 16384);
	}
};

QTEST_GUILESS_MAIN(HttpReaderTest)
#include "http-reader-test.moc"

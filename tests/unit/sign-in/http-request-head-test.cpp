// SPDX-License-Identifier: GPL-2.0-or-later
#include "sign-in/http-request-head.h"

#include <QTest>
#include <QUrl>

#include <climits>

class HttpRequestHeadTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void findsTheEndOfAHead_data();
	void findsTheEndOfAHead();
	void readsThePathOfARequest_data();
	void readsThePathOfARequest();
	void hasNoTargetWithoutTwoSpaces_data();
	void hasNoTargetWithoutTwoSpaces();
	void readsTheItemsOfACallback_data();
	void readsTheItemsOfACallback();
	void tellsAnEmptyErrorFromNone();
	void readsTheLanguageAllowance_data();
	void readsTheLanguageAllowance();
	void survivesEveryByteAtEveryPlace();
};

void HttpRequestHeadTest::findsTheEndOfAHead_data()
{
	QTest::addColumn<QByteArray>("received");
	QTest::addColumn<int>("from");
	QTest::addColumn<bool>("whole");
	QTest::newRow("empty") << QByteArray() << 0 << false;
	QTest::newRow("blank line only") << QByteArray("\r\n\r\n") << 0 << true;
	QTest::newRow("one line end") << QByteArray("GET / HTTP/1.1\r\n") << 0 << false;
	QTest::newRow("bare line feeds") << QByteArray("GET / HTTP/1.1\n\n") << 0 << false;
	QTest::newRow("last byte missing") << QByteArray("GET / HTTP/1.1\r\n\r") << 0 << false;
	QTest::newRow("whole") << QByteArray("GET / HTTP/1.1\r\n\r\n") << 0 << true;
	QTest::newRow("with a body") << QByteArray("GET / HTTP/1.1\r\n\r\nbody") << 0 << true;
	for (int from = 14; from <= 17; ++from) {
		QTest::addRow("end begun before byte %d", from) << QByteArray("GET / HTTP/1.1\r\n\r\n") << from << true;
	}
}

void HttpRequestHeadTest::findsTheEndOfAHead()
{
	QFETCH(QByteArray, received);
	QFETCH(int, from);
	QTEST(hasWholeRequestHead(received, from), "whole");
}

void HttpRequestHeadTest::readsThePathOfARequest_data()
{
	QTest::addColumn<QByteArray>("raw");
	QTest::addColumn<QString>("path");
	QTest::newRow("callback") << QByteArray("GET /callback HTTP/1.1\r\n\r\n") << "/callback";
	QTest::newRow("with a query") << QByteArray("GET /callback?state=s HTTP/1.1\r\n\r\n") << "/callback";
	QTest::newRow("with a fragment") << QByteArray("GET /callback#x HTTP/1.1\r\n\r\n") << "/callback";
	QTest::newRow("percent-encoded") << QByteArray("GET /%63all%62ack HTTP/1.1\r\n\r\n") << "/callback";
	QTest::newRow("an encoded slash") << QByteArray("GET /%2Fcallback HTTP/1.1\r\n\r\n") << "//callback";
	QTest::newRow("raw UTF-8") << QByteArray("GET /caf\xC3\xA9 HTTP/1.1\r\n\r\n") << QString::fromUtf8("/café");
	QTest::newRow("encoded UTF-8") << QByteArray("GET /caf%C3%A9 HTTP/1.1\r\n\r\n") << QString::fromUtf8("/café");
	QTest::newRow("other letter case") << QByteArray("GET /Callback HTTP/1.1\r\n\r\n") << "/Callback";
	QTest::newRow("trailing slash") << QByteArray("GET /callback/ HTTP/1.1\r\n\r\n") << "/callback/";
	QTest::newRow("root") << QByteArray("GET / HTTP/1.1\r\n\r\n") << "/";
	QTest::newRow("empty target") << QByteArray("GET  HTTP/1.1\r\n\r\n") << "";
	QTest::newRow("any method word") << QByteArray("BREW /callback HTTP/1.1\r\n\r\n") << "/callback";
	QTest::newRow("no method word") << QByteArray(" /callback HTTP/1.1\r\n\r\n") << "/callback";
	QTest::newRow("spaces only in the headers") << QByteArray("GET\r\nHost: localhost x\r\n\r\n") << "";
	QTest::newRow("an absolute address")
		<< QByteArray("GET http://localhost/callback HTTP/1.1\r\n\r\n") << "//localhost/callback";
}

void HttpRequestHeadTest::readsThePathOfARequest()
{
	QFETCH(QByteArray, raw);
	const std::optional<QUrl> target = readRequestTarget(raw);
	QVERIFY(target.has_value());
	QTEST(target->path(QUrl::FullyDecoded), "path");
}

void HttpRequestHeadTest::hasNoTargetWithoutTwoSpaces_data()
{
	QTest::addColumn<QByteArray>("raw");
	QTest::newRow("nothing") << QByteArray();
	QTest::newRow("blank line only") << QByteArray("\r\n\r\n");
	QTest::newRow("no space") << QByteArray("GET/callback\r\n\r\n");
	QTest::newRow("one space") << QByteArray("GET /callback\r\n\r\n");
	QTest::newRow("tabs") << QByteArray("GET\t/callback\tHTTP/1.1\r\n\r\n");
	QTest::newRow("a TLS greeting") << QByteArray("\x16\x03\x01\x02\x00\x01\xFC\x03\x03\r\n\r\n", 13);
}

void HttpRequestHeadTest::hasNoTargetWithoutTwoSpaces()
{
	QFETCH(QByteArray, raw);
	QVERIFY(!readRequestTarget(raw).has_value());
}

void HttpRequestHeadTest::readsTheItemsOfACallback_data()
{
	QTest::addColumn<QString>("query");
	QTest::addColumn<QString>("state");
	QTest::addColumn<QString>("token");
	QTest::newRow("nothing") << "" << "" << "";
	QTest::newRow("state and token") << "state=s&token=t" << "s" << "t";
	QTest::newRow("another order") << "token=t&state=s" << "s" << "t";
	QTest::newRow("token before the others") << "key=k&api_key=a&token=t" << "" << "t";
	QTest::newRow("api_key before key") << "key=k&api_key=a" << "" << "a";
	QTest::newRow("key alone") << "key=k" << "" << "k";
	QTest::newRow("empty token, then api_key") << "token=&api_key=a&key=k" << "" << "a";
	QTest::newRow("empty token and api_key, then key") << "token=&api_key=&key=k" << "" << "k";
	QTest::newRow("all empty") << "token=&api_key=&key=" << "" << "";
	QTest::newRow("a name without a value") << "token&key=k" << "" << "k";
	QTest::newRow("names are exact") << "Token=t&TOKEN=t&apikey=a&api-key=a&State=s" << "" << "";
	QTest::newRow("the first of a repeated item") << "state=1&state=2&token=a&token=b" << "1" << "a";
	QTest::newRow("percent-encoding") << "state=%73&token=a%2Bb%2Fc%3D%26%25%20%23" << "s" << "a+b/c=&% #";
	QTest::newRow("a plus sign is itself") << "token=a+b" << "" << "a+b";
	QTest::newRow("an equals sign in a value") << "token=a=b==" << "" << "a=b==";
	QTest::newRow("a percent sign that encodes nothing") << "token=100%zz" << "" << "100%zz";
	QTest::newRow("encoded UTF-8") << "token=%E2%82%AC" << "" << QString::fromUtf8("€");
	QTest::newRow("raw UTF-8") << QString::fromUtf8("token=€") << "" << QString::fromUtf8("€");
	QTest::newRow("an encoded name") << "%74oken=t" << "" << "t";
}

void HttpRequestHeadTest::readsTheItemsOfACallback()
{
	QFETCH(QString, query);
	const SignInCallback callback = readSignInCallback(QUrl("http://localhost/callback?" + query));
	QTEST(callback.state, "state");
	QTEST(callback.token, "token");
	QVERIFY(!callback.error.has_value());
}

void HttpRequestHeadTest::tellsAnEmptyErrorFromNone()
{
	const auto error = [](const QString &query) {
		return readSignInCallback(QUrl("http://localhost/callback?" + query)).error;
	};
	QVERIFY(!error("state=s").has_value());
	QCOMPARE(error("error="), QString());
	QCOMPARE(error("error"), QString());
	QCOMPARE(error("error=access_denied"), QStringLiteral("access_denied"));
	QCOMPARE(error("error=%3Cb%3E%22&amp;%26"), QStringLiteral("<b>\""));
}

void HttpRequestHeadTest::readsTheLanguageAllowance_data()
{
	QTest::addColumn<QString>("value");
	QTest::addColumn<int>("languages");
	QTest::newRow("3") << "=3" << 3;
	QTest::newRow("0") << "=0" << 0;
	QTest::newRow("leading zero is still decimal") << "=010" << 10;
	QTest::newRow("negative") << "=-2" << -2;
	QTest::newRow("greatest int") << "=2147483647" << INT_MAX;
	QTest::newRow("least int") << "=-2147483648" << INT_MIN;
	QTest::newRow("above an int") << "=2147483648" << 0;
	QTest::newRow("below an int") << "=-2147483649" << 0;
	QTest::newRow("far above") << "=99999999999999999999999999" << 0;
	QTest::newRow("a word") << "=many" << 0;
	QTest::newRow("a number with a word") << "=3x" << 0;
	QTest::newRow("a fraction") << "=3.5" << 0;
	QTest::newRow("an exponent") << "=1e1" << 0;
	QTest::newRow("hexadecimal") << "=0x10" << 0;
	QTest::newRow("grouped digits") << "=1,000" << 0;
	QTest::newRow("empty") << "=" << 0;
	QTest::newRow("no value") << "" << 0;
}

void HttpRequestHeadTest::readsTheLanguageAllowance()
{
	QFETCH(QString, value);
	const QUrl address("http://localhost/callback?token=t&max_target_languages" + value);
	QTEST(readSignInCallback(address).maxTargetLanguages, "languages");
	QCOMPARE(readSignInCallback(QUrl("http://localhost/callback?token=t")).maxTargetLanguages, 0);
}

void HttpRequestHeadTest::survivesEveryByteAtEveryPlace()
{
	const QByteArray request("GET /callback?state=%73&token=a HTTP/1.1\r\n\r\n");
	int read = 0;
	for (qsizetype place = 0; place < request.size(); ++place) {
		for (int byte = 0; byte < 256; ++byte) {
			QByteArray spoilt = request;
			spoilt[place] = static_cast<char>(byte);
			if (const auto target = readRequestTarget(spoilt)) {
				read += readSignInCallback(*target).token == "a" ? 1 : 0;
			}
		}
	}
	// Most bytes outside the path and the names of the items do not touch the token.
	QVERIFY2(read > 256 * 10, qPrintable(QString::number(read)));
}

QTEST_GUILESS_MAIN(HttpRequestHeadTest)

#include "http-request-head-test.moc"

// SPDX-License-Identifier: GPL-3.0-or-later
#include "certificate.h"
#include "sign-in/sign-in.h"
#include "tls.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTest>

#include <memory>

namespace {

constexpr int kTimeoutMs = 20000;
/** Enough for a test, and done at once. */
constexpr int kQuick = 100;
const QByteArray kJson = "application/json";
const QByteArray kForm = "application/x-www-form-urlencoded";
const QString kState = "3f2b1c9e-8d47-4f60-9a15-7c2e4b6d8f01";

struct Reply {
	int status = 0;
	QByteArray body;
	QByteArray type;
	QUrl location;
	QNetworkReply::NetworkError error = QNetworkReply::NoError;
};

} // namespace

/** The sign-in over real TLS, as the plug-in and a browser use it. */
class SignInTest : public QObject {
	Q_OBJECT

	Certificate certificate;
	QNetworkAccessManager network;
	EventLog events;
	std::unique_ptr<TokenStore> tokens;
	std::unique_ptr<SignIn> signIn;

	void serve(int maxTargetLanguages = 0, int timeoutMs = 10000)
	{
		signIn.reset();
		QString error;
		const auto tls = loadTls(certificate.file(), certificate.keyFile(), &error);
		QVERIFY2(tls, qPrintable(error));
		Accounts accounts;
		accounts.put(Account::withPassword("user@talvora.test", "right one ", kQuick));
		Account limited = Account::withPassword("limited@talvora.test", "right", kQuick);
		limited.maxTargetLanguages = 2;
		accounts.put(limited);
		Account locked = Account::withPassword("locked@talvora.test", "right", kQuick);
		locked.locked = true;
		accounts.put(locked);
		Account failing = Account::withPassword("failing@talvora.test", "right", kQuick);
		failing.fails = true;
		accounts.put(failing);
		tokens = std::make_unique<TokenStore>();
		signIn = std::make_unique<SignIn>(*tls, SignIn::Settings{accounts, maxTargetLanguages, timeoutMs},
						  *tokens, events);
		QVERIFY2(signIn->listen(0), qPrintable(signIn->errorString()));
	}

	Reply send(const QByteArray &method, const QString &path, const QByteArray &body = {},
		   const QByteArray &type = {})
	{
		QNetworkRequest request(QUrl(signIn->url() + path));
		request.setSslConfiguration(certificate.clientTls());
		request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
		if (!type.isEmpty()) {
			request.setHeader(QNetworkRequest::ContentTypeHeader, type);
		}
		const std::unique_ptr<QNetworkReply> reply(network.sendCustomRequest(request, method, body));
		if (!QTest::qWaitFor([&] { return reply->isFinished(); }, kTimeoutMs)) {
			return {};
		}
		return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll(),
			reply->header(QNetworkRequest::ContentTypeHeader).toByteArray(),
			QUrl::fromEncoded(reply->rawHeader("Location")), reply->error()};
	}

	Reply login(const QString &email, const QString &password)
	{
		return send("POST", "/login",
			    QJsonDocument(QJsonObject{{"email", email}, {"password", password}})
				    .toJson(QJsonDocument::Compact),
			    kJson);
	}

	static QString authorisation(const QString &redirectUri, const QString &state)
	{
		return QString::fromLatin1("?redirect_uri=" + QUrl::toPercentEncoding(redirectUri) +
					   "&state=" + QUrl::toPercentEncoding(state));
	}

	// Opens a consent page and takes its id out of it.
	QByteArray openConsent(const QString &provider, const QString &redirectUri = "http://localhost:4711/callback")
	{
		const Reply page = send("GET", '/' + provider + authorisation(redirectUri, kState));
		static const QRegularExpression field(R"re(name="consent" value="([0-9a-f]{32})")re");
		return field.match(QString::fromUtf8(page.body)).captured(1).toLatin1();
	}

	Reply decide(const QString &provider, const QByteArray &consent, const QByteArray &decision)
	{
		return send("POST", '/' + provider, "consent=" + consent + "&decision=" + decision, kForm);
	}

	// What a connection that sends these bytes is answered.
	QByteArray exchange(const QByteArray &bytes)
	{
		QSslSocket socket;
		socket.setSslConfiguration(certificate.clientTls());
		socket.connectToHostEncrypted("localhost", static_cast<quint16>(QUrl(signIn->url()).port()));
		if (!QTest::qWaitFor([&] { return socket.isEncrypted(); }, kTimeoutMs)) {
			return "no connection";
		}
		socket.write(bytes);
		if (!QTest::qWaitFor([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, kTimeoutMs)) {
			return "not closed";
		}
		return socket.readAll();
	}

private Q_SLOTS:
	void initTestCase() { QVERIFY2(certificate.isValid(), "mkcert made no certificate"); }
	void init() { serve(); }
	void cleanup() { signIn.reset(); }

	void theRightPasswordGivesAKeyThatIsAccepted()
	{
		const Reply reply = login("user@talvora.test", "right one ");
		QCOMPARE(reply.status, 200);
		QCOMPARE(reply.type, kJson);
		const QJsonObject body = QJsonDocument::fromJson(reply.body).object();
		QCOMPARE(body.keys(), (QStringList{"max_target_languages", "token"}));
		QCOMPARE(body.value("max_target_languages").toInt(-1), 0);
		QVERIFY(tokens->maxTargetLanguages(body.value("token").toString()));
	}

	void theAddressMayBeWrittenInAnyCase() { QCOMPARE(login(" USER@Talvora.Test ", "right one ").status, 200); }

	void anAccountsOwnLimitComesBeforeTheServices()
	{
		serve(5);
		const auto limit = [this](const QString &email, const QString &password) {
			const QJsonObject body = QJsonDocument::fromJson(login(email, password).body).object();
			const int told = body.value("max_target_languages").toInt(-1);
			return tokens->maxTargetLanguages(body.value("token").toString()) == told ? told : -2;
		};
		QCOMPARE(limit("limited@talvora.test", "right"), 2);
		QCOMPARE(limit("user@talvora.test", "right one "), 5);
	}

	void refusalsSayWhyInASentenceThatFitsTheDock_data()
	{
		QTest::addColumn<QString>("email");
		QTest::addColumn<QString>("password");
		QTest::addColumn<int>("status");
		QTest::addColumn<QByteArray>("sentence");
		QTest::newRow("wrong password")
			<< "user@talvora.test" << "right one" << 401 << QByteArray("Wrong e-mail address or password.");
		QTest::newRow("unknown address")
			<< "nobody@talvora.test" << "right" << 401 << QByteArray("Wrong e-mail address or password.");
		QTest::newRow("demo account beside a file")
			<< "demo@talvora.local" << "talvora" << 401 << QByteArray("Wrong e-mail address or password.");
		QTest::newRow("locked, right password")
			<< "locked@talvora.test" << "right" << 423 << QByteArray("This account is locked.");
		QTest::newRow("locked, wrong password")
			<< "locked@talvora.test" << "wrong" << 423 << QByteArray("This account is locked.");
		QTest::newRow("server error") << "failing@talvora.test" << "right" << 500
					      << QByteArray("The sign-in service failed. Please try again later.");
	}

	void refusalsSayWhyInASentenceThatFitsTheDock()
	{
		QFETCH(QString, email);
		QFETCH(QString, password);
		QFETCH(QByteArray, sentence);
		const Reply reply = login(email, password);
		QTEST(reply.status, "status");
		QCOMPARE(reply.body, sentence);
		QVERIFY(reply.body.size() <= 60);
		QCOMPARE(reply.type, "text/plain; charset=utf-8");
		QVERIFY2(reply.error != QNetworkReply::NoError, "a refusal that looks like a success");
	}

	void fiveWrongPasswordsLockAnAccount()
	{
		for (int i = 0; i < 5; ++i) {
			QCOMPARE(login("user@talvora.test", "wrong").status, 401);
		}
		QCOMPARE(login("user@talvora.test", "right one ").status, 423);
		QCOMPARE(login("limited@talvora.test", "right").status, 200);
	}

	void theRightPasswordForgivesTheWrongOnesBefore()
	{
		for (int round = 0; round < 2; ++round) {
			for (int i = 0; i < 4; ++i) {
				QCOMPARE(login("user@talvora.test", "wrong").status, 401);
			}
			QCOMPARE(login("user@talvora.test", "right one ").status, 200);
		}
	}

	void bodiesThatAreNoCredentialsAreRefused_data()
	{
		QTest::addColumn<QByteArray>("body");
		QTest::newRow("empty") << QByteArray();
		QTest::newRow("no JSON") << QByteArray("{\"email\":");
		QTest::newRow("list") << QByteArray(R"(["a","b"])");
		QTest::newRow("no e-mail") << QByteArray(R"({"password":"right"})");
		QTest::newRow("no password") << QByteArray(R"({"email":"user@talvora.test"})");
		QTest::newRow("empty password") << QByteArray(R"({"email":"user@talvora.test","password":""})");
		QTest::newRow("blank e-mail") << QByteArray(R"({"email":"  ","password":"right"})");
		QTest::newRow("other kinds") << QByteArray(R"({"email":5,"password":{}})");
		QTest::newRow("not Unicode text") << QByteArray("{\"email\":\"\xff\xfe\",\"password\":\"a\"}");
		QTest::newRow("deep nesting") << QByteArray(16000, '[');
	}

	void bodiesThatAreNoCredentialsAreRefused()
	{
		QFETCH(QByteArray, body);
		const Reply reply = send("POST", "/login", body, kJson);
		QCOMPARE(reply.status, 400);
		QCOMPARE(reply.body, "The request is not valid.");
	}

	void otherAddressesAndMethodsAreRefused_data()
	{
		QTest::addColumn<QByteArray>("method");
		QTest::addColumn<QString>("path");
		QTest::addColumn<QByteArray>("type");
		QTest::addColumn<int>("status");
		QTest::newRow("login by GET") << QByteArray("GET") << "/login" << QByteArray() << 405;
		QTest::newRow("provider by PUT") << QByteArray("PUT") << "/google" << kForm << 405;
		QTest::newRow("unknown provider") << QByteArray("GET") << "/other" << QByteArray() << 404;
		QTest::newRow("base address") << QByteArray("GET") << "" << QByteArray() << 404;
		QTest::newRow("slash at the end") << QByteArray("GET") << "/google/" << QByteArray() << 404;
		QTest::newRow("login of another type") << QByteArray("POST") << "/login" << kForm << 415;
	}

	void otherAddressesAndMethodsAreRefused()
	{
		QFETCH(QByteArray, method);
		QFETCH(QString, path);
		QFETCH(QByteArray, type);
		QTEST(send(method, path, type.isEmpty() ? QByteArray() : QByteArray("{}"), type).status, "status");
	}

	void providersAskForConsent_data()
	{
		QTest::addColumn<QString>("provider");
		QTest::addColumn<QByteArray>("name");
		QTest::newRow("Google") << "google" << QByteArray("Google");
		QTest::newRow("Twitch") << "twitch" << QByteArray("Twitch");
		QTest::newRow("Kick") << "kick" << QByteArray("Kick");
	}

	void providersAskForConsent()
	{
		QFETCH(QString, provider);
		QFETCH(QByteArray, name);
		serve(3);
		const Reply page =
			send("GET", '/' + provider + authorisation("http://localhost:4711/callback", kState));
		QCOMPARE(page.status, 200);
		QCOMPARE(page.type, "text/html; charset=utf-8");
		QVERIFY(page.body.contains("Sign in to Talvora with " + name));
		QVERIFY2(!page.body.contains("http"), "the page is not self-contained");

		const Reply allowed = decide(provider, openConsent(provider), "allow");
		QCOMPARE(allowed.status, 302);
		QCOMPARE(allowed.location.adjusted(QUrl::RemoveQuery), QUrl("http://localhost:4711/callback"));
		const QUrlQuery query(allowed.location);
		QCOMPARE(query.queryItems().size(), 3);
		QCOMPARE(query.queryItemValue("state"), kState);
		QCOMPARE(query.queryItemValue("max_target_languages"), "3");
		QCOMPARE(tokens->maxTargetLanguages(query.queryItemValue("token")), std::optional<int>(3));
	}

	void decliningIsToldToTheProgramThatAsked()
	{
		const Reply reply = decide("google", openConsent("google"), "decline");
		QCOMPARE(reply.status, 302);
		const QUrlQuery query(reply.location);
		QCOMPARE(query.queryItems().size(), 2);
		QCOMPARE(query.queryItemValue("state"), kState);
		QCOMPARE(query.queryItemValue("error", QUrl::FullyDecoded), "Sign-in was declined");
	}

	void whatTheAddressToReturnToAsksForIsKept()
	{
		const QString uri = "http://127.0.0.1:4711/callback?a=b%26c";
		const Reply reply = decide("kick", openConsent("kick", uri), "allow");
		QCOMPARE(reply.status, 302);
		QCOMPARE(QUrlQuery(reply.location).queryItemValue("a", QUrl::FullyDecoded), "b&c");
		QCOMPARE(QUrlQuery(reply.location).queryItemValue("state"), kState);
	}

	void onlyLoopbackAddressesAreReturnedTo_data()
	{
		QTest::addColumn<QString>("uri");
		QTest::addColumn<int>("status");
		QTest::newRow("name") << "http://localhost:1/callback" << 200;
		QTest::newRow("IPv4") << "http://127.0.0.1:65535/" << 200;
		QTest::newRow("IPv6") << "http://[::1]:8080/callback" << 200;
		QTest::newRow("without port") << "http://localhost/callback" << 200;
		QTest::newRow("elsewhere") << "http://example.com/callback" << 400;
		QTest::newRow("name within a name") << "http://localhost.example.com/" << 400;
		QTest::newRow("user") << "http://localhost@example.com/" << 400;
		QTest::newRow("user at the loopback") << "http://user@localhost:1/" << 400;
		QTest::newRow("TLS") << "https://localhost:1/callback" << 400;
		QTest::newRow("script") << "javascript:alert(1)" << 400;
		QTest::newRow("relative") << "/callback" << 400;
		QTest::newRow("no host") << "http:///callback" << 400;
		QTest::newRow("port 0") << "http://localhost:0/callback" << 400;
		QTest::newRow("port too high") << "http://localhost:65536/callback" << 400;
		QTest::newRow("fragment") << "http://localhost:1/callback#a" << 400;
		QTest::newRow("line break") << "http://localhost:1/callback\r\nX: y" << 400;
		QTest::newRow("backslash") << "http://example.com\\@localhost/" << 400;
		QTest::newRow("another network") << "http://0.0.0.0:1/" << 400;
		QTest::newRow("too long") << "http://localhost:1/" + QString(2000, 'a') << 400;
		QTest::newRow("empty") << "" << 400;
	}

	void onlyLoopbackAddressesAreReturnedTo()
	{
		QFETCH(QString, uri);
		QTEST(send("GET", "/google" + authorisation(uri, kState)).status, "status");
	}

	void aStateIsNeeded_data()
	{
		QTest::addColumn<QString>("query");
		const QString uri = "redirect_uri=http%3A%2F%2Flocalhost%3A1%2F";
		QTest::newRow("nothing") << "";
		QTest::newRow("missing") << "?" + uri;
		QTest::newRow("empty") << "?" + uri + "&state=";
		QTest::newRow("short") << "?" + uri + "&state=abc";
		QTest::newRow("long") << "?" + uri + "&state=" + QString(257, 'a');
		QTest::newRow("markup") << "?" + uri + "&state=%3Cscript%3Ealert(1)%3C/script%3E";
		QTest::newRow("line break") << "?" + uri + "&state=" + kState + "%0D%0A";
		QTest::newRow("twice") << "?" + uri + "&state=" + kState + "&state=" + kState;
		QTest::newRow("two addresses") << "?" + uri + "&" + uri + "&state=" + kState;
		QTest::newRow("no address") << "?state=" + kState;
	}

	void aStateIsNeeded()
	{
		QFETCH(QString, query);
		const Reply reply = send("GET", "/twitch" + query);
		QCOMPARE(reply.status, 400);
		QCOMPARE(reply.type, "text/html; charset=utf-8");
		QVERIFY(!reply.body.contains("script"));
	}

	void consentIsGivenOnceByTheAskedPageOnly()
	{
		const QByteArray consent = openConsent("google");
		QCOMPARE(decide("twitch", consent, "allow").status, 400);
		QCOMPARE(decide("google", "0123456789abcdef0123456789abcdef", "allow").status, 400);
		QCOMPARE(decide("google", "", "allow").status, 400);
		QCOMPARE(decide("google", consent, "perhaps").status, 400);
		QCOMPARE(send("POST", "/google", "consent=" + consent + "&decision=allow", "text/plain").status, 400);
		QCOMPARE(decide("google", consent, "allow").status, 302);
		QCOMPARE(decide("google", consent, "allow").status, 400);
	}

	void ofVeryManyOpenPagesTheNewestAreValid()
	{
		const QByteArray first = openConsent("google");
		const QByteArray second = openConsent("google");
		for (qsizetype i = 1; i < SignIn::kMostConsents; ++i) {
			openConsent("google");
		}
		QCOMPARE(decide("google", first, "allow").status, 400);
		QCOMPARE(decide("google", second, "allow").status, 302);
	}

	void aClientThatDoesNotTrustTheCertificateGetsNothing()
	{
		QNetworkRequest request(QUrl(signIn->url() + "/login"));
		const std::unique_ptr<QNetworkReply> reply(network.get(request));
		QVERIFY(QTest::qWaitFor([&] { return reply->isFinished(); }, kTimeoutMs));
		QCOMPARE(reply->error(), QNetworkReply::SslHandshakeFailedError);
	}

	void garbageIsAnsweredAndHarmsNobody_data()
	{
		QTest::addColumn<QByteArray>("bytes");
		QTest::addColumn<QByteArray>("status");
		QTest::newRow("no HTTP") << QByteArray("hello\r\n\r\n") << QByteArray("HTTP/1.1 400 Bad Request\r\n");
		QTest::newRow("zeros") << QByteArray(100, '\0') + "\r\n\r\n"
				       << QByteArray("HTTP/1.1 400 Bad Request\r\n");
		QTest::newRow("head without end")
			<< QByteArray(17000, 'x') << QByteArray("HTTP/1.1 431 Request Header Fields Too Large\r\n");
		QTest::newRow("long body")
			<< QByteArray("POST /auth/login HTTP/1.1\r\nHost: a\r\nContent-Length: 100000\r\n\r\n")
			<< QByteArray("HTTP/1.1 413 Content Too Large\r\n");
	}

	void garbageIsAnsweredAndHarmsNobody()
	{
		QFETCH(QByteArray, bytes);
		QFETCH(QByteArray, status);
		const QByteArray answer = exchange(bytes);
		QVERIFY2(answer.startsWith(status), answer.constData());
		QVERIFY(answer.contains("\r\nConnection: close\r\n"));
		QCOMPARE(login("user@talvora.test", "right one ").status, 200);
	}

	void whoSendsNoWholeRequestInTimeIsClosed_data()
	{
		QTest::addColumn<QByteArray>("bytes");
		QTest::newRow("nothing") << QByteArray();
		QTest::newRow("half a head") << QByteArray("POST /auth/login HTTP/1.1\r\nHost: a\r\n");
		QTest::newRow("half a body")
			<< QByteArray("POST /auth/login HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\nabc");
	}

	void whoSendsNoWholeRequestInTimeIsClosed()
	{
		QFETCH(QByteArray, bytes);
		serve(0, 1000);
		QCOMPARE(exchange(bytes), "");
	}

	void bytesThatAreNoTlsHarmNobody()
	{
		serve(0, 1000);
		QTcpSocket plain;
		plain.connectToHost("127.0.0.1", static_cast<quint16>(QUrl(signIn->url()).port()));
		QVERIFY(QTest::qWaitFor([&] { return plain.state() == QAbstractSocket::ConnectedState; }));
		plain.write("GET / HTTP/1.1\r\n\r\n");
		QVERIFY(QTest::qWaitFor([&] { return plain.state() == QAbstractSocket::UnconnectedState; },
					kTimeoutMs));
		serve();
		QCOMPARE(login("user@talvora.test", "right one ").status, 200);
	}

	void whoLeavesBeforeTheAnswerHarmsNobody()
	{
		for (int i = 0; i < 5; ++i) {
			QSslSocket socket;
			socket.setSslConfiguration(certificate.clientTls());
			socket.connectToHostEncrypted("localhost", static_cast<quint16>(QUrl(signIn->url()).port()));
			QVERIFY(QTest::qWaitFor([&] { return socket.isEncrypted(); }, kTimeoutMs));
			const QByteArray body = R"({"email":"user@talvora.test","password":"right one "})";
			socket.write("POST /auth/login HTTP/1.1\r\nHost: a\r\nContent-Type: application/json\r\n"
				     "Content-Length: " +
				     QByteArray::number(body.size()) + "\r\n\r\n" + body);
			socket.flush();
			socket.abort();
		}
		QCOMPARE(login("user@talvora.test", "right one ").status, 200);
	}

	void tooManyConnectionsAreClosedAndLaterOnesServed()
	{
		std::vector<std::unique_ptr<QSslSocket>> sockets;
		for (int i = 0; i < HttpServer::kMostConnections + 1; ++i) {
			sockets.push_back(std::make_unique<QSslSocket>());
			sockets.back()->setSslConfiguration(certificate.clientTls());
			sockets.back()->connectToHostEncrypted("localhost",
							       static_cast<quint16>(QUrl(signIn->url()).port()));
			QVERIFY(QTest::qWaitFor([&] { return sockets.back()->isEncrypted(); }, kTimeoutMs));
		}
		QVERIFY2(QTest::qWaitFor([&] { return sockets.back()->state() == QAbstractSocket::UnconnectedState; },
					 kTimeoutMs / 4),
			 "a connection beyond the limit was kept");
		sockets.clear();
		QVERIFY(QTest::qWaitFor([this] { return login("user@talvora.test", "right one ").status == 200; },
					kTimeoutMs));
	}
};

QTEST_GUILESS_MAIN(SignInTest)
#include "sign-in-test.moc"

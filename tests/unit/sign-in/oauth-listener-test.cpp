// SPDX-License-Identifier: GPL-2.0-or-later
#include "sign-in/oauth-listener.h"

#include "deployment.h"
#include "log-capture.h"
#include "sign-in/sign-in-page.h"

#include <QDesktopServices>
#include <QGuiApplication>
#include <QHostAddress>
#include <QPointer>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>
#include <QUrl>
#include <QUrlQuery>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <memory>
#include <vector>

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__GNUC__)
// QTRY_COMPARE and its kind narrow a duration's count where they are used (Qt 6.8).
#pragma GCC diagnostic ignored "-Wconversion"
#endif

using namespace std::chrono_literals;

namespace {

/** How many of the next ports of 127.0.0.1 somebody else takes on ::1 in the moment in which they are listened on. */
int portsToTake = 0;
std::vector<int> taken;

sockaddr_in6 addressOfIpv6(in6_addr host, in_port_t port)
{
	sockaddr_in6 address{};
	address.sin6_family = AF_INET6;
	address.sin6_port = port;
	address.sin6_addr = host;
	return address;
}

void takeOnIpv6(int ipv4Socket)
{
	sockaddr_in bound{};
	socklen_t size = sizeof(bound);
	getsockname(ipv4Socket, reinterpret_cast<sockaddr *>(&bound), &size);
	const sockaddr_in6 address = addressOfIpv6(in6addr_loopback, bound.sin_port);
	const int socket = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
	bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
	syscall(SYS_listen, socket, 1);
	taken.push_back(socket);
}

/**
 * Another account of the machine (where the tests may become one) tries to listen on a port.
 * @param options of SOL_SOCKET, which are set before
 * @return 0, or the error number of what did not work
 */
int strangerListens(in6_addr host, quint16 port, const std::vector<int> &options)
{
	const sockaddr_in6 address = addressOfIpv6(host, htons(port));
	const pid_t child = fork();
	if (child == 0) {
		if (geteuid() == 0 && setuid(65534) != 0) {
			_exit(errno);
		}
		const int on = 1;
		const int socket = ::socket(AF_INET6, SOCK_STREAM, 0);
		setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
		for (const int option : options) {
			setsockopt(socket, SOL_SOCKET, option, &on, sizeof(on));
		}
		const bool listens = bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 &&
				     syscall(SYS_listen, socket, 1) == 0;
		_exit(listens ? 0 : errno);
	}
	int status = 0;
	return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const QString kPrefix = QStringLiteral("[talvora-obs] OAuthListener: ");
const QString kCleanedUp = kPrefix + "cleaned up";
const QString kSecret = QStringLiteral("tk_secret_0123456789");

} // namespace

extern "C" __attribute__((visibility("default"))) int listen(int socket, int backlog) noexcept
{
	const int result = static_cast<int>(syscall(SYS_listen, socket, backlog));
	if (portsToTake > 0) {
		--portsToTake;
		takeOnIpv6(socket);
	}
	return result;
}

namespace {

/** Stands in for the system's browser: keeps the addresses it is to open. One at a time. */
class Browser : public QObject {
	Q_OBJECT

public:
	Browser() { QDesktopServices::setUrlHandler(scheme(), this, "open"); }
	~Browser() override { QDesktopServices::unsetUrlHandler(scheme()); }

	QList<QUrl> opened;

	/** What the newest address says. */
	QUrlQuery query() const { return QUrlQuery(opened.last()); }
	QString state() const { return query().queryItemValue("state"); }
	QUrl redirect() const { return QUrl(query().queryItemValue("redirect_uri", QUrl::FullyDecoded)); }
	quint16 port() const { return static_cast<quint16>(redirect().port()); }

public Q_SLOTS:
	void open(const QUrl &address) { opened.append(address); }

private:
	static QString scheme() { return QUrl(QString::fromUtf8(kSignInBaseUrl)).scheme(); }
};

/** A listener with all that it says to its owner and to the log. */
struct Session {
	Browser browser;
	LogCapture log;
	std::unique_ptr<OAuthListener> listener = std::make_unique<OAuthListener>();
	QSignalSpy succeeded{listener.get(), &OAuthListener::loginSucceeded};
	QSignalSpy failed{listener.get(), &OAuthListener::loginFailed};

	/** Begins an attempt and forgets what the log said of it. */
	bool start()
	{
		const bool opened = listener->startLogin("google");
		log.clear();
		return opened;
	}
	QList<QTcpSocket *> connections() const
	{
		return listener->findChildren<QTcpSocket *>(Qt::FindDirectChildrenOnly);
	}
	/** What the newest connection has received of a head that has no end yet. */
	QByteArray buffered() const
	{
		const QList<QTcpSocket *> all = connections();
		return all.isEmpty() ? QByteArray() : all.last()->property("_httpBuf").toByteArray();
	}
	/** How much has arrived on the newest connection and was left unread. */
	qint64 unread() const
	{
		const QList<QTcpSocket *> all = connections();
		return all.isEmpty() ? 0 : all.last()->bytesAvailable();
	}
	qsizetype signalCount() const { return succeeded.count() + failed.count(); }

	QByteArray callback(const QByteArray &items) const
	{
		return "GET /callback?state=" + browser.state().toLatin1() + items + " HTTP/1.1\r\n" +
		       "Host: localhost:" + QByteArray::number(browser.port()) + "\r\n\r\n";
	}
};

/** One TCP connection of a browser's. What is sent goes out at once, in a segment of its own. */
class Connection {
public:
	explicit Connection(const Session &session)
	{
		socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
		socket.connectToHost(session.browser.redirect().host(), session.browser.port());
	}
	Connection(const Session &session, const QByteArray &bytes) : Connection(session) { send(bytes); }

	bool isOpen()
	{
		return QTest::qWaitFor([this] { return socket.state() == QAbstractSocket::ConnectedState; });
	}
	void send(const QByteArray &bytes)
	{
		if (isOpen()) {
			socket.write(bytes);
			socket.flush();
		}
	}
	void close() { socket.disconnectFromHost(); }
	bool isClosed() const { return socket.state() == QAbstractSocket::UnconnectedState; }
	/** All that was received until the other side closed the connection. */
	QByteArray answer()
	{
		if (!QTest::qWaitFor([this] { return isClosed(); })) {
			return "the connection was not closed; received: " + socket.peek(socket.bytesAvailable());
		}
		return socket.readAll();
	}

	QTcpSocket socket;
};

QByteArray response(const QByteArray &status, const QString &body)
{
	const QByteArray content = body.toUtf8();
	return "HTTP/1.1 " + status +
	       " OK\r\n"
	       "Content-Type: text/html; charset=utf-8\r\n"
	       "Content-Length: " +
	       QByteArray::number(content.size()) +
	       "\r\n"
	       "Connection: close\r\n\r\n" +
	       content;
}

const QString kFailureStart =
	QStringLiteral("<html><body style='font-family:sans-serif;text-align:center;padding:60px'>"
		       "<h1 style='color:#f44336'>Login Failed</h1><p>");
const QString kFailureEnd = QStringLiteral("</p><p>You can close this tab and try again in OBS.</p></body></html>");
const QString kMismatchPage =
	kFailureStart + "Security validation failed (state mismatch). Please try again.</p></body></html>";

} // namespace

class OAuthListenerTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	// The beginning of an attempt
	void isIdleAtFirst();
	void opensTheBrowserForTheProvider_data();
	void opensTheBrowserForTheProvider();
	void listensOnTheLoopbackInterfaceOnly();
	void stateIsARandomUuid();
	void saysWhyItCannotListen();
	void saysThatTheBrowserDoesNotOpen();

	// The same port of ::1, where browsers look for "localhost" first
	void nobodyElseCanHaveThePortOnIpv6_data();
	void nobodyElseCanHaveThePortOnIpv6();
	void browserIsRefusedOnIpv6AtOnce();
	void takesAnotherPortWhenSomebodyHasItOnIpv6();
	void givesUpWhenSomebodyHasAllPortsOnIpv6();
	void portOnIpv6IsFreeAfterTheAttempt();
	void waitingCostsNoTime();

	// What the browser brings back
	void signsIn();
	void signsInWithTheFirstValueAmongTheTokens_data();
	void signsInWithTheFirstValueAmongTheTokens();
	void callbackWithOnlyAnApiKeySignsInWithIt();
	void passesTheLanguageAllowanceOn_data();
	void passesTheLanguageAllowanceOn();
	void maxTargetLanguagesThatIsNotANumberYields0();
	void neverLogsTheToken();
	void refusesAWrongState_data();
	void refusesAWrongState();
	void passesTheErrorOn_data();
	void passesTheErrorOn();
	void errorWithMarkupIsEscapedOnThePageAndNotInTheSignal();
	void errorComesBeforeAToken();
	void reportsAMissingToken();

	// HTTP
	void answersABadRequestAndGoesOnListening_data();
	void answersABadRequestAndGoesOnListening();
	void answersNotFound_data();
	void answersNotFound();
	void realCallbackAfterTheFaviconIsIgnored();
	void realCallbackAfterABadRequestIsIgnored();
	void assemblesAHeadSplitOverSegments();
	void assemblesAHeadThatComesByteByByte();
	void keepsTheHeadsOfTwoConnectionsApart();
	void takesOnlyTheFirstOfTwoRequests();
	void neverReadsABody();
	void methodWordIsNotChecked();
	void survivesAConnectionThatClosesEarly();
	void survivesABrowserThatDoesNotWaitForTheAnswer();
	void survivesGarbage();
	void headHasNoSizeLimit();
	void manyConnectionsDoNotPileUp();
	void whatIsNotHeardDoesNotPileUp();

	// The end of an attempt
	void timesOutAfter120Seconds();
	void timeoutIsOffWhenTheAttemptEnds();
	void timesOutWhenDeafAfterNotFound();
	void abortCancelsTheAttempt();
	void abortWithNoAttemptRunningEmitsNothing();
	void abortEndsADeafAttempt();
	void secondStartGetsANewPortAndANewState();
	void callbackWithTheStateOfAnEarlierAttemptFails();
	void connectionOfAnEarlierAttemptIsNotHeard();
	void connectionIsNotHeardAfterAnAbort();
	void connectionStaysOpenWhenTheAttemptEnds();
	void connectionsDeleteThemselvesWhenTheyEnd();
	void destructionClosesAnOpenConnection();
	void destructionUponTheSignalDoesNotCutTheAnswer();
	void listensAgainAfterEachEnd();
};

void OAuthListenerTest::isIdleAtFirst()
{
	Session session;
	QVERIFY(!session.listener->isListening());
	QVERIFY(session.listener->children().isEmpty());
	QVERIFY(session.log.ownLines().isEmpty());
}

void OAuthListenerTest::opensTheBrowserForTheProvider_data()
{
	QTest::addColumn<QString>("provider");
	QTest::newRow("google") << "google";
	QTest::newRow("twitch") << "twitch";
	QTest::newRow("kick") << "kick";
}

void OAuthListenerTest::opensTheBrowserForTheProvider()
{
	QFETCH(QString, provider);
	Session session;
	QVERIFY(session.listener->startLogin(provider));
	QVERIFY(session.listener->isListening());
	QCOMPARE(session.browser.opened.size(), 1);

	const auto *server = session.listener->findChild<QTcpServer *>();
	QVERIFY(server);
	const QString port = QString::number(server->serverPort());
	const QList<std::pair<QString, QString>> items = session.browser.query().queryItems(QUrl::FullyDecoded);
	QCOMPARE(items.size(), 2);
	QCOMPARE(items[0].first, "redirect_uri");
	QCOMPARE(items[0].second, "http://localhost:" + port + "/callback");
	QCOMPARE(items[1].first, "state");

	const QString address = QString::fromUtf8(kSignInBaseUrl) + "/" + provider +
				"?redirect_uri=http://localhost:" + port + "/callback&state=" + items[1].second;
	QCOMPARE(session.browser.opened[0].toString(QUrl::FullyEncoded), address);
	QCOMPARE(session.log.lines(LOG_INFO),
		 QStringList({kCleanedUp, kPrefix + "listening on port " + port + " for " + provider + " login",
			      kPrefix + "opening browser to " + address}));
	QCOMPARE(session.log.ownLines().size(), 3);
	QCOMPARE(session.signalCount(), 0);
}

void OAuthListenerTest::listensOnTheLoopbackInterfaceOnly()
{
	Session session;
	QVERIFY(session.start());
	const auto *server = session.listener->findChild<QTcpServer *>();
	QVERIFY(server);
	QCOMPARE(server->serverAddress(), QHostAddress(QStringLiteral("127.0.0.1")));
	QCOMPARE(server->parent(), session.listener.get());
	QVERIFY(server->serverPort() >= 1024);
}

void OAuthListenerTest::stateIsARandomUuid()
{
	const QRegularExpression version4("^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$");
	Session session;
	QSet<QString> states;
	for (int i = 0; i < 50; ++i) {
		QVERIFY(session.start());
		QVERIFY2(version4.match(session.browser.state()).hasMatch(), qPrintable(session.browser.state()));
		states.insert(session.browser.state());
	}
	QCOMPARE(states.size(), 50);
}

void OAuthListenerTest::saysWhyItCannotListen()
{
	Session session;
	rlimit files;
	QCOMPARE(getrlimit(RLIMIT_NOFILE, &files), 0);
	QTcpServer other;
	bool opened = true;
	{
		// No socket can be had.
		const auto restore = qScopeGuard([&files] { setrlimit(RLIMIT_NOFILE, &files); });
		rlimit none = files;
		none.rlim_cur = 0;
		QCOMPARE(setrlimit(RLIMIT_NOFILE, &none), 0);
		QVERIFY(!other.listen(QHostAddress::LocalHost, 0));
		opened = session.listener->startLogin("google");
	}
	QVERIFY(!opened);
	QVERIFY(!other.errorString().isEmpty());
	QCOMPARE(session.log.lines(LOG_WARNING),
		 QStringList(kPrefix + "failed to start server: " + other.errorString()));
	QCOMPARE(session.log.lines(LOG_INFO), QStringList({kCleanedUp, kCleanedUp}));
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "Failed to start local auth server");
	QVERIFY(!session.listener->isListening());
	QVERIFY(session.browser.opened.isEmpty());
}

void OAuthListenerTest::saysThatTheBrowserDoesNotOpen()
{
	// This platform has no browser, so without the stand-in nothing opens.
	QCOMPARE(QGuiApplication::platformName(), "offscreen");
	LogCapture log;
	OAuthListener listener;
	const QSignalSpy failed(&listener, &OAuthListener::loginFailed);
	QTest::ignoreMessage(QtWarningMsg,
			     QRegularExpression("^This plugin does not support QPlatformServices::openUrl"));
	QVERIFY(!listener.startLogin("twitch"));
	QCOMPARE(log.lines(LOG_WARNING), QStringList(kPrefix + "failed to open system browser"));
	QCOMPARE(log.lines(LOG_INFO).size(), 4);
	QCOMPARE(log.lines(LOG_INFO).last(), kCleanedUp);
	QCOMPARE(failed.count(), 1);
	QCOMPARE(failed[0][0].toString(), "Could not open your browser for login");
	QVERIFY(!listener.isListening());
}

void OAuthListenerTest::nobodyElseCanHaveThePortOnIpv6_data()
{
	QTest::addColumn<std::vector<int>>("options");
	QTest::newRow("plainly") << std::vector<int>{};
	QTest::newRow("shared with whoever closes it") << std::vector<int>{SO_REUSEADDR};
	QTest::newRow("shared with others") << std::vector<int>{SO_REUSEPORT};
	QTest::newRow("shared in both ways") << std::vector<int>{SO_REUSEADDR, SO_REUSEPORT};
}

void OAuthListenerTest::nobodyElseCanHaveThePortOnIpv6()
{
	QFETCH(std::vector<int>, options);
	Session session;
	QVERIFY(session.start());
	QCOMPARE(strangerListens(in6addr_loopback, session.browser.port(), options), EADDRINUSE);
	QCOMPARE(strangerListens(in6addr_any, session.browser.port(), options), EADDRINUSE);
	// The attempt does not mind.
	Connection connection(session, session.callback("&token=t"));
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
}

void OAuthListenerTest::browserIsRefusedOnIpv6AtOnce()
{
	Session session;
	QVERIFY(session.start());
	QTcpSocket browser;
	browser.connectToHost(QHostAddress(QHostAddress::LocalHostIPv6), session.browser.port());
	QTRY_COMPARE(browser.error(), QAbstractSocket::ConnectionRefusedError);
	QVERIFY(session.connections().isEmpty());
}

void OAuthListenerTest::takesAnotherPortWhenSomebodyHasItOnIpv6()
{
	const auto release = qScopeGuard([] {
		std::for_each(taken.begin(), taken.end(), ::close);
		taken.clear();
	});
	portsToTake = 7;
	Session session;
	QVERIFY(session.listener->startLogin("google"));
	QCOMPARE(portsToTake, 0);
	const QString port = QString::number(session.browser.port());
	QCOMPARE(session.log.lines(LOG_INFO).value(1), kPrefix + "listening on port " + port + " for google login");
	QCOMPARE(session.log.ownLines().size(), 3);
	QCOMPARE(strangerListens(in6addr_loopback, session.browser.port(), {}), EADDRINUSE);
	QTcpSocket browser;
	browser.connectToHost(QHostAddress(QHostAddress::LocalHostIPv6), session.browser.port());
	QTRY_COMPARE(browser.error(), QAbstractSocket::ConnectionRefusedError);
	Connection connection(session, session.callback("&token=t"));
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
}

void OAuthListenerTest::givesUpWhenSomebodyHasAllPortsOnIpv6()
{
	const auto release = qScopeGuard([] {
		std::for_each(taken.begin(), taken.end(), ::close);
		taken.clear();
		portsToTake = 0;
	});
	portsToTake = 100;
	Session session;
	QVERIFY(!session.listener->startLogin("google"));
	QCOMPARE(taken.size(), size_t{8});
	QCOMPARE(session.log.lines(LOG_WARNING),
		 QStringList(kPrefix + "failed to start server: The bound address is already in use"));
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "Failed to start local auth server");
	QVERIFY(!session.listener->isListening());
	QVERIFY(session.browser.opened.isEmpty());
}

void OAuthListenerTest::portOnIpv6IsFreeAfterTheAttempt()
{
	Session session;
	QVERIFY(session.start());
	const quint16 port = session.browser.port();
	Connection connection(session, session.callback("&token=t"));
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QTRY_COMPARE(strangerListens(in6addr_loopback, port, {}), 0);
}

/** A socket that is bound and nothing else is ready for something in the eyes of the system, all the time. */
void OAuthListenerTest::waitingCostsNoTime()
{
	Session session;
	QVERIFY(session.start());
	const auto used = [] { return std::chrono::duration<double>(static_cast<double>(clock()) / CLOCKS_PER_SEC); };
	const auto before = used();
	QTest::qWait(500);
	QVERIFY2(used() - before < 100ms, qPrintable(QString::number((used() - before).count())));
}

void OAuthListenerTest::signsIn()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback("&token=" + kSecret.toLatin1() + "&max_target_languages=3"));
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
	QCOMPARE(session.succeeded[0][0].toString(), kSecret);
	QCOMPARE(session.succeeded[0][1].toInt(), 3);
	QCOMPARE(session.failed.count(), 0);
	QVERIFY(!session.listener->isListening());
	QCOMPARE(session.log.lines(LOG_INFO),
		 QStringList({kPrefix + "login successful, token received (length=20)", kCleanedUp}));
	QCOMPARE(session.log.ownLines().size(), 2);
}

void OAuthListenerTest::signsInWithTheFirstValueAmongTheTokens_data()
{
	QTest::addColumn<QByteArray>("items");
	QTest::addColumn<QString>("token");
	QTest::newRow("token") << QByteArray("&token=t") << "t";
	QTest::newRow("token first") << QByteArray("&key=k&api_key=a&token=t") << "t";
	QTest::newRow("then api_key") << QByteArray("&key=k&api_key=a&token=") << "a";
	QTest::newRow("then key") << QByteArray("&key=k&api_key=&token=") << "k";
	QTest::newRow("key alone") << QByteArray("&key=k") << "k";
	QTest::newRow("percent-encoded") << QByteArray("&token=a%2Bb%2F%3D%20c") << "a+b/= c";
	QTest::newRow("encoded UTF-8") << QByteArray("&token=%E2%82%AC") << QString::fromUtf8("€");
	QTest::newRow("raw UTF-8") << QByteArray("&token=\xE2\x82\xAC") << QString::fromUtf8("€");
}

void OAuthListenerTest::signsInWithTheFirstValueAmongTheTokens()
{
	QFETCH(QByteArray, items);
	QFETCH(QString, token);
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback(items));
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
	QCOMPARE(session.succeeded[0][0].toString(), token);
	QCOMPARE(session.succeeded[0][1].toInt(), 0);
	QVERIFY(session.log.contains(
		LOG_INFO, kPrefix + QStringLiteral("login successful, token received (length=%1)").arg(token.size())));
}

void OAuthListenerTest::callbackWithOnlyAnApiKeySignsInWithIt()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback("&api_key=tak_live_1"));
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
	QCOMPARE(session.succeeded[0][0].toString(), "tak_live_1");
}

void OAuthListenerTest::passesTheLanguageAllowanceOn_data()
{
	QTest::addColumn<QByteArray>("items");
	QTest::addColumn<int>("languages");
	QTest::newRow("given") << QByteArray("&max_target_languages=5") << 5;
	QTest::newRow("missing") << QByteArray() << 0;
	QTest::newRow("negative") << QByteArray("&max_target_languages=-4") << -4;
	QTest::newRow("greatest") << QByteArray("&max_target_languages=2147483647") << 2147483647;
	QTest::newRow("out of range") << QByteArray("&max_target_languages=2147483648") << 0;
	QTest::newRow("empty") << QByteArray("&max_target_languages=") << 0;
}

void OAuthListenerTest::passesTheLanguageAllowanceOn()
{
	QFETCH(QByteArray, items);
	QFETCH(int, languages);
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback("&token=t" + items));
	QTRY_COMPARE(session.succeeded.count(), 1);
	QCOMPARE(session.succeeded[0][1].toInt(), languages);
}

void OAuthListenerTest::maxTargetLanguagesThatIsNotANumberYields0()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback("&token=t&max_target_languages=many"));
	QTRY_COMPARE(session.succeeded.count(), 1);
	QCOMPARE(session.succeeded[0][1].toInt(), 0);
}

void OAuthListenerTest::neverLogsTheToken()
{
	Session session;
	for (const char *item : {"&token=", "&api_key=", "&key=", "&error=denied&token="}) {
		QVERIFY(session.listener->startLogin("kick"));
		Connection connection(session, session.callback(item + kSecret.toLatin1()));
		QVERIFY(connection.answer().startsWith("HTTP/1.1 200 OK\r\n"));
	}
	QVERIFY(session.listener->startLogin("kick"));
	Connection forged(session, "GET /callback?state=x&token=" + kSecret.toLatin1() + " HTTP/1.1\r\n\r\n");
	QVERIFY(forged.answer().startsWith("HTTP/1.1 400 OK\r\n"));

	const QStringList lines = session.log.ownLines();
	QVERIFY(lines.size() >= 15);
	for (const QString &line : lines) {
		QVERIFY2(!line.contains(kSecret), qPrintable(line));
	}
}

void OAuthListenerTest::refusesAWrongState_data()
{
	QTest::addColumn<QByteArray>("query");
	QTest::newRow("no query") << QByteArray();
	QTest::newRow("no state") << QByteArray("?token=t");
	QTest::newRow("empty state") << QByteArray("?state=&token=t");
	QTest::newRow("another state") << QByteArray("?state=00000000-0000-4000-8000-000000000000&token=t");
	QTest::newRow("in capitals") << QByteArray("?state=CAPITALS&token=t");
	QTest::newRow("with a blank behind it") << QByteArray("?state=STATE%20&token=t");
	QTest::newRow("shortened") << QByteArray("?state=SHORT&token=t");
	QTest::newRow("with an error") << QByteArray("?state=x&error=denied");
	QTest::newRow("the first of two counts") << QByteArray("?state=x&state=STATE&token=t");
	QTest::newRow("name in capitals") << QByteArray("?State=STATE&token=t");
}

void OAuthListenerTest::refusesAWrongState()
{
	QFETCH(QByteArray, query);
	Session session;
	QVERIFY(session.start());
	// A UUID without letters would be the same in capitals; one in 10^7 is.
	const QByteArray state = session.browser.state().toLatin1();
	query.replace("STATE", state).replace("CAPITALS", state.toUpper() + (state.toUpper() == state ? "A" : ""));
	query.replace("SHORT", state.chopped(1));

	Connection connection(session, "GET /callback" + query + " HTTP/1.1\r\n\r\n");
	QCOMPARE(connection.answer(), response("400", kMismatchPage));
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "Security validation failed. Please try again.");
	QCOMPARE(session.succeeded.count(), 0);
	QCOMPARE(session.log.lines(LOG_WARNING), QStringList(kPrefix + "state mismatch (CSRF check failed)"));
	QCOMPARE(session.log.lines(LOG_INFO), QStringList(kCleanedUp));
	QVERIFY(!session.listener->isListening());
}

void OAuthListenerTest::passesTheErrorOn_data()
{
	QTest::addColumn<QByteArray>("items");
	QTest::addColumn<QString>("error");
	QTest::newRow("a word") << QByteArray("&error=access_denied") << "access_denied";
	QTest::newRow("a sentence") << QByteArray("&error=You%20said%20no.") << "You said no.";
	QTest::newRow("empty") << QByteArray("&error=") << "";
	QTest::newRow("without a value") << QByteArray("&error") << "";
	QTest::newRow("encoded UTF-8") << QByteArray("&error=%C3%A9chec%20%E2%80%94%20%D0%BD%D0%B5%D1%82")
				       << QString::fromUtf8("échec — нет");
	QTest::newRow("raw UTF-8") << QByteArray("&error=\xC3\xA9"
						 "chec")
				   << QString::fromUtf8("échec");
	QTest::newRow("place markers") << QByteArray("&error=%251%25s%25n") << "%1%s%n";
}

void OAuthListenerTest::passesTheErrorOn()
{
	QFETCH(QByteArray, items);
	QFETCH(QString, error);
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback(items));
	QCOMPARE(connection.answer(), response("200", kFailureStart + error + kFailureEnd));
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), error);
	QCOMPARE(session.succeeded.count(), 0);
	QCOMPARE(session.log.lines(LOG_WARNING), QStringList(kPrefix + "auth error: " + error));
	QCOMPARE(session.log.lines(LOG_INFO), QStringList(kCleanedUp));
	QVERIFY(!session.listener->isListening());
}

void OAuthListenerTest::errorWithMarkupIsEscapedOnThePageAndNotInTheSignal()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback("&error=%3Cscript%3Ealert(%221%22)%3C/script%3E%20%26%20more"));
	QCOMPARE(connection.answer(),
		 response("200", kFailureStart + "&lt;script&gt;alert(&quot;1&quot;)&lt;/script&gt; &amp; more" +
					 kFailureEnd));
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "<script>alert(\"1\")</script> & more");
	QCOMPARE(session.log.lines(LOG_WARNING),
		 QStringList(kPrefix + "auth error: <script>alert(\"1\")</script> & more"));
}

void OAuthListenerTest::errorComesBeforeAToken()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback("&token=t&error=denied"));
	QCOMPARE(connection.answer(), response("200", kFailureStart + "denied" + kFailureEnd));
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.succeeded.count(), 0);
}

void OAuthListenerTest::reportsAMissingToken()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback("&token=&max_target_languages=3"));
	QCOMPARE(connection.answer(),
		 response("200", kFailureStart + "No authentication token received." + kFailureEnd));
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "No token received from auth server");
	QCOMPARE(session.succeeded.count(), 0);
	QCOMPARE(session.log.lines(LOG_WARNING), QStringList(kPrefix + "callback received but no token param"));
	QCOMPARE(session.log.lines(LOG_INFO), QStringList(kCleanedUp));
	QVERIFY(!session.listener->isListening());
}

void OAuthListenerTest::answersABadRequestAndGoesOnListening_data()
{
	QTest::addColumn<QByteArray>("request");
	QTest::newRow("blank line only") << QByteArray("\r\n\r\n");
	QTest::newRow("no space") << QByteArray("GET/callback\r\n\r\n");
	QTest::newRow("one space") << QByteArray("GET /callback\r\n\r\n");
	QTest::newRow("not text") << QByteArray("\x16\x03\x01\x00\xFF\xFE\r\n\r\n", 10);
}

void OAuthListenerTest::answersABadRequestAndGoesOnListening()
{
	QFETCH(QByteArray, request);
	Session session;
	QVERIFY(session.start());
	Connection connection(session, request);
	QCOMPARE(connection.answer(), response("400", "<h1>Bad Request</h1>"));
	QCOMPARE(session.signalCount(), 0);
	QVERIFY(session.log.ownLines().isEmpty());
	QVERIFY(session.listener->isListening());
}

void OAuthListenerTest::answersNotFound_data()
{
	QTest::addColumn<QByteArray>("target");
	QTest::newRow("favicon") << QByteArray("/favicon.ico");
	QTest::newRow("root") << QByteArray("/");
	QTest::newRow("trailing slash") << QByteArray("/callback/");
	QTest::newRow("capitals") << QByteArray("/CALLBACK");
	QTest::newRow("longer") << QByteArray("/callback.html");
	QTest::newRow("doubled slash") << QByteArray("//callback");
	QTest::newRow("nothing") << QByteArray();
}

void OAuthListenerTest::answersNotFound()
{
	QFETCH(QByteArray, target);
	Session session;
	QVERIFY(session.start());
	Connection connection(session, "GET " + target + " HTTP/1.1\r\n\r\n");
	QCOMPARE(connection.answer(), response("404", "<h1>Not Found</h1>"));
	QCOMPARE(session.signalCount(), 0);
	QVERIFY(session.log.ownLines().isEmpty());
	QVERIFY(session.listener->isListening());
}

void OAuthListenerTest::realCallbackAfterTheFaviconIsIgnored()
{
	Session session;
	QVERIFY(session.start());
	Connection favicon(session, "GET /favicon.ico HTTP/1.1\r\n\r\n");
	QCOMPARE(favicon.answer(), response("404", "<h1>Not Found</h1>"));

	const QByteArray request = session.callback("&token=t");
	Connection real(session, request);
	QTRY_COMPARE(session.unread(), request.size());
	QCOMPARE(session.signalCount(), 0);
	QCOMPARE(real.socket.bytesAvailable(), 0);
	QVERIFY(!real.isClosed());
	QVERIFY(session.listener->isListening());
}

void OAuthListenerTest::realCallbackAfterABadRequestIsIgnored()
{
	Session session;
	QVERIFY(session.start());
	Connection bad(session, "\r\n\r\n");
	QCOMPARE(bad.answer(), response("400", "<h1>Bad Request</h1>"));

	const QByteArray request = session.callback("&token=t");
	Connection real(session, request);
	QTRY_COMPARE(session.unread(), request.size());
	QCOMPARE(session.signalCount(), 0);
	QVERIFY(session.listener->isListening());
}

void OAuthListenerTest::assemblesAHeadSplitOverSegments()
{
	Session session;
	QVERIFY(session.start());
	const QByteArray request = session.callback("&token=%E2%82%AC");
	// In the middle of the state, of a UTF-8 sequence's encoding and of the blank line.
	const QList<qsizetype> cuts = {0, 30, request.indexOf("%82") + 1, request.size() - 3, request.size() - 1};
	Connection connection(session);
	for (qsizetype i = 0; i + 1 < cuts.size(); ++i) {
		connection.send(request.mid(cuts[i], cuts[i + 1] - cuts[i]));
		QTRY_COMPARE(session.buffered(), request.first(cuts[i + 1]));
		QCOMPARE(session.signalCount(), 0);
	}
	connection.send(request.last(1));
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
	QCOMPARE(session.succeeded[0][0].toString(), QString::fromUtf8("€"));
}

void OAuthListenerTest::assemblesAHeadThatComesByteByByte()
{
	Session session;
	QVERIFY(session.start());
	const QByteArray request = session.callback("&token=t");
	Connection connection(session);
	for (qsizetype i = 0; i + 1 < request.size(); ++i) {
		connection.send(request.mid(i, 1));
		QTRY_COMPARE(session.buffered().size(), i + 1);
	}
	connection.send(request.last(1));
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
}

void OAuthListenerTest::keepsTheHeadsOfTwoConnectionsApart()
{
	Session session;
	QVERIFY(session.start());
	const QByteArray request = session.callback("&token=t");
	Connection first(session, request.first(20));
	QTRY_COMPARE(session.buffered(), request.first(20));
	Connection second(session, "GET /favicon.ico HT");
	QTRY_COMPARE(session.buffered(), "GET /favicon.ico HT");
	QCOMPARE(session.connections().size(), 2);

	first.send(request.sliced(20));
	QCOMPARE(first.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
	QCOMPARE(session.failed.count(), 0);
}

void OAuthListenerTest::takesOnlyTheFirstOfTwoRequests()
{
	Session session;
	QVERIFY(session.start());
	const QByteArray request = session.callback("&token=late");
	Connection first(session, "GET / HT");
	QTRY_COMPARE(session.buffered(), "GET / HT");
	Connection second(session, request.chopped(2));
	QTRY_COMPARE(session.buffered(), request.chopped(2));

	first.send("TP/1.1\r\n\r\n");
	QCOMPARE(first.answer(), response("404", "<h1>Not Found</h1>"));
	second.send("\r\n");
	QTRY_COMPARE(session.unread(), 2);
	QCOMPARE(session.signalCount(), 0);
	QVERIFY(!second.isClosed());
}

void OAuthListenerTest::neverReadsABody()
{
	Session session;
	QVERIFY(session.start());
	const QByteArray head = "POST /callback?state=" + session.browser.state().toLatin1() +
				" HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
				"Content-Length: 7\r\n\r\n";
	Connection whole(session, head + "token=t");
	QCOMPARE(whole.answer(), response("200", kFailureStart + "No authentication token received." + kFailureEnd));
	QCOMPARE(session.failed.count(), 1);

	// A body that was announced is not waited for.
	QVERIFY(session.start());
	Connection announced(session, "POST /callback?token=t&state=" + session.browser.state().toLatin1() +
					      " HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n");
	QCOMPARE(announced.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
}

void OAuthListenerTest::methodWordIsNotChecked()
{
	Session session;
	for (const char *method : {"HEAD", "get", "BREW", ""}) {
		QVERIFY(session.start());
		Connection connection(session, session.callback("&token=t").replace(0, 3, method));
		QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	}
	QCOMPARE(session.succeeded.count(), 4);
}

void OAuthListenerTest::survivesAConnectionThatClosesEarly()
{
	Session session;
	QVERIFY(session.start());
	Connection silent(session);
	QVERIFY(silent.isOpen());
	QTRY_COMPARE(session.connections().size(), 1);
	silent.close();
	QTRY_VERIFY(session.connections().isEmpty());

	Connection early(session, "GET /callback?sta");
	QTRY_COMPARE(session.buffered(), "GET /callback?sta");
	early.close();
	QTRY_VERIFY(session.connections().isEmpty());
	QCOMPARE(session.signalCount(), 0);

	Connection real(session, session.callback("&token=t"));
	QCOMPARE(real.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
}

void OAuthListenerTest::survivesABrowserThatDoesNotWaitForTheAnswer()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, session.callback("&token=t"));
	connection.socket.abort();
	QTRY_COMPARE(session.succeeded.count(), 1);
	QTRY_VERIFY(session.connections().isEmpty());
}

void OAuthListenerTest::survivesGarbage()
{
	Session session;
	QRandomGenerator random(20);
	for (int round = 0; round < 100; ++round) {
		QVERIFY(session.start());
		QByteArray garbage(random.bounded(1, 2000), '\0');
		for (char &byte : garbage) {
			byte = static_cast<char>(random.bounded(256));
		}
		Connection connection(session, garbage + "\r\n\r\n");
		const QByteArray answer = connection.answer();
		QVERIFY2(answer == response("400", "<h1>Bad Request</h1>") ||
				 answer == response("404", "<h1>Not Found</h1>"),
			 answer.constData());
	}
	QCOMPARE(session.signalCount(), 0);
}

void OAuthListenerTest::headHasNoSizeLimit()
{
	Session session;
	QVERIFY(session.start());
	const QByteArray head = session.callback("&token=t").chopped(2) + "Padding: " + QByteArray(8 << 20, 'x');
	Connection connection(session, head);
	QTRY_COMPARE(session.buffered().size(), head.size());
	QCOMPARE(session.signalCount(), 0);
	connection.send("\r\n\r\n");
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);

	// One that never ends is held until the time is up.
	QVERIFY(session.start());
	Connection endless(session, head);
	QTRY_COMPARE(session.buffered().size(), head.size());
	session.listener->findChild<QTimer *>()->start(0);
	QTRY_COMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "Login timed out. Please try again.");
}

/** A program that opens connections and says nothing takes neither OBS's descriptors nor the browser's turn. */
void OAuthListenerTest::manyConnectionsDoNotPileUp()
{
	Session session;
	QVERIFY(session.start());
	std::vector<std::unique_ptr<Connection>> idle;
	for (int i = 0; i < 200; ++i) {
		idle.push_back(std::make_unique<Connection>(session));
		QVERIFY(idle.back()->isOpen());
	}
	const auto dropped = [&idle] {
		return std::count_if(idle.begin(), idle.end(), [](const auto &each) { return each->isClosed(); });
	};
	QTRY_COMPARE(dropped(), 136);
	QTRY_COMPARE(session.connections().size(), 64);
	QVERIFY2(!idle.back()->isClosed(), "the newest ones are kept");

	Connection browser(session, session.callback("&token=" + kSecret.toLatin1()));
	QTRY_COMPARE(session.succeeded.count(), 1);
	QVERIFY(browser.answer().startsWith("HTTP/1.1 200 OK"));
}

void OAuthListenerTest::whatIsNotHeardDoesNotPileUp()
{
	Session session;
	QVERIFY(session.start());
	Connection first(session, "GET /favicon.ico HTTP/1.1\r\n\r\n");
	QVERIFY(first.answer().startsWith("HTTP/1.1 404 OK"));

	// Far more than the system holds between the two ends.
	Connection flood(session);
	QVERIFY(flood.isOpen());
	flood.socket.write(QByteArray(64 * 1024 * 1024, 'x'));
	QTRY_COMPARE(session.unread(), 64 * 1024);
	QTest::qWait(200);
	QCOMPARE(session.unread(), 64 * 1024);
	QVERIFY(flood.socket.bytesToWrite() > 32 * 1024 * 1024);
	QCOMPARE(session.buffered(), QByteArray());
}

void OAuthListenerTest::timesOutAfter120Seconds()
{
	Session session;
	QVERIFY(session.start());
	auto *timer = session.listener->findChild<QTimer *>();
	QVERIFY(timer);
	QCOMPARE(timer->parent(), session.listener.get());
	QCOMPARE(timer->interval(), 120000);
	QVERIFY(timer->isSingleShot());
	QVERIFY(timer->isActive());
	QVERIFY(timer->remainingTime() > 60000);

	timer->start(0);
	QTRY_COMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "Login timed out. Please try again.");
	QCOMPARE(session.succeeded.count(), 0);
	QCOMPARE(session.log.lines(LOG_WARNING), QStringList(kPrefix + "login timed out after 120 seconds"));
	QCOMPARE(session.log.lines(LOG_INFO), QStringList(kCleanedUp));
	QVERIFY(!session.listener->isListening());
	QTRY_VERIFY(session.listener->children().isEmpty());
}

void OAuthListenerTest::timeoutIsOffWhenTheAttemptEnds()
{
	Session session;
	QVERIFY(session.start());
	const QPointer<QTimer> timer = session.listener->findChild<QTimer *>();
	const QPointer<QTcpServer> server = session.listener->findChild<QTcpServer *>();
	session.listener->abort();
	QVERIFY(!timer->isActive());
	QVERIFY(!server->isListening());
	QTRY_VERIFY(timer.isNull());
	QTRY_VERIFY(server.isNull());
	QCOMPARE(session.failed.count(), 1);
}

void OAuthListenerTest::timesOutWhenDeafAfterNotFound()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, "GET / HTTP/1.1\r\n\r\n");
	QCOMPARE(connection.answer(), response("404", "<h1>Not Found</h1>"));
	session.listener->findChild<QTimer *>()->start(0);
	QTRY_COMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "Login timed out. Please try again.");
	QVERIFY(!session.listener->isListening());
}

void OAuthListenerTest::abortCancelsTheAttempt()
{
	Session session;
	QVERIFY(session.start());
	session.listener->abort();
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "Login cancelled");
	QCOMPARE(session.log.lines(LOG_INFO), QStringList({kPrefix + "login aborted by user", kCleanedUp}));
	QCOMPARE(session.log.ownLines().size(), 2);
	QVERIFY(!session.listener->isListening());

	session.listener->abort();
	QCOMPARE(session.failed.count(), 1);
}

void OAuthListenerTest::abortWithNoAttemptRunningEmitsNothing()
{
	Session session;
	session.listener->abort();
	QCOMPARE(session.signalCount(), 0);
	QCOMPARE(session.log.ownLines(), QStringList(kCleanedUp));
}

void OAuthListenerTest::abortEndsADeafAttempt()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, "\r\n\r\n");
	QCOMPARE(connection.answer(), response("400", "<h1>Bad Request</h1>"));
	session.listener->abort();
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "Login cancelled");
}

void OAuthListenerTest::secondStartGetsANewPortAndANewState()
{
	Session session;
	QVERIFY(session.start());
	const quint16 firstPort = session.browser.port();
	const QString firstState = session.browser.state();
	QVERIFY(session.listener->startLogin("twitch"));
	QVERIFY(session.browser.port() != firstPort);
	QVERIFY(session.browser.state() != firstState);
	QCOMPARE(session.browser.opened.size(), 2);
	// The first one is gone without a word to the owner.
	QCOMPARE(session.signalCount(), 0);
	QCOMPARE(session.log.lines(LOG_INFO).first(), kCleanedUp);
	QTcpSocket late;
	late.connectToHost(QHostAddress::LocalHost, firstPort);
	QTRY_COMPARE(late.error(), QAbstractSocket::ConnectionRefusedError);
}

void OAuthListenerTest::callbackWithTheStateOfAnEarlierAttemptFails()
{
	Session session;
	QVERIFY(session.start());
	const QByteArray stale = session.callback("&token=t");
	QVERIFY(session.start());
	Connection connection(session, stale);
	QCOMPARE(connection.answer(), response("400", kMismatchPage));
	QCOMPARE(session.failed.count(), 1);
	QCOMPARE(session.failed[0][0].toString(), "Security validation failed. Please try again.");
	QCOMPARE(session.succeeded.count(), 0);
}

void OAuthListenerTest::connectionOfAnEarlierAttemptIsNotHeard()
{
	Session session;
	QVERIFY(session.start());
	const QByteArray stale = session.callback("&token=stale");
	Connection old(session, stale.chopped(2));
	QTRY_COMPARE(session.buffered(), stale.chopped(2));

	QVERIFY(session.start());
	old.send("\r\n");
	QTRY_COMPARE(session.unread(), 2);
	QCOMPARE(session.signalCount(), 0);
	Connection real(session, session.callback("&token=new"));
	QCOMPARE(real.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 1);
	QCOMPARE(session.succeeded[0][0].toString(), "new");
}

void OAuthListenerTest::connectionIsNotHeardAfterAnAbort()
{
	Session session;
	QVERIFY(session.start());
	const QByteArray request = session.callback("&token=t");
	Connection connection(session, request.chopped(2));
	QTRY_COMPARE(session.buffered(), request.chopped(2));
	session.listener->abort();
	connection.send("\r\n");
	QTRY_COMPARE(session.unread(), 2);
	QCOMPARE(session.succeeded.count(), 0);
	QCOMPARE(session.failed.count(), 1);
}

void OAuthListenerTest::connectionStaysOpenWhenTheAttemptEnds()
{
	Session session;
	QVERIFY(session.start());
	Connection connection(session, "GET /");
	QTRY_COMPARE(session.buffered(), "GET /");
	const QPointer<QTcpServer> server = session.listener->findChild<QTcpServer *>();
	session.listener->abort();
	QTRY_VERIFY(server.isNull());
	QCOMPARE(session.connections().size(), 1);
	QCOMPARE(session.connections().first()->state(), QAbstractSocket::ConnectedState);
	connection.close();
	QTRY_VERIFY(session.connections().isEmpty());
}

void OAuthListenerTest::connectionsDeleteThemselvesWhenTheyEnd()
{
	Session session;
	QVERIFY(session.start());
	std::vector<std::unique_ptr<Connection>> connections;
	connections.reserve(40);
	for (int i = 0; i < 40; ++i) {
		connections.push_back(std::make_unique<Connection>(session, "GET"));
	}
	QTRY_COMPARE(session.connections().size(), 40);
	connections.clear();
	QTRY_VERIFY(session.connections().isEmpty());
	QVERIFY(session.listener->isListening());
	QCOMPARE(session.signalCount(), 0);
}

void OAuthListenerTest::destructionClosesAnOpenConnection()
{
	Session session;
	QVERIFY(session.start());
	Connection partial(session, "GET /callback?state=");
	QTRY_COMPARE(session.buffered(), "GET /callback?state=");
	Connection silent(session);
	QVERIFY(silent.isOpen());
	QTRY_COMPARE(session.connections().size(), 2);
	session.listener.reset();
	QCOMPARE(partial.answer(), "");
	QCOMPARE(silent.answer(), "");
	QCOMPARE(session.signalCount(), 0);
}

void OAuthListenerTest::destructionUponTheSignalDoesNotCutTheAnswer()
{
	Session session;
	QVERIFY(session.start());
	OAuthListener *listener = session.listener.release();
	const QPointer<OAuthListener> alive = listener;
	QObject::connect(listener, &OAuthListener::loginSucceeded, listener, &QObject::deleteLater);
	Connection connection(session, "GET /callback?token=t&state=" + session.browser.state().toLatin1() +
					       " HTTP/1.1\r\n\r\n");
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QTRY_VERIFY(alive.isNull());
}

void OAuthListenerTest::listensAgainAfterEachEnd()
{
	Session session;
	for (const char *items : {"&error=denied", "", "&token=t"}) {
		QVERIFY(session.start());
		Connection connection(session, session.callback(items));
		QVERIFY(connection.answer().startsWith("HTTP/1.1 200 OK\r\n"));
		QVERIFY(!session.listener->isListening());
	}
	QVERIFY(session.start());
	Connection favicon(session, "GET /favicon.ico HTTP/1.1\r\n\r\n");
	QVERIFY(favicon.answer().startsWith("HTTP/1.1 404 OK\r\n"));
	// A new attempt hears again.
	QVERIFY(session.start());
	Connection connection(session, session.callback("&token=again"));
	QCOMPARE(connection.answer(), response("200", signInSuccessPage()));
	QCOMPARE(session.succeeded.count(), 2);
	QCOMPARE(session.failed.count(), 2);
}

QTEST_MAIN(OAuthListenerTest)

#include "oauth-listener-test.moc"

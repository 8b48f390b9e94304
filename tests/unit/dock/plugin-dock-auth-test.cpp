// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "deployment.h"
#include "dock/account-section.h"
#include "dock/language-rows.h"
#include "dock/session-panel.h"
#include "dock/settings-section.h"
#include "dock/sign-in-panel.h"
#include "sign-in/oauth-listener.h"

#include "dock-session.h"
#include "test-certificates.h"

#include <QApplication>
#include <QDesktopServices>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QPushButton>
#include <QSslServer>
#include <QSslSocket>
#include <QTest>
#include <QTimer>
#include <QUrl>
#include <QUrlQuery>
#include <QVBoxLayout>

#include <memory>
#include <optional>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

/** The web sign-in at the address this build is made for: HTTPS with a certificate of a root the machine trusts. */
class SignInService : public QObject {
public:
	explicit SignInService(const QSslConfiguration &certificate, quint16 port = 3003)
	{
		server.setSslConfiguration(certificate);
		connect(&server, &QSslServer::pendingConnectionAvailable, this, &SignInService::accept);
		listening = server.listen(QHostAddress::LocalHost, port);
	}

	/** The whole answer to each request from now on; none when empty. */
	void answer(const QByteArray &status, const QByteArray &body)
	{
		response = "HTTP/1.1 " + status + "\r\nContent-Length: " + QByteArray::number(body.size()) +
			   "\r\nConnection: close\r\n\r\n" + body;
	}

	/** Sends the first who asks to another address. */
	void redirect(const QByteArray &status, const QString &address)
	{
		redirection = "HTTP/1.1 " + status + "\r\nLocation: " + address.toUtf8() +
			      "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
	}
	/** Answers those who wait. */
	void answerLate()
	{
		for (const QPointer<QTcpSocket> &socket : std::as_const(waiting)) {
			if (socket) {
				socket->write(response);
				socket->disconnectFromHost();
			}
		}
	}
	quint16 port() const { return server.serverPort(); }

	struct Request {
		QByteArray line;
		QList<QByteArray> headers;
		QByteArray body;
	};
	QList<Request> requests;
	bool listening = false;

private:
	void accept()
	{
		while (QTcpSocket *socket = server.nextPendingConnection()) {
			connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
			connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
		}
	}

	void read(QTcpSocket *socket)
	{
		QByteArray data = socket->property("received").toByteArray() + socket->readAll();
		socket->setProperty("received", data);
		const qsizetype end = data.indexOf("\r\n\r\n");
		if (end < 0) {
			return;
		}
		Request request;
		request.headers = data.left(end).split('\n');
		request.line = request.headers.takeFirst().trimmed();
		qsizetype length = 0;
		for (QByteArray &header : request.headers) {
			header = header.trimmed();
			if (header.toLower().startsWith("content-length:")) {
				length = header.mid(15).trimmed().toLongLong();
			}
		}
		request.body = data.mid(end + 4);
		if (request.body.size() < length) {
			return;
		}
		requests.append(request);
		if (!redirection.isEmpty()) {
			socket->write(std::exchange(redirection, {}));
			socket->disconnectFromHost();
			return;
		}
		waiting.append(socket);
		if (!response.isEmpty()) {
			answerLate();
			waiting.clear();
		}
	}

	QSslServer server;
	QByteArray response;
	QByteArray redirection;
	QList<QPointer<QTcpSocket>> waiting;
};

QString red(const QString &text)
{
	return u"<span style='color:red'>"_s + text + u"</span>"_s;
}

} // namespace

/** The sign-in section. */
class PluginDockTest : public QObject {
	Q_OBJECT

public Q_SLOTS:
	/** In place of the system's browser. */
	void open(const QUrl &address) { opened.append(address); }

private Q_SLOTS:
	void initTestCase();
	void init();
	void cleanup();

	// What is there
	void widgetsFromTopToBottom();
	void looks_data();
	void looks();
	void fieldsOfTheSignIn();
	void sessionPanelFromTopToBottom();
	void buttonsHaveThePointingHand();

	// States
	void signingInSwitchesThePanels();
	void signingOutEnablesEverything();

	// API key
	void apiKeyRowIsToggled();
	void apiKeySignsIn();
	void dockGoesWithItsWarning();
	void emptyApiKeyIsRefusedWithAWarning_data();
	void emptyApiKeyIsRefusedWithAWarning();

	// E-mail
	void missingCredentialsAreRefused_data();
	void missingCredentialsAreRefused();
	void requestIsAsAgreed();
	void emailIsTrimmedAndPasswordIsNot();
	void enterInThePasswordFieldSignsIn();
	void runningAttemptDisablesTheButtons();
	void secondAttemptByEnterHasItsOwnRequest();
	void keyIsTakenFromTheAnswer_data();
	void keyIsTakenFromTheAnswer();
	void limitIsTakenWhenPositive_data();
	void limitIsTakenWhenPositive();
	void answerWithoutKeyLeavesTheButtonsDisabled_data();
	void answerWithoutKeyLeavesTheButtonsDisabled();
	void httpErrorsAreShownAndLogged_data();
	void httpErrorsAreShownAndLogged();
	void errorWithoutBodyShowsQtsText();
	void unreachableServiceIsReported();
	void unknownCertificateIsRefused();
	void passwordIsNotSentOnToAnotherOrigin_data();
	void passwordIsNotSentOnToAnotherOrigin();
	void redirectWithinTheOriginIsFollowed();
	void heldEnterIsOneAttempt_data();
	void heldEnterIsOneAttempt();
	void lateAnswerChangesNothing_data();
	void lateAnswerChangesNothing();
	void keyAndPasswordAreNeverLogged();
	void dockDestroyedDuringAnAttemptIsSafe();
	void replyAndManagerAreDeleted();

	// Google, Twitch, Kick
	void providerButtonsOpenTheirPages_data();
	void providerButtonsOpenTheirPages();
	void secondProviderClickAbortsTheFirst();
	void browserSignInSucceeds();
	void browserSignInWithoutLimitKeepsIt();
	void browserSignInFails();
	void signingInByKeyAbandonsTheBrowser();
	void dockDestroyedDuringBrowserSignInAborts();

	// Signing out
	void signingOutForgetsKeyAndLimit();
	void signingOutStopsTheSessionFirst();
	void signingOutEmptiesTheFields();

private:
	PluginDock &make()
	{
		dock = std::make_unique<PluginDock>(plugin.get(), nullptr);
		dock->resize(380, 800);
		dock->setVisible(true);
		return *dock;
	}
	QList<QPushButton *> signInButtons() const
	{
		return {dock->account->signIn->signInButton, dock->account->signIn->googleButton,
			dock->account->signIn->twitchButton, dock->account->signIn->kickButton};
	}
	bool signInButtonsAre(bool enabled) const
	{
		for (const QPushButton *button : signInButtons()) {
			if (button->isEnabled() != enabled) {
				return false;
			}
		}
		return true;
	}
	QPushButton *buttonNamed(const QString &text) const
	{
		for (QPushButton *button : dock->findChildren<QPushButton *>()) {
			if (button->text() == text) {
				return button;
			}
		}
		return nullptr;
	}
	void startService()
	{
		service.emplace(*certificate);
		QVERIFY(service->listening);
	}
	/** Fills in the fields and presses the button. */
	void signIn(const QString &email = u"a@example.org"_s, const QString &password = u"secret word"_s)
	{
		dock->account->signIn->emailEdit->setText(email);
		dock->account->signIn->passwordEdit->setText(password);
		QTest::mouseClick(dock->account->signIn->signInButton, Qt::LeftButton);
	}
	int attemptsRunning() const
	{
		return static_cast<int>(dock->findChildren<QNetworkAccessManager *>(Qt::FindDirectChildrenOnly).size());
	}

	std::optional<QSslConfiguration> certificate;
	std::optional<DockSession> session;
	std::optional<SignInService> service;
	std::unique_ptr<TalvoraPlugin> plugin;
	std::unique_ptr<PluginDock> dock;
	QList<QUrl> opened;
};

void PluginDockTest::initTestCase()
{
	certificate = trustedServerCertificate(u"localhost"_s);
	QVERIFY(certificate);
}

void PluginDockTest::init()
{
	session.emplace();
	plugin.reset(new TalvoraPlugin());
	opened.clear();
	QDesktopServices::setUrlHandler(u"https"_s, this, "open");
}

void PluginDockTest::cleanup()
{
	QDesktopServices::unsetUrlHandler(u"https"_s);
	dock.reset();
	plugin.reset();
	service.reset();
	session.reset();
}

// What is there

void PluginDockTest::widgetsFromTopToBottom()
{
	make();
	dock->account->signIn->onShowApiKeyClicked();
	QCoreApplication::processEvents();
	auto *rows = qobject_cast<QVBoxLayout *>(dock->account->signIn->layout());
	QVERIFY(rows);
	QCOMPARE(rows->contentsMargins(), QMargins());
	QCOMPARE(rows->count(), 8);
	const auto at = [rows](int index) { return rows->itemAt(index)->widget(); };
	QCOMPARE(at(0), dock->account->signIn->emailEdit);
	QCOMPARE(at(1), dock->account->signIn->passwordEdit);
	QCOMPARE(at(2), dock->account->signIn->signInButton);
	QCOMPARE(qobject_cast<QLabel *>(at(3))->text(), u"Dock.Auth.OrSignInWith"_s);
	QCOMPARE(at(4)->layout()->itemAt(0)->widget(), dock->account->signIn->googleButton);
	QCOMPARE(at(4)->layout()->itemAt(1)->widget(), dock->account->signIn->twitchButton);
	QCOMPARE(at(4)->layout()->itemAt(2)->widget(), dock->account->signIn->kickButton);
	QCOMPARE(qobject_cast<QPushButton *>(at(5))->text(), u"Dock.Auth.UseApiKey"_s);
	QCOMPARE(rows->itemAt(5)->alignment(), Qt::AlignCenter);
	QCOMPARE(at(6), dock->account->signIn->apiKeyRow);
	QCOMPARE(at(7), dock->account->signIn->signInMessageLabel);
	QVERIFY(dock->account->signIn->signInMessageLabel->isHidden());
	QCOMPARE(dock->account->signIn->apiKeyRow->layout()->contentsMargins(), QMargins());
	QCOMPARE(dock->account->signIn->apiKeyRow->layout()->itemAt(0)->widget(), dock->account->signIn->apiKeyEdit);
	QCOMPARE(qobject_cast<QPushButton *>(dock->account->signIn->apiKeyRow->layout()->itemAt(1)->widget())->text(),
		 u"Dock.Auth.ConnectApiKey"_s);

	QWidget *section = dock->account->signIn->parentWidget();
	QCOMPARE(section->styleSheet(), u"QPushButton:flat { background-color: transparent; }"_s);
	QCOMPARE(section->layout()->contentsMargins(), QMargins());
	QLayout *header = section->layout()->itemAt(0)->layout();
	const auto *title = qobject_cast<QLabel *>(header->itemAt(0)->widget());
	QCOMPARE(title->text(), u"Dock.Auth.Title"_s);
	QCOMPARE(title->font().weight(), QFont::Bold);
	QVERIFY(header->itemAt(1)->spacerItem());
	QCOMPARE(header->itemAt(2)->widget(), dock->account->logoutButton);
	QCOMPARE(section->layout()->itemAt(1)->widget(), dock->account->signIn);
	QCOMPARE(section->layout()->itemAt(2)->widget(), dock->account->session);
}

void PluginDockTest::looks_data()
{
	QTest::addColumn<QString>("text");
	QTest::addColumn<bool>("flat");
	QTest::addColumn<QString>("styleSheet");
	const QString strong = u"QPushButton { background-color: %1; color: %2; border-radius: 4px; padding: 6px 14px; "
			       "font-weight: bold; }QPushButton:hover { background-color: %3; }"_s;
	QTest::newRow("sign in") << u"Dock.Auth.SignIn"_s << false
				 << strong.arg(u"#4CAF50"_s, u"white"_s, u"#43A047"_s);
	QTest::newRow("google") << u"Google"_s << false << strong.arg(u"#4285F4"_s, u"white"_s, u"#3367D6"_s);
	QTest::newRow("twitch") << u"Twitch"_s << false << strong.arg(u"#9146FF"_s, u"white"_s, u"#7B2FF2"_s);
	QTest::newRow("kick") << u"Kick"_s << false << strong.arg(u"#53FC18"_s, u"black"_s, u"#45D414"_s);
	QTest::newRow("log out") << u"Dock.Auth.Logout"_s << true
				 << u"QPushButton { color: #888; font-size: 11px; border: none; text-decoration: "
				    u"underline; padding: 0px; }"
				    "QPushButton:hover { color: #f44336; }"_s;
	QTest::newRow("use API key") << u"Dock.Auth.UseApiKey"_s << true
				     << u"QPushButton { color: #888; font-size: 11px; border: none; text-decoration: "
					u"underline; padding: 2px; }"
					"QPushButton:hover { color: #aaa; }"_s;
	QTest::newRow("connect") << u"Dock.Auth.ConnectApiKey"_s << false
				 << u"QPushButton { background-color: #555; color: white; border-radius: 4px; "
				    "padding: 4px 12px; }QPushButton:hover { background-color: #666; }"_s;
}

void PluginDockTest::looks()
{
	QFETCH(QString, text);
	make();
	const QPushButton *button = buttonNamed(text);
	QVERIFY(button);
	QTEST(button->isFlat(), "flat");
	QTEST(button->styleSheet(), "styleSheet");
}

void PluginDockTest::fieldsOfTheSignIn()
{
	make();
	QCOMPARE(dock->account->signIn->emailEdit->placeholderText(), u"Dock.Auth.Email"_s);
	QCOMPARE(dock->account->signIn->emailEdit->echoMode(), QLineEdit::Normal);
	QCOMPARE(dock->account->signIn->passwordEdit->placeholderText(), u"Dock.Auth.Password"_s);
	QCOMPARE(dock->account->signIn->passwordEdit->echoMode(), QLineEdit::Password);
	QCOMPARE(dock->account->signIn->apiKeyEdit->placeholderText(), u"tak_live_..."_s);
	QCOMPARE(dock->account->signIn->apiKeyEdit->echoMode(), QLineEdit::Password);
	QCOMPARE(dock->account->signIn->apiKeyEdit->toolTip(), u"Dock.Auth.ApiKeyTip"_s);
	const auto labels = dock->account->signIn->findChildren<QLabel *>(Qt::FindDirectChildrenOnly);
	QCOMPARE(labels, (QList<QLabel *>{labels.first(), dock->account->signIn->signInMessageLabel}));
	QCOMPARE(labels.first()->styleSheet(), u"color: gray; font-size: 11px; margin: 4px 0;"_s);
}

void PluginDockTest::sessionPanelFromTopToBottom()
{
	make();
	QLayout *rows = dock->account->session->layout();
	QCOMPARE(rows->contentsMargins(), QMargins());
	QCOMPARE(rows->count(), 2);
	QCOMPARE(rows->itemAt(0)->layout()->itemAt(0)->widget(), dock->account->session->startButton);
	QCOMPARE(rows->itemAt(0)->layout()->itemAt(1)->widget(), dock->account->session->stopButton);
	QCOMPARE(dock->account->session->startButton->text(), u"Dock.Auth.StartTranslating"_s);
	QCOMPARE(dock->account->session->stopButton->text(), u"Dock.Auth.StopTranslating"_s);
	auto *status = qobject_cast<QHBoxLayout *>(rows->itemAt(1)->layout());
	QCOMPARE(status->itemAt(0)->widget(), dock->account->session->statusDot);
	QCOMPARE(status->itemAt(1)->widget(), dock->account->session->statusLabel);
	QCOMPARE(status->itemAt(2)->widget(), dock->account->session->clockLabel);
	QCOMPARE(status->stretch(0), 0);
	QCOMPARE(status->stretch(1), 1);
	QCOMPARE(status->stretch(2), 0);
	QCOMPARE(dock->account->session->statusDot->text(), u"\u25CF"_s);
	QCOMPARE(dock->account->session->statusDot->styleSheet(), u"color: gray; font-size: 16px;"_s);
	QVERIFY(dock->account->session->statusLabel->wordWrap());
	QCOMPARE(dock->account->session->clockLabel->text(), u"00:00:00"_s);
	QCOMPARE(dock->account->session->clockLabel->styleSheet(), u"color: gray;"_s);
	QCOMPARE(dock->account->session->clockLabel->sizePolicy().horizontalPolicy(), QSizePolicy::Fixed);
}

void PluginDockTest::buttonsHaveThePointingHand()
{
	make();
	const auto buttons = dock->account->signIn->parentWidget()->findChildren<QPushButton *>();
	QCOMPARE(buttons.size(), 9);
	for (const QPushButton *button : buttons) {
		QCOMPARE(button->cursor().shape(), Qt::PointingHandCursor);
	}
}

// States

void PluginDockTest::signingInSwitchesThePanels()
{
	make();
	QVERIFY(dock->account->signIn->isVisible());
	QVERIFY(!dock->account->session->isVisible());
	dock->account->setAuthenticated(true);
	QVERIFY(dock->account->authenticated);
	QVERIFY(!dock->account->signIn->isVisible());
	QVERIFY(dock->account->session->isVisible());
	QVERIFY(dock->account->logoutButton->isVisible());
	QCOMPARE(dock->account->session->statusLabel->text(), u"Status.Disconnected"_s);
}

void PluginDockTest::signingOutEnablesEverything()
{
	make();
	dock->account->signIn->onShowApiKeyClicked();
	dock->account->signIn->setSignInButtonsEnabled(false);
	dock->account->signIn->emailEdit->setEnabled(false);
	dock->account->signIn->passwordEdit->setEnabled(false);
	dock->account->setAuthenticated(false);
	QVERIFY(!dock->account->authenticated);
	QVERIFY(signInButtonsAre(true));
	QVERIFY(dock->account->signIn->emailEdit->isEnabled());
	QVERIFY(dock->account->signIn->passwordEdit->isEnabled());
	QVERIFY(dock->account->signIn->apiKeyRow->isHidden());
	QVERIFY(dock->account->signIn->isVisible());
	QVERIFY(!dock->account->logoutButton->isVisible());
}

// API key

void PluginDockTest::apiKeyRowIsToggled()
{
	make();
	QVERIFY(!dock->account->signIn->apiKeyRow->isVisible());
	QTest::mouseClick(buttonNamed(u"Dock.Auth.UseApiKey"_s), Qt::LeftButton);
	QVERIFY(dock->account->signIn->apiKeyRow->isVisible());
	QCOMPARE(dock->account->signIn->apiKeyEdit->echoMode(), QLineEdit::Password);
	QTest::mouseClick(buttonNamed(u"Dock.Auth.UseApiKey"_s), Qt::LeftButton);
	QVERIFY(!dock->account->signIn->apiKeyRow->isVisible());
}

void PluginDockTest::apiKeySignsIn()
{
	plugin->setMaxTargetLanguages(4);
	make();
	dock->account->signIn->onShowApiKeyClicked();
	dock->account->signIn->apiKeyEdit->setText(u"  tak_live_42 "_s);
	QTest::mouseClick(buttonNamed(u"Dock.Auth.ConnectApiKey"_s), Qt::LeftButton);
	QCOMPARE(plugin->settings.apiKey, u"tak_live_42"_s);
	QCOMPARE(session->savedConfig()[u"apiKey"], QJsonValue(u"tak_live_42"_s));
	QVERIFY(dock->account->authenticated);
	QCOMPARE(dock->account->signIn->apiKeyEdit->text(), u"  tak_live_42 "_s);
	QCOMPARE(plugin->maxTargetLanguages, 4);
}

void PluginDockTest::emptyApiKeyIsRefusedWithAWarning_data()
{
	QTest::addColumn<QString>("typed");
	QTest::newRow("nothing") << QString();
	QTest::newRow("blanks") << u" \t "_s;
}

void PluginDockTest::dockGoesWithItsWarning()
{
	make();
	QTest::mouseClick(buttonNamed(u"Dock.Auth.ConnectApiKey"_s), Qt::LeftButton);
	const QPointer box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
	QVERIFY(box);
	dock.reset();
	QVERIFY(!box);
}

void PluginDockTest::emptyApiKeyIsRefusedWithAWarning()
{
	QFETCH(QString, typed);
	make();
	dock->account->signIn->onShowApiKeyClicked();
	dock->account->signIn->apiKeyEdit->setText(typed);
	QTest::mouseClick(buttonNamed(u"Dock.Auth.ConnectApiKey"_s), Qt::LeftButton);
	const QPointer box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
	QVERIFY(box);
	QCOMPARE(box->parent(), dock.get());
	QCOMPARE(box->icon(), QMessageBox::Warning);
	QCOMPARE(box->windowTitle(), u"Error.NoApiKey.Title"_s);
	QCOMPARE(box->text(), u"Error.NoApiKey.Text"_s);
	QCOMPARE(box->standardButtons(), QMessageBox::Ok);
	QTest::mouseClick(box->button(QMessageBox::Ok), Qt::LeftButton);
	QTRY_VERIFY(!box);
	QVERIFY(!dock->account->authenticated);
	QCOMPARE(plugin->settings.apiKey, QString());
	QVERIFY(dock->account->signIn->apiKeyRow->isVisible());
}

// E-mail

void PluginDockTest::missingCredentialsAreRefused_data()
{
	QTest::addColumn<QString>("email");
	QTest::addColumn<QString>("password");
	QTest::newRow("neither") << QString() << QString();
	QTest::newRow("no e-mail") << QString() << u"secret"_s;
	QTest::newRow("blank e-mail") << u"  "_s << u"secret"_s;
	QTest::newRow("no password") << u"a@example.org"_s << QString();
}

void PluginDockTest::missingCredentialsAreRefused()
{
	QFETCH(QString, email);
	QFETCH(QString, password);
	make();
	signIn(email, password);
	QCOMPARE(dock->account->session->statusLabel->text(), red(u"Status.EnterCredentials"_s));
	QVERIFY(signInButtonsAre(true));
	QCOMPARE(attemptsRunning(), 0);
}

void PluginDockTest::requestIsAsAgreed()
{
	QCOMPARE(QLatin1String(kSignInBaseUrl), "https://localhost:3003/auth"_L1);
	startService();
	service->answer("200 OK", R"({"token":"tak_live_1"})");
	make();
	signIn();
	QTRY_VERIFY(dock->account->authenticated);
	QCOMPARE(service->requests.size(), 1);
	const SignInService::Request &request = service->requests.first();
	QCOMPARE(request.line, "POST /auth/login HTTP/1.1");
	QCOMPARE(request.body, R"({"email":"a@example.org","password":"secret word"})");
	QList<QByteArray> types;
	for (const QByteArray &header : request.headers) {
		if (header.toLower().startsWith("content-type:")) {
			types += header.mid(13).trimmed();
		}
		QVERIFY2(!header.toLower().startsWith("authorization:"), header);
	}
	QCOMPARE(types, QList<QByteArray>{"application/json"});
}

void PluginDockTest::emailIsTrimmedAndPasswordIsNot()
{
	startService();
	service->answer("200 OK", R"({"token":"tak_live_1"})");
	make();
	signIn(u" \ta@example.org  "_s, u"   "_s);
	QTRY_VERIFY(dock->account->authenticated);
	QCOMPARE(service->requests.first().body, R"({"email":"a@example.org","password":"   "})");
}

void PluginDockTest::enterInThePasswordFieldSignsIn()
{
	startService();
	service->answer("200 OK", R"({"token":"tak_live_1"})");
	make();
	QTest::keyClicks(dock->account->signIn->emailEdit, u"a@example.org"_s);
	QTest::keyClicks(dock->account->signIn->passwordEdit, u"secret"_s);
	QTest::keyClick(dock->account->signIn->passwordEdit, Qt::Key_Return);
	QTRY_VERIFY(dock->account->authenticated);
	QCOMPARE(service->requests.size(), 1);
	QVERIFY(session->log.contains(LOG_INFO, u"[talvora-obs] PluginDock: email login succeeded"_s));
	QCOMPARE(dock->account->signIn->passwordEdit->text(), QString());
	QCOMPARE(dock->account->signIn->emailEdit->text(), u"a@example.org"_s);
	// They stay so until the user signs out.
	QVERIFY(signInButtonsAre(false));
}

void PluginDockTest::runningAttemptDisablesTheButtons()
{
	startService();
	make();
	signIn();
	QVERIFY(signInButtonsAre(false));
	QCOMPARE(dock->account->session->statusLabel->text(), u"Dock.Auth.SigningIn"_s);
	QVERIFY(dock->account->signIn->passwordEdit->isEnabled());
	QTRY_COMPARE(service->requests.size(), 1);
	QVERIFY(signInButtonsAre(false));
}

void PluginDockTest::secondAttemptByEnterHasItsOwnRequest()
{
	startService();
	make();
	signIn();
	QTest::keyClick(dock->account->signIn->passwordEdit, Qt::Key_Return);
	QCOMPARE(attemptsRunning(), 2);
	QTRY_COMPARE(service->requests.size(), 2);
}

void PluginDockTest::keyIsTakenFromTheAnswer_data()
{
	QTest::addColumn<QByteArray>("body");
	QTest::addColumn<QString>("key");
	QTest::newRow("token") << QByteArray(R"({"token":"t","api_key":"a","key":"k"})") << u"t"_s;
	QTest::newRow("api_key") << QByteArray(R"({"api_key":"a","key":"k"})") << u"a"_s;
	QTest::newRow("key") << QByteArray(R"({"key":"k"})") << u"k"_s;
	QTest::newRow("empty token, key") << QByteArray(R"({"token":"","key":"k"})") << u"k"_s;
	QTest::newRow("token of another type") << QByteArray(R"({"token":7,"api_key":"a"})") << u"a"_s;
}

void PluginDockTest::keyIsTakenFromTheAnswer()
{
	QFETCH(QByteArray, body);
	startService();
	service->answer("200 OK", body);
	make();
	signIn();
	QTRY_VERIFY(dock->account->authenticated);
	QTEST(plugin->settings.apiKey, "key");
	QCOMPARE(session->savedConfig()[u"apiKey"].toString(), plugin->settings.apiKey);
}

void PluginDockTest::limitIsTakenWhenPositive_data()
{
	QTest::addColumn<QByteArray>("limit");
	QTest::addColumn<int>("expected");
	QTest::newRow("3") << QByteArray("3") << 3;
	QTest::newRow("0") << QByteArray("0") << 5;
	QTest::newRow("negative") << QByteArray("-2") << 5;
	QTest::newRow("text") << QByteArray("\"3\"") << 5;
	QTest::newRow("fraction") << QByteArray("2.5") << 5;
	QTest::newRow("missing") << QByteArray() << 5;
}

void PluginDockTest::limitIsTakenWhenPositive()
{
	QFETCH(QByteArray, limit);
	startService();
	service->answer("200 OK", limit.isEmpty() ? QByteArray(R"({"api_key":"a"})")
						  : R"({"api_key":"a","max_target_languages":)" + limit + "}");
	make();
	plugin->setMaxTargetLanguages(5);
	signIn();
	QTRY_VERIFY(dock->account->authenticated);
	QCOMPARE(plugin->settings.apiKey, u"a"_s);
	QTEST(plugin->maxTargetLanguages, "expected");
}

void PluginDockTest::answerWithoutKeyLeavesTheButtonsDisabled_data()
{
	QTest::addColumn<QByteArray>("body");
	QTest::newRow("limit only") << QByteArray(R"({"max_target_languages":3})");
	QTest::newRow("empty object") << QByteArray("{}");
	QTest::newRow("array") << QByteArray(R"(["token"])");
	QTest::newRow("not JSON") << QByteArray("<html>token</html>");
	QTest::newRow("nothing") << QByteArray();
}

void PluginDockTest::answerWithoutKeyLeavesTheButtonsDisabled()
{
	QFETCH(QByteArray, body);
	startService();
	service->answer("200 OK", body);
	make();
	signIn();
	QTRY_COMPARE(dock->account->session->statusLabel->text(), red(u"Status.NoTokenInResponse"_s));
	QVERIFY(signInButtonsAre(false));
	QVERIFY(!dock->account->authenticated);
	QCOMPARE(plugin->settings.apiKey, QString());
	QCOMPARE(plugin->maxTargetLanguages, 0);
	dock->account->onLogoutClicked();
	QVERIFY(signInButtonsAre(true));
}

void PluginDockTest::httpErrorsAreShownAndLogged_data()
{
	QTest::addColumn<QByteArray>("status");
	QTest::addColumn<QByteArray>("body");
	QTest::addColumn<QString>("shown");
	QTest::newRow("60 characters") << QByteArray("401 Unauthorized") << QByteArray(60, 'x') << QString(60, u'x');
	QTest::newRow("61 characters") << QByteArray("401 Unauthorized") << QByteArray(61, 'x') << QString(60, u'x');
	QTest::newRow("200 characters") << QByteArray("401 Unauthorized") << QByteArray(200, 'x') << QString(60, u'x');
	QTest::newRow("markup") << QByteArray("403 Forbidden") << QByteArray("<b>locked</b>")
				<< u"&lt;b&gt;locked&lt;/b&gt;"_s;
	QTest::newRow("UTF-8") << QByteArray("500 Internal Server Error") << QByteArray("Größe") << u"Größe"_s;
	QTest::newRow("key all the same") << QByteArray("400 Bad Request") << QByteArray(R"({"token":"t"})")
					  << u"{&quot;token&quot;:&quot;t&quot;}"_s;
}

void PluginDockTest::httpErrorsAreShownAndLogged()
{
	QFETCH(QByteArray, status);
	QFETCH(QByteArray, body);
	QFETCH(QString, shown);
	startService();
	service->answer(status, body);
	make();
	QVERIFY(dock->account->signIn->signInMessageLabel->isHidden());
	signIn();
	QTRY_COMPARE(dock->account->session->statusLabel->text(), red(shown));
	// The status row is hidden while signed out: the message is to be seen below the sign-in.
	QCOMPARE(dock->account->signIn->signInMessageLabel->text(), red(shown));
	QVERIFY(!dock->account->signIn->signInMessageLabel->isHidden());
	QVERIFY(dock->account->signIn->isAncestorOf(dock->account->signIn->signInMessageLabel));
	QVERIFY(session->log.contains(LOG_WARNING,
				      u"[talvora-obs] PluginDock: email login failed: "_s + QString::fromUtf8(body)));
	QVERIFY(signInButtonsAre(true));
	QVERIFY(!dock->account->authenticated);
	QCOMPARE(plugin->settings.apiKey, QString());
	QCOMPARE(dock->account->signIn->passwordEdit->text(), u"secret word"_s);
}

void PluginDockTest::errorWithoutBodyShowsQtsText()
{
	startService();
	service->answer("401 Unauthorized", "");
	make();
	signIn();
	QTRY_COMPARE(session->log.lines(LOG_WARNING).filter(u"email login failed: "_s).size(), 1);
	const QString text =
		session->log.lines(LOG_WARNING).filter(u"email login failed"_s).first().section(u"failed: "_s, 1);
	QVERIFY(!text.isEmpty());
	QCOMPARE(dock->account->session->statusLabel->text(), red(text.left(60).toHtmlEscaped()));
	QVERIFY(signInButtonsAre(true));
}

void PluginDockTest::unreachableServiceIsReported()
{
	make();
	signIn();
	QTRY_VERIFY(signInButtonsAre(true));
	QCOMPARE(dock->account->session->statusLabel->text(), red(u"Connection refused"_s));
	QVERIFY(session->log.contains(LOG_WARNING,
				      u"[talvora-obs] PluginDock: email login failed: Connection refused"_s));
}

void PluginDockTest::unknownCertificateIsRefused()
{
	const auto unknown = unknownRootServerCertificate();
	QVERIFY(unknown);
	service.emplace(*unknown);
	service->answer("200 OK", R"({"token":"tak_live_1"})");
	make();
	signIn();
	QTRY_VERIFY(signInButtonsAre(true));
	QVERIFY(!dock->account->authenticated);
	QVERIFY(service->requests.isEmpty());
	QVERIFY(dock->account->session->statusLabel->text().startsWith(
		u"<span style='color:red'>SSL handshake failed"_s));
}

void PluginDockTest::passwordIsNotSentOnToAnotherOrigin_data()
{
	QTest::addColumn<QByteArray>("status");
	QTest::newRow("307") << QByteArray("307 Temporary Redirect");
	QTest::newRow("308") << QByteArray("308 Permanent Redirect");
}

void PluginDockTest::passwordIsNotSentOnToAnotherOrigin()
{
	QFETCH(QByteArray, status);
	startService();
	// The same machine and the same certificate on another port: another origin all the same.
	SignInService other(*certificate, 0);
	QVERIFY(other.listening);
	other.answer("200 OK", R"({"token":"theirs"})");
	service->redirect(status, u"https://localhost:%1/auth/login"_s.arg(other.port()));
	make();
	signIn();
	QTRY_VERIFY(dock->account->authenticated || signInButtonsAre(true));
	QCOMPARE(service->requests.size(), 1);
	QCOMPARE(other.requests.size(), 0);
	QVERIFY(!dock->account->authenticated);
	QVERIFY(dock->account->signIn->signInMessageLabel->isVisible());
	QVERIFY(dock->account->signIn->signInMessageLabel->text().startsWith(u"<span style='color:red'>"_s));
	QCOMPARE(session->log.lines(LOG_WARNING).filter(u"PluginDock: email login failed: "_s).size(), 1);
}

void PluginDockTest::redirectWithinTheOriginIsFollowed()
{
	startService();
	service->redirect("308 Permanent Redirect", u"https://localhost:3003/elsewhere"_s);
	service->answer("200 OK", R"({"token":"ours"})");
	make();
	signIn();
	QTRY_VERIFY(dock->account->authenticated);
	QCOMPARE(plugin->settings.apiKey, u"ours"_s);
	QCOMPARE(service->requests.size(), 2);
	QCOMPARE(service->requests.last().line, "POST /elsewhere HTTP/1.1");
	QCOMPARE(service->requests.last().body, service->requests.first().body);
}

void PluginDockTest::heldEnterIsOneAttempt_data()
{
	QTest::addColumn<Qt::Key>("key");
	QTest::newRow("Return") << Qt::Key_Return;
	QTest::newRow("Enter") << Qt::Key_Enter;
}

void PluginDockTest::heldEnterIsOneAttempt()
{
	QFETCH(Qt::Key, key);
	startService();
	make();
	dock->account->signIn->emailEdit->setText(u"a@example.org"_s);
	dock->account->signIn->passwordEdit->setText(u"secret"_s);
	QTest::keyPress(dock->account->signIn->passwordEdit, key);
	for (int repeated = 0; repeated < 10; ++repeated) {
		QKeyEvent again(QEvent::KeyPress, key, Qt::NoModifier, u"\r"_s, true);
		QCoreApplication::sendEvent(dock->account->signIn->passwordEdit, &again);
	}
	QTest::keyRelease(dock->account->signIn->passwordEdit, key);
	QCOMPARE(attemptsRunning(), 1);
	// Other keys may be held.
	QKeyEvent letter(QEvent::KeyPress, Qt::Key_A, Qt::NoModifier, u"a"_s, true);
	QCoreApplication::sendEvent(dock->account->signIn->passwordEdit, &letter);
	QCOMPARE(dock->account->signIn->passwordEdit->text(), u"secreta"_s);
}

void PluginDockTest::lateAnswerChangesNothing_data()
{
	QTest::addColumn<QByteArray>("status");
	QTest::addColumn<bool>("signOut");
	QTest::newRow("success, signed in by key") << QByteArray("200 OK") << false;
	QTest::newRow("failure, signed in by key") << QByteArray("401 Unauthorized") << false;
	QTest::newRow("success, signed out again") << QByteArray("200 OK") << true;
}

void PluginDockTest::lateAnswerChangesNothing()
{
	QFETCH(QByteArray, status);
	QFETCH(bool, signOut);
	startService();
	make();
	signIn();
	QTest::keyClick(dock->account->signIn->passwordEdit, Qt::Key_Return);
	QTRY_COMPARE(service->requests.size(), 2);
	dock->account->signIn->apiKeyEdit->setText(u"mine"_s);
	dock->account->signIn->onApiKeyConnectClicked();
	if (signOut) {
		dock->account->onLogoutClicked();
	}
	service->answer(status, R"({"token":"theirs","max_target_languages":1})");
	service->answerLate();
	QTRY_COMPARE(attemptsRunning(), 0);
	QCOMPARE(plugin->settings.apiKey, signOut ? QString() : u"mine"_s);
	QCOMPARE(plugin->maxTargetLanguages, 0);
	QCOMPARE(dock->account->authenticated, !signOut);
	QCOMPARE(dock->account->session->statusLabel->text(), u"Status.Disconnected"_s);
	QVERIFY(dock->account->signIn->signInMessageLabel->isHidden());
	QVERIFY(session->log.ownLines().filter(u"email login"_s).isEmpty());
}

void PluginDockTest::keyAndPasswordAreNeverLogged()
{
	startService();
	service->answer("200 OK", R"({"token":"tak_live_verysecret"})");
	make();
	signIn(u"a@example.org"_s, u"pass_verysecret"_s);
	QTRY_VERIFY(dock->account->authenticated);
	dock->account->onLogoutClicked();
	QVERIFY(session->log.ownLines().filter(u"verysecret"_s).isEmpty());
}

void PluginDockTest::dockDestroyedDuringAnAttemptIsSafe()
{
	startService();
	make();
	signIn();
	QTRY_COMPARE(service->requests.size(), 1);
	dock.reset();
	QCoreApplication::processEvents();
	QVERIFY(session->log.lines(LOG_WARNING).filter(u"login failed"_s).isEmpty());
}

void PluginDockTest::replyAndManagerAreDeleted()
{
	startService();
	service->answer("401 Unauthorized", "no");
	make();
	signIn();
	QCOMPARE(attemptsRunning(), 1);
	QTRY_COMPARE(attemptsRunning(), 0);
	QVERIFY(dock->findChildren<QNetworkReply *>().isEmpty());
}

// Google, Twitch, Kick

void PluginDockTest::providerButtonsOpenTheirPages_data()
{
	QTest::addColumn<QString>("button");
	QTest::addColumn<QString>("provider");
	QTest::newRow("google") << u"Google"_s << u"google"_s;
	QTest::newRow("twitch") << u"Twitch"_s << u"twitch"_s;
	QTest::newRow("kick") << u"Kick"_s << u"kick"_s;
}

void PluginDockTest::providerButtonsOpenTheirPages()
{
	QFETCH(QString, button);
	QFETCH(QString, provider);
	make();
	QTest::mouseClick(buttonNamed(button), Qt::LeftButton);
	QCOMPARE(opened.size(), 1);
	QCOMPARE(opened.first().adjusted(QUrl::RemoveQuery).toString(), u"https://localhost:3003/auth/"_s + provider);
	QVERIFY(dock->account->signIn->oauthListener);
	QCOMPARE(dock->account->signIn->oauthListener->parent(), dock.get());
	QVERIFY(dock->account->signIn->oauthListener->isListening());
	QVERIFY(signInButtonsAre(false));
	QCOMPARE(dock->account->session->statusLabel->text(), u"Status.OpeningLogin"_s);
}

void PluginDockTest::secondProviderClickAbortsTheFirst()
{
	make();
	dock->account->signIn->onOAuthLoginClicked(u"google"_s);
	const QPointer<OAuthListener> first = dock->account->signIn->oauthListener;
	session->log.clear();
	dock->account->signIn->onOAuthLoginClicked(u"google"_s);
	const QStringList lines = session->log.ownLines();
	const qsizetype aborted = lines.indexOf(u"[talvora-obs] OAuthListener: login aborted by user"_s);
	QVERIFY(aborted >= 0);
	QVERIFY(aborted < lines.indexOf(lines.filter(u"listening on port"_s).value(0)));
	QVERIFY(dock->account->signIn->oauthListener);
	QVERIFY(dock->account->signIn->oauthListener != first);
	QVERIFY(dock->account->signIn->oauthListener->isListening());
	QVERIFY(!first || !first->isListening());
	QTRY_VERIFY(!first);
	// The second attempt goes on as if there had been no other.
	QVERIFY(dock->account->signIn->oauthListener);
	QVERIFY(signInButtonsAre(false));
	QCOMPARE(dock->account->session->statusLabel->text(), u"Status.OpeningLogin"_s);
	QCOMPARE(opened.size(), 2);
}

void PluginDockTest::browserSignInSucceeds()
{
	make();
	dock->account->signIn->onOAuthLoginClicked(u"twitch"_s);
	const QPointer<OAuthListener> listener = dock->account->signIn->oauthListener;
	// The browser comes back.
	const QUrlQuery query(opened.first());
	QUrl callback(query.queryItemValue(u"redirect_uri"_s, QUrl::FullyDecoded));
	callback.setQuery(
		u"state=%1&token=tak_live_verysecret&max_target_languages=2"_s.arg(query.queryItemValue(u"state"_s)));
	QNetworkAccessManager browser;
	const std::unique_ptr<QNetworkReply> page(browser.get(QNetworkRequest(callback)));
	QTRY_VERIFY(dock->account->authenticated);
	QCOMPARE(plugin->settings.apiKey, u"tak_live_verysecret"_s);
	QCOMPARE(plugin->maxTargetLanguages, 2);
	QCOMPARE(dock->account->signIn->oauthListener, nullptr);
	QVERIFY(dock->account->session->isVisible());
	QVERIFY(session->log.contains(LOG_INFO, u"[talvora-obs] PluginDock: OAuth login succeeded"_s));
	QVERIFY(session->log.ownLines().filter(u"verysecret"_s).isEmpty());
	QTRY_VERIFY(!listener);
}

void PluginDockTest::browserSignInWithoutLimitKeepsIt()
{
	make();
	plugin->setMaxTargetLanguages(5);
	dock->account->signIn->onOAuthSuccess(u"k"_s, 0);
	QCOMPARE(plugin->maxTargetLanguages, 5);
	dock->account->signIn->onOAuthSuccess(u"k"_s, -1);
	QCOMPARE(plugin->maxTargetLanguages, 5);
	plugin->setLanguageTargets({{u"de"_s, {false, true}}, {u"es"_s, {false, true}}});
	session->log.clear();
	dock->account->signIn->onOAuthSuccess(u"k"_s, 1);
	QCOMPARE(plugin->maxTargetLanguages, 1);
	// First what happened, then what follows from it.
	const QStringList lines = session->log.ownLines();
	QCOMPARE(lines.value(0), u"[talvora-obs] PluginDock: OAuth login succeeded"_s);
	QVERIFY(lines.contains(u"[talvora-obs] Talvora: dropping language 'es' to meet limit of 1"_s));
}

void PluginDockTest::browserSignInFails()
{
	const QString error = u"<i>access denied</i>"_s + QString(100, u'x');
	make();
	dock->account->signIn->onOAuthLoginClicked(u"kick"_s);
	const QPointer<OAuthListener> listener = dock->account->signIn->oauthListener;
	Q_EMIT dock->account->signIn->oauthListener->loginFailed(error);
	QVERIFY(session->log.contains(LOG_WARNING, u"[talvora-obs] PluginDock: OAuth login failed: "_s + error));
	QCOMPARE(dock->account->session->statusLabel->text(), red(error.left(60).toHtmlEscaped()));
	QVERIFY(signInButtonsAre(true));
	QCOMPARE(dock->account->signIn->oauthListener, nullptr);
	QVERIFY(!dock->account->authenticated);
	QTRY_VERIFY(!listener);
}

void PluginDockTest::signingInByKeyAbandonsTheBrowser()
{
	make();
	dock->account->signIn->onOAuthLoginClicked(u"google"_s);
	const QPointer<OAuthListener> listener = dock->account->signIn->oauthListener;
	session->log.clear();
	dock->account->signIn->apiKeyEdit->setText(u"tak_live_mine"_s);
	dock->account->signIn->onApiKeyConnectClicked();
	QCOMPARE(dock->account->signIn->oauthListener, nullptr);
	QTRY_VERIFY(!listener);
	QVERIFY(session->log.contains(LOG_INFO, u"[talvora-obs] OAuthListener: login aborted by user"_s));
	QVERIFY(session->log.ownLines().filter(u"OAuth login failed"_s).isEmpty());
	QCOMPARE(dock->account->session->statusLabel->text(), u"Status.Disconnected"_s);
	QCOMPARE(plugin->settings.apiKey, u"tak_live_mine"_s);
}

void PluginDockTest::dockDestroyedDuringBrowserSignInAborts()
{
	make();
	dock->account->signIn->onOAuthLoginClicked(u"google"_s);
	const QPointer<OAuthListener> listener = dock->account->signIn->oauthListener;
	session->log.clear();
	dock.reset();
	QVERIFY(!listener);
	QVERIFY(session->log.contains(LOG_INFO, u"[talvora-obs] OAuthListener: login aborted by user"_s));
}

// Signing out

void PluginDockTest::signingOutForgetsKeyAndLimit()
{
	plugin->settings.apiKey = u"tak_live_1"_s;
	make();
	plugin->setMaxTargetLanguages(3);
	QTest::mouseClick(dock->account->logoutButton, Qt::LeftButton);
	QCOMPARE(plugin->settings.apiKey, QString());
	QCOMPARE(session->savedConfig()[u"apiKey"], QJsonValue(QString()));
	QCOMPARE(plugin->maxTargetLanguages, 0);
	QVERIFY(dock->settings->languages->languageCountLabel->isHidden());
	QVERIFY(!dock->account->authenticated);
	QVERIFY(dock->account->signIn->isVisible());
	QVERIFY(!dock->account->session->isVisible());
	QVERIFY(signInButtonsAre(true));
}

void PluginDockTest::signingOutStopsTheSessionFirst()
{
	plugin->setDockFactory(createPluginDock);
	plugin->initialize();
	plugin->settings.apiKey = u"tak_live_1"_s;
	auto *own = qobject_cast<PluginDock *>(plugin->dock);
	QVERIFY(own);
	own->account->setAuthenticated(true);
	own->account->signIn->setSignInButtonsEnabled(false);
	own->account->session->onWsStateChanged(WsState::Authenticated);
	session->log.clear();
	own->account->onLogoutClicked();
	QCOMPARE(session->log.ownLines(), QStringList{u"[talvora-obs] Talvora: disconnecting..."_s});
	QCOMPARE(plugin->settings.apiKey, QString());
	QVERIFY(own->account->signIn->signInButton->isEnabled());
	QVERIFY(own->account->signIn->kickButton->isEnabled());
	QVERIFY(own->account->signIn->emailEdit->isEnabled());
}

/** Else whoever sits down next is signed in again by a press of "Use this key". */
void PluginDockTest::signingOutEmptiesTheFields()
{
	make();
	dock->account->signIn->emailEdit->setText(u"a@example.org"_s);
	dock->account->signIn->passwordEdit->setText(u"secret"_s);
	dock->account->signIn->apiKeyEdit->setText(u"tak_live_1"_s);
	dock->account->signIn->onApiKeyConnectClicked();
	QCOMPARE(dock->account->signIn->apiKeyEdit->text(), u"tak_live_1"_s);
	QTest::mouseClick(dock->account->logoutButton, Qt::LeftButton);
	QCOMPARE(dock->account->signIn->apiKeyEdit->text(), QString());
	QCOMPARE(dock->account->signIn->passwordEdit->text(), QString());
	QCOMPARE(dock->account->signIn->emailEdit->text(), u"a@example.org"_s);
}

QTEST_MAIN(PluginDockTest)
#include "plugin-dock-auth-test.moc"

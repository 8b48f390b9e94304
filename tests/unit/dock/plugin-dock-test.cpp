// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "dock/account-section.h"
#include "dock/audio-source-rows.h"
#include "dock/language-rows.h"
#include "dock/session-panel.h"
#include "dock/settings-section.h"
#include "dock/sign-in-panel.h"
#include "dock/transcript-view.h"
#include "dock/usage-section.h"

#include "dock-session.h"
#include "test-audio-source.h"

#include <QApplication>
#include <QComboBox>
#include <QGroupBox>
#include <QLabel>
#include <QMainWindow>
#include <QPushButton>
#include <QScrollArea>
#include <QSignalSpy>
#include <QTest>
#include <QTextDocument>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>

#include <util/config-file.h>

#include <memory>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

const QString kGreen = u"QPushButton { background-color: #4CAF50; color: white; border-radius: 4px; padding: 6px 14px; "
		       "font-weight: bold; }"_s;
const QString kRed = u"QPushButton { background-color: #f44336; color: white; border-radius: 4px; padding: 6px 14px; "
		     "font-weight: bold; }"_s;
const QString kGrey = u"QPushButton { background-color: #555; color: #888; border-radius: 4px; padding: 6px 14px; }"_s;

} // namespace

/** Layout, status, clock, usage and transcript. */
class PluginDockTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	// Construction
	void windowAttributes();
	void hasNoTitleBarOfItsOwn();
	void sectionsFromTopToBottom();
	void brandAndTagline();
	void transcriptWidget();
	void statusSection();
	void initialState();
	void signedOutAtStartWithoutKey();
	void signedInAtStartWithStoredKey();
	void pluginSignalsArrive();

	// In OBS's window
	void registersWithTheFrontend();
	void closingOnlyHides();
	void reopeningKeepsStateAndRefreshesAudioSources();
	void comesBackWhereItWas();
	void floatingDockFitsOnTheScreen();
	void newDockOpensBesideTheWindow();
	void floatingDockComesBackWhereItWas();
	void tabInFrontComesBackInFront();
	void dockOpenedByAnotherModuleStaysOpen();
	void mayBeLowInTheWindowOfObs();
	void wheelOverAnUnfocusedControlChangesNothing();

	// Status
	void looksOfTheStates_data();
	void looksOfTheStates();
	void errorsTooltipSaysItAsItIs_data();
	void errorsTooltipSaysItAsItIs();
	void unknownStateIsIgnored();
	void stateIsNotShownInPart_data();
	void stateIsNotShownInPart();
	void clockCountsHoursMinutesSeconds_data();
	void clockCountsHoursMinutesSeconds();
	void clockRunsWhileConnected();
	void clockSurvivesAReconnectAndIsResetByADisconnect();
	void disconnectingStopsTheClockAndKeepsItsTime();
	void connectedAgainRestartsTheTimerOnly();
	void startAndStopAreHandedOn();
	void errorsAreCutAt120Characters_data();
	void errorsAreCutAt120Characters();
	void markupInAnErrorIsShownLiterally();
	void errorsAreLoggedWhole();

	// Transcript and usage
	void transcriptIsReplacedAsPlainText();
	void limitWarnings_data();
	void limitWarnings();
	void limitReached_data();
	void limitReached();
	void reachedLimitDoesNotStopTheSession();

private:
	PluginDock &make()
	{
		dock = std::make_unique<PluginDock>(plugin.get(), nullptr);
		return *dock;
	}

	std::optional<DockSession> session;
	std::unique_ptr<TalvoraPlugin> plugin;
	std::unique_ptr<PluginDock> dock;
};

void PluginDockTest::init()
{
	session.emplace();
	plugin.reset(new TalvoraPlugin());
}

void PluginDockTest::cleanup()
{
	dock.reset();
	plugin.reset();
	session.reset();
}

// Construction

void PluginDockTest::windowAttributes()
{
	make();
	QCOMPARE(dock->windowTitle(), u"Dock.Title"_s);
	QCOMPARE(dock->objectName(), u"TalvoraDock"_s);
	QCOMPARE(dock->allowedAreas(), Qt::AllDockWidgetAreas);
	QCOMPARE(dock->minimumSize(), QSize(320, 600));
	QCOMPARE(dock->sizeHint(), QSize(380, 800));
	QCOMPARE(dock->parent(), nullptr);
}

void PluginDockTest::hasNoTitleBarOfItsOwn()
{
	make();
	QVERIFY(dock->titleBarWidget());
	QCOMPARE(dock->titleBarWidget()->sizeHint().height(), -1);
	QCOMPARE(dock->features(), QDockWidget::NoDockWidgetFeatures);
}

void PluginDockTest::sectionsFromTopToBottom()
{
	make();
	auto *scrollArea = qobject_cast<QScrollArea *>(dock->widget());
	QVERIFY(scrollArea);
	QVERIFY(scrollArea->widgetResizable());
	QCOMPARE(scrollArea->frameShape(), QFrame::NoFrame);
	auto *sections = qobject_cast<QVBoxLayout *>(scrollArea->widget()->layout());
	QVERIFY(sections);
	QCOMPARE(sections->contentsMargins(), QMargins(8, 8, 8, 8));
	QCOMPARE(sections->spacing(), 6);
	QCOMPARE(sections->count(), 10);

	const auto at = [sections](int index) { return sections->itemAt(index)->widget(); };
	QCOMPARE(qobject_cast<QLabel *>(at(0))->text(), u"Talvora"_s);
	QCOMPARE(qobject_cast<QLabel *>(at(1))->text(), u"Dock.Tagline"_s);
	for (const int index : {2, 4, 6}) {
		const auto *line = qobject_cast<QFrame *>(at(index));
		QVERIFY(line);
		QCOMPARE(line->frameShape(), QFrame::HLine);
		QCOMPARE(line->frameShadow(), QFrame::Sunken);
	}
	QVERIFY(at(3)->isAncestorOf(dock->account->session->startButton));
	QCOMPARE(qobject_cast<QGroupBox *>(at(5))->title(), u"Dock.Settings.Title"_s);
	QVERIFY(at(7)->isAncestorOf(dock->transcript->transcriptView));
	QCOMPARE(qobject_cast<QGroupBox *>(at(8))->title(), u"Dock.Status.Title"_s);
	QVERIFY(sections->itemAt(9)->spacerItem());
}

void PluginDockTest::brandAndTagline()
{
	make();
	const QList<QLabel *> labels = dock->widget()->findChildren<QLabel *>();
	const QLabel *brand = labels.at(0);
	QCOMPARE(brand->text(), u"Talvora"_s);
	QCOMPARE(brand->font().pointSize(), 14);
	QCOMPARE(brand->font().weight(), QFont::Bold);
	QCOMPARE(brand->styleSheet(), u"font-size: 14pt;"_s);
	QCOMPARE(brand->alignment(), Qt::AlignCenter);
	const QLabel *tagline = labels.at(1);
	QCOMPARE(tagline->text(), u"Dock.Tagline"_s);
	QVERIFY(tagline->alignment() & Qt::AlignHCenter);
	QCOMPARE(tagline->styleSheet(), u"color: gray; font-size: 11px;"_s);
}

void PluginDockTest::transcriptWidget()
{
	make();
	QWidget *container = dock->transcript->transcriptView->parentWidget();
	QCOMPARE(container->layout()->contentsMargins(), QMargins());
	const auto *caption = qobject_cast<QLabel *>(container->layout()->itemAt(0)->widget());
	QCOMPARE(caption->text(), u"Dock.Status.Transcript"_s);
	QCOMPARE(caption->styleSheet(), u"font-size: 11px; color: gray;"_s);
	QCOMPARE(container->layout()->itemAt(1)->widget(), dock->transcript->transcriptView);
	QVERIFY(dock->transcript->transcriptView->isReadOnly());
	QCOMPARE(dock->transcript->transcriptView->maximumHeight(), 90);
	QCOMPARE(dock->transcript->transcriptView->minimumWidth(), 180);
	QCOMPARE(dock->transcript->transcriptView->styleSheet(),
		 u"background: transparent; border: 1px solid #333; font-size: 12px;"_s);
	QCOMPARE(dock->transcript->transcriptView->placeholderText(), u"Dock.Status.TranscriptPlaceholder"_s);
}

void PluginDockTest::statusSection()
{
	make();
	const auto *group = qobject_cast<QGroupBox *>(dock->usage->captionMinutesLabel->parentWidget());
	QVERIFY(group);
	QCOMPARE(group->layout()->count(), 1);
	QLayout *row = group->layout()->itemAt(0)->layout();
	QCOMPARE(row->count(), 6);
	QCOMPARE(qobject_cast<QLabel *>(row->itemAt(0)->widget())->text(), u"Dock.Status.CaptionMins"_s);
	QCOMPARE(row->itemAt(1)->widget(), dock->usage->captionMinutesLabel);
	QCOMPARE(row->itemAt(2)->sizeHint().width(), 12);
	QCOMPARE(qobject_cast<QLabel *>(row->itemAt(3)->widget())->text(), u"Dock.Status.DubbedMins"_s);
	QCOMPARE(row->itemAt(4)->widget(), dock->usage->dubbedMinutesLabel);
	QVERIFY(row->itemAt(5)->spacerItem());
	QCOMPARE(dock->usage->captionMinutesLabel->text(), u"\u2014"_s);
	QCOMPARE(dock->usage->dubbedMinutesLabel->text(), u"\u2014"_s);
}

void PluginDockTest::initialState()
{
	make();
	QVERIFY(!dock->account->authenticated);
	QVERIFY(!dock->shownOnce);
	QCOMPARE(dock->account->session->sessionSeconds, 0);
	QCOMPARE(dock->account->signIn->oauthListener, nullptr);
	QCOMPARE(dock->account->session->sessionTimer->parent(), dock.get());
	QCOMPARE(dock->account->session->sessionTimer->interval(), 1000);
	QVERIFY(!dock->account->session->sessionTimer->isActive());
}

void PluginDockTest::signedOutAtStartWithoutKey()
{
	make();
	QVERIFY(!dock->account->signIn->isHidden());
	QVERIFY(dock->account->session->isHidden());
	QVERIFY(dock->account->logoutButton->isHidden());
	QVERIFY(dock->account->signIn->apiKeyRow->isHidden());
	QCOMPARE(dock->account->session->statusLabel->text(), u"Status.Disconnected"_s);
	QCOMPARE(dock->account->session->startButton->styleSheet(), kGreen);
}

void PluginDockTest::signedInAtStartWithStoredKey()
{
	plugin->settings.apiKey = u"tak_live_stored"_s;
	make();
	QVERIFY(dock->account->authenticated);
	QVERIFY(dock->account->signIn->isHidden());
	QVERIFY(!dock->account->session->isHidden());
	QVERIFY(!dock->account->logoutButton->isHidden());
	// "Status.Ready" is overwritten at once by the state of the connection.
	QCOMPARE(dock->account->session->statusLabel->text(), u"Status.Disconnected"_s);
	QVERIFY(dock->account->session->startButton->isEnabled());
	QCOMPARE(dock->account->session->startButton->styleSheet(), kGreen);
}

void PluginDockTest::pluginSignalsArrive()
{
	make();
	Q_EMIT plugin->wsStateChanged(WsState::Authenticated);
	QCOMPARE(dock->account->session->statusLabel->text(), u"Status.Connected"_s);
	Q_EMIT plugin->transcriptUpdated(u"hello"_s);
	QCOMPARE(dock->transcript->transcriptView->toPlainText(), u"hello"_s);
	Q_EMIT plugin->limitWarning(u"captions"_s, 5);
	QCOMPARE(dock->usage->captionMinutesLabel->text(), u"<span style='color:orange'>5 min</span>"_s);
	Q_EMIT plugin->limitReached(u"dubbed"_s);
	QCOMPARE(dock->usage->dubbedMinutesLabel->text(), u"<span style='color:red'>Limit reached</span>"_s);
	Q_EMIT plugin->errorOccurred(u"broken"_s);
	QCOMPARE(dock->account->session->statusLabel->text(), u"<span style='color:red'>broken</span>"_s);
	plugin->setMaxTargetLanguages(3);
	QCOMPARE(dock->settings->languages->languageCountLabel->text(), u"0 / 3 languages"_s);
}

// In OBS's window

void PluginDockTest::registersWithTheFrontend()
{
	make();
	PluginDock *shown = dock.get();
	dock->show();
	QCOMPARE(frontendStub().docks.value(u"TalvoraDock"_s), static_cast<QWidget *>(shown));
	QCOMPARE(frontendStub().dockTitles.value(u"TalvoraDock"_s), u"Dock.Title"_s);
	QVERIFY(!dock->isVisible());
	frontendStub().docks.clear();
}

void PluginDockTest::closingOnlyHides()
{
	make().setVisible(true);
	QVERIFY(!dock->close());
	QVERIFY(!dock->isVisible());
}

void PluginDockTest::reopeningKeepsStateAndRefreshesAudioSources()
{
	make().setVisible(true);
	QVERIFY(dock->shownOnce);
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->count(), 1);
	dock->transcript->onTranscriptUpdated(u"still here"_s);
	dock->account->session->onWsStateChanged(WsState::Authenticated);
	dock->account->session->onSessionTick();
	dock->close();

	const TestAudioSource voice("Voice");
	dock->setVisible(true);
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->count(), 2);
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->itemText(1), u"Voice"_s);
	QCOMPARE(dock->transcript->transcriptView->toPlainText(), u"still here"_s);
	QCOMPARE(dock->account->session->statusLabel->text(), u"Status.Connected"_s);
	QCOMPARE(dock->account->session->clockLabel->text(), u"00:00:01"_s);
	QVERIFY(dock->account->session->sessionTimer->isActive());
}

namespace {

/**
 * OBS's window with two docks of its own, as it comes up with a layout that was saved, and one panel, which belongs to
 * it from then on.
 */
struct MainWindow {
	explicit MainWindow(PluginDock *shown, const QByteArray &layout = QByteArray())
	{
		config_open_string(&settings, "");
		frontendStub().windowSettings = settings;
		window.setGeometry(20, 40, 320, 300);
		controls = addDock(u"controlsDock"_s);
		chat = addDock(u"chatDock"_s);
		if (!layout.isEmpty()) {
			config_set_string(settings, "BasicWindow", "DockState", layout.toBase64().constData());
			window.restoreState(layout);
		}
		window.show();
		frontendStub().mainWindow = &window;
		if (shown) {
			add(shown);
		}
	}
	~MainWindow()
	{
		frontendStub().mainWindow = nullptr;
		frontendStub().windowSettings = nullptr;
		frontendStub().docks.clear();
		config_close(settings);
	}
	MainWindow(const MainWindow &) = delete;
	MainWindow &operator=(const MainWindow &) = delete;

	void add(PluginDock *shown)
	{
		panel = shown;
		panel->show();
	}

	QDockWidget *surrounding() const { return qobject_cast<QDockWidget *>(panel->parentWidget()); }

	QMainWindow window;
	QDockWidget *controls;
	QDockWidget *chat;
	PluginDock *panel = nullptr;

private:
	QDockWidget *addDock(const QString &name)
	{
		auto *dock = new QDockWidget(&window);
		dock->setObjectName(name);
		window.addDockWidget(Qt::BottomDockWidgetArea, dock);
		return dock;
	}

	config_t *settings = nullptr;
};

} // namespace

void PluginDockTest::comesBackWhereItWas()
{
	QByteArray layout;
	{
		MainWindow before(new PluginDock(plugin.get(), nullptr));
		QVERIFY(before.surrounding()->isFloating());
		QVERIFY(!before.surrounding()->isVisible());
		before.surrounding()->setFloating(false);
		before.window.addDockWidget(Qt::LeftDockWidgetArea, before.surrounding());
		before.panel->bringOnScreen();
		layout = before.window.saveState();
	}
	{
		const MainWindow again(new PluginDock(plugin.get(), nullptr), layout);
		QVERIFY(!again.surrounding()->isFloating());
		QCOMPARE(again.window.dockWidgetArea(again.surrounding()), Qt::LeftDockWidgetArea);
		QVERIFY(!again.surrounding()->isHidden());
		again.surrounding()->close();
		layout = again.window.saveState();
	}
	// Closed, it is opened from the menu where it was.
	MainWindow third(new PluginDock(plugin.get(), nullptr), layout);
	QVERIFY(third.surrounding()->isHidden());
	third.surrounding()->setVisible(true);
	QVERIFY(third.panel->isVisible());
	QCOMPARE(third.window.dockWidgetArea(third.surrounding()), Qt::LeftDockWidgetArea);
}

void PluginDockTest::floatingDockFitsOnTheScreen()
{
	MainWindow around(new PluginDock(plugin.get(), nullptr));
	around.surrounding()->setGeometry(700, 300, 380, 2000);
	around.panel->bringOnScreen();
	const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
	QTRY_VERIFY(screen.contains(around.surrounding()->frameGeometry()));
	QCOMPARE(around.surrounding()->width(), 380);
}

void PluginDockTest::newDockOpensBesideTheWindow()
{
	MainWindow around(new PluginDock(plugin.get(), nullptr));
	const QRect window = around.window.frameGeometry();
	const QPoint beside(window.right() + 1, window.top());
	around.panel->bringOnScreen();
	QTRY_COMPARE(around.surrounding()->pos(), beside);
}

void PluginDockTest::floatingDockComesBackWhereItWas()
{
	const QRect place(400, 90, 380, 620);
	QByteArray layout;
	{
		MainWindow before(new PluginDock(plugin.get(), nullptr));
		before.panel->bringOnScreen();
		QVERIFY(before.panel->shownOnce);
		QCoreApplication::processEvents();
		before.surrounding()->setGeometry(place);
		layout = before.window.saveState();
	}
	MainWindow again(new PluginDock(plugin.get(), nullptr), layout);
	QVERIFY(again.panel->shownOnce);
	QCoreApplication::processEvents();
	QCOMPARE(again.surrounding()->geometry(), place);
}

void PluginDockTest::tabInFrontComesBackInFront()
{
	QByteArray layout;
	{
		MainWindow before(new PluginDock(plugin.get(), nullptr));
		before.surrounding()->setFloating(false);
		before.panel->bringOnScreen();
		before.window.tabifyDockWidget(before.controls, before.surrounding());
		before.surrounding()->raise();
		layout = before.window.saveState();
	}
	const MainWindow again(new PluginDock(plugin.get(), nullptr), layout);
	QCOMPARE(again.window.tabifiedDockWidgets(again.surrounding()), {again.controls});
	QVERIFY(!again.surrounding()->visibleRegion().isEmpty());
	QVERIFY(again.controls->visibleRegion().isEmpty());
}

void PluginDockTest::dockOpenedByAnotherModuleStaysOpen()
{
	QByteArray layout;
	{
		MainWindow before(new PluginDock(plugin.get(), nullptr));
		before.chat->close();
		layout = before.window.saveState();
	}
	MainWindow again(nullptr, layout);
	QVERIFY(again.chat->isHidden());
	again.chat->setVisible(true);
	again.add(new PluginDock(plugin.get(), nullptr));
	QVERIFY(!again.chat->isHidden());
}

void PluginDockTest::mayBeLowInTheWindowOfObs()
{
	auto *panel = new PluginDock(plugin.get(), nullptr);
	QCOMPARE(panel->minimumSize(), QSize(320, 600));
	const MainWindow around(panel);
	QCOMPARE(panel->minimumSize(), QSize(320, 300));
}

void PluginDockTest::wheelOverAnUnfocusedControlChangesNothing()
{
	make().setVisible(true);
	const int before = dock->settings->languages->sourceLangCombo->currentIndex();
	const QPointF center = dock->settings->languages->sourceLangCombo->rect().center();
	QWheelEvent wheel(center, dock->settings->languages->sourceLangCombo->mapToGlobal(center), QPoint(),
			  QPoint(0, -120), Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
	QVERIFY(!dock->settings->languages->sourceLangCombo->hasFocus());
	QCoreApplication::sendEvent(dock->settings->languages->sourceLangCombo, &wheel);
	QCOMPARE(dock->settings->languages->sourceLangCombo->currentIndex(), before);
}

// Status

void PluginDockTest::looksOfTheStates_data()
{
	QTest::addColumn<int>("state");
	QTest::addColumn<QString>("dot");
	QTest::addColumn<QString>("text");
	QTest::addColumn<bool>("start");
	QTest::addColumn<QString>("startStyle");
	QTest::addColumn<bool>("stop");
	QTest::addColumn<QString>("stopStyle");
	const QString gray = u"color: gray; font-size: 16px;"_s;
	const QString orange = u"color: orange; font-size: 16px;"_s;
	const QString green = u"color: #4CAF50; font-size: 16px;"_s;
	QTest::newRow("disconnected") << 0 << gray << u"Status.Disconnected"_s << true << kGreen << false << kGrey;
	QTest::newRow("connecting") << 1 << orange << u"Status.Connecting"_s << false << kGrey << true << kRed;
	QTest::newRow("authenticating") << 2 << orange << u"Status.Connecting"_s << false << kGrey << true << kRed;
	QTest::newRow("connected") << 3 << green << u"Status.Connected"_s << false << kGrey << true << kRed;
	QTest::newRow("reconnecting") << 4 << orange << u"Status.Reconnecting"_s << true << kGreen << true << kRed;
	QTest::newRow("disconnecting") << 5 << gray << u"Status.Disconnecting"_s << false << kGrey << false << kGrey;
}

void PluginDockTest::looksOfTheStates()
{
	QFETCH(int, state);
	make().account->session->onErrorOccurred(u"earlier"_s);
	dock->account->session->onWsStateChanged(static_cast<WsState>(state));
	QTEST(dock->account->session->statusDot->styleSheet(), "dot");
	QTEST(dock->account->session->statusLabel->text(), "text");
	QTEST(dock->account->session->startButton->isEnabled(), "start");
	QTEST(dock->account->session->startButton->styleSheet(), "startStyle");
	QTEST(dock->account->session->stopButton->isEnabled(), "stop");
	QTEST(dock->account->session->stopButton->styleSheet(), "stopStyle");
	QCOMPARE(dock->account->session->sessionTimer->isActive(), state == 3);
	QVERIFY(dock->account->session->statusLabel->toolTip().isEmpty());
}

void PluginDockTest::errorsTooltipSaysItAsItIs_data()
{
	QTest::addColumn<QString>("message");
	QTest::addColumn<QString>("shown");
	const auto same = [](const char *name, const QString &text) { QTest::newRow(name) << text << text; };
	same("quotation marks", u"Host \"x\" is unknown & away"_s);
	same("markup", u"<b>bold</b> a<b"_s);
	QTest::newRow("endless") << QString(1100, u'x') << QString(1000, u'x');
}

void PluginDockTest::errorsTooltipSaysItAsItIs()
{
	QFETCH(QString, message);
	make().account->session->onErrorOccurred(message);
	// Qt decides by this how to show it; only rich text wraps.
	QVERIFY(Qt::mightBeRichText(dock->account->session->statusLabel->toolTip()));
	QTextDocument document;
	document.setHtml(dock->account->session->statusLabel->toolTip());
	QTEST(document.toPlainText(), "shown");
}

void PluginDockTest::unknownStateIsIgnored()
{
	make().account->session->onWsStateChanged(WsState::Authenticated);
	for (const int state : {6, 100, -1}) {
		dock->account->session->onWsStateChanged(static_cast<WsState>(state));
		QCOMPARE(dock->account->session->statusLabel->text(), u"Status.Connected"_s);
		QVERIFY(dock->account->session->sessionTimer->isActive());
	}
}

void PluginDockTest::stateIsNotShownInPart_data()
{
	QTest::addColumn<int>("missing");
	QTest::newRow("dot") << 0;
	QTest::newRow("text") << 1;
	QTest::newRow("start") << 2;
	QTest::newRow("stop") << 3;
}

void PluginDockTest::stateIsNotShownInPart()
{
	make().account->session->onWsStateChanged(WsState::Disconnected);
	QFETCH(int, missing);
	QLabel *dot = dock->account->session->statusDot;
	QLabel *label = dock->account->session->statusLabel;
	QPushButton *start = dock->account->session->startButton;
	QPushButton *stop = dock->account->session->stopButton;
	switch (missing) {
	case 0:
		dock->account->session->statusDot = nullptr;
		break;
	case 1:
		dock->account->session->statusLabel = nullptr;
		break;
	case 2:
		dock->account->session->startButton = nullptr;
		break;
	default:
		dock->account->session->stopButton = nullptr;
	}
	dock->account->session->onWsStateChanged(WsState::Authenticated);
	QCOMPARE(dot->styleSheet(), u"color: gray; font-size: 16px;"_s);
	QCOMPARE(label->text(), u"Status.Disconnected"_s);
	QVERIFY(start->isEnabled());
	QVERIFY(!stop->isEnabled());
	QVERIFY(!dock->account->session->sessionTimer->isActive());
}

void PluginDockTest::clockCountsHoursMinutesSeconds_data()
{
	QTest::addColumn<int>("seconds");
	QTest::addColumn<QString>("text");
	QTest::newRow("1 s") << 1 << u"00:00:01"_s;
	QTest::newRow("59 s") << 59 << u"00:00:59"_s;
	QTest::newRow("60 s") << 60 << u"00:01:00"_s;
	QTest::newRow("3661 s") << 3661 << u"01:01:01"_s;
	QTest::newRow("99:59:59") << 359999 << u"99:59:59"_s;
	QTest::newRow("360000 s") << 360000 << u"100:00:00"_s;
}

void PluginDockTest::clockCountsHoursMinutesSeconds()
{
	QFETCH(int, seconds);
	make();
	for (int i = 0; i < seconds; ++i) {
		dock->account->session->onSessionTick();
	}
	QTEST(dock->account->session->clockLabel->text(), "text");
	QCOMPARE(dock->account->session->sessionSeconds, seconds);
}

void PluginDockTest::clockRunsWhileConnected()
{
	make().account->session->onWsStateChanged(WsState::Authenticated);
	QCOMPARE(dock->account->session->clockLabel->text(), u"00:00:00"_s);
	QTRY_COMPARE_WITH_TIMEOUT(dock->account->session->clockLabel->text(), u"00:00:01"_s, 3000);
}

void PluginDockTest::clockSurvivesAReconnectAndIsResetByADisconnect()
{
	make().account->session->onWsStateChanged(WsState::Authenticated);
	dock->account->session->onSessionTick();
	dock->account->session->onSessionTick();
	dock->account->session->onWsStateChanged(WsState::Reconnecting);
	QVERIFY(dock->account->session->sessionTimer->isActive());
	dock->account->session->onWsStateChanged(WsState::Connecting);
	dock->account->session->onWsStateChanged(WsState::Connected);
	dock->account->session->onWsStateChanged(WsState::Authenticated);
	QCOMPARE(dock->account->session->sessionSeconds, 2);
	dock->account->session->onSessionTick();
	QCOMPARE(dock->account->session->clockLabel->text(), u"00:00:03"_s);

	dock->account->session->onWsStateChanged(WsState::Disconnected);
	QVERIFY(!dock->account->session->sessionTimer->isActive());
	QCOMPARE(dock->account->session->sessionSeconds, 0);
	QCOMPARE(dock->account->session->clockLabel->text(), u"00:00:00"_s);
}

void PluginDockTest::disconnectingStopsTheClockAndKeepsItsTime()
{
	make().account->session->onWsStateChanged(WsState::Authenticated);
	dock->account->session->onSessionTick();
	dock->account->session->onWsStateChanged(WsState::Disconnecting);
	QVERIFY(!dock->account->session->sessionTimer->isActive());
	QCOMPARE(dock->account->session->sessionSeconds, 1);
	QCOMPARE(dock->account->session->clockLabel->text(), u"00:00:01"_s);
}

void PluginDockTest::connectedAgainRestartsTheTimerOnly()
{
	make().account->session->onWsStateChanged(WsState::Authenticated);
	dock->account->session->onSessionTick();
	const int timer = dock->account->session->sessionTimer->timerId();
	dock->account->session->onWsStateChanged(WsState::Authenticated);
	QVERIFY(dock->account->session->sessionTimer->isActive());
	QVERIFY(dock->account->session->sessionTimer->timerId() != timer ||
		dock->account->session->sessionTimer->remainingTime() > 900);
	QCOMPARE(dock->account->session->sessionSeconds, 1);
}

void PluginDockTest::startAndStopAreHandedOn()
{
	plugin->settings.apiKey = u"tak_live_stored"_s;
	plugin->setDockFactory(createPluginDock);
	plugin->initialize();
	plugin->settings.apiKey.clear();
	dock = nullptr;
	auto *own = qobject_cast<PluginDock *>(plugin->dock);
	QVERIFY(own);
	own->account->session->onWsStateChanged(WsState::Reconnecting);
	session->log.clear();

	QTest::mouseClick(own->account->session->startButton, Qt::LeftButton);
	QCOMPARE(session->log.ownLines().first(), u"[talvora-obs] Talvora: Start Translating clicked"_s);
	QCOMPARE(session->log.ownLines().at(1), u"[talvora-obs] Talvora: startSession() called"_s);
	// Only the state of the connection changes the buttons.
	QVERIFY(own->account->session->startButton->isEnabled());
	session->log.clear();

	QTest::mouseClick(own->account->session->stopButton, Qt::LeftButton);
	QCOMPARE(session->log.ownLines(), QStringList{u"[talvora-obs] Talvora: disconnecting..."_s});
	QVERIFY(own->account->session->stopButton->isEnabled());
}

void PluginDockTest::errorsAreCutAt120Characters_data()
{
	QTest::addColumn<int>("length");
	QTest::addColumn<int>("shown");
	QTest::newRow("119") << 119 << 119;
	QTest::newRow("120") << 120 << 120;
	QTest::newRow("121") << 121 << 120;
	QTest::newRow("5000") << 5000 << 120;
	QTest::newRow("none") << 0 << 0;
}

void PluginDockTest::errorsAreCutAt120Characters()
{
	QFETCH(int, length);
	QFETCH(int, shown);
	make().account->session->statusLabel->setWordWrap(false);
	dock->account->session->onErrorOccurred(QString(length, u'e'));
	QCOMPARE(dock->account->session->statusLabel->text(),
		 u"<span style='color:red'>"_s + QString(shown, u'e') + u"</span>"_s);
	QVERIFY(dock->account->session->statusLabel->wordWrap());
}

void PluginDockTest::markupInAnErrorIsShownLiterally()
{
	make().account->session->onErrorOccurred(u"<b>bold</b> & \"quoted\" %1"_s);
	QCOMPARE(dock->account->session->statusLabel->text(),
		 u"<span style='color:red'>&lt;b&gt;bold&lt;/b&gt; &amp; &quot;quoted&quot; %1</span>"_s);
	// What is cut is the message, not its escaped form.
	dock->account->session->onErrorOccurred(QString(200, u'<'));
	QCOMPARE(dock->account->session->statusLabel->text().count(u"&lt;"_s), 120);
}

void PluginDockTest::errorsAreLoggedWhole()
{
	const QString message = QString(300, u'é') + u"<b>"_s;
	make();
	session->log.clear();
	dock->account->session->onErrorOccurred(message);
	QCOMPARE(session->log.lines(LOG_WARNING), QStringList{u"[talvora-obs] PluginDock error: "_s + message});
}

// Transcript and usage

void PluginDockTest::transcriptIsReplacedAsPlainText()
{
	make().transcript->onTranscriptUpdated(u"first"_s);
	dock->transcript->onTranscriptUpdated(u"<b>second</b>\nline"_s);
	QCOMPARE(dock->transcript->transcriptView->toPlainText(), u"<b>second</b>\nline"_s);
	const QString longText(100000, u'x');
	dock->transcript->onTranscriptUpdated(longText);
	QCOMPARE(dock->transcript->transcriptView->toPlainText(), longText);
	dock->transcript->onTranscriptUpdated(QString());
	QCOMPARE(dock->transcript->transcriptView->toPlainText(), QString());
}

void PluginDockTest::limitWarnings_data()
{
	QTest::addColumn<QString>("type");
	QTest::addColumn<QString>("captions");
	QTest::addColumn<QString>("dubbed");
	const QString none = u"\u2014"_s;
	const QString some = u"<span style='color:orange'>12 min</span>"_s;
	QTest::newRow("captions") << u"captions"_s << some << none;
	QTest::newRow("dubbed") << u"dubbed"_s << none << some;
	QTest::newRow("Dubbed with a capital") << u"Dubbed"_s << none << none;
	QTest::newRow("caption") << u"caption"_s << none << none;
	QTest::newRow("empty") << QString() << none << none;
}

void PluginDockTest::limitWarnings()
{
	QFETCH(QString, type);
	make();
	session->log.clear();
	dock->usage->onLimitWarning(type, 12);
	QTEST(dock->usage->captionMinutesLabel->text(), "captions");
	QTEST(dock->usage->dubbedMinutesLabel->text(), "dubbed");
	QCOMPARE(session->log.ownLines(), QStringList());
}

void PluginDockTest::limitReached_data()
{
	QTest::addColumn<QString>("type");
	QTest::addColumn<QString>("captions");
	QTest::addColumn<QString>("dubbed");
	const QString none = u"\u2014"_s;
	const QString reached = u"<span style='color:red'>Limit reached</span>"_s;
	QTest::newRow("captions") << u"captions"_s << reached << none;
	QTest::newRow("dubbed") << u"dubbed"_s << none << reached;
	QTest::newRow("Captions with a capital") << u"Captions"_s << none << none;
}

void PluginDockTest::limitReached()
{
	QFETCH(QString, type);
	make().usage->onLimitReached(type);
	QTEST(dock->usage->captionMinutesLabel->text(), "captions");
	QTEST(dock->usage->dubbedMinutesLabel->text(), "dubbed");
}

void PluginDockTest::reachedLimitDoesNotStopTheSession()
{
	make().account->session->onWsStateChanged(WsState::Authenticated);
	session->log.clear();
	dock->usage->onLimitReached(u"captions"_s);
	QVERIFY(dock->account->session->sessionTimer->isActive());
	QVERIFY(dock->account->session->stopButton->isEnabled());
	QCOMPARE(session->log.ownLines(), QStringList());
}

QTEST_MAIN(PluginDockTest)
#include "plugin-dock-test.moc"

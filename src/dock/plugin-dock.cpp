// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "dock/plugin-dock-widgets.h"
#include "dock/window-layout.h"
#include "plugin-support.h"
#include "sign-in/oauth-listener.h"

#include <QAction>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QGroupBox>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QSlider>
#include <QTableWidget>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>

#include <obs-frontend-api.h>
#include <obs-module.h>

#include <array>
#include <utility>

namespace {

constexpr qsizetype kErrorLength = 120;
constexpr int kClockIntervalMs = 1000;
/** All of the panel scrolls, and with more than this OBS's window often has no room for the dock beside its own ones.
 */
constexpr int kMinimumHeightInWindow = 300;
constexpr QChar kNoMinutes = u'—';

constexpr auto kGreenButton = "QPushButton { background-color: #4CAF50; color: white; border-radius: 4px; "
			      "padding: 6px 14px; font-weight: bold; }";
constexpr auto kRedButton = "QPushButton { background-color: #f44336; color: white; border-radius: 4px; "
			    "padding: 6px 14px; font-weight: bold; }";
constexpr auto kGreyButton = "QPushButton { background-color: #555; color: #888; border-radius: 4px; "
			     "padding: 6px 14px; }";

enum class Clock { Reset, Keep, Run, Halt };

/** How one state of the connection is shown. */
struct StateLook {
	const char *dotColor;
	const char *textKey;
	bool canStart;
	bool canStop;
	Clock clock;
};

/** By number of the state. While reconnecting the user may start anew or stop. */
constexpr std::array<StateLook, 6> kStateLooks{{
	{"gray", "Status.Disconnected", true, false, Clock::Reset},
	{"orange", "Status.Connecting", false, true, Clock::Keep},
	{"orange", "Status.Connecting", false, true, Clock::Keep},
	{"#4CAF50", "Status.Connected", false, true, Clock::Run},
	{"orange", "Status.Reconnecting", true, true, Clock::Keep},
	{"gray", "Status.Disconnecting", false, false, Clock::Halt},
}};

QString clockText(int seconds)
{
	const auto twoDigits = [](int number) { return QStringLiteral("%1").arg(number, 2, 10, QLatin1Char('0')); };
	return QStringLiteral("%1:%2:%3")
		.arg(twoDigits(seconds / 3600), twoDigits(seconds % 3600 / 60), twoDigits(seconds % 60));
}

QLabel *brandLabel()
{
	auto *brand = new QLabel(QStringLiteral("Talvora"));
	QFont font = brand->font();
	font.setPointSize(14);
	font.setWeight(QFont::Bold);
	brand->setFont(font);
	// OBS's themes set a size for every widget, which only a style sheet outweighs.
	brand->setStyleSheet(QStringLiteral("font-size: 14pt;"));
	brand->setAlignment(Qt::AlignCenter);
	return brand;
}

QLabel *taglineLabel()
{
	QLabel *tagline = dock::label("Dock.Tagline");
	tagline->setAlignment(Qt::AlignCenter);
	tagline->setStyleSheet(QStringLiteral("color: gray; font-size: 11px;"));
	return tagline;
}

} // namespace

PluginDock::PluginDock(TalvoraPlugin *owner, QWidget *parent)
	: QDockWidget(dock::text("Dock.Title"), parent), plugin(owner)
{
	setObjectName(QString::fromUtf8(TalvoraPlugin::kDockId));
	setAllowedAreas(Qt::AllDockWidgetAreas);
	setMinimumSize(320, 600);
	// OBS puts the panel into a dock of its own, whose title bar and buttons are the ones to see and use.
	setTitleBarWidget(new QWidget(this));
	setFeatures(QDockWidget::NoDockWidgetFeatures);

	buildUi();
	initializeSettings();
	populateLanguageTable();
	connectPlugin();

	sessionTimer = new QTimer(this);
	sessionTimer->setInterval(kClockIntervalMs);
	connect(sessionTimer, &QTimer::timeout, this, &PluginDock::onSessionTick);

	if (!plugin->currentSettings().apiKey.isEmpty()) {
		setAuthenticated(true);
	} else {
		updateStatusIndicator(plugin->wsState());
	}
}

PluginDock::~PluginDock()
{
	if (oauthListener) {
		// Aborting reports a failure, which takes the listener away.
		oauthListener->abort();
		delete std::exchange(oauthListener, nullptr);
	}
}

void PluginDock::connectPlugin()
{
	connect(plugin, &TalvoraPlugin::wsStateChanged, this, &PluginDock::onWsStateChanged);
	connect(plugin, &TalvoraPlugin::transcriptUpdated, this, &PluginDock::onTranscriptUpdated);
	connect(plugin, &TalvoraPlugin::limitWarning, this, &PluginDock::onLimitWarning);
	connect(plugin, &TalvoraPlugin::limitReached, this, &PluginDock::onLimitReached);
	connect(plugin, &TalvoraPlugin::errorOccurred, this, &PluginDock::onErrorOccurred);
	connect(plugin, &TalvoraPlugin::maxTargetLanguagesChanged, this, &PluginDock::onMaxTargetLanguagesChanged);
	connect(plugin, &TalvoraPlugin::audioSourcesChanged, this, &PluginDock::refreshAudioSources);
}

// Layout

void PluginDock::buildUi()
{
	// From the outside in: what is put into a parent is styled anew, with everything that is in it by then.
	auto *scrollArea = new QScrollArea();
	scrollArea->setAccessibleName(windowTitle());
	scrollArea->setWidgetResizable(true);
	scrollArea->setFrameShape(QFrame::NoFrame);
	setWidget(scrollArea);
	auto *panel = new QWidget();
	scrollArea->setWidget(panel);

	auto *sections = new QVBoxLayout(panel);
	sections->setContentsMargins(8, 8, 8, 8);
	sections->setSpacing(6);
	sections->addWidget(brandLabel());
	sections->addWidget(taglineLabel());
	sections->addWidget(dock::separator());
	sections->addWidget(buildAuthSection());
	sections->addWidget(dock::separator());
	sections->addWidget(buildSettingsSection());
	sections->addWidget(dock::separator());
	sections->addWidget(buildTranscriptWidget());
	sections->addWidget(buildStatusSection());
	sections->addStretch();

	// Scrolling the panel must not change the setting the pointer happens to be over.
	const auto controls = panel->findChildren<QWidget *>();
	for (QWidget *control : controls) {
		if (qobject_cast<QComboBox *>(control) || qobject_cast<QSlider *>(control)) {
			control->setFocusPolicy(Qt::StrongFocus);
			control->installEventFilter(this);
		}
	}
}

QWidget *PluginDock::buildTranscriptWidget()
{
	transcriptView = new QTextEdit();
	transcriptView->setReadOnly(true);
	transcriptView->setMaximumHeight(90);
	transcriptView->setMinimumWidth(180);
	transcriptView->setStyleSheet(
		QStringLiteral("background: transparent; border: 1px solid #333; font-size: 12px;"));
	transcriptView->setPlaceholderText(dock::text("Dock.Status.TranscriptPlaceholder"));
	// Otherwise the key would end here on its way through the panel.
	transcriptView->setTabChangesFocus(true);

	QLabel *caption = dock::label("Dock.Status.Transcript", transcriptView);
	caption->setStyleSheet(QStringLiteral("font-size: 11px; color: gray;"));

	auto *container = new QWidget();
	auto *rows = new QVBoxLayout(container);
	dock::removeMargins(rows);
	rows->addWidget(caption);
	rows->addWidget(transcriptView);
	return container;
}

QWidget *PluginDock::buildStatusSection()
{
	const auto minutes = [] {
		auto *label = new QLabel(QString(kNoMinutes));
		label->setWordWrap(true);
		return label;
	};
	captionMinutesLabel = minutes();
	dubbedMinutesLabel = minutes();

	auto *row = new QHBoxLayout();
	row->addWidget(dock::rowLabel("Dock.Status.CaptionMins"));
	row->addWidget(captionMinutesLabel);
	row->addSpacing(12);
	row->addWidget(dock::rowLabel("Dock.Status.DubbedMins"));
	row->addWidget(dubbedMinutesLabel);
	row->addStretch();

	auto *group = new QGroupBox(dock::text("Dock.Status.Title"));
	auto *rows = new QVBoxLayout(group);
	rows->addLayout(row);
	return group;
}

// The dock in OBS's window

void PluginDock::show()
{
	auto *window = static_cast<QMainWindow *>(obs_frontend_get_main_window());
	obs_frontend_add_dock_by_id(TalvoraPlugin::kDockId, obs_module_text("Dock.Title"), this);
	if (QDockWidget *surrounding = surroundingDock(); window && surrounding) {
		setMinimumHeight(kMinimumHeightInWindow);
		// A layout from before the dock's first time leaves it as OBS made it: hidden, floating and nowhere.
		const QRect made = surrounding->geometry();
		restoreWindowLayout(*window);
		isNew = surrounding->isFloating() && surrounding->geometry() == made;
	}
	if (QDockWidget *surrounding = surroundingDock()) {
		// Who opens the dock from the menu by keyboard could not get into it otherwise when it floats.
		connect(surrounding->toggleViewAction(), &QAction::triggered, this, [this](bool opened) {
			if (opened) {
				takeKeyboard();
			}
		});
	}
}

/** The first Tab then goes to the first control. */
void PluginDock::takeKeyboard()
{
	activateWindow();
	widget()->setFocus(Qt::OtherFocusReason);
}

void PluginDock::bringOnScreen()
{
	setVisible(true);
	if (QDockWidget *surrounding = surroundingDock()) {
		surrounding->setVisible(true);
	}
}

QDockWidget *PluginDock::surroundingDock() const
{
	return qobject_cast<QDockWidget *>(parentWidget());
}

void PluginDock::closeEvent(QCloseEvent *event)
{
	event->ignore();
	setVisible(false);
}

void PluginDock::showEvent(QShowEvent *event)
{
	QDockWidget::showEvent(event);
	refreshAudioSources();
	if (!shownOnce) {
		// The window around the panel has its size and place only when OBS has finished showing it.
		QTimer::singleShot(0, this, &PluginDock::fitOnScreen);
	}
	shownOnce = true;
}

/**
 * A floating dock may be larger than the screen: it prefers a height of its own, or was used on another one.
 * A new one goes right of OBS's window, as far as there is room: by itself it opens in the corner of the screen.
 */
void PluginDock::fitOnScreen()
{
	QDockWidget *surrounding = surroundingDock();
	if (!surrounding || !surrounding->isFloating()) {
		return;
	}
	if (const QWidget *window = surrounding->parentWidget(); isNew && window) {
		surrounding->move(window->frameGeometry().right() + 1, window->frameGeometry().top());
	}
	const QRect available = surrounding->screen()->availableGeometry();
	const QSize frame = surrounding->frameGeometry().size() - surrounding->size();
	surrounding->resize(surrounding->size().boundedTo(available.size() - frame));

	QRect place(surrounding->pos(), surrounding->size() + frame);
	place.moveRight(qMin(place.right(), available.right()));
	place.moveBottom(qMin(place.bottom(), available.bottom()));
	place.moveLeft(qMax(place.left(), available.left()));
	place.moveTop(qMax(place.top(), available.top()));
	surrounding->move(place.topLeft());
}

bool PluginDock::eventFilter(QObject *watched, QEvent *event)
{
	if (event->type() == QEvent::Wheel && !qobject_cast<QWidget *>(watched)->hasFocus()) {
		event->ignore();
		return true;
	}
	if (const auto *box = qobject_cast<QCheckBox *>(watched); box && event->type() == QEvent::FocusIn) {
		// A box of the language table, reached by the keyboard.
		languageTable->scrollTo(languageTable->indexAt(box->parentWidget()->pos()));
	}
	if (watched == passwordEdit && event->type() == QEvent::KeyPress) {
		// Enter held down is one attempt: services lock an account after a few wrong passwords.
		const auto *pressed = static_cast<QKeyEvent *>(event);
		if (pressed->isAutoRepeat() && (pressed->key() == Qt::Key_Return || pressed->key() == Qt::Key_Enter)) {
			return true;
		}
	}
	return QDockWidget::eventFilter(watched, event);
}

// Status

void PluginDock::onWsStateChanged(WsState state)
{
	updateStatusIndicator(state);
}

void PluginDock::updateStatusIndicator(WsState state)
{
	const auto number = static_cast<size_t>(state);
	if (!statusDot || !statusLabel || !startButton || !stopButton || number >= kStateLooks.size()) {
		return;
	}
	const StateLook &look = kStateLooks.at(number);
	statusDot->setStyleSheet(QStringLiteral("color: %1; font-size: 16px;").arg(QLatin1String(look.dotColor)));
	statusLabel->setText(dock::text(look.textKey));
	statusLabel->setToolTip(QString());
	startButton->setEnabled(look.canStart);
	startButton->setStyleSheet(QString::fromUtf8(look.canStart ? kGreenButton : kGreyButton));
	stopButton->setEnabled(look.canStop);
	stopButton->setStyleSheet(QString::fromUtf8(look.canStop ? kRedButton : kGreyButton));

	switch (look.clock) {
	case Clock::Reset:
		sessionTimer->stop();
		sessionSeconds = 0;
		clockLabel->setText(clockText(sessionSeconds));
		break;
	case Clock::Run:
		sessionTimer->start();
		break;
	case Clock::Halt:
		sessionTimer->stop();
		break;
	case Clock::Keep:
		break;
	}
}

void PluginDock::onSessionTick()
{
	++sessionSeconds;
	clockLabel->setText(clockText(sessionSeconds));
}

void PluginDock::onStartClicked()
{
	talvora_log(LOG_INFO, "Talvora: Start Translating clicked");
	plugin->startSession();
}

void PluginDock::onStopClicked()
{
	plugin->stopSession();
}

void PluginDock::onTranscriptUpdated(const QString &text)
{
	transcriptView->setPlainText(text);
}

void PluginDock::onErrorOccurred(const QString &message)
{
	if (statusLabel) {
		statusLabel->setWordWrap(true);
		statusLabel->setText(dock::redText(dock::cutAndEscape(message, kErrorLength)));
		// A word longer than the line, such as an address, is cut at its end.
		statusLabel->setToolTip(dock::toolTip(message));
	}
	talvora_log(LOG_WARNING, "PluginDock error: %s", message.toUtf8().constData());
}

// Usage

QLabel *PluginDock::minutesLabel(const QString &type) const
{
	if (type == QLatin1String("dubbed")) {
		return dubbedMinutesLabel;
	}
	return type == QLatin1String("captions") ? captionMinutesLabel : nullptr;
}

void PluginDock::onLimitWarning(const QString &type, int minutesRemaining)
{
	if (QLabel *label = minutesLabel(type)) {
		label->setText(QStringLiteral("<span style='color:orange'>%1 min</span>").arg(minutesRemaining));
	}
}

void PluginDock::onLimitReached(const QString &type)
{
	if (QLabel *label = minutesLabel(type)) {
		label->setText(dock::redText(QStringLiteral("Limit reached")));
	}
}

QWidget *createPluginDock(TalvoraPlugin *plugin)
{
	auto *dock = new PluginDock(plugin, nullptr);
	dock->show();
	if (plugin->currentSettings().dockVisible) {
		QTimer::singleShot(0, dock, &PluginDock::bringOnScreen);
	}
	return dock;
}

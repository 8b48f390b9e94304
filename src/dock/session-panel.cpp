// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/session-panel.h"

#include "core/talvora-plugin.h"
#include "dock/dock-widgets.h"
#include "plugin-support.h"

#include <QHBoxLayout>
#include <QTimer>
#include <QVBoxLayout>

#include <array>

namespace {

constexpr qsizetype kErrorLength = 120;
constexpr int kClockIntervalMs = 1000;

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

} // namespace

SessionPanel::SessionPanel(TalvoraPlugin &owner, QWidget *dock)
	: plugin(owner), startButton(dock::button(dock::text("Dock.Auth.StartTranslating"))),
	  stopButton(dock::button(dock::text("Dock.Auth.StopTranslating"))), statusDot(new QLabel(QStringLiteral("●"))),
	  statusLabel(dock::label("Status.Disconnected")), clockLabel(new QLabel(QStringLiteral("00:00:00"))),
	  sessionTimer(new QTimer(dock))
{
	connect(startButton, &QPushButton::clicked, this, &SessionPanel::onStartClicked);
	connect(stopButton, &QPushButton::clicked, this, &SessionPanel::onStopClicked);
	auto *buttons = new QHBoxLayout();
	buttons->addWidget(startButton);
	buttons->addWidget(stopButton);

	statusDot->setStyleSheet(QStringLiteral("color: gray; font-size: 16px;"));
	// Messages from outside take the room there is, however long their words are.
	statusLabel->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
	clockLabel->setStyleSheet(QStringLiteral("color: gray;"));
	clockLabel->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Preferred);
	auto *status = new QHBoxLayout();
	status->addWidget(statusDot, 0);
	status->addWidget(statusLabel, 1);
	status->addWidget(clockLabel, 0);

	auto *rows = new QVBoxLayout(this);
	dock::removeMargins(rows);
	rows->addLayout(buttons);
	rows->addLayout(status);

	sessionTimer->setInterval(kClockIntervalMs);
	connect(sessionTimer, &QTimer::timeout, this, &SessionPanel::onSessionTick);
}

void SessionPanel::onWsStateChanged(WsState state)
{
	updateStatusIndicator(state);
}

void SessionPanel::updateStatusIndicator(WsState state)
{
	const auto number = static_cast<size_t>(state);
	if (!statusDot || !statusLabel || !startButton || !stopButton || number >= kStateLooks.size()) {
		return;
	}
	const StateLook &look = kStateLooks.at(number);
	statusDot->setStyleSheet(QStringLiteral("color: %1; font-size: 16px;").arg(QLatin1String(look.dotColor)));
	statusLabel->setText(dock::text(look.textKey));
	statusLabel->setToolTip(QString());
	enableButtons(look.canStart, look.canStop);
	startButton->setStyleSheet(QString::fromUtf8(look.canStart ? kGreenButton : kGreyButton));
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

/**
 * QWidget::setEnabled(false) hands the keyboard on to the next control, which is the list of audio sources. It goes to
 * the other button instead, or stays with the panel while neither can be pressed.
 */
void SessionPanel::enableButtons(bool canStart, bool canStop)
{
	const QWidget *focused = window()->focusWidget();
	startButton->setEnabled(canStart || startButton->isEnabled());
	stopButton->setEnabled(canStop || stopButton->isEnabled());
	if (focused == this || (focused == startButton && !canStart) || (focused == stopButton && !canStop)) {
		QWidget *next = canStart ? startButton : canStop ? static_cast<QWidget *>(stopButton) : this;
		next->setFocus(Qt::OtherFocusReason);
	}
	startButton->setEnabled(canStart);
	stopButton->setEnabled(canStop);
}

void SessionPanel::takeKeyboard()
{
	(startButton->isEnabled() ? startButton : stopButton)->setFocus(Qt::OtherFocusReason);
}

void SessionPanel::onSessionTick()
{
	++sessionSeconds;
	clockLabel->setText(clockText(sessionSeconds));
}

void SessionPanel::onStartClicked()
{
	talvora_log(LOG_INFO, "Talvora: Start Translating clicked");
	plugin.startSession();
}

void SessionPanel::onStopClicked()
{
	plugin.stopSession();
}

void SessionPanel::onErrorOccurred(const QString &message)
{
	if (statusLabel) {
		statusLabel->setWordWrap(true);
		statusLabel->setText(dock::redText(dock::cutAndEscape(message, kErrorLength)));
		// A word longer than the line, such as an address, is cut at its end.
		statusLabel->setToolTip(dock::toolTip(message));
	}
	talvora_log(LOG_WARNING, "PluginDock error: %s", message.toUtf8().constData());
}

void SessionPanel::showMessage(const QString &text)
{
	statusLabel->setText(text);
}

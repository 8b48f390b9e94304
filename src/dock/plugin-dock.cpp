// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "dock/account-section.h"
#include "dock/audio-source-rows.h"
#include "dock/dock-widgets.h"
#include "dock/language-rows.h"
#include "dock/session-panel.h"
#include "dock/settings-section.h"
#include "dock/transcript-view.h"
#include "dock/usage-section.h"
#include "dock/wheel-guard.h"
#include "dock/window-layout.h"

#include <QAction>
#include <QCloseEvent>
#include <QLabel>
#include <QMainWindow>
#include <QScreen>
#include <QScrollArea>
#include <QTimer>
#include <QVBoxLayout>

#include <obs-frontend-api.h>
#include <obs-module.h>

namespace {

/** All of the panel scrolls, and with more than this OBS's window often has no room for the dock beside its own ones.
 */
constexpr int kMinimumHeightInWindow = 300;

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
	settings->initializeSettings();
	connectPlugin();

	if (!plugin->currentSettings().apiKey.isEmpty()) {
		account->setAuthenticated(true);
	} else {
		account->sessionPanel().updateStatusIndicator(plugin->wsState());
	}
}

PluginDock::~PluginDock()
{
	account->endSignIn();
}

void PluginDock::connectPlugin()
{
	SessionPanel *session = &account->sessionPanel();
	connect(plugin, &TalvoraPlugin::wsStateChanged, session, &SessionPanel::onWsStateChanged);
	connect(plugin, &TalvoraPlugin::transcriptUpdated, transcript, &TranscriptView::onTranscriptUpdated);
	connect(plugin, &TalvoraPlugin::limitWarning, usage, &UsageSection::onLimitWarning);
	connect(plugin, &TalvoraPlugin::limitReached, usage, &UsageSection::onLimitReached);
	connect(plugin, &TalvoraPlugin::errorOccurred, session, &SessionPanel::onErrorOccurred);
	connect(plugin, &TalvoraPlugin::maxTargetLanguagesChanged, &settings->languageRows(),
		&LanguageRows::onMaxTargetLanguagesChanged);
	connect(plugin, &TalvoraPlugin::audioSourcesChanged, &settings->audioSourceRows(),
		&AudioSourceRows::refreshAudioSources);
	connect(plugin, &TalvoraPlugin::settingsChanged, settings, &SettingsSection::onSettingsChanged);
}

// Layout

void PluginDock::buildUi()
{
	// Built from the outside in: adding a widget to a parent styles its whole subtree again, so a finished subtree
	// would be styled twice.
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

	WheelGuard::protect(panel);
}

AccountSection *PluginDock::buildAuthSection()
{
	return account = new AccountSection(*plugin, this);
}

SettingsSection *PluginDock::buildSettingsSection()
{
	return settings = new SettingsSection(*plugin, this);
}

TranscriptView *PluginDock::buildTranscriptWidget()
{
	return transcript = new TranscriptView();
}

UsageSection *PluginDock::buildStatusSection()
{
	return usage = new UsageSection();
}

// The dock in OBS's window

void PluginDock::show()
{
	auto *window = static_cast<QMainWindow *>(obs_frontend_get_main_window());
	obs_frontend_add_dock_by_id(TalvoraPlugin::kDockId, obs_module_text("Dock.Title"), this);
	if (QDockWidget *surrounding = surroundingDock(); window && surrounding) {
		setMinimumHeight(kMinimumHeightInWindow);
		// A saved layout older than this dock does not mention it. The dock then stays as OBS made it (hidden,
		// floating, no place), and fitOnScreen() finds it one.
		const QRect made = surrounding->geometry();
		restoreWindowLayout(*window);
		isNew = surrounding->isFloating() && surrounding->geometry() == made;
	}
	if (QDockWidget *surrounding = surroundingDock()) {
		// A floating dock opened from the Docks menu does not get the focus; a keyboard user could not reach
		// it.
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
	settings->audioSourceRows().refreshAudioSources();
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

QWidget *createPluginDock(TalvoraPlugin *plugin)
{
	auto *dock = new PluginDock(plugin, nullptr);
	dock->show();
	if (plugin->currentSettings().dockVisible) {
		QTimer::singleShot(0, dock, &PluginDock::bringOnScreen);
	}
	return dock;
}

// SPDX-License-Identifier: GPL-2.0-or-later
#include "plugin-dock.h"

#include <QMainWindow>

#include <obs-frontend-api.h>
#include <obs-module.h>

PluginDock::PluginDock(TalvoraPlugin *, QWidget *parent)
	: QDockWidget(QString::fromUtf8(obs_module_text("Dock.Title")), parent)
{
	setObjectName(QStringLiteral("TalvoraDock"));
	setAllowedAreas(Qt::AllDockWidgetAreas);
	setMinimumSize(320, 600);
	// OBS puts the panel into a dock of its own, whose title bar and buttons are the ones to see and use.
	setTitleBarWidget(new QWidget(this));
	setFeatures(QDockWidget::NoDockWidgetFeatures);
}

void PluginDock::show()
{
	obs_frontend_add_dock_by_id("TalvoraDock", obs_module_text("Dock.Title"), this);
}

void PluginDock::bringOnScreen()
{
	setVisible(true);
	auto *surrounding = qobject_cast<QDockWidget *>(parentWidget());
	if (!surrounding) {
		return;
	}
	// OBS restored its window before this dock existed.
	if (auto *window = qobject_cast<QMainWindow *>(surrounding->parentWidget())) {
		window->restoreDockWidget(surrounding);
	}
	surrounding->setVisible(true);
}

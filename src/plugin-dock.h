// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QDockWidget>

class TalvoraPlugin;

/** The panel inside OBS. User-interface thread. OBS owns it once show() has handed it over. */
class PluginDock : public QDockWidget {
	Q_OBJECT

public:
	PluginDock(TalvoraPlugin *plugin, QWidget *parent);

	/** Registers the panel with OBS, which puts it into a dock of its own. */
	void show();

	/** Opens the OBS dock around the panel, in the place it had when OBS was last closed. */
	void bringOnScreen();

	QSize sizeHint() const override { return {380, 800}; }
};

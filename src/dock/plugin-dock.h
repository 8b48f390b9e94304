// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QDockWidget>

class AccountSection;
class SettingsSection;
class TalvoraPlugin;
class TranscriptView;
class UsageSection;

/**
 * The panel inside OBS: sign-in, settings, languages, transcript and usage, each in a class of its own. It keeps no
 * settings: every control hands its value to the plug-in, which stores and applies it.
 *
 * User-interface thread. OBS owns it once show() has handed it over.
 */
class PluginDock : public QDockWidget {
	Q_OBJECT

public:
	/** @param plugin must outlive the dock */
	PluginDock(TalvoraPlugin *plugin, QWidget *parent);
	~PluginDock() override;

	/** Registers the panel with OBS, which puts it into a dock of its own, and puts that where it was last time. */
	void show();

	/** Opens the OBS dock around the panel. */
	void bringOnScreen();

	QSize sizeHint() const override { return {380, 800}; }
	/** Hides the panel; closing never destroys it. */
	void closeEvent(QCloseEvent *event) override;
	/** Lists the audio sources anew. */
	void showEvent(QShowEvent *event) override;

private:
	friend class PluginDockTest;

	void buildUi();
	AccountSection *buildAuthSection();
	SettingsSection *buildSettingsSection();
	TranscriptView *buildTranscriptWidget();
	UsageSection *buildStatusSection();
	void connectPlugin();
	/** The dock OBS has put around the panel; null before that. */
	QDockWidget *surroundingDock() const;
	void fitOnScreen();
	void takeKeyboard();

	TalvoraPlugin *const plugin;
	AccountSection *account = nullptr;
	SettingsSection *settings = nullptr;
	TranscriptView *transcript = nullptr;
	UsageSection *usage = nullptr;
	bool shownOnce = false;
	/** OBS's layout had no place for the dock yet. */
	bool isNew = false;
};

/** The plug-in's way to its dock, see TalvoraPlugin::setDockFactory(). */
QWidget *createPluginDock(TalvoraPlugin *plugin);

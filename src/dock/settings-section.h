// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QGroupBox>

class AudioSourceRows;
class CaptionRows;
class LanguageRows;
class LevelRows;
class TalvoraPlugin;

/** The settings, group by group. They are the plug-in's: a control hands its value on and shows what is held there. */
class SettingsSection : public QGroupBox {
	Q_OBJECT

public:
	/** @param dock becomes the parent of the dialogs */
	SettingsSection(TalvoraPlugin &plugin, QWidget *dock);

	/** Shows what the plug-in holds. A control that changes here hands its value back, which changes nothing. */
	void initializeSettings();
	AudioSourceRows &audioSourceRows() const { return *audioSource; }
	LanguageRows &languageRows() const { return *languages; }

public Q_SLOTS:
	/** Shows what the plug-in holds, whoever has changed it. Nothing is handed back. */
	void onSettingsChanged();

private:
	friend class PluginDockTest;

	TalvoraPlugin &plugin;
	AudioSourceRows *audioSource;
	LanguageRows *languages;
	CaptionRows *captions;
	LevelRows *levels;
};

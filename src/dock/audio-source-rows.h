// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QObject>

class QCheckBox;
class QComboBox;
class QVBoxLayout;
class TalvoraPlugin;
struct Settings;

/** The source whose audio is translated, and whether the dubs leave it out. */
class AudioSourceRows : public QObject {
	Q_OBJECT

public:
	/** @param rows get what there is to see; the list of sources stays empty until it is refreshed */
	AudioSourceRows(TalvoraPlugin &plugin, QVBoxLayout &rows, QObject *parent);

	void showSettings(const Settings &chosen);

public Q_SLOTS:
	/** Lists the sources that OBS has now, and selects the chosen one, be it there or not. */
	void refreshAudioSources();

private Q_SLOTS:
	void onAudioSourceChanged(int index);
	void onMuteOriginalToggled(bool checked);

private:
	friend class PluginDockTest;

	TalvoraPlugin &plugin;
	QComboBox *audioSourceCombo;
	QCheckBox *muteOriginalCheck;
};

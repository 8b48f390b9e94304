// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QObject>

class QLabel;
class QSlider;
class QVBoxLayout;
class TalvoraPlugin;
struct Settings;

/** How loud the original is under the speech of a dub, and how loud that speech is. */
class LevelRows : public QObject {
	Q_OBJECT

public:
	/** @param rows get what there is to see */
	LevelRows(TalvoraPlugin &plugin, QVBoxLayout &rows, QObject *parent);

	void showSettings(const Settings &chosen);

private Q_SLOTS:
	void onDuckingSliderChanged(int value);
	void onTtsVolumeSliderChanged(int value);

private:
	friend class PluginDockTest;

	TalvoraPlugin &plugin;
	QSlider *duckingSlider = nullptr;
	QLabel *duckingValueLabel = nullptr;
	QSlider *ttsVolumeSlider = nullptr;
	QLabel *ttsVolumeValueLabel = nullptr;
};

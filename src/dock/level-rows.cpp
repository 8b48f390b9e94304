// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/level-rows.h"

#include "core/talvora-plugin.h"
#include "dock/dock-widgets.h"

#include <QSlider>
#include <QVBoxLayout>

#include <cmath>
#include <limits>

namespace {

/** A gain as whole percent, towards zero. */
int toPercent(float gain)
{
	// Half of the gains that a slider gives are a little less than their percent when they are 32-bit floats.
	constexpr double kRounding = 1e-4;
	const double percent = gain * 100.0;
	// Values from the configuration file may be anything.
	return static_cast<int>(qBound<double>(std::numeric_limits<int>::min(),
					       percent + std::copysign(kRounding, percent),
					       std::numeric_limits<int>::max()));
}

float toGain(int percent)
{
	return static_cast<float>(percent / 100.0);
}

void showGain(QSlider *slider, QLabel *valueLabel, float gain)
{
	slider->setValue(toPercent(gain));
	valueLabel->setText(dock::percentText(toPercent(gain)));
}

} // namespace

LevelRows::LevelRows(TalvoraPlugin &owner, QVBoxLayout &rows, QObject *parent) : QObject(parent), plugin(owner)
{
	duckingSlider = dock::percentRows(rows, "Dock.Settings.DuckingLevel", 20, duckingValueLabel);
	connect(duckingSlider, &QSlider::valueChanged, this, &LevelRows::onDuckingSliderChanged);
	ttsVolumeSlider = dock::percentRows(rows, "Dock.Settings.TtsVolume", 100, ttsVolumeValueLabel);
	connect(ttsVolumeSlider, &QSlider::valueChanged, this, &LevelRows::onTtsVolumeSliderChanged);
}

void LevelRows::showSettings(const Settings &chosen)
{
	showGain(duckingSlider, duckingValueLabel, chosen.duckingLevel);
	showGain(ttsVolumeSlider, ttsVolumeValueLabel, chosen.ttsVolume);
}

void LevelRows::onDuckingSliderChanged(int value)
{
	duckingValueLabel->setText(dock::percentText(value));
	plugin.setDuckingLevel(toGain(value));
}

void LevelRows::onTtsVolumeSliderChanged(int value)
{
	ttsVolumeValueLabel->setText(dock::percentText(value));
	plugin.setTtsVolume(toGain(value));
}

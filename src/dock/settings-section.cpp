// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/settings-section.h"

#include "core/talvora-plugin.h"
#include "dock/audio-source-rows.h"
#include "dock/caption-rows.h"
#include "dock/dock-widgets.h"
#include "dock/language-rows.h"
#include "dock/level-rows.h"

#include <QSignalBlocker>
#include <QVBoxLayout>

#include <vector>

SettingsSection::SettingsSection(TalvoraPlugin &owner, QWidget *dock)
	: QGroupBox(dock::text("Dock.Settings.Title")), plugin(owner)
{
	auto *rows = new QVBoxLayout(this);
	audioSource = new AudioSourceRows(plugin, *rows, this);
	languages = new LanguageRows(plugin, *rows, this);
	captions = new CaptionRows(plugin, *rows, dock, this);
	levels = new LevelRows(plugin, *rows, this);
	connect(captions, &CaptionRows::modeChanged, languages, &LanguageRows::enforceLanguageLimit);
}

void SettingsSection::initializeSettings()
{
	// A copy, so that no hand-back reaches the controls still to come.
	const Settings settings = plugin.currentSettings();
	captions->showSettings(settings);
	levels->showSettings(settings);
	languages->populateLanguageTable();
}

void SettingsSection::onSettingsChanged()
{
	const auto controls = findChildren<QWidget *>();
	const std::vector<QSignalBlocker> silent(controls.begin(), controls.end());
	const Settings &settings = plugin.currentSettings();
	audioSource->showSettings(settings);
	languages->showSettings(settings);
	captions->showSettings(settings);
	levels->showSettings(settings);
}

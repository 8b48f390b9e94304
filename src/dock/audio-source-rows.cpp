// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/audio-source-rows.h"

#include "core/talvora-plugin.h"
#include "dock/dock-widgets.h"
#include "obs/browser-source.h"

#include <QCheckBox>
#include <QComboBox>
#include <QSignalBlocker>
#include <QToolButton>
#include <QVBoxLayout>

#include <obs.h>

#include <cstring>

namespace {

/** Sources whose names begin so are the module's own. */
constexpr QLatin1String kOwnSourcePrefix("Talvora Dub");

/** A source that was removed is still among OBS's sources for as long as anybody holds it. */
bool hasOfferedAudio(const obs_source_t *source)
{
	return !obs_source_removed(source) && (obs_source_get_output_flags(source) & OBS_SOURCE_AUDIO) != 0 &&
	       strcmp(obs_source_get_id(source), kBrowserSourceId) != 0 &&
	       !QString::fromUtf8(obs_source_get_name(source)).startsWith(kOwnSourcePrefix);
}

bool addAudioSource(void *combo, obs_source_t *source)
{
	if (hasOfferedAudio(source)) {
		const QString name = QString::fromUtf8(obs_source_get_name(source));
		auto *list = static_cast<QComboBox *>(combo);
		list->addItem(name, name);
		list->setItemData(list->count() - 1, dock::toolTip(name), Qt::ToolTipRole);
	}
	return true;
}

} // namespace

AudioSourceRows::AudioSourceRows(TalvoraPlugin &owner, QVBoxLayout &rows, QObject *parent)
	: QObject(parent), plugin(owner), audioSourceCombo(new QComboBox()),
	  muteOriginalCheck(new QCheckBox(dock::text("Dock.Settings.MuteOriginal")))
{
	dock::keepNarrow(audioSourceCombo);
	connect(audioSourceCombo, &QComboBox::currentIndexChanged, this, &AudioSourceRows::onAudioSourceChanged);

	auto *refreshButton = new QToolButton();
	refreshButton->setText(QStringLiteral("↻"));
	refreshButton->setFixedSize(24, 24);
	refreshButton->setFocusPolicy(Qt::StrongFocus);
	refreshButton->setToolTip(dock::text("Dock.Settings.RefreshTooltip"));
	refreshButton->setAccessibleName(refreshButton->toolTip());
	connect(refreshButton, &QToolButton::clicked, this, &AudioSourceRows::refreshAudioSources);

	muteOriginalCheck->setToolTip(dock::text("Dock.Settings.MuteOriginalTip"));
	muteOriginalCheck->setChecked(plugin.currentSettings().muteOriginal);
	connect(muteOriginalCheck, &QCheckBox::toggled, this, &AudioSourceRows::onMuteOriginalToggled);

	auto *row = new QHBoxLayout();
	row->addWidget(audioSourceCombo);
	row->addWidget(refreshButton);
	rows.addWidget(dock::label("Dock.Settings.AudioSource", audioSourceCombo));
	rows.addLayout(row);
	rows.addWidget(muteOriginalCheck);
}

void AudioSourceRows::showSettings(const Settings &chosen)
{
	muteOriginalCheck->setChecked(chosen.muteOriginal);
	if (audioSourceCombo->currentData().toString() != chosen.audioSource) {
		refreshAudioSources();
	}
}

void AudioSourceRows::refreshAudioSources()
{
	if (!audioSourceCombo) {
		return;
	}
	const QString saved = plugin.currentSettings().audioSource;
	const QSignalBlocker blocker(audioSourceCombo);
	audioSourceCombo->clear();
	audioSourceCombo->addItem(dock::text("Dock.Settings.AudioSourceNone"), QString());
	obs_enum_sources(addAudioSource, audioSourceCombo);

	int index = audioSourceCombo->findData(saved);
	if (index < 0) {
		// The choice is not lost while its source is away.
		index = audioSourceCombo->count();
		audioSourceCombo->addItem(saved + QStringLiteral(" (Offline)"), saved);
	}
	audioSourceCombo->setCurrentIndex(index);
}

void AudioSourceRows::onAudioSourceChanged(int index)
{
	if (index >= 0) {
		plugin.setAudioSource(audioSourceCombo->itemData(index).toString());
	}
}

void AudioSourceRows::onMuteOriginalToggled(bool checked)
{
	plugin.setMuteOriginal(checked);
}

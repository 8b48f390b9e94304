// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "dock/plugin-dock-widgets.h"
#include "obs/browser-source.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QFontDialog>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QTableWidget>
#include <QToolButton>
#include <QVBoxLayout>

#include <obs.h>

#include <cmath>
#include <cstring>
#include <limits>

namespace {

/** Sources whose names begin so are the module's own. */
constexpr QLatin1String kOwnSourcePrefix("Talvora Dub");

QString percentText(int percent)
{
	return QStringLiteral("%1%").arg(percent);
}

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

void showColor(QPushButton *swatch, const QColor &color)
{
	swatch->setStyleSheet(
		QStringLiteral("background-color: %1; border: 1px solid #555;").arg(color.name(QColor::HexArgb)));
}

/** Selects the item that holds `data`; without one the selection stays. */
void selectData(QComboBox *combo, const QString &data)
{
	const int index = combo->findData(data);
	if (index >= 0) {
		combo->setCurrentIndex(index);
	}
}

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

QWidget *PluginDock::buildSettingsSection()
{
	auto *group = new QGroupBox(dock::text("Dock.Settings.Title"));
	auto *rows = new QVBoxLayout(group);
	addAudioSourceRows(rows);
	addLanguageRows(rows);
	addCaptionRows(rows);
	addCaptionStyleRows(rows);
	addPreviewRows(rows);
	addLevelRows(rows);
	return group;
}

void PluginDock::addAudioSourceRows(QVBoxLayout *rows)
{
	audioSourceCombo = new QComboBox();
	dock::keepNarrow(audioSourceCombo);
	connect(audioSourceCombo, &QComboBox::currentIndexChanged, this, &PluginDock::onAudioSourceChanged);

	auto *refreshButton = new QToolButton();
	refreshButton->setText(QStringLiteral("↻"));
	refreshButton->setFixedSize(24, 24);
	refreshButton->setFocusPolicy(Qt::StrongFocus);
	refreshButton->setToolTip(dock::text("Dock.Settings.RefreshTooltip"));
	refreshButton->setAccessibleName(refreshButton->toolTip());
	connect(refreshButton, &QToolButton::clicked, this, &PluginDock::refreshAudioSources);

	muteOriginalCheck = new QCheckBox(dock::text("Dock.Settings.MuteOriginal"));
	muteOriginalCheck->setToolTip(dock::text("Dock.Settings.MuteOriginalTip"));
	muteOriginalCheck->setChecked(plugin->currentSettings().muteOriginal);
	connect(muteOriginalCheck, &QCheckBox::toggled, this, &PluginDock::onMuteOriginalToggled);

	auto *row = new QHBoxLayout();
	row->addWidget(audioSourceCombo);
	row->addWidget(refreshButton);
	rows->addWidget(dock::label("Dock.Settings.AudioSource", audioSourceCombo));
	rows->addLayout(row);
	rows->addWidget(muteOriginalCheck);
}

void PluginDock::addLanguageRows(QVBoxLayout *rows)
{
	sourceLangCombo = new QComboBox();
	dock::keepNarrow(sourceLangCombo);
	for (const LanguageInfo &language : kSupportedLanguages) {
		sourceLangCombo->addItem(language.name, language.code);
	}
	selectData(sourceLangCombo, plugin->currentSettings().sourceLanguage);
	connect(sourceLangCombo, &QComboBox::currentIndexChanged, this, &PluginDock::onSourceLangChanged);

	languageTable = createLanguageTable();
	languageCountLabel = new QLabel();
	languageCountLabel->setStyleSheet(QStringLiteral("color: gray; font-size: 11px;"));

	rows->addWidget(dock::label("Dock.Settings.SourceLang", sourceLangCombo));
	rows->addWidget(sourceLangCombo);
	rows->addWidget(dock::label("Dock.Settings.TargetLangs"));
	rows->addWidget(languageTable);
	rows->addWidget(languageCountLabel);
	if (!hasBrowserSource()) {
		QLabel *hint = dock::label("Dock.Settings.NoBrowserSource");
		hint->setStyleSheet(QStringLiteral("color: orange; font-size: 11px;"));
		rows->addWidget(hint);
	}
}

void PluginDock::addCaptionRows(QVBoxLayout *rows)
{
	captionModeCombo = new QComboBox();
	dock::keepNarrow(captionModeCombo);
	captionModeCombo->addItem(dock::text("Dock.Settings.CaptionMode.Translated"), QStringLiteral("translated"));
	captionModeCombo->addItem(dock::text("Dock.Settings.CaptionMode.Original"), QStringLiteral("original"));
	selectData(captionModeCombo, plugin->currentSettings().captionMode);
	connect(captionModeCombo, &QComboBox::currentIndexChanged, this, &PluginDock::onCaptionModeChanged);

	captionAlignCombo = new QComboBox();
	dock::keepNarrow(captionAlignCombo);
	captionAlignCombo->addItem(dock::text("Dock.Settings.AlignLeft"), QStringLiteral("left"));
	captionAlignCombo->addItem(dock::text("Dock.Settings.AlignCenter"), QStringLiteral("center"));
	captionAlignCombo->addItem(dock::text("Dock.Settings.AlignRight"), QStringLiteral("right"));
	connect(captionAlignCombo, &QComboBox::currentIndexChanged, this, &PluginDock::onCaptionAlignChanged);

	rows->addWidget(dock::label("Dock.Settings.CaptionMode", captionModeCombo));
	rows->addWidget(captionModeCombo);
	rows->addWidget(dock::label("Dock.Settings.CaptionAlign", captionAlignCombo));
	rows->addWidget(captionAlignCombo);
}

void PluginDock::addCaptionStyleRows(QVBoxLayout *rows)
{
	captionColorButton = addColorRow(rows, "Dock.Settings.CaptionColor");
	connect(captionColorButton, &QPushButton::clicked, this, &PluginDock::onCaptionColorClicked);
	captionBgColorButton = addColorRow(rows, "Dock.Settings.CaptionBgColor");
	connect(captionBgColorButton, &QPushButton::clicked, this, &PluginDock::onCaptionBgColorClicked);

	opacitySlider = addPercentRows(rows, "Dock.Settings.CaptionOpacity", 100, opacityValueLabel);
	connect(opacitySlider, &QSlider::valueChanged, this, &PluginDock::onCaptionOpacityChanged);

	captionFontButton = new ElidingButton();
	connect(captionFontButton, &QPushButton::clicked, this, &PluginDock::onCaptionFontClicked);
	rows->addWidget(dock::label("Dock.Settings.CaptionFont", captionFontButton));
	rows->addWidget(captionFontButton);
}

void PluginDock::addPreviewRows(QVBoxLayout *rows)
{
	previewEdit = new QLineEdit();
	previewEdit->setPlaceholderText(dock::text("Dock.Settings.CaptionPreviewPlaceholder"));
	connect(previewEdit, &QLineEdit::returnPressed, this, &PluginDock::onCaptionPreviewClicked);
	auto *previewButton = new QPushButton(dock::text("Dock.Settings.CaptionPreviewBtn"));
	connect(previewButton, &QPushButton::clicked, this, &PluginDock::onCaptionPreviewClicked);

	auto *labelRow = new QHBoxLayout();
	labelRow->addWidget(dock::rowLabel("Dock.Settings.CaptionPreview", previewEdit));
	labelRow->addStretch();
	auto *row = new QHBoxLayout();
	row->addWidget(previewEdit);
	row->addWidget(previewButton);
	rows->addLayout(labelRow);
	rows->addLayout(row);
}

void PluginDock::addLevelRows(QVBoxLayout *rows)
{
	duckingSlider = addPercentRows(rows, "Dock.Settings.DuckingLevel", 20, duckingValueLabel);
	connect(duckingSlider, &QSlider::valueChanged, this, &PluginDock::onDuckingSliderChanged);
	ttsVolumeSlider = addPercentRows(rows, "Dock.Settings.TtsVolume", 100, ttsVolumeValueLabel);
	connect(ttsVolumeSlider, &QSlider::valueChanged, this, &PluginDock::onTtsVolumeSliderChanged);
}

QPushButton *PluginDock::addColorRow(QVBoxLayout *rows, const char *key)
{
	auto *swatch = new QPushButton();
	swatch->setFixedSize(40, 24);
	swatch->setAccessibleName(dock::text(key));

	auto *container = new QWidget();
	// OBS's themes make buttons taller than they are told to be.
	container->setStyleSheet(QStringLiteral("QPushButton { padding: 0px; min-width: 38px; max-width: 38px; "
						"min-height: 22px; max-height: 22px; }"));
	auto *row = new QHBoxLayout(container);
	dock::removeMargins(row);
	row->addWidget(dock::rowLabel(key, swatch));
	row->addWidget(swatch);
	row->addStretch();
	rows->addWidget(container);
	return swatch;
}

QSlider *PluginDock::addPercentRows(QVBoxLayout *rows, const char *key, int percent, QLabel *&valueLabel)
{
	auto *slider = new QSlider(Qt::Horizontal);
	slider->setRange(0, 100);
	slider->setValue(percent);
	slider->setAccessibleName(dock::text(key));
	valueLabel = new QLabel(percentText(percent));
	valueLabel->setMinimumWidth(35);

	auto *row = new QHBoxLayout();
	row->addWidget(dock::rowLabel(key, slider));
	row->addWidget(valueLabel);
	row->addStretch();
	rows->addLayout(row);
	rows->addWidget(slider);
	return slider;
}

/** Shows what the plug-in holds. A control that changes here hands its value back, which changes nothing. */
void PluginDock::initializeSettings()
{
	// A copy, so that no hand-back reaches the controls still to come.
	const Settings settings = plugin->currentSettings();
	selectData(captionAlignCombo, settings.captionAlignment);
	showColor(captionColorButton, settings.captionTextColor);
	showColor(captionBgColorButton, settings.captionBgColor);
	opacitySlider->setValue(settings.captionOpacity);
	opacityValueLabel->setText(percentText(settings.captionOpacity));
	captionFontButton->setText(settings.captionFont.family());
	duckingSlider->setValue(toPercent(settings.duckingLevel));
	duckingValueLabel->setText(percentText(toPercent(settings.duckingLevel)));
	ttsVolumeSlider->setValue(toPercent(settings.ttsVolume));
	ttsVolumeValueLabel->setText(percentText(toPercent(settings.ttsVolume)));
}

// Audio source

void PluginDock::refreshAudioSources()
{
	if (!audioSourceCombo) {
		return;
	}
	const QString saved = plugin->currentSettings().audioSource;
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

void PluginDock::onAudioSourceChanged(int index)
{
	if (index >= 0) {
		plugin->setAudioSource(audioSourceCombo->itemData(index).toString());
	}
}

void PluginDock::onMuteOriginalToggled(bool checked)
{
	plugin->setMuteOriginal(checked);
}

// Captions

void PluginDock::onCaptionModeChanged(int index)
{
	plugin->setCaptionMode(captionModeCombo->itemData(index).toString());
	enforceLanguageLimit();
}

void PluginDock::onCaptionAlignChanged(int index)
{
	plugin->setCaptionAlignment(captionAlignCombo->itemData(index).toString());
}

/**
 * Lets the user choose a colour; what is chosen comes by colorSelected().
 *
 * Not within a loop of its own as QColorDialog::getColor() does: OBS can end while the dialog is open, and takes it
 * away with the dock, which Qt 6.4 does not bear, where that dialog is on the stack. The same holds for fonts.
 */
QColorDialog *PluginDock::openColorDialog(const QColor &color, const char *key)
{
	auto *dialog = new QColorDialog(this);
	dialog->setAttribute(Qt::WA_DeleteOnClose);
	dialog->setWindowTitle(dock::text(key));
	dialog->setOption(QColorDialog::ShowAlphaChannel);
	dialog->setCurrentColor(color);
	dialog->open();
	return dialog;
}

void PluginDock::onCaptionColorClicked()
{
	const QColorDialog *dialog =
		openColorDialog(plugin->currentSettings().captionTextColor, "Dock.Settings.CaptionColor");
	connect(dialog, &QColorDialog::colorSelected, this, [this](const QColor &color) {
		plugin->setCaptionTextColor(color);
		showColor(captionColorButton, color);
	});
}

void PluginDock::onCaptionBgColorClicked()
{
	const QColorDialog *dialog =
		openColorDialog(plugin->currentSettings().captionBgColor, "Dock.Settings.CaptionBgColor");
	connect(dialog, &QColorDialog::colorSelected, this, [this](const QColor &color) {
		plugin->setCaptionBgColor(color);
		showColor(captionBgColorButton, color);
	});
}

void PluginDock::onCaptionOpacityChanged(int value)
{
	opacityValueLabel->setText(percentText(value));
	plugin->setCaptionOpacity(value);
}

void PluginDock::onCaptionFontClicked()
{
	auto *dialog = new QFontDialog(plugin->currentSettings().captionFont, this);
	dialog->setAttribute(Qt::WA_DeleteOnClose);
	dialog->setWindowTitle(dock::text("Dock.Settings.CaptionFont"));
	connect(dialog, &QFontDialog::fontSelected, this, [this](const QFont &font) {
		plugin->setCaptionFont(font);
		captionFontButton->setText(font.family());
	});
	dialog->open();
}

void PluginDock::onCaptionPreviewClicked()
{
	const QString text = previewEdit->text().trimmed();
	plugin->previewCaptionText(text.isEmpty() ? QStringLiteral("Sample caption text") : text);
}

// Levels

void PluginDock::onDuckingSliderChanged(int value)
{
	duckingValueLabel->setText(percentText(value));
	plugin->setDuckingLevel(toGain(value));
}

void PluginDock::onTtsVolumeSliderChanged(int value)
{
	ttsVolumeValueLabel->setText(percentText(value));
	plugin->setTtsVolume(toGain(value));
}

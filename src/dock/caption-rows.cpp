// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/caption-rows.h"

#include "core/talvora-plugin.h"
#include "dock/dock-widgets.h"

#include <QColorDialog>
#include <QComboBox>
#include <QFontDialog>
#include <QLineEdit>
#include <QSlider>
#include <QVBoxLayout>

CaptionRows::CaptionRows(TalvoraPlugin &owner, QVBoxLayout &rows, QWidget *dock, QObject *parent)
	: QObject(parent), plugin(owner), dockWidget(dock)
{
	addTextRows(rows);
	addStyleRows(rows);
	addPreviewRows(rows);
}

void CaptionRows::addTextRows(QVBoxLayout &rows)
{
	captionModeCombo = new QComboBox();
	dock::keepNarrow(captionModeCombo);
	captionModeCombo->addItem(dock::text("Dock.Settings.CaptionMode.Translated"), QStringLiteral("translated"));
	captionModeCombo->addItem(dock::text("Dock.Settings.CaptionMode.Original"), QStringLiteral("original"));
	dock::selectData(captionModeCombo, plugin.currentSettings().captionMode);
	connect(captionModeCombo, &QComboBox::currentIndexChanged, this, &CaptionRows::onCaptionModeChanged);

	captionAlignCombo = new QComboBox();
	dock::keepNarrow(captionAlignCombo);
	captionAlignCombo->addItem(dock::text("Dock.Settings.AlignLeft"), QStringLiteral("left"));
	captionAlignCombo->addItem(dock::text("Dock.Settings.AlignCenter"), QStringLiteral("center"));
	captionAlignCombo->addItem(dock::text("Dock.Settings.AlignRight"), QStringLiteral("right"));
	connect(captionAlignCombo, &QComboBox::currentIndexChanged, this, &CaptionRows::onCaptionAlignChanged);

	rows.addWidget(dock::label("Dock.Settings.CaptionMode", captionModeCombo));
	rows.addWidget(captionModeCombo);
	rows.addWidget(dock::label("Dock.Settings.CaptionAlign", captionAlignCombo));
	rows.addWidget(captionAlignCombo);
}

void CaptionRows::addStyleRows(QVBoxLayout &rows)
{
	captionColorButton = dock::colorRow(rows, "Dock.Settings.CaptionColor");
	connect(captionColorButton, &QPushButton::clicked, this, &CaptionRows::onCaptionColorClicked);
	captionBgColorButton = dock::colorRow(rows, "Dock.Settings.CaptionBgColor");
	connect(captionBgColorButton, &QPushButton::clicked, this, &CaptionRows::onCaptionBgColorClicked);

	opacitySlider = dock::percentRows(rows, "Dock.Settings.CaptionOpacity", 100, opacityValueLabel);
	connect(opacitySlider, &QSlider::valueChanged, this, &CaptionRows::onCaptionOpacityChanged);

	captionFontButton = new ElidingButton();
	connect(captionFontButton, &QPushButton::clicked, this, &CaptionRows::onCaptionFontClicked);
	rows.addWidget(dock::label("Dock.Settings.CaptionFont", captionFontButton));
	rows.addWidget(captionFontButton);
}

void CaptionRows::addPreviewRows(QVBoxLayout &rows)
{
	previewEdit = new QLineEdit();
	previewEdit->setPlaceholderText(dock::text("Dock.Settings.CaptionPreviewPlaceholder"));
	connect(previewEdit, &QLineEdit::returnPressed, this, &CaptionRows::onCaptionPreviewClicked);
	auto *previewButton = new QPushButton(dock::text("Dock.Settings.CaptionPreviewBtn"));
	connect(previewButton, &QPushButton::clicked, this, &CaptionRows::onCaptionPreviewClicked);

	auto *labelRow = new QHBoxLayout();
	labelRow->addWidget(dock::rowLabel("Dock.Settings.CaptionPreview", previewEdit));
	labelRow->addStretch();
	auto *row = new QHBoxLayout();
	row->addWidget(previewEdit);
	row->addWidget(previewButton);
	rows.addLayout(labelRow);
	rows.addLayout(row);
}

void CaptionRows::showSettings(const Settings &chosen)
{
	dock::selectData(captionModeCombo, chosen.captionMode);
	dock::selectData(captionAlignCombo, chosen.captionAlignment);
	dock::showColor(captionColorButton, chosen.captionTextColor);
	dock::showColor(captionBgColorButton, chosen.captionBgColor);
	opacitySlider->setValue(chosen.captionOpacity);
	opacityValueLabel->setText(dock::percentText(chosen.captionOpacity));
	captionFontButton->setText(chosen.captionFont.family());
}

void CaptionRows::onCaptionModeChanged(int index)
{
	plugin.setCaptionMode(captionModeCombo->itemData(index).toString());
	Q_EMIT modeChanged();
}

void CaptionRows::onCaptionAlignChanged(int index)
{
	plugin.setCaptionAlignment(captionAlignCombo->itemData(index).toString());
}

/**
 * Lets the user choose a colour; what is chosen comes by colorSelected().
 *
 * Not within a loop of its own as QColorDialog::getColor() does: OBS can end while the dialog is open, and takes it
 * away with the dock, which Qt 6.4 does not bear, where that dialog is on the stack. The same holds for fonts.
 */
QColorDialog *CaptionRows::openColorDialog(const QColor &color, const char *key)
{
	auto *dialog = new QColorDialog(dockWidget);
	dialog->setAttribute(Qt::WA_DeleteOnClose);
	dialog->setWindowTitle(dock::text(key));
	dialog->setOption(QColorDialog::ShowAlphaChannel);
	dialog->setCurrentColor(color);
	dialog->open();
	return dialog;
}

void CaptionRows::onCaptionColorClicked()
{
	const QColorDialog *dialog =
		openColorDialog(plugin.currentSettings().captionTextColor, "Dock.Settings.CaptionColor");
	connect(dialog, &QColorDialog::colorSelected, this, [this](const QColor &color) {
		plugin.setCaptionTextColor(color);
		dock::showColor(captionColorButton, color);
	});
}

void CaptionRows::onCaptionBgColorClicked()
{
	const QColorDialog *dialog =
		openColorDialog(plugin.currentSettings().captionBgColor, "Dock.Settings.CaptionBgColor");
	connect(dialog, &QColorDialog::colorSelected, this, [this](const QColor &color) {
		plugin.setCaptionBgColor(color);
		dock::showColor(captionBgColorButton, color);
	});
}

void CaptionRows::onCaptionOpacityChanged(int value)
{
	opacityValueLabel->setText(dock::percentText(value));
	plugin.setCaptionOpacity(value);
}

void CaptionRows::onCaptionFontClicked()
{
	auto *dialog = new QFontDialog(plugin.currentSettings().captionFont, dockWidget);
	dialog->setAttribute(Qt::WA_DeleteOnClose);
	dialog->setWindowTitle(dock::text("Dock.Settings.CaptionFont"));
	connect(dialog, &QFontDialog::fontSelected, this, [this](const QFont &font) {
		plugin.setCaptionFont(font);
		captionFontButton->setText(font.family());
	});
	dialog->open();
}

void CaptionRows::onCaptionPreviewClicked()
{
	const QString text = previewEdit->text().trimmed();
	plugin.previewCaptionText(text.isEmpty() ? QStringLiteral("Sample caption text") : text);
}

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QObject>

class QColor;
class QColorDialog;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSlider;
class QVBoxLayout;
class TalvoraPlugin;
struct Settings;

/** What captions say and how they look, with a text to try it out. */
class CaptionRows : public QObject {
	Q_OBJECT

public:
	/** @param rows get what there is to see
	    @param dock becomes the parent of the dialogs */
	CaptionRows(TalvoraPlugin &plugin, QVBoxLayout &rows, QWidget *dock, QObject *parent);

	void showSettings(const Settings &chosen);

Q_SIGNALS:
	/** The plug-in has another mode, with which other languages count. */
	void modeChanged();

private Q_SLOTS:
	void onCaptionModeChanged(int index);
	void onCaptionAlignChanged(int index);
	void onCaptionColorClicked();
	void onCaptionBgColorClicked();
	void onCaptionOpacityChanged(int value);
	void onCaptionFontClicked();
	void onCaptionPreviewClicked();

private:
	friend class PluginDockTest;

	void addTextRows(QVBoxLayout &rows);
	void addStyleRows(QVBoxLayout &rows);
	void addPreviewRows(QVBoxLayout &rows);
	QColorDialog *openColorDialog(const QColor &color, const char *key);

	TalvoraPlugin &plugin;
	QWidget *const dockWidget;
	QComboBox *captionModeCombo = nullptr;
	QComboBox *captionAlignCombo = nullptr;
	QPushButton *captionColorButton = nullptr;
	QPushButton *captionBgColorButton = nullptr;
	QSlider *opacitySlider = nullptr;
	QLabel *opacityValueLabel = nullptr;
	QPushButton *captionFontButton = nullptr;
	QLineEdit *previewEdit = nullptr;
};

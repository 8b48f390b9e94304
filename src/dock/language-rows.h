// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QObject>

class LanguageTable;
class QComboBox;
class QLabel;
class QVBoxLayout;
class TalvoraPlugin;
struct Settings;

/** The spoken language, and the languages it is translated to, of which an account allows so many. */
class LanguageRows : public QObject {
	Q_OBJECT

public:
	/** @param rows get what there is to see */
	LanguageRows(TalvoraPlugin &plugin, QVBoxLayout &rows, QObject *parent);

	void populateLanguageTable();
	void showSettings(const Settings &chosen);

public Q_SLOTS:
	/** Shows how much of the limit is used, and closes the boxes that would exceed it. */
	void enforceLanguageLimit();
	/** Drops the languages that a smaller limit does not allow. */
	void onMaxTargetLanguagesChanged(int max);

private Q_SLOTS:
	void onSourceLangChanged(int index);
	void onLanguageGridChanged();

private:
	friend class PluginDockTest;

	void showLanguageCount(int count, int max);

	TalvoraPlugin &plugin;
	QComboBox *sourceLangCombo;
	LanguageTable *languageTable;
	QLabel *languageCountLabel;
};

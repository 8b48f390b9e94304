// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "dock/plugin-dock-widgets.h"
#include "plugin-support.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QSignalBlocker>
#include <QTableWidget>

#include <utility>

namespace {

enum Column { kLanguageColumn, kCaptionsColumn, kDubColumn, kColumns };

constexpr int kRowHeight = 24;
constexpr QLatin1String kTableName("TalvoraLanguageTable");

/** Code of the language in a row; empty when the row has none. */
QString codeAt(const QTableWidget *table, int row)
{
	const QTableWidgetItem *item = table->item(row, kLanguageColumn);
	return item ? item->data(Qt::UserRole).toString() : QString();
}

/**
 * Qt describes a table to screen readers by its items, which hides the boxes that lie in the cells from them. As a
 * plain widget the table is a group of boxes, each of which says its language and its column.
 */
QAccessibleInterface *describeLanguageTable(const QString &, QObject *object)
{
	auto *table = qobject_cast<QTableWidget *>(object);
	if (!table || table->objectName() != kTableName) {
		return nullptr;
	}
	return new QAccessibleWidget(table, QAccessible::Grouping);
}

} // namespace

QTableWidget *PluginDock::createLanguageTable()
{
	QAccessible::installFactory(describeLanguageTable);
	auto *table = new QTableWidget(0, kColumns);
	table->setObjectName(kTableName);
	table->setHorizontalHeaderLabels({dock::text("Dock.Settings.ColLanguage"),
					  dock::text("Dock.Settings.ColCaptions"), dock::text("Dock.Settings.ColDub")});
	table->setAccessibleName(dock::text("Dock.Settings.TargetLangs"));

	QHeaderView *header = table->horizontalHeader();
	header->setStretchLastSection(false);
	header->setSectionResizeMode(kLanguageColumn, QHeaderView::Stretch);
	header->setSectionResizeMode(kCaptionsColumn, QHeaderView::Fixed);
	header->setSectionResizeMode(kDubColumn, QHeaderView::Fixed);
	header->resizeSection(kCaptionsColumn, 65);
	header->resizeSection(kDubColumn, 45);
	header->setHighlightSections(false);
	header->setSectionsClickable(false);

	QHeaderView *rowHeader = table->verticalHeader();
	rowHeader->setVisible(false);
	rowHeader->setMinimumSectionSize(kRowHeight);
	rowHeader->setSectionResizeMode(QHeaderView::Fixed);
	rowHeader->setDefaultSectionSize(kRowHeight);

	table->setSelectionMode(QAbstractItemView::NoSelection);
	table->setEditTriggers(QAbstractItemView::NoEditTriggers);
	table->setFixedHeight(200);
	table->setShowGrid(false);
	table->setAlternatingRowColors(true);
	// The boxes are walked through by Tab, not the cells.
	table->setFocusPolicy(Qt::NoFocus);
	table->setTabKeyNavigation(false);
	table->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
	return table;
}

void PluginDock::populateLanguageTable()
{
	if (!languageTable) {
		return;
	}
	{
		const QSignalBlocker blocker(languageTable);
		languageTable->setRowCount(0);
		for (const LanguageInfo &language : kSupportedLanguages) {
			addLanguageRow(language.code, language.name);
		}
	}
	// New widgets come last in the tab order; these belong between their neighbours.
	QWidget *previous = sourceLangCombo;
	const auto boxes = languageTable->findChildren<QCheckBox *>();
	for (QCheckBox *box : boxes) {
		setTabOrder(previous, box);
		previous = box;
	}
	enforceLanguageLimit();
}

void PluginDock::addLanguageRow(const QString &code, const QString &name)
{
	const int row = languageTable->rowCount();
	languageTable->insertRow(row);

	auto *item = new QTableWidgetItem(name);
	item->setData(Qt::UserRole, code);
	item->setFlags(item->flags() & ~Qt::ItemIsEditable);
	languageTable->setItem(row, kLanguageColumn, item);

	const Settings &settings = plugin->currentSettings();
	const LanguageTarget target = settings.languageTargets.value(code);
	const bool isSource = code == settings.sourceLanguage;
	const auto accessibleName = [&name](const char *columnKey) {
		return QStringLiteral("%1: %2").arg(name, dock::text(columnKey));
	};

	QCheckBox *captions = addLanguageBox(row, kCaptionsColumn, accessibleName("Dock.Settings.ColCaptions"));
	captions->setChecked(target.captions);
	QCheckBox *dubbing = addLanguageBox(row, kDubColumn, accessibleName("Dock.Settings.ColDub"));
	dubbing->setChecked(!isSource && target.dubbing);
	dubbing->setEnabled(!isSource);
	connect(captions, &QCheckBox::toggled, this, &PluginDock::onLanguageGridChanged);
	connect(dubbing, &QCheckBox::toggled, this, &PluginDock::onLanguageGridChanged);
}

QCheckBox *PluginDock::addLanguageBox(int row, int column, const QString &accessibleName)
{
	auto *box = new QCheckBox();
	box->setAccessibleName(accessibleName);
	// So that a box reached by Tab is scrolled to.
	box->installEventFilter(this);

	auto *cell = new QWidget();
	auto *layout = new QHBoxLayout(cell);
	dock::removeMargins(layout);
	layout->setAlignment(Qt::AlignCenter);
	languageTable->setCellWidget(row, column, cell);
	// The table styles at once what is in a cell by then, and OBS styles all of that twice more before it is seen.
	layout->addWidget(box);
	if (cell->isVisible()) {
		box->show();
	}
	return box;
}

QCheckBox *PluginDock::checkBoxAt(QTableWidget *table, int row, int column)
{
	const QWidget *cell = table->cellWidget(row, column);
	return cell ? cell->findChild<QCheckBox *>() : nullptr;
}

void PluginDock::onLanguageGridChanged()
{
	if (!languageTable) {
		return;
	}
	LanguageTargets targets;
	for (int row = 0; row < languageTable->rowCount(); ++row) {
		const QCheckBox *captions = checkBoxAt(languageTable, row, kCaptionsColumn);
		const QCheckBox *dubbing = checkBoxAt(languageTable, row, kDubColumn);
		if (!languageTable->item(row, kLanguageColumn) || !captions || !dubbing) {
			continue;
		}
		if (captions->isChecked() || dubbing->isChecked()) {
			targets[codeAt(languageTable, row)] = {.dubbing = dubbing->isChecked(),
							       .captions = captions->isChecked()};
		}
	}

	const int max = plugin->currentMaxTargetLanguages();
	if (max >= 1 && targets.size() > max) {
		const QStringList codes = targets.keys();
		for (const QString &code : codes) {
			if (!plugin->currentSettings().languageTargets.contains(code)) {
				uncheckLanguage(code);
				return;
			}
		}
	}
	plugin->setLanguageTargets(targets);
	enforceLanguageLimit();
}

/** Takes the marks of a language back without a further change being noticed. */
void PluginDock::uncheckLanguage(const QString &code)
{
	for (int row = 0; row < languageTable->rowCount(); ++row) {
		if (codeAt(languageTable, row) != code) {
			continue;
		}
		for (const int column : {kCaptionsColumn, kDubColumn}) {
			if (QCheckBox *box = checkBoxAt(languageTable, row, column)) {
				const QSignalBlocker blocker(box);
				box->setChecked(false);
			}
		}
		return;
	}
}

void PluginDock::showLanguageCount(int count, int max)
{
	if (!languageCountLabel) {
		return;
	}
	if (max < 1) {
		languageCountLabel->hide();
		return;
	}
	languageCountLabel->setText(QStringLiteral("%1 / %2 language%3")
					    .arg(count)
					    .arg(max)
					    .arg(max == 1 ? QString() : QStringLiteral("s")));
	languageCountLabel->setStyleSheet(
		QStringLiteral("color: %1; font-size: 11px;")
			.arg(max > count ? QStringLiteral("gray") : QStringLiteral("orange")));
	languageCountLabel->show();
}

void PluginDock::enforceLanguageLimit()
{
	const Settings &settings = plugin->currentSettings();
	const int max = plugin->currentMaxTargetLanguages();
	const auto count = static_cast<int>(settings.languageTargets.size());
	showLanguageCount(count, max);
	if (!languageTable) {
		return;
	}

	const bool atLimit = max > 0 && count >= max;
	// Captions then show the spoken language, so there is none to choose.
	const bool originalCaptions = settings.captionMode == QLatin1String("original");
	for (int row = 0; row < languageTable->rowCount(); ++row) {
		const QString code = codeAt(languageTable, row);
		const bool isOpen = !atLimit || settings.languageTargets.contains(code);
		if (QCheckBox *captions = checkBoxAt(languageTable, row, kCaptionsColumn)) {
			captions->setEnabled(!originalCaptions && isOpen);
		}
		if (QCheckBox *dubbing = checkBoxAt(languageTable, row, kDubColumn)) {
			dubbing->setEnabled(code != settings.sourceLanguage && isOpen);
		}
	}
}

void PluginDock::onSourceLangChanged(int index)
{
	if (!sourceLangCombo) {
		return;
	}
	plugin->setSourceLanguage(sourceLangCombo->itemData(index).toString());
	populateLanguageTable();
}

void PluginDock::onMaxTargetLanguagesChanged(int max)
{
	LanguageTargets targets = plugin->currentSettings().languageTargets;
	const qsizetype before = targets.size();
	while (max >= 1 && targets.size() > max) {
		const QString code = targets.lastKey();
		talvora_log(LOG_INFO, "Talvora: dropping language '%s' to meet limit of %d", code.toUtf8().constData(),
			    max);
		targets.remove(code);
	}
	if (targets.size() != before) {
		plugin->setLanguageTargets(targets);
		populateLanguageTable();
	}
	enforceLanguageLimit();
}

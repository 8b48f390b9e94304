// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/language-table.h"

#include "dock/dock-widgets.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QCheckBox>
#include <QEvent>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QSignalBlocker>

namespace {

enum Column { kLanguageColumn, kCaptionsColumn, kDubColumn, kColumns };

constexpr int kRowHeight = 24;

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
	auto *table = qobject_cast<LanguageTable *>(object);
	return table ? new QAccessibleWidget(table, QAccessible::Grouping) : nullptr;
}

} // namespace

LanguageTable::LanguageTable() : QTableWidget(0, kColumns)
{
	QAccessible::installFactory(describeLanguageTable);
	setHorizontalHeaderLabels({dock::text("Dock.Settings.ColLanguage"), dock::text("Dock.Settings.ColCaptions"),
				   dock::text("Dock.Settings.ColDub")});
	setAccessibleName(dock::text("Dock.Settings.TargetLangs"));

	QHeaderView *header = horizontalHeader();
	header->setStretchLastSection(false);
	header->setSectionResizeMode(kLanguageColumn, QHeaderView::Stretch);
	header->setSectionResizeMode(kCaptionsColumn, QHeaderView::Fixed);
	header->setSectionResizeMode(kDubColumn, QHeaderView::Fixed);
	header->resizeSection(kCaptionsColumn, 65);
	header->resizeSection(kDubColumn, 45);
	header->setHighlightSections(false);
	header->setSectionsClickable(false);

	QHeaderView *rowHeader = verticalHeader();
	rowHeader->setVisible(false);
	rowHeader->setMinimumSectionSize(kRowHeight);
	rowHeader->setSectionResizeMode(QHeaderView::Fixed);
	rowHeader->setDefaultSectionSize(kRowHeight);

	setSelectionMode(QAbstractItemView::NoSelection);
	setEditTriggers(QAbstractItemView::NoEditTriggers);
	setFixedHeight(200);
	setShowGrid(false);
	setAlternatingRowColors(true);
	// The boxes are walked through by Tab, not the cells.
	setFocusPolicy(Qt::NoFocus);
	setTabKeyNavigation(false);
	setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
}

void LanguageTable::fill(const LanguageTargets &chosen, const QString &spoken)
{
	const QSignalBlocker blocker(this);
	setRowCount(0);
	for (const LanguageInfo &language : kSupportedLanguages) {
		addRow(language);
	}
	showChosen(chosen, spoken);
	for (int row = 0; row < rowCount(); ++row) {
		connect(captionsAt(row), &QCheckBox::toggled, this, &LanguageTable::changed);
		connect(dubbingAt(row), &QCheckBox::toggled, this, &LanguageTable::changed);
	}
}

void LanguageTable::addRow(const LanguageInfo &language)
{
	const int row = rowCount();
	insertRow(row);

	auto *item = new QTableWidgetItem(language.name);
	item->setData(Qt::UserRole, language.code);
	item->setFlags(item->flags() & ~Qt::ItemIsEditable);
	setItem(row, kLanguageColumn, item);

	const auto accessibleName = [&language](const char *columnKey) {
		return QStringLiteral("%1: %2").arg(language.name, dock::text(columnKey));
	};
	addBox(row, kCaptionsColumn, accessibleName("Dock.Settings.ColCaptions"));
	addBox(row, kDubColumn, accessibleName("Dock.Settings.ColDub"));
}

void LanguageTable::addBox(int row, int column, const QString &accessibleName)
{
	auto *box = new QCheckBox();
	box->setAccessibleName(accessibleName);
	// So that a box reached by Tab is scrolled to.
	box->installEventFilter(this);

	auto *cell = new QWidget();
	auto *layout = new QHBoxLayout(cell);
	dock::removeMargins(layout);
	layout->setAlignment(Qt::AlignCenter);
	setCellWidget(row, column, cell);
	// The table styles at once what is in a cell by then, and OBS styles all of that twice more before it is seen.
	layout->addWidget(box);
	if (cell->isVisible()) {
		box->show();
	}
}

void LanguageTable::showChosen(const LanguageTargets &chosen, const QString &spoken)
{
	for (int row = 0; row < rowCount(); ++row) {
		const QString code = codeAt(this, row);
		const LanguageTarget target = chosen.value(code);
		if (QCheckBox *captions = captionsAt(row)) {
			captions->setChecked(target.captions);
		}
		if (QCheckBox *dubbing = dubbingAt(row)) {
			dubbing->setChecked(code != spoken && target.dubbing);
		}
	}
}

LanguageTargets LanguageTable::checked() const
{
	LanguageTargets targets;
	for (int row = 0; row < rowCount(); ++row) {
		const QCheckBox *captions = captionsAt(row);
		const QCheckBox *dubbing = dubbingAt(row);
		if (!item(row, kLanguageColumn) || !captions || !dubbing) {
			continue;
		}
		if (captions->isChecked() || dubbing->isChecked()) {
			targets[codeAt(this, row)] = {.dubbing = dubbing->isChecked(),
						      .captions = captions->isChecked()};
		}
	}
	return targets;
}

void LanguageTable::uncheck(const QString &code)
{
	for (int row = 0; row < rowCount(); ++row) {
		if (codeAt(this, row) != code) {
			continue;
		}
		for (QCheckBox *box : {captionsAt(row), dubbingAt(row)}) {
			if (box) {
				const QSignalBlocker blocker(box);
				box->setChecked(false);
			}
		}
		return;
	}
}

void LanguageTable::setOpen(const std::function<LanguageTarget(const QString &code)> &isOpen)
{
	for (int row = 0; row < rowCount(); ++row) {
		const LanguageTarget open = isOpen(codeAt(this, row));
		if (QCheckBox *captions = captionsAt(row)) {
			captions->setEnabled(open.captions);
		}
		if (QCheckBox *dubbing = dubbingAt(row)) {
			dubbing->setEnabled(open.dubbing);
		}
	}
}

QCheckBox *LanguageTable::checkBoxAt(const QTableWidget *table, int row, int column)
{
	const QWidget *cell = table->cellWidget(row, column);
	return cell ? cell->findChild<QCheckBox *>() : nullptr;
}

QCheckBox *LanguageTable::captionsAt(int row) const
{
	return checkBoxAt(this, row, kCaptionsColumn);
}

QCheckBox *LanguageTable::dubbingAt(int row) const
{
	return checkBoxAt(this, row, kDubColumn);
}

bool LanguageTable::eventFilter(QObject *watched, QEvent *event)
{
	if (const auto *box = qobject_cast<QCheckBox *>(watched); box && event->type() == QEvent::FocusIn) {
		scrollTo(indexAt(box->parentWidget()->pos()));
	}
	return QTableWidget::eventFilter(watched, event);
}

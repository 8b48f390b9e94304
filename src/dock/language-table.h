// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "settings/language-catalogue.h"

#include <QTableWidget>

#include <functional>

class QCheckBox;

/** A row for every language, each with a box for captions and one for the dub. */
class LanguageTable : public QTableWidget {
	Q_OBJECT

public:
	LanguageTable();

	/** Makes the rows anew. @param spoken language of the stream, which is never dubbed */
	void fill(const LanguageTargets &chosen, const QString &spoken);
	/** Marks the rows there are. */
	void showChosen(const LanguageTargets &chosen, const QString &spoken);
	/** What is marked, without the languages of which nothing is. */
	LanguageTargets checked() const;
	/** Takes the marks of a language back without a further change being noticed. */
	void uncheck(const QString &code);
	/** Lets those boxes be clicked for which `isOpen` is true. */
	void setOpen(const std::function<LanguageTarget(const QString &code)> &isOpen);
	/** Null where there is none. */
	static QCheckBox *checkBoxAt(const QTableWidget *table, int row, int column);

Q_SIGNALS:
	void changed();

protected:
	bool eventFilter(QObject *watched, QEvent *event) override;

private:
	void addRow(const LanguageInfo &language);
	void addBox(int row, int column, const QString &accessibleName);
	QCheckBox *captionsAt(int row) const;
	QCheckBox *dubbingAt(int row) const;
};

// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/language-rows.h"

#include "core/talvora-plugin.h"
#include "dock/dock-widgets.h"
#include "dock/language-table.h"
#include "plugin-support.h"

#include <QCheckBox>
#include <QComboBox>
#include <QVBoxLayout>

LanguageRows::LanguageRows(TalvoraPlugin &owner, QVBoxLayout &rows, QObject *parent)
	: QObject(parent), plugin(owner), sourceLangCombo(new QComboBox()), languageTable(new LanguageTable()),
	  languageCountLabel(new QLabel())
{
	dock::keepNarrow(sourceLangCombo);
	for (const LanguageInfo &language : kSupportedLanguages) {
		sourceLangCombo->addItem(language.name, language.code);
	}
	dock::selectData(sourceLangCombo, plugin.currentSettings().sourceLanguage);
	connect(sourceLangCombo, &QComboBox::currentIndexChanged, this, &LanguageRows::onSourceLangChanged);
	connect(languageTable, &LanguageTable::changed, this, &LanguageRows::onLanguageGridChanged);
	languageCountLabel->setStyleSheet(QStringLiteral("color: gray; font-size: 11px;"));

	rows.addWidget(dock::label("Dock.Settings.SourceLang", sourceLangCombo));
	rows.addWidget(sourceLangCombo);
	rows.addWidget(dock::label("Dock.Settings.TargetLangs"));
	rows.addWidget(languageTable);
	rows.addWidget(languageCountLabel);
}

void LanguageRows::populateLanguageTable()
{
	if (!languageTable) {
		return;
	}
	const Settings &settings = plugin.currentSettings();
	languageTable->fill(settings.languageTargets, settings.sourceLanguage);
	// New widgets come last in the tab order; these belong between their neighbours.
	QWidget *previous = sourceLangCombo;
	const auto boxes = languageTable->findChildren<QCheckBox *>();
	for (QCheckBox *box : boxes) {
		QWidget::setTabOrder(previous, box);
		previous = box;
	}
	enforceLanguageLimit();
}

void LanguageRows::showSettings(const Settings &chosen)
{
	dock::selectData(sourceLangCombo, chosen.sourceLanguage);
	languageTable->showChosen(chosen.languageTargets, chosen.sourceLanguage);
	enforceLanguageLimit();
}

void LanguageRows::onLanguageGridChanged()
{
	if (!languageTable) {
		return;
	}
	const LanguageTargets targets = languageTable->checked();
	const int max = plugin.currentMaxTargetLanguages();
	if (max >= 1 && targets.size() > max) {
		const QStringList codes = targets.keys();
		for (const QString &code : codes) {
			if (!plugin.currentSettings().languageTargets.contains(code)) {
				languageTable->uncheck(code);
				return;
			}
		}
	}
	plugin.setLanguageTargets(targets);
	enforceLanguageLimit();
}

void LanguageRows::showLanguageCount(int count, int max)
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
	dock::setStyleSheet(languageCountLabel,
			    QStringLiteral("color: %1; font-size: 11px;")
				    .arg(max > count ? QStringLiteral("gray") : QStringLiteral("orange")));
	languageCountLabel->show();
}

void LanguageRows::enforceLanguageLimit()
{
	const Settings &settings = plugin.currentSettings();
	const int max = plugin.currentMaxTargetLanguages();
	const auto count = static_cast<int>(settings.languageTargets.size());
	showLanguageCount(count, max);
	if (!languageTable) {
		return;
	}

	const bool atLimit = max > 0 && count >= max;
	// Captions then show the spoken language, so there is none to choose.
	const bool originalCaptions = settings.captionMode == QLatin1String("original");
	languageTable->setOpen([&](const QString &code) -> LanguageTarget {
		const bool isOpen = !atLimit || settings.languageTargets.contains(code);
		return {.dubbing = isOpen && code != settings.sourceLanguage, .captions = isOpen && !originalCaptions};
	});
}

void LanguageRows::onSourceLangChanged(int index)
{
	if (!sourceLangCombo) {
		return;
	}
	plugin.setSourceLanguage(sourceLangCombo->itemData(index).toString());
	populateLanguageTable();
}

void LanguageRows::onMaxTargetLanguagesChanged(int max)
{
	LanguageTargets targets = plugin.currentSettings().languageTargets;
	const qsizetype before = targets.size();
	while (max >= 1 && targets.size() > max) {
		const QString code = targets.lastKey();
		talvora_log(LOG_INFO, "Talvora: dropping language '%s' to meet limit of %d", code.toUtf8().constData(),
			    max);
		targets.remove(code);
	}
	if (targets.size() != before) {
		plugin.setLanguageTargets(targets);
		populateLanguageTable();
	}
	enforceLanguageLimit();
}

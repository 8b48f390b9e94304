// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "dock/audio-source-rows.h"
#include "dock/caption-rows.h"
#include "dock/language-rows.h"
#include "dock/language-table.h"
#include "dock/settings-section.h"

#include "dock-session.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QScrollBar>
#include <QTableWidget>
#include <QTest>

#include <memory>
#include <optional>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int kCaptions = 1;
constexpr int kDub = 2;
const QString kGray = u"color: gray; font-size: 11px;"_s;
const QString kOrange = u"color: orange; font-size: 11px;"_s;
constexpr LanguageTarget kBoth{.dubbing = true, .captions = true};
constexpr LanguageTarget kDubOnly{.dubbing = true, .captions = false};
constexpr LanguageTarget kCaptionsOnly{.dubbing = false, .captions = true};

} // namespace

/** The language table and the limit of the account. */
class PluginDockTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	// The table
	void look();
	void rowsAreTheCatalogue();
	void boxesShowTheSelection();
	void boxesAreNamedForScreenReaders();
	void missingCellsHaveNoBox();
	void rowWithoutItsBoxesChoosesNothing();
	void withoutItsControlsTheDockDoesNothing();
	void boxReachedByKeyboardIsScrolledTo();

	// Clicks
	void clickSelectsALanguage();
	void everyChangeIsTheWholeSelection();
	void uncheckingBothBoxesFreesAPlace();
	void clickBeyondTheLimitIsTakenBack();
	void refusedClickTellsThePluginNothing();
	void refusedClickUnchecksBothBoxes();
	void changeOfChosenLanguagesBeyondTheLimitIsApplied();

	// The limit
	void counter_data();
	void counter();
	void counterIsHiddenWithoutALimit();
	void onlyChosenLanguagesAreOpenAtTheLimit();
	void boxesWithOriginalCaptions();
	void smallerLimitDropsTheGreatestCodes();
	void sameOrGreaterLimitDropsNothing();
	void noLimitOpensEverything_data();
	void noLimitOpensEverything();

	// The spoken language
	void spokenLanguageIsNeverDubbed();
	void spokenLanguageFollowsTheLimitInCaptions();
	void newSpokenLanguageLosesItsDub();
	void newSpokenLanguageKeepsItsCaptions();
	void formerSpokenLanguageCanBeDubbed();

	// Changes made elsewhere
	void selectionMadeElsewhereIsShown();
	void spokenLanguageChosenElsewhereIsShown();

private:
	PluginDock &make()
	{
		dock = std::make_unique<PluginDock>(plugin.get(), nullptr);
		return *dock;
	}
	int rowOf(const QString &code) const
	{
		for (int row = 0; row < dock->settings->languages->languageTable->rowCount(); ++row) {
			if (dock->settings->languages->languageTable->item(row, 0)->data(Qt::UserRole).toString() ==
			    code) {
				return row;
			}
		}
		return -1;
	}
	QCheckBox *box(const QString &code, int column) const
	{
		return LanguageTable::checkBoxAt(dock->settings->languages->languageTable, rowOf(code), column);
	}
	void choose(const LanguageTargets &targets) { plugin->settings.languageTargets = targets; }
	void select(const QString &language)
	{
		dock->settings->languages->sourceLangCombo->setCurrentIndex(
			dock->settings->languages->sourceLangCombo->findData(language));
	}

	std::optional<DockSession> session;
	std::unique_ptr<TalvoraPlugin> plugin;
	std::unique_ptr<PluginDock> dock;
};

void PluginDockTest::init()
{
	session.emplace();
	plugin.reset(new TalvoraPlugin());
}

void PluginDockTest::cleanup()
{
	dock.reset();
	plugin.reset();
	session.reset();
}

// The table

void PluginDockTest::look()
{
	make().resize(380, 800);
	dock->setVisible(true);
	QTableWidget *table = dock->settings->languages->languageTable;
	QCOMPARE(table->columnCount(), 3);
	QCOMPARE(table->horizontalHeaderItem(0)->text(), u"Dock.Settings.ColLanguage"_s);
	QCOMPARE(table->horizontalHeaderItem(1)->text(), u"Dock.Settings.ColCaptions"_s);
	QCOMPARE(table->horizontalHeaderItem(2)->text(), u"Dock.Settings.ColDub"_s);
	QVERIFY(!table->horizontalHeader()->stretchLastSection());
	QCOMPARE(table->horizontalHeader()->sectionResizeMode(0), QHeaderView::Stretch);
	QCOMPARE(table->horizontalHeader()->sectionResizeMode(1), QHeaderView::Fixed);
	QCOMPARE(table->horizontalHeader()->sectionResizeMode(2), QHeaderView::Fixed);
	QCOMPARE(table->accessibleName(), u"Dock.Settings.TargetLangs"_s);
	QCOMPARE(table->columnWidth(1), 65);
	QCOMPARE(table->columnWidth(2), 45);
	QVERIFY(table->columnWidth(0) > 110);
	QVERIFY(table->verticalHeader()->isHidden());
	for (int row = 0; row < table->rowCount(); ++row) {
		QCOMPARE(table->rowHeight(row), 24);
	}
	QCOMPARE(table->selectionMode(), QAbstractItemView::NoSelection);
	QCOMPARE(table->editTriggers(), QAbstractItemView::NoEditTriggers);
	QCOMPARE(table->minimumHeight(), 200);
	QCOMPARE(table->maximumHeight(), 200);
	QVERIFY(!table->showGrid());
	QVERIFY(table->alternatingRowColors());
	QCOMPARE(table->focusPolicy(), Qt::NoFocus);
}

void PluginDockTest::rowsAreTheCatalogue()
{
	make();
	QTableWidget *table = dock->settings->languages->languageTable;
	QCOMPARE(table->rowCount(), 31);
	for (int row = 0; row < 31; ++row) {
		const LanguageInfo &language = kSupportedLanguages.at(row);
		QCOMPARE(table->item(row, 0)->text(), language.name);
		QCOMPARE(table->item(row, 0)->data(Qt::UserRole).toString(), language.code);
		QVERIFY(!(table->item(row, 0)->flags() & Qt::ItemIsEditable));
		for (const int column : {kCaptions, kDub}) {
			const QWidget *cell = table->cellWidget(row, column);
			QVERIFY(cell);
			QCOMPARE(cell->findChildren<QCheckBox *>().size(), 1);
			QCOMPARE(cell->layout()->contentsMargins(), QMargins());
			QCOMPARE(cell->layout()->alignment(), Qt::AlignCenter);
		}
	}
}

void PluginDockTest::boxesShowTheSelection()
{
	choose({{u"es"_s, kBoth}, {u"fr"_s, kDubOnly}, {u"de"_s, kCaptionsOnly}, {u"xx"_s, kBoth}, {u"it"_s, {}}});
	make();
	QVERIFY(box(u"es"_s, kCaptions)->isChecked());
	QVERIFY(box(u"es"_s, kDub)->isChecked());
	QVERIFY(!box(u"fr"_s, kCaptions)->isChecked());
	QVERIFY(box(u"fr"_s, kDub)->isChecked());
	QVERIFY(box(u"de"_s, kCaptions)->isChecked());
	QVERIFY(!box(u"de"_s, kDub)->isChecked());
	QVERIFY(!box(u"it"_s, kCaptions)->isChecked());
	QVERIFY(!box(u"pt"_s, kDub)->isChecked());
	// Showing the selection does not change it.
	QCOMPARE(plugin->settings.languageTargets.size(), 5);
}

void PluginDockTest::boxesAreNamedForScreenReaders()
{
	make();
	QCOMPARE(box(u"fil"_s, kCaptions)->accessibleName(), u"Filipino: Dock.Settings.ColCaptions"_s);
	QCOMPARE(box(u"fil"_s, kDub)->accessibleName(), u"Filipino: Dock.Settings.ColDub"_s);
}

void PluginDockTest::missingCellsHaveNoBox()
{
	QTableWidget table(1, 3);
	QCOMPARE(LanguageTable::checkBoxAt(&table, 0, 1), nullptr);
	QCOMPARE(LanguageTable::checkBoxAt(&table, 5, 5), nullptr);
	table.setCellWidget(0, 1, new QWidget());
	QCOMPARE(LanguageTable::checkBoxAt(&table, 0, 1), nullptr);
	auto *nested = new QWidget();
	auto *inner = new QWidget(nested);
	auto *expected = new QCheckBox(inner);
	table.setCellWidget(0, 2, nested);
	QCOMPARE(LanguageTable::checkBoxAt(&table, 0, 2), expected);
}

void PluginDockTest::rowWithoutItsBoxesChoosesNothing()
{
	choose({{u"es"_s, kBoth}, {u"fr"_s, kBoth}});
	make();
	dock->settings->languages->languageTable->removeCellWidget(rowOf(u"es"_s), kDub);
	dock->settings->languages->onLanguageGridChanged();
	QCOMPARE(plugin->settings.languageTargets, (LanguageTargets{{u"fr"_s, kBoth}}));
}

void PluginDockTest::withoutItsControlsTheDockDoesNothing()
{
	const LanguageTargets chosen{{u"es"_s, kBoth}};
	choose(chosen);
	make();
	LanguageTable *table = std::exchange(dock->settings->languages->languageTable, nullptr);
	QLabel *count = std::exchange(dock->settings->languages->languageCountLabel, nullptr);
	QComboBox *language = std::exchange(dock->settings->languages->sourceLangCombo, nullptr);
	QComboBox *source = std::exchange(dock->settings->audioSource->audioSourceCombo, nullptr);
	const int rows = table->rowCount();
	plugin->setMaxTargetLanguages(1);
	dock->settings->languages->populateLanguageTable();
	dock->settings->languages->onLanguageGridChanged();
	dock->settings->languages->onSourceLangChanged(3);
	dock->settings->audioSource->refreshAudioSources();
	dock->settings->languages->languageTable = table;
	dock->settings->languages->languageCountLabel = count;
	dock->settings->languages->sourceLangCombo = language;
	dock->settings->audioSource->audioSourceCombo = source;
	QCOMPARE(plugin->settings.languageTargets, chosen);
	QCOMPARE(plugin->settings.sourceLanguage, u"en"_s);
	QCOMPARE(table->rowCount(), rows);
	QVERIFY(box(u"fr"_s, kDub)->isEnabled());
	QVERIFY(count->isHidden());
}

void PluginDockTest::boxReachedByKeyboardIsScrolledTo()
{
	make().setVisible(true);
	dock->activateWindow();
	QVERIFY(QTest::qWaitForWindowActive(dock.get()));
	QTableWidget *table = dock->settings->languages->languageTable;
	QCOMPARE(table->verticalScrollBar()->value(), 0);
	QCheckBox *last = box(u"vi"_s, kDub);
	last->setFocus(Qt::TabFocusReason);
	QTRY_VERIFY(last->hasFocus());
	const QRect cell = table->visualItemRect(table->item(rowOf(u"vi"_s), 0));
	QVERIFY(table->viewport()->rect().contains(cell.center()));
	// Tab goes on to what follows the table instead of walking its cells.
	QTest::keyClick(last, Qt::Key_Tab);
	QCOMPARE(QApplication::focusWidget(), dock->settings->captions->captionModeCombo);

	// Also after the rows have been made anew.
	select(u"de"_s);
	QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
	dock->settings->languages->sourceLangCombo->setFocus();
	QTest::keyClick(dock->settings->languages->sourceLangCombo, Qt::Key_Tab);
	QCOMPARE(QApplication::focusWidget(), box(u"ar"_s, kCaptions));
	dock->settings->captions->captionModeCombo->setFocus();
	QTest::keyClick(dock->settings->captions->captionModeCombo, Qt::Key_Backtab);
	QCOMPARE(QApplication::focusWidget(), box(u"vi"_s, kDub));
}

// Clicks

void PluginDockTest::clickSelectsALanguage()
{
	make().setVisible(true);
	QTest::mouseClick(box(u"ar"_s, kCaptions), Qt::LeftButton);
	QCOMPARE(plugin->settings.languageTargets, (LanguageTargets{{u"ar"_s, kCaptionsOnly}}));
	QTest::keyClick(box(u"ar"_s, kDub), Qt::Key_Space);
	QCOMPARE(plugin->settings.languageTargets, (LanguageTargets{{u"ar"_s, kBoth}}));
	QCOMPARE(session->savedConfig()[u"targetLanguages"].toArray().size(), 1);
}

void PluginDockTest::everyChangeIsTheWholeSelection()
{
	choose({{u"es"_s, kDubOnly}, {u"it"_s, {}}, {u"xx"_s, kBoth}});
	make();
	box(u"de"_s, kCaptions)->setChecked(true);
	// Languages with no box checked, and those the table does not know, are left out.
	QCOMPARE(plugin->settings.languageTargets, (LanguageTargets{{u"de"_s, kCaptionsOnly}, {u"es"_s, kDubOnly}}));
}

void PluginDockTest::uncheckingBothBoxesFreesAPlace()
{
	plugin->setMaxTargetLanguages(2);
	choose({{u"es"_s, kBoth}, {u"fr"_s, kDubOnly}});
	make();
	QVERIFY(!box(u"de"_s, kDub)->isEnabled());
	box(u"es"_s, kCaptions)->setChecked(false);
	QCOMPARE(plugin->settings.languageTargets.size(), 2);
	box(u"es"_s, kDub)->setChecked(false);
	QCOMPARE(plugin->settings.languageTargets, (LanguageTargets{{u"fr"_s, kDubOnly}}));
	QVERIFY(box(u"de"_s, kDub)->isEnabled());
	QCOMPARE(dock->settings->languages->languageCountLabel->text(), u"1 / 2 languages"_s);
	QCOMPARE(dock->settings->languages->languageCountLabel->styleSheet(), kGray);
	box(u"de"_s, kDub)->setChecked(true);
	QCOMPARE(plugin->settings.languageTargets.keys(), (QStringList{u"de"_s, u"fr"_s}));
}

void PluginDockTest::clickBeyondTheLimitIsTakenBack()
{
	choose({{u"es"_s, kBoth}, {u"fr"_s, kDubOnly}});
	make();
	plugin->maxTargetLanguages = 2;
	// A click can come before the boxes were disabled.
	box(u"ar"_s, kCaptions)->setChecked(true);
	QVERIFY(!box(u"ar"_s, kCaptions)->isChecked());
	QCOMPARE(plugin->settings.languageTargets.keys(), (QStringList{u"es"_s, u"fr"_s}));
	QVERIFY(box(u"es"_s, kCaptions)->isChecked());
	QVERIFY(box(u"fr"_s, kDub)->isChecked());
}

void PluginDockTest::refusedClickTellsThePluginNothing()
{
	choose({{u"es"_s, kBoth}});
	make();
	plugin->maxTargetLanguages = 1;
	const QJsonObject saved = session->savedConfig();
	plugin->settings.captionOpacity = 7;
	box(u"ar"_s, kDub)->setChecked(true);
	// Nothing was saved either.
	QCOMPARE(session->savedConfig(), saved);
	QVERIFY(!box(u"ar"_s, kDub)->isChecked());
	QVERIFY(!box(u"ar"_s, kDub)->signalsBlocked());
}

void PluginDockTest::refusedClickUnchecksBothBoxes()
{
	choose({{u"es"_s, kBoth}});
	make();
	plugin->maxTargetLanguages = 1;
	{
		const QSignalBlocker blocker(box(u"vi"_s, kDub));
		box(u"vi"_s, kDub)->setChecked(true);
	}
	box(u"vi"_s, kCaptions)->setChecked(true);
	QVERIFY(!box(u"vi"_s, kCaptions)->isChecked());
	QVERIFY(!box(u"vi"_s, kDub)->isChecked());
	QCOMPARE(plugin->settings.languageTargets, (LanguageTargets{{u"es"_s, kBoth}}));
}

void PluginDockTest::changeOfChosenLanguagesBeyondTheLimitIsApplied()
{
	choose({{u"es"_s, kBoth}, {u"fr"_s, kDubOnly}, {u"it"_s, kDubOnly}});
	make();
	plugin->maxTargetLanguages = 1;
	box(u"es"_s, kDub)->setChecked(false);
	QCOMPARE(plugin->settings.languageTargets.value(u"es"_s), kCaptionsOnly);
	QCOMPARE(plugin->settings.languageTargets.size(), 3);
}

// The limit

void PluginDockTest::counter_data()
{
	QTest::addColumn<int>("max");
	QTest::addColumn<QStringList>("codes");
	QTest::addColumn<QString>("text");
	QTest::addColumn<QString>("style");
	QTest::newRow("1 of 1") << 1 << QStringList{u"es"_s} << u"1 / 1 language"_s << kOrange;
	QTest::newRow("0 of 1") << 1 << QStringList{} << u"0 / 1 language"_s << kGray;
	QTest::newRow("0 of 2") << 2 << QStringList{} << u"0 / 2 languages"_s << kGray;
	QTest::newRow("1 of 2") << 2 << QStringList{u"es"_s} << u"1 / 2 languages"_s << kGray;
	QTest::newRow("2 of 2") << 2 << QStringList{u"es"_s, u"fr"_s} << u"2 / 2 languages"_s << kOrange;
	QTest::newRow("3 of 2") << 2 << QStringList{u"es"_s, u"fr"_s, u"it"_s} << u"3 / 2 languages"_s << kOrange;
}

void PluginDockTest::counter()
{
	QFETCH(int, max);
	QFETCH(QStringList, codes);
	plugin->maxTargetLanguages = max;
	for (const QString &code : std::as_const(codes)) {
		// A language counts whatever its flags.
		plugin->settings.languageTargets[code] = {};
	}
	make();
	QTEST(dock->settings->languages->languageCountLabel->text(), "text");
	QTEST(dock->settings->languages->languageCountLabel->styleSheet(), "style");
	QVERIFY(!dock->settings->languages->languageCountLabel->isHidden());
}

void PluginDockTest::counterIsHiddenWithoutALimit()
{
	make();
	QVERIFY(dock->settings->languages->languageCountLabel->isHidden());
	QCOMPARE(dock->settings->languages->languageCountLabel->styleSheet(), kGray);
	plugin->setMaxTargetLanguages(2);
	QVERIFY(!dock->settings->languages->languageCountLabel->isHidden());
	plugin->resetMaxTargetLanguages();
	QVERIFY(dock->settings->languages->languageCountLabel->isHidden());
}

void PluginDockTest::onlyChosenLanguagesAreOpenAtTheLimit()
{
	choose({{u"es"_s, kBoth}, {u"fr"_s, {}}});
	make();
	plugin->setMaxTargetLanguages(2);
	for (const LanguageInfo &language : kSupportedLanguages) {
		const bool chosen = language.code == u"es"_s || language.code == u"fr"_s;
		QCOMPARE(box(language.code, kCaptions)->isEnabled(), chosen);
		QCOMPARE(box(language.code, kDub)->isEnabled(), chosen);
	}
	// The marks stay as they are.
	QVERIFY(box(u"es"_s, kDub)->isChecked());

	plugin->setMaxTargetLanguages(3);
	QVERIFY(box(u"de"_s, kCaptions)->isEnabled());
	QVERIFY(box(u"de"_s, kDub)->isEnabled());
	QVERIFY(!box(u"en"_s, kDub)->isEnabled());
}

void PluginDockTest::boxesWithOriginalCaptions()
{
	choose({{u"es"_s, kBoth}, {u"fr"_s, kCaptionsOnly}});
	plugin->settings.captionMode = u"original"_s;
	make();
	for (const LanguageInfo &language : kSupportedLanguages) {
		QVERIFY(!box(language.code, kCaptions)->isEnabled());
		QCOMPARE(box(language.code, kDub)->isEnabled(), language.code != u"en"_s);
	}
	QVERIFY(box(u"es"_s, kCaptions)->isChecked());
	QVERIFY(box(u"fr"_s, kCaptions)->isChecked());

	plugin->setMaxTargetLanguages(2);
	QVERIFY(box(u"fr"_s, kDub)->isEnabled());
	QVERIFY(!box(u"de"_s, kDub)->isEnabled());
	QVERIFY(!box(u"fr"_s, kCaptions)->isEnabled());
}

void PluginDockTest::smallerLimitDropsTheGreatestCodes()
{
	choose({{u"de"_s, kDubOnly}, {u"es"_s, kBoth}, {u"fr"_s, kBoth}});
	make();
	plugin->setMaxTargetLanguages(3);
	session->log.clear();
	plugin->setMaxTargetLanguages(2);
	QCOMPARE(session->log.lines(LOG_INFO).filter(u"dropping"_s),
		 QStringList{u"[talvora-obs] Talvora: dropping language 'fr' to meet limit of 2"_s});
	QCOMPARE(plugin->settings.languageTargets, (LanguageTargets{{u"de"_s, kDubOnly}, {u"es"_s, kBoth}}));
	QCOMPARE(session->savedConfig()[u"targetLanguages"].toArray().size(), 2);
	QVERIFY(!box(u"fr"_s, kCaptions)->isChecked());
	QVERIFY(!box(u"fr"_s, kDub)->isChecked());
	QVERIFY(!box(u"fr"_s, kDub)->isEnabled());
	QVERIFY(box(u"de"_s, kDub)->isChecked());
	QCOMPARE(dock->settings->languages->languageCountLabel->text(), u"2 / 2 languages"_s);

	session->log.clear();
	plugin->setMaxTargetLanguages(1);
	QCOMPARE(plugin->settings.languageTargets.keys(), QStringList{u"de"_s});
}

void PluginDockTest::sameOrGreaterLimitDropsNothing()
{
	choose({{u"de"_s, kBoth}, {u"es"_s, kBoth}});
	make();
	session->log.clear();
	plugin->setMaxTargetLanguages(2);
	plugin->setMaxTargetLanguages(5);
	QCOMPARE(session->log.ownLines(), QStringList());
	QCOMPARE(plugin->settings.languageTargets.size(), 2);
	QCOMPARE(dock->settings->languages->languageCountLabel->text(), u"2 / 5 languages"_s);
}

void PluginDockTest::noLimitOpensEverything_data()
{
	QTest::addColumn<int>("max");
	QTest::newRow("0") << 0;
	QTest::newRow("negative") << -3;
}

void PluginDockTest::noLimitOpensEverything()
{
	QFETCH(int, max);
	choose({{u"de"_s, kBoth}});
	make();
	plugin->setMaxTargetLanguages(1);
	QVERIFY(!box(u"es"_s, kDub)->isEnabled());
	plugin->setMaxTargetLanguages(max);
	QCOMPARE(plugin->settings.languageTargets.size(), 1);
	QVERIFY(dock->settings->languages->languageCountLabel->isHidden());
	for (const LanguageInfo &language : kSupportedLanguages) {
		QVERIFY(box(language.code, kCaptions)->isEnabled());
		QCOMPARE(box(language.code, kDub)->isEnabled(), language.code != u"en"_s);
	}
}

// The spoken language

void PluginDockTest::spokenLanguageIsNeverDubbed()
{
	choose({{u"en"_s, kBoth}});
	make();
	QVERIFY(!box(u"en"_s, kDub)->isEnabled());
	QVERIFY(!box(u"en"_s, kDub)->isChecked());
	QVERIFY(box(u"en"_s, kCaptions)->isEnabled());
	QVERIFY(box(u"en"_s, kCaptions)->isChecked());
}

void PluginDockTest::spokenLanguageFollowsTheLimitInCaptions()
{
	choose({{u"de"_s, kBoth}});
	make();
	plugin->setMaxTargetLanguages(1);
	QVERIFY(!box(u"en"_s, kCaptions)->isEnabled());
	plugin->setMaxTargetLanguages(2);
	QVERIFY(box(u"en"_s, kCaptions)->isEnabled());
	QVERIFY(!box(u"en"_s, kDub)->isEnabled());
}

void PluginDockTest::newSpokenLanguageLosesItsDub()
{
	choose({{u"es"_s, kDubOnly}, {u"fr"_s, kDubOnly}});
	make();
	QVERIFY(box(u"es"_s, kDub)->isChecked());
	select(u"es"_s);
	QCOMPARE(plugin->settings.sourceLanguage, u"es"_s);
	QVERIFY(!box(u"es"_s, kDub)->isChecked());
	QVERIFY(!box(u"es"_s, kDub)->isEnabled());
	QVERIFY(box(u"fr"_s, kDub)->isChecked());
	QCOMPARE(plugin->settings.languageTargets.keys(), QStringList{u"fr"_s});
	QCOMPARE(dock->settings->languages->languageTable->rowCount(), 31);
}

void PluginDockTest::newSpokenLanguageKeepsItsCaptions()
{
	choose({{u"es"_s, kBoth}});
	make();
	select(u"es"_s);
	QVERIFY(box(u"es"_s, kCaptions)->isChecked());
	QVERIFY(!box(u"es"_s, kDub)->isChecked());
	QCOMPARE(plugin->settings.languageTargets, (LanguageTargets{{u"es"_s, kBoth}}));
}

void PluginDockTest::formerSpokenLanguageCanBeDubbed()
{
	make();
	select(u"es"_s);
	QVERIFY(box(u"en"_s, kDub)->isEnabled());
	box(u"en"_s, kDub)->setChecked(true);
	QCOMPARE(plugin->settings.languageTargets, (LanguageTargets{{u"en"_s, kDubOnly}}));
}

// Changes made elsewhere

void PluginDockTest::selectionMadeElsewhereIsShown()
{
	choose({{u"fr"_s, kBoth}});
	plugin->setMaxTargetLanguages(2);
	make();
	plugin->setLanguageTargets({{u"es"_s, kBoth}, {u"it"_s, kDubOnly}});
	QVERIFY(box(u"es"_s, kCaptions)->isChecked());
	QVERIFY(box(u"es"_s, kDub)->isChecked());
	QVERIFY(!box(u"it"_s, kCaptions)->isChecked());
	QVERIFY(box(u"it"_s, kDub)->isChecked());
	QVERIFY(!box(u"fr"_s, kCaptions)->isChecked());
	QVERIFY(!box(u"fr"_s, kDub)->isEnabled());
	QCOMPARE(dock->settings->languages->languageCountLabel->text(), u"2 / 2 languages"_s);
}

void PluginDockTest::spokenLanguageChosenElsewhereIsShown()
{
	choose({{u"es"_s, kBoth}});
	make();
	plugin->setSourceLanguage(u"es"_s);
	QCOMPARE(dock->settings->languages->sourceLangCombo->currentData().toString(), u"es"_s);
	QVERIFY(!box(u"es"_s, kDub)->isChecked());
	QVERIFY(!box(u"es"_s, kDub)->isEnabled());
	QVERIFY(box(u"es"_s, kCaptions)->isChecked());
}

QTEST_MAIN(PluginDockTest)
#include "plugin-dock-languages-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "dock/account-section.h"
#include "dock/caption-rows.h"
#include "dock/language-rows.h"
#include "dock/language-table.h"
#include "dock/session-panel.h"
#include "dock/settings-section.h"
#include "dock/sign-in-panel.h"
#include "dock/transcript-view.h"
#include "dock/usage-section.h"
#include "settings/language-catalogue.h"

#include "dock-session.h"
#include "test-audio-source.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDesktopServices>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSlider>
#include <QTableWidget>
#include <QTest>
#include <QTextEdit>
#include <QUrl>

#include <util/text-lookup.h>

#include <limits>
#include <memory>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

struct Texts {
	lookup_t *lookup = text_lookup_create(TALVORA_SOURCE_DIR "/data/locale/en-US.ini");
	~Texts() { text_lookup_destroy(lookup); }
};

} // namespace

// In place of the stand-in, which answers with the key: the room that is needed is that of the real texts.
extern "C" const char *obs_module_text(const char *key)
{
	static const Texts texts;
	const char *text = key;
	text_lookup_getstr(texts.lookup, key, &text);
	return text;
}

/** The dock in a small space, on a small screen, by keyboard alone, with the English texts. */
class PluginDockTest : public QObject {
	Q_OBJECT

public Q_SLOTS:
	/** In place of a browser. */
	void open(const QUrl &) {}

private Q_SLOTS:
	void initTestCase();
	void init();
	void cleanup();

	void fitsThreeHundredAndTwentyPixels_data();
	void fitsThreeHundredAndTwentyPixels();
	void longTextsDoNotWidenIt();
	void nothingIsCutOffAtMinimumWidth();
	void everythingIsReachedByScrolling();
	void tabOrderIsTheReadingOrder_data();
	void tabOrderIsTheReadingOrder();
	void everyControlHasANameForScreenReaders();
	void screenReadersWalkToEveryLanguageBox();
	void browserSignInNamesTheProvider();

private:
	PluginDock &make(bool signedIn)
	{
		plugin->settings.apiKey = signedIn ? u"tak_live_1"_s : QString();
		dock = std::make_unique<PluginDock>(plugin.get(), nullptr);
		dock->resize(320, 600);
		dock->setVisible(true);
		QCoreApplication::processEvents();
		return *dock;
	}
	QWidget *panel() const { return scrollArea()->widget(); }
	QScrollArea *scrollArea() const { return qobject_cast<QScrollArea *>(dock->widget()); }
	void verifyNotWidened() const
	{
		QCoreApplication::processEvents();
		QCOMPARE(dock->width(), 320);
		QVERIFY2(!scrollArea()->horizontalScrollBar()->isVisible(),
			 qPrintable(u"the panel needs %1 of %2 pixels"_s.arg(panel()->minimumSizeHint().width())
					    .arg(scrollArea()->viewport()->width())));
		QVERIFY(panel()->width() <= scrollArea()->viewport()->width());
	}

	std::optional<DockSession> session;
	std::unique_ptr<TalvoraPlugin> plugin;
	std::unique_ptr<PluginDock> dock;
};

void PluginDockTest::initTestCase()
{
	// The texts are in OBS's memory and stay there.
	QCOMPARE(obs_module_text("Dock.Title"), "Talvora");
}

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

void PluginDockTest::fitsThreeHundredAndTwentyPixels_data()
{
	QTest::addColumn<bool>("signedIn");
	QTest::newRow("signed out") << false;
	QTest::newRow("signed in") << true;
}

void PluginDockTest::fitsThreeHundredAndTwentyPixels()
{
	QFETCH(bool, signedIn);
	make(signedIn);
	verifyNotWidened();
	dock->account->signIn->onShowApiKeyClicked();
	dock->usage->onLimitReached(u"captions"_s);
	dock->usage->onLimitReached(u"dubbed"_s);
	plugin->setMaxTargetLanguages(31);
	verifyNotWidened();
}

void PluginDockTest::longTextsDoNotWidenIt()
{
	const QByteArray name(400, 'n');
	const TestAudioSource source(name);
	plugin->settings.audioSource = QString::fromUtf8(name);
	plugin->settings.captionFont = QFont(QString(300, u'f'), 20);
	make(true);
	QCOMPARE(dock->settings->captions->captionFontButton->text(), QString(300, u'f'));
	verifyNotWidened();
	dock->account->session->onErrorOccurred(QString(5000, u'e'));
	verifyNotWidened();
	dock->account->session->onErrorOccurred(u"a word "_s.repeated(100));
	verifyNotWidened();
	dock->transcript->onTranscriptUpdated(QString(20000, u't'));
	verifyNotWidened();
	dock->settings->captions->previewEdit->setText(QString(5000, u'p'));
	verifyNotWidened();
	dock->usage->onLimitWarning(u"captions"_s, std::numeric_limits<int>::min());
	dock->usage->onLimitWarning(u"dubbed"_s, std::numeric_limits<int>::max());
	verifyNotWidened();
}

void PluginDockTest::nothingIsCutOffAtMinimumWidth()
{
	for (const bool signedIn : {false, true}) {
		make(signedIn);
		dock->account->signIn->onShowApiKeyClicked();
		plugin->setMaxTargetLanguages(1);
		QCoreApplication::processEvents();
		for (const QLabel *label : panel()->findChildren<QLabel *>()) {
			if (!label->isVisible()) {
				continue;
			}
			const int height = label->hasHeightForWidth() ? label->heightForWidth(label->width())
								      : label->minimumSizeHint().height();
			QVERIFY2(label->height() >= height, qPrintable(label->text()));
			const bool wide = label->wordWrap() || label->width() >= label->minimumSizeHint().width();
			QVERIFY2(wide, qPrintable(label->text()));
		}
		for (const QAbstractButton *button : panel()->findChildren<QAbstractButton *>()) {
			if (button->isVisible() && !button->text().isEmpty() &&
			    button != dock->settings->captions->captionFontButton) {
				const int text = button->fontMetrics().horizontalAdvance(button->text());
				QVERIFY2(button->width() > text, qPrintable(button->text()));
			}
		}
	}
}

void PluginDockTest::everythingIsReachedByScrolling()
{
	make(true);
	QScrollBar *bar = scrollArea()->verticalScrollBar();
	QVERIFY(bar->maximum() > 0);
	bar->setValue(bar->maximum());
	QCoreApplication::processEvents();
	const QRect bottom(dock->usage->dubbedMinutesLabel->mapTo(scrollArea()->viewport(), QPoint()),
			   dock->usage->dubbedMinutesLabel->size());
	QVERIFY(scrollArea()->viewport()->rect().contains(bottom));
}

void PluginDockTest::tabOrderIsTheReadingOrder_data()
{
	fitsThreeHundredAndTwentyPixels_data();
}

void PluginDockTest::tabOrderIsTheReadingOrder()
{
	QFETCH(bool, signedIn);
	make(signedIn);
	if (!signedIn) {
		dock->account->signIn->onShowApiKeyClicked();
	}
	dock->activateWindow();
	QVERIFY(QTest::qWaitForWindowActive(dock.get()));
	QWidget *first =
		signedIn ? static_cast<QWidget *>(dock->account->logoutButton) : dock->account->signIn->emailEdit;
	first->setFocus(Qt::TabFocusReason);
	QTRY_COMPARE(QApplication::focusWidget(), first);

	QList<QWidget *> visited;
	QPoint last(-1, -1);
	// After the last control the panel itself can be scrolled, and then it begins again.
	for (QWidget *focused = first; focused && focused != scrollArea(); focused = QApplication::focusWidget()) {
		QVERIFY2(!visited.contains(focused), qPrintable(focused->accessibleName()));
		visited += focused;
		// Rows of the table are read as such, whatever is scrolled into view.
		if (!dock->settings->languages->languageTable->isAncestorOf(focused)) {
			const QPoint place = focused->mapTo(panel(), focused->rect().center());
			const bool sameRow = std::abs(place.y() - last.y()) < 12;
			QVERIFY2(sameRow ? place.x() > last.x() : place.y() > last.y(),
				 qPrintable(u"%1 %2"_s.arg(QString::fromLatin1(focused->metaObject()->className()),
							   focused->accessibleName())));
			last = place;
		}
		// What has the focus can be seen.
		const QPoint center = focused->mapTo(scrollArea()->viewport(), focused->rect().center());
		QVERIFY2(scrollArea()->viewport()->rect().contains(center), qPrintable(focused->accessibleName()));
		QTest::keyClick(focused, Qt::Key_Tab);
	}
	QCOMPARE(visited.last(), dock->transcript->transcriptView);
	// The 62 boxes of the table without the dub of the spoken language, 14 settings and the transcript.
	const qsizetype others = signedIn ? 2 : 9;
	QVERIFY2(visited.size() == others + 61 + 14 + 1, qPrintable(QString::number(visited.size())));
}

void PluginDockTest::everyControlHasANameForScreenReaders()
{
	make(false);
	QList<const QWidget *> labelled;
	for (const QLabel *label : panel()->findChildren<QLabel *>()) {
		labelled += label->buddy();
	}
	int named = 0;
	for (const QWidget *widget : panel()->findChildren<QWidget *>()) {
		const auto *button = qobject_cast<const QAbstractButton *>(widget);
		const bool control = button || qobject_cast<const QComboBox *>(widget) ||
				     qobject_cast<const QLineEdit *>(widget) || qobject_cast<const QSlider *>(widget);
		if (!control || widget->focusPolicy() == Qt::NoFocus) {
			continue;
		}
		++named;
		const bool speaks = button && button->text().size() > 1;
		QVERIFY2(speaks || !widget->accessibleName().isEmpty() || labelled.contains(widget),
			 widget->metaObject()->className());
	}
	QVERIFY(named > 80);
}

void PluginDockTest::screenReadersWalkToEveryLanguageBox()
{
	make(true);
	QAccessibleInterface *root = QAccessible::queryAccessibleInterface(dock.get());
	QVERIFY(root);
	QStringList boxes;
	QList<QAccessibleInterface *> todo{root};
	while (!todo.isEmpty()) {
		QAccessibleInterface *one = todo.takeFirst();
		if (one->role() == QAccessible::CheckBox) {
			boxes += one->text(QAccessible::Name);
		}
		for (int child = 0; child < one->childCount(); ++child) {
			QVERIFY(one->child(child));
			todo += one->child(child);
		}
	}
	for (const LanguageInfo &language : kSupportedLanguages) {
		QCOMPARE(boxes.count(language.name + u": Captions"_s), 1);
		QCOMPARE(boxes.count(language.name + u": Dub"_s), 1);
	}
	QCOMPARE(boxes.count(u"Mute the original in dubs"_s), 1);
	QCOMPARE(boxes.size(), kSupportedLanguages.size() * 2 + 1);
}

void PluginDockTest::browserSignInNamesTheProvider()
{
	QDesktopServices::setUrlHandler(u"https"_s, this, "open");
	make(false).account->signIn->onOAuthLoginClicked(u"twitch"_s);
	QDesktopServices::unsetUrlHandler(u"https"_s);
	QCOMPARE(dock->account->session->statusLabel->text(), u"Opening the twitch sign-in page in your browser…"_s);
}

QTEST_MAIN(PluginDockTest)
#include "plugin-dock-layout-test.moc"

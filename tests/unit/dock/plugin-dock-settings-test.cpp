// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"

#include "dock-session.h"
#include "test-audio-source.h"

#include <QApplication>
#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QFontDialog>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QTableWidget>
#include <QTest>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

#include <obs.hpp>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <optional>

using namespace Qt::StringLiterals;

/** The settings section. */
class PluginDockTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	// What is there
	void controlsFromTopToBottom();
	void labelsAreBuddiesOfTheirControls();
	void refreshButton();
	void muteBox();
	void sourceLanguagesAreTheCatalogue();
	void captionModes();
	void captionAlignments();
	void swatchesAndSliders();
	void previewField();

	// Values at the start
	void showsTheDefaults();
	void showsStoredValues();
	void unknownStoredValuesSelectNothingElse();
	void levelsAreShownTruncated_data();
	void levelsAreShownTruncated();
	void handingBackAtTheStartKeepsTheSettings_data();
	void handingBackAtTheStartKeepsTheSettings();

	// Audio source
	void listsSourcesWithAudioInObsOrder();
	void neverListsBrowserSources();
	void neverListsOwnDubs();
	void neverListsVideoOnlySources();
	void savedSourceIsSelected();
	void missingSourceStaysAsOffline();
	void refreshTellsThePluginNothing();
	void refreshButtonRefreshes();
	void selectingASourcePassesItsName();
	void selectingNonePassesTheEmptyString();
	void noIndexIsIgnored();

	// Changes
	void muteIsHandedOn();
	void captionModeIsHandedOnAndRerunsTheLimit();
	void alignmentIsHandedOn();
	void opacitySliderSendsPercent_data();
	void opacitySliderSendsPercent();
	void duckingSliderSendsAGain_data();
	void duckingSliderSendsAGain();
	void volumeSliderSendsAGain();
	void slidersFollowTheKeyboard();
	void acceptedColorIsAppliedAndShown_data();
	void acceptedColorIsAppliedAndShown();
	void cancelledColorChangesNothing();
	void acceptedFontIsAppliedAndShown();
	void cancelledFontChangesNothing();
	void dialogsHaveNoLoopOfTheirOwn_data();
	void dialogsHaveNoLoopOfTheirOwn();
	void dockDestroyedUnderItsDialogIsSafe();
	void previewSendsTheTrimmedText_data();
	void previewSendsTheTrimmedText();

private:
	PluginDock &make()
	{
		dock = std::make_unique<PluginDock>(plugin.get(), nullptr);
		return *dock;
	}
	static QStringList texts(const QComboBox *combo)
	{
		QStringList all;
		for (int i = 0; i < combo->count(); ++i) {
			all += combo->itemText(i);
		}
		return all;
	}
	static QStringList datas(const QComboBox *combo)
	{
		QStringList all;
		for (int i = 0; i < combo->count(); ++i) {
			all += combo->itemData(i).toString();
		}
		return all;
	}
	/** Calls `use` with the dialog that opens next. */
	template <typename Dialog> void whenOpen(std::function<void(Dialog *)> use);
	QLabel *labelOf(const QWidget *control) const;

	std::optional<DockSession> session;
	std::unique_ptr<TalvoraPlugin> plugin;
	std::unique_ptr<PluginDock> dock;
	int dialogs = 0;
};

void PluginDockTest::init()
{
	session.emplace();
	plugin.reset(new TalvoraPlugin());
	dialogs = 0;
}

void PluginDockTest::cleanup()
{
	dock.reset();
	plugin.reset();
	session.reset();
}

template <typename Dialog> void PluginDockTest::whenOpen(std::function<void(Dialog *)> use)
{
	auto *watch = new QTimer(this);
	connect(watch, &QTimer::timeout, this, [this, watch, use = std::move(use)] {
		if (auto *dialog = qobject_cast<Dialog *>(QApplication::activeModalWidget())) {
			watch->deleteLater();
			watch->stop();
			++dialogs;
			use(dialog);
		}
	});
	watch->start(5);
}

QLabel *PluginDockTest::labelOf(const QWidget *control) const
{
	for (QLabel *label : dock->findChildren<QLabel *>()) {
		if (label->buddy() == control) {
			return label;
		}
	}
	return nullptr;
}

// What is there

void PluginDockTest::controlsFromTopToBottom()
{
	plugin->setMaxTargetLanguages(5);
	make().resize(380, 800);
	dock->setVisible(true);
	const auto buttons = dock->findChildren<QPushButton *>();
	const auto preview = std::find_if(buttons.begin(), buttons.end(), [](const QPushButton *button) {
		return button->text() == u"Dock.Settings.CaptionPreviewBtn"_s;
	});
	QVERIFY(preview != buttons.end());
	const auto labels = dock->findChildren<QLabel *>();
	const auto targetLanguages = std::ranges::find(labels, u"Dock.Settings.TargetLangs"_s, &QLabel::text);
	QVERIFY(targetLanguages != labels.end());
	const QList<QWidget *> order{labelOf(dock->audioSourceCombo),
				     dock->audioSourceCombo,
				     dock->muteOriginalCheck,
				     labelOf(dock->sourceLangCombo),
				     dock->sourceLangCombo,
				     *targetLanguages,
				     dock->languageTable,
				     dock->languageCountLabel,
				     labelOf(dock->captionModeCombo),
				     dock->captionModeCombo,
				     labelOf(dock->captionAlignCombo),
				     dock->captionAlignCombo,
				     dock->captionColorButton,
				     dock->captionBgColorButton,
				     dock->opacityValueLabel,
				     dock->opacitySlider,
				     labelOf(dock->captionFontButton),
				     dock->captionFontButton,
				     labelOf(dock->previewEdit),
				     dock->previewEdit,
				     dock->duckingValueLabel,
				     dock->duckingSlider,
				     dock->ttsVolumeValueLabel,
				     dock->ttsVolumeSlider};
	int last = -1;
	for (const QWidget *widget : order) {
		QVERIFY(widget);
		QVERIFY(widget->isVisible());
		const int top = widget->mapTo(dock->widget(), QPoint()).y();
		QVERIFY2(top > last,
			 qPrintable(u"%1 at %2, after %3"_s.arg(QString::fromLatin1(widget->metaObject()->className()))
					    .arg(top)
					    .arg(last)));
		last = top;
	}
	const auto top = [this](QWidget *widget) {
		return widget->mapTo(dock->widget(), QPoint(0, widget->height() / 2)).y();
	};
	QVERIFY(std::abs(top(*preview) - top(dock->previewEdit)) < 4);
	QVERIFY((*preview)->x() > dock->previewEdit->x());
	const auto *refresh = dock->audioSourceCombo->parentWidget()->findChild<QToolButton *>();
	QVERIFY(refresh);
	QVERIFY(refresh->x() > dock->audioSourceCombo->x());

	// What stands in one row begins at the left, the label first.
	const auto left = [this](const QWidget *widget) { return widget->mapTo(dock->widget(), QPoint()).x(); };
	const int margin = left(labelOf(dock->audioSourceCombo));
	QCOMPARE(left(labelOf(dock->previewEdit)), margin);
	const QList<std::pair<QWidget *, QWidget *>> rows{{dock->captionColorButton, dock->captionColorButton},
							  {dock->captionBgColorButton, dock->captionBgColorButton},
							  {dock->opacitySlider, dock->opacityValueLabel},
							  {dock->duckingSlider, dock->duckingValueLabel},
							  {dock->ttsVolumeSlider, dock->ttsVolumeValueLabel}};
	for (const auto &[control, next] : rows) {
		const QLabel *label = labelOf(control);
		QCOMPARE(left(label), margin);
		const int gap = left(next) - left(label) - label->width();
		QVERIFY2(gap >= 0 && gap < 20, qPrintable(label->text()));
	}
	QCOMPARE(qobject_cast<QGroupBox *>(dock->languageTable->parentWidget())->title(), u"Dock.Settings.Title"_s);
}

void PluginDockTest::labelsAreBuddiesOfTheirControls()
{
	make();
	const QHash<QWidget *, QString> keys{{dock->audioSourceCombo, u"Dock.Settings.AudioSource"_s},
					     {dock->sourceLangCombo, u"Dock.Settings.SourceLang"_s},
					     {dock->captionModeCombo, u"Dock.Settings.CaptionMode"_s},
					     {dock->captionAlignCombo, u"Dock.Settings.CaptionAlign"_s},
					     {dock->captionColorButton, u"Dock.Settings.CaptionColor"_s},
					     {dock->captionBgColorButton, u"Dock.Settings.CaptionBgColor"_s},
					     {dock->opacitySlider, u"Dock.Settings.CaptionOpacity"_s},
					     {dock->captionFontButton, u"Dock.Settings.CaptionFont"_s},
					     {dock->previewEdit, u"Dock.Settings.CaptionPreview"_s},
					     {dock->duckingSlider, u"Dock.Settings.DuckingLevel"_s},
					     {dock->ttsVolumeSlider, u"Dock.Settings.TtsVolume"_s}};
	for (auto it = keys.begin(); it != keys.end(); ++it) {
		const QLabel *label = labelOf(it.key());
		QVERIFY2(label, qPrintable(it.value()));
		QCOMPARE(label->text(), it.value());
	}
}

void PluginDockTest::refreshButton()
{
	make();
	const auto *refresh = dock->audioSourceCombo->parentWidget()->findChild<QToolButton *>();
	QVERIFY(refresh);
	QCOMPARE(refresh->text(), u"\u21BB"_s);
	QCOMPARE(refresh->minimumSize(), QSize(24, 24));
	QCOMPARE(refresh->maximumSize(), QSize(24, 24));
	QCOMPARE(refresh->toolTip(), u"Dock.Settings.RefreshTooltip"_s);
	QCOMPARE(refresh->accessibleName(), u"Dock.Settings.RefreshTooltip"_s);
}

void PluginDockTest::muteBox()
{
	QVERIFY(!make().muteOriginalCheck->isChecked());
	QCOMPARE(dock->muteOriginalCheck->text(), u"Dock.Settings.MuteOriginal"_s);
	QCOMPARE(dock->muteOriginalCheck->toolTip(), u"Dock.Settings.MuteOriginalTip"_s);
}

void PluginDockTest::sourceLanguagesAreTheCatalogue()
{
	make();
	QStringList names;
	QStringList codes;
	for (const LanguageInfo &language : kSupportedLanguages) {
		names += language.name;
		codes += language.code;
	}
	QCOMPARE(names.size(), 31);
	QCOMPARE(texts(dock->sourceLangCombo), names);
	QCOMPARE(datas(dock->sourceLangCombo), codes);
}

void PluginDockTest::captionModes()
{
	make();
	QCOMPARE(datas(dock->captionModeCombo), (QStringList{u"translated"_s, u"original"_s}));
	QCOMPARE(texts(dock->captionModeCombo),
		 (QStringList{u"Dock.Settings.CaptionMode.Translated"_s, u"Dock.Settings.CaptionMode.Original"_s}));
}

void PluginDockTest::captionAlignments()
{
	make();
	QCOMPARE(datas(dock->captionAlignCombo), (QStringList{u"left"_s, u"center"_s, u"right"_s}));
	QCOMPARE(texts(dock->captionAlignCombo),
		 (QStringList{u"Dock.Settings.AlignLeft"_s, u"Dock.Settings.AlignCenter"_s,
			      u"Dock.Settings.AlignRight"_s}));
}

void PluginDockTest::swatchesAndSliders()
{
	make();
	for (const QPushButton *swatch : {dock->captionColorButton, dock->captionBgColorButton}) {
		QCOMPARE(swatch->text(), QString());
		QCOMPARE(swatch->minimumSize(), QSize(40, 24));
		QCOMPARE(swatch->maximumSize(), QSize(40, 24));
		QCOMPARE(swatch->parentWidget()->styleSheet(),
			 u"QPushButton { padding: 0px; min-width: 38px; max-width: 38px; "
			 "min-height: 22px; max-height: 22px; }"_s);
	}
	for (const QSlider *slider : {dock->opacitySlider, dock->duckingSlider, dock->ttsVolumeSlider}) {
		QCOMPARE(slider->orientation(), Qt::Horizontal);
		QCOMPARE(slider->minimum(), 0);
		QCOMPARE(slider->maximum(), 100);
	}
	for (const QLabel *value : {dock->opacityValueLabel, dock->duckingValueLabel, dock->ttsVolumeValueLabel}) {
		QCOMPARE(value->minimumWidth(), 35);
	}
}

void PluginDockTest::previewField()
{
	QCOMPARE(make().previewEdit->placeholderText(), u"Dock.Settings.CaptionPreviewPlaceholder"_s);
	QCOMPARE(dock->previewEdit->text(), QString());
}

// Values at the start

void PluginDockTest::showsTheDefaults()
{
	make();
	QCOMPARE(dock->sourceLangCombo->currentData().toString(), u"en"_s);
	QCOMPARE(dock->captionModeCombo->currentData().toString(), u"translated"_s);
	QCOMPARE(dock->captionAlignCombo->currentData().toString(), u"center"_s);
	QCOMPARE(dock->captionColorButton->styleSheet(), u"background-color: #ffffffff; border: 1px solid #555;"_s);
	QCOMPARE(dock->captionBgColorButton->styleSheet(), u"background-color: #00000000; border: 1px solid #555;"_s);
	QCOMPARE(dock->opacitySlider->value(), 100);
	QCOMPARE(dock->opacityValueLabel->text(), u"100%"_s);
	QCOMPARE(dock->captionFontButton->text(), u"-apple-system"_s);
	QCOMPARE(dock->duckingSlider->value(), 20);
	QCOMPARE(dock->duckingValueLabel->text(), u"20%"_s);
	QCOMPARE(dock->ttsVolumeSlider->value(), 100);
	QCOMPARE(dock->ttsVolumeValueLabel->text(), u"100%"_s);
}

void PluginDockTest::showsStoredValues()
{
	Settings &settings = plugin->settings;
	settings.muteOriginal = true;
	settings.sourceLanguage = u"fil"_s;
	settings.captionMode = u"original"_s;
	settings.captionAlignment = u"right"_s;
	settings.captionTextColor = QColor(1, 2, 3, 4);
	settings.captionBgColor = QColor(250, 251, 252, 253);
	settings.captionOpacity = 42;
	settings.captionFont = QFont(u"Some Family"_s, 20);
	settings.duckingLevel = 0.5f;
	settings.ttsVolume = 0.75f;
	make();
	QVERIFY(dock->muteOriginalCheck->isChecked());
	QCOMPARE(dock->sourceLangCombo->currentText(), u"Filipino"_s);
	QCOMPARE(dock->captionModeCombo->currentData().toString(), u"original"_s);
	QCOMPARE(dock->captionAlignCombo->currentData().toString(), u"right"_s);
	QCOMPARE(dock->captionColorButton->styleSheet(), u"background-color: #04010203; border: 1px solid #555;"_s);
	QCOMPARE(dock->captionBgColorButton->styleSheet(), u"background-color: #fdfafbfc; border: 1px solid #555;"_s);
	QCOMPARE(dock->opacitySlider->value(), 42);
	QCOMPARE(dock->opacityValueLabel->text(), u"42%"_s);
	QCOMPARE(dock->captionFontButton->text(), u"Some Family"_s);
	QCOMPARE(dock->duckingSlider->value(), 50);
	QCOMPARE(dock->duckingValueLabel->text(), u"50%"_s);
	QCOMPARE(dock->ttsVolumeSlider->value(), 75);
	QCOMPARE(dock->ttsVolumeValueLabel->text(), u"75%"_s);
}

void PluginDockTest::unknownStoredValuesSelectNothingElse()
{
	plugin->settings.sourceLanguage = u"EN"_s;
	plugin->settings.captionMode = u"Original"_s;
	plugin->settings.captionAlignment = u"Right"_s;
	make();
	QCOMPARE(dock->sourceLangCombo->currentIndex(), 0);
	QCOMPARE(dock->captionModeCombo->currentIndex(), 0);
	QCOMPARE(dock->captionAlignCombo->currentIndex(), 0);
	QCOMPARE(plugin->settings.sourceLanguage, u"EN"_s);
	QCOMPARE(plugin->settings.captionMode, u"Original"_s);
	QCOMPARE(plugin->settings.captionAlignment, u"Right"_s);
}

void PluginDockTest::levelsAreShownTruncated_data()
{
	QTest::addColumn<float>("level");
	QTest::addColumn<int>("slider");
	QTest::addColumn<QString>("label");
	QTest::newRow("half a percent") << 0.005f << 0 << u"0%"_s;
	QTest::newRow("almost all") << 0.999f << 99 << u"99%"_s;
	// As a 32-bit float this is a little less.
	QTest::newRow("0.35") << 0.35f << 35 << u"35%"_s;
	QTest::newRow("a little less than 0.35") << 0.34999f << 34 << u"34%"_s;
	QTest::newRow("too much") << 1.5f << 100 << u"150%"_s;
	QTest::newRow("negative") << -0.019f << 0 << u"-1%"_s;
	QTest::newRow("endless") << std::numeric_limits<float>::infinity() << 100 << u"2147483647%"_s;
}

void PluginDockTest::levelsAreShownTruncated()
{
	QFETCH(float, level);
	plugin->settings.duckingLevel = level;
	plugin->settings.ttsVolume = level;
	make();
	QTEST(dock->duckingSlider->value(), "slider");
	QTEST(dock->duckingValueLabel->text(), "label");
	QTEST(dock->ttsVolumeSlider->value(), "slider");
	QTEST(dock->ttsVolumeValueLabel->text(), "label");
}

void PluginDockTest::handingBackAtTheStartKeepsTheSettings_data()
{
	QTest::addColumn<float>("level");
	for (int percent = 0; percent <= 100; ++percent) {
		// What the slider gives.
		QTest::addRow("%d%%", percent) << static_cast<float>(percent / 100.0);
	}
}

void PluginDockTest::handingBackAtTheStartKeepsTheSettings()
{
	QFETCH(float, level);
	plugin->settings.captionAlignment = u"right"_s;
	plugin->settings.captionOpacity = 10;
	plugin->settings.duckingLevel = level;
	plugin->settings.ttsVolume = level;
	const QJsonObject before = plugin->settings.toJson();
	make();
	QCOMPARE(plugin->settings.toJson(), before);
	// The controls that moved handed their values back, and each of these is saved.
	QCOMPARE(session->savedConfig(), before);
}

// Audio source

void PluginDockTest::listsSourcesWithAudioInObsOrder()
{
	const TestAudioSource zebra("Zebra");
	const TestAudioSource apple("Apple");
	const TestAudioSource talvora("Talvora microphone");
	make().refreshAudioSources();
	QStringList expected;
	obs_enum_sources(
		[](void *names, obs_source_t *source) {
			*static_cast<QStringList *>(names) += QString::fromUtf8(obs_source_get_name(source));
			return true;
		},
		&expected);
	QCOMPARE(expected.size(), 3);
	QCOMPARE(texts(dock->audioSourceCombo), QStringList{u"Dock.Settings.AudioSourceNone"_s} + expected);
	QCOMPARE(datas(dock->audioSourceCombo), QStringList{QString()} + expected);
	QVERIFY(!dock->audioSourceCombo->itemData(0, Qt::ToolTipRole).isValid());
	QCOMPARE(dock->audioSourceCombo->currentIndex(), 0);
	for (int index = 1; index < dock->audioSourceCombo->count(); ++index) {
		// A name may be longer than the list is wide, and one with a tag in it would be shown without that.
		const QString tip = dock->audioSourceCombo->itemData(index, Qt::ToolTipRole).toString();
		QCOMPARE(tip, u"<p>"_s + dock->audioSourceCombo->itemText(index).toHtmlEscaped() + u"</p>"_s);
	}
}

void PluginDockTest::neverListsBrowserSources()
{
	const TestAudioSource browser("Web page", "browser_source", OBS_SOURCE_VIDEO | OBS_SOURCE_AUDIO);
	const TestAudioSource voice("Voice");
	make().refreshAudioSources();
	QCOMPARE(datas(dock->audioSourceCombo), (QStringList{QString(), u"Voice"_s}));
}

void PluginDockTest::neverListsOwnDubs()
{
	const TestAudioSource plain("Talvora Dub");
	const TestAudioSource spanish("Talvora Dub — Spanish");
	const TestAudioSource any("Talvora Dubbing room");
	const TestAudioSource lower("talvora dub");
	make().refreshAudioSources();
	QCOMPARE(datas(dock->audioSourceCombo), (QStringList{QString(), u"talvora dub"_s}));
}

void PluginDockTest::neverListsVideoOnlySources()
{
	const TestAudioSource camera("Camera", "test_video_only", OBS_SOURCE_VIDEO);
	make().refreshAudioSources();
	QCOMPARE(datas(dock->audioSourceCombo), QStringList{QString()});
}

void PluginDockTest::savedSourceIsSelected()
{
	const TestAudioSource voice("Voice");
	const TestAudioSource other("Other");
	plugin->settings.audioSource = u"Voice"_s;
	make().setVisible(true);
	QCOMPARE(dock->audioSourceCombo->currentData().toString(), u"Voice"_s);
	QCOMPARE(dock->audioSourceCombo->currentText(), u"Voice"_s);
	QCOMPARE(dock->audioSourceCombo->count(), 3);
}

void PluginDockTest::missingSourceStaysAsOffline()
{
	const TestAudioSource other("Other");
	plugin->settings.audioSource = u"Voice"_s;
	make().refreshAudioSources();
	QCOMPARE(texts(dock->audioSourceCombo),
		 (QStringList{u"Dock.Settings.AudioSourceNone"_s, u"Other"_s, u"Voice (Offline)"_s}));
	QCOMPARE(dock->audioSourceCombo->currentIndex(), 2);
	QCOMPARE(dock->audioSourceCombo->currentData().toString(), u"Voice"_s);
	// Its case counts.
	const TestAudioSource almost("voice");
	dock->refreshAudioSources();
	QCOMPARE(dock->audioSourceCombo->currentText(), u"Voice (Offline)"_s);
	// And it is there only once.
	dock->refreshAudioSources();
	QCOMPARE(texts(dock->audioSourceCombo).count(u"Voice (Offline)"_s), 1);
}

void PluginDockTest::refreshTellsThePluginNothing()
{
	plugin->settings.audioSource = u"Voice"_s;
	make().refreshAudioSources();
	QSignalSpy changes(dock->audioSourceCombo, &QComboBox::currentIndexChanged);
	const TestAudioSource voice("Voice");
	dock->refreshAudioSources();
	plugin->settings.audioSource.clear();
	dock->refreshAudioSources();
	QCOMPARE(changes.count(), 0);
	QCOMPARE(plugin->settings.audioSource, QString());
	QVERIFY(!dock->audioSourceCombo->signalsBlocked());
}

void PluginDockTest::refreshButtonRefreshes()
{
	make().setVisible(true);
	const TestAudioSource voice("Voice");
	QTest::mouseClick(dock->audioSourceCombo->parentWidget()->findChild<QToolButton *>(), Qt::LeftButton);
	QCOMPARE(datas(dock->audioSourceCombo), (QStringList{QString(), u"Voice"_s}));
}

void PluginDockTest::selectingASourcePassesItsName()
{
	const TestAudioSource voice("Voice");
	make().setVisible(true);
	dock->audioSourceCombo->setFocus();
	QTest::keyClick(dock->audioSourceCombo, Qt::Key_Down);
	QCOMPARE(plugin->settings.audioSource, u"Voice"_s);
	QCOMPARE(session->savedConfig()[u"audioSource"], QJsonValue(u"Voice"_s));

	// The name, not what is shown.
	plugin->settings.audioSource = u"Gone"_s;
	dock->refreshAudioSources();
	dock->audioSourceCombo->setCurrentIndex(0);
	dock->audioSourceCombo->setCurrentIndex(2);
	QCOMPARE(plugin->settings.audioSource, u"Gone"_s);
}

void PluginDockTest::selectingNonePassesTheEmptyString()
{
	const TestAudioSource voice("Voice");
	plugin->settings.audioSource = u"Voice"_s;
	make().refreshAudioSources();
	dock->audioSourceCombo->setCurrentIndex(0);
	QCOMPARE(plugin->settings.audioSource, QString());
	QCOMPARE(session->savedConfig()[u"audioSource"], QJsonValue(QString()));
}

void PluginDockTest::noIndexIsIgnored()
{
	const TestAudioSource voice("Voice");
	plugin->settings.audioSource = u"Voice"_s;
	make().refreshAudioSources();
	dock->audioSourceCombo->setCurrentIndex(-1);
	QCOMPARE(plugin->settings.audioSource, u"Voice"_s);
}

// Changes

void PluginDockTest::muteIsHandedOn()
{
	make().setVisible(true);
	QTest::keyClick(dock->muteOriginalCheck, Qt::Key_Space);
	QVERIFY(plugin->settings.muteOriginal);
	QTest::keyClick(dock->muteOriginalCheck, Qt::Key_Space);
	QVERIFY(!plugin->settings.muteOriginal);
}

void PluginDockTest::captionModeIsHandedOnAndRerunsTheLimit()
{
	make();
	QVERIFY(PluginDock::checkBoxAt(dock->languageTable, 0, 1)->isEnabled());
	dock->captionModeCombo->setCurrentIndex(1);
	QCOMPARE(plugin->settings.captionMode, u"original"_s);
	QVERIFY(!PluginDock::checkBoxAt(dock->languageTable, 0, 1)->isEnabled());
	dock->captionModeCombo->setCurrentIndex(0);
	QCOMPARE(plugin->settings.captionMode, u"translated"_s);
	QVERIFY(PluginDock::checkBoxAt(dock->languageTable, 0, 1)->isEnabled());
}

void PluginDockTest::alignmentIsHandedOn()
{
	make();
	for (const auto &alignment : {u"right"_s, u"left"_s, u"center"_s}) {
		dock->captionAlignCombo->setCurrentIndex(dock->captionAlignCombo->findData(alignment));
		QCOMPARE(plugin->settings.captionAlignment, alignment);
	}
}

void PluginDockTest::opacitySliderSendsPercent_data()
{
	QTest::addColumn<int>("value");
	QTest::addColumn<QString>("label");
	QTest::newRow("0") << 0 << u"0%"_s;
	QTest::newRow("55") << 55 << u"55%"_s;
	QTest::newRow("99") << 99 << u"99%"_s;
}

void PluginDockTest::opacitySliderSendsPercent()
{
	QFETCH(int, value);
	make().opacitySlider->setValue(value);
	QCOMPARE(plugin->settings.captionOpacity, value);
	QTEST(dock->opacityValueLabel->text(), "label");
	QCOMPARE(session->savedConfig()[u"captionOpacity"], QJsonValue(value));
}

void PluginDockTest::duckingSliderSendsAGain_data()
{
	QTest::addColumn<int>("value");
	QTest::addColumn<float>("gain");
	QTest::newRow("0") << 0 << 0.0f;
	QTest::newRow("35") << 35 << 0.35f;
	QTest::newRow("100") << 100 << 1.0f;
}

void PluginDockTest::duckingSliderSendsAGain()
{
	QFETCH(int, value);
	make().duckingSlider->setValue(value);
	QTEST(plugin->settings.duckingLevel, "gain");
	QCOMPARE(dock->duckingValueLabel->text(), u"%1%"_s.arg(value));
	QCOMPARE(dock->ttsVolumeValueLabel->text(), u"100%"_s);
}

void PluginDockTest::volumeSliderSendsAGain()
{
	make().ttsVolumeSlider->setValue(35);
	QCOMPARE(plugin->settings.ttsVolume, 0.35f);
	QCOMPARE(dock->ttsVolumeValueLabel->text(), u"35%"_s);
	QCOMPARE(plugin->settings.duckingLevel, 0.2f);
}

void PluginDockTest::slidersFollowTheKeyboard()
{
	make().setVisible(true);
	dock->duckingSlider->setFocus();
	QTest::keyClick(dock->duckingSlider, Qt::Key_Right);
	QCOMPARE(plugin->settings.duckingLevel, 0.21f);
	QTest::keyClick(dock->duckingSlider, Qt::Key_End);
	QCOMPARE(plugin->settings.duckingLevel, 1.0f);
}

void PluginDockTest::acceptedColorIsAppliedAndShown_data()
{
	QTest::addColumn<bool>("background");
	QTest::newRow("text") << false;
	QTest::newRow("background") << true;
}

void PluginDockTest::acceptedColorIsAppliedAndShown()
{
	QFETCH(bool, background);
	plugin->settings.captionTextColor = QColor(10, 20, 30, 40);
	plugin->settings.captionBgColor = QColor(50, 60, 70, 80);
	make().setVisible(true);
	whenOpen<QColorDialog>([this, background](QColorDialog *dialog) {
		QCOMPARE(dialog->currentColor(), background ? QColor(50, 60, 70, 80) : QColor(10, 20, 30, 40));
		QCOMPARE(dialog->windowTitle(),
			 background ? u"Dock.Settings.CaptionBgColor"_s : u"Dock.Settings.CaptionColor"_s);
		QCOMPARE(dialog->parent(), dock.get());
		QVERIFY(dialog->testOption(QColorDialog::ShowAlphaChannel));
		dialog->setCurrentColor(QColor(1, 2, 3, 128));
		dialog->accept();
	});
	QPushButton *swatch = background ? dock->captionBgColorButton : dock->captionColorButton;
	QTest::mouseClick(swatch, Qt::LeftButton);
	QTRY_COMPARE(dialogs, 1);
	QCOMPARE(background ? plugin->settings.captionBgColor : plugin->settings.captionTextColor,
		 QColor(1, 2, 3, 128));
	QCOMPARE(background ? plugin->settings.captionTextColor : plugin->settings.captionBgColor,
		 background ? QColor(10, 20, 30, 40) : QColor(50, 60, 70, 80));
	QCOMPARE(swatch->styleSheet(), u"background-color: #80010203; border: 1px solid #555;"_s);
}

void PluginDockTest::cancelledColorChangesNothing()
{
	make().setVisible(true);
	const QJsonObject before = plugin->settings.toJson();
	for (QPushButton *swatch : {dock->captionColorButton, dock->captionBgColorButton}) {
		const QString look = swatch->styleSheet();
		whenOpen<QColorDialog>([](QColorDialog *dialog) {
			dialog->setCurrentColor(Qt::red);
			dialog->reject();
		});
		const int shown = dialogs;
		QTest::mouseClick(swatch, Qt::LeftButton);
		QTRY_COMPARE(dialogs, shown + 1);
		QCOMPARE(swatch->styleSheet(), look);
	}
	QCOMPARE(dialogs, 2);
	QCOMPARE(plugin->settings.toJson(), before);
}

void PluginDockTest::acceptedFontIsAppliedAndShown()
{
	make().setVisible(true);
	const QFont before = plugin->settings.captionFont;
	whenOpen<QFontDialog>([this](QFontDialog *dialog) {
		QCOMPARE(dialog->windowTitle(), u"Dock.Settings.CaptionFont"_s);
		QCOMPARE(dialog->parent(), dock.get());
		QFont wanted(u"DejaVu Sans"_s, 24);
		dialog->setCurrentFont(wanted);
		dialog->accept();
	});
	QTest::mouseClick(dock->captionFontButton, Qt::LeftButton);
	QTRY_COMPARE(dialogs, 1);
	QVERIFY(plugin->settings.captionFont != before);
	QCOMPARE(plugin->settings.captionFont.pointSize(), 24);
	QCOMPARE(dock->captionFontButton->text(), plugin->settings.captionFont.family());
}

void PluginDockTest::cancelledFontChangesNothing()
{
	make().setVisible(true);
	const QJsonObject before = plugin->settings.toJson();
	whenOpen<QFontDialog>([](QFontDialog *dialog) {
		dialog->setCurrentFont(QFont(u"DejaVu Sans"_s, 24));
		dialog->reject();
	});
	QTest::mouseClick(dock->captionFontButton, Qt::LeftButton);
	QTRY_COMPARE(dialogs, 1);
	QCOMPARE(plugin->settings.toJson(), before);
	QCOMPARE(dock->captionFontButton->text(), u"-apple-system"_s);
}

/** A loop of a dialog's own goes on while OBS ends and takes the dock away. */
void PluginDockTest::dialogsHaveNoLoopOfTheirOwn_data()
{
	QTest::addColumn<QByteArray>("slot");
	for (const char *slot : {"onCaptionColorClicked", "onCaptionBgColorClicked", "onCaptionFontClicked"}) {
		QTest::newRow(slot) << QByteArray(slot);
	}
}

void PluginDockTest::dialogsHaveNoLoopOfTheirOwn()
{
	QFETCH(QByteArray, slot);
	make().setVisible(true);
	bool turned = false;
	QTimer::singleShot(0, dock.get(), [this, &turned] {
		turned = true;
		for (auto *dialog : dock->findChildren<QDialog *>()) {
			dialog->reject();
		}
	});
	QMetaObject::invokeMethod(dock.get(), slot.constData(), Qt::DirectConnection);
	QVERIFY(!turned);
	QPointer<QDialog> dialog = dock->findChild<QDialog *>();
	QVERIFY(dialog);
	QVERIFY(dialog->isModal());
	// It goes when it is closed.
	QTRY_VERIFY(!dialog);
}

void PluginDockTest::dockDestroyedUnderItsDialogIsSafe()
{
	make().setVisible(true);
	whenOpen<QColorDialog>([this](QColorDialog *) { dock.reset(); });
	// As a click would, but without a test that holds on to the button.
	QMetaObject::invokeMethod(dock.get(), "onCaptionColorClicked", Qt::DirectConnection);
	QTRY_COMPARE(dialogs, 1);
	QCOMPARE(plugin->settings.captionTextColor, QColor(Qt::white));
}

void PluginDockTest::previewSendsTheTrimmedText_data()
{
	QTest::addColumn<QString>("typed");
	QTest::addColumn<QString>("sent");
	QTest::addColumn<bool>("enter");
	QTest::newRow("button") << u"  Hello there "_s << u"Hello there"_s << false;
	QTest::newRow("Enter") << u"Hello"_s << u"Hello"_s << true;
	QTest::newRow("nothing") << QString() << u"Sample caption text"_s << false;
	QTest::newRow("blanks only") << u" \t  "_s << u"Sample caption text"_s << true;
}

void PluginDockTest::previewSendsTheTrimmedText()
{
	QFETCH(QString, typed);
	QFETCH(QString, sent);
	QFETCH(bool, enter);
	plugin->setDockFactory(createPluginDock);
	plugin->initialize();
	plugin->setLanguageTargets({{u"es"_s, {.dubbing = false, .captions = true}}});
	auto *own = qobject_cast<PluginDock *>(plugin->dock);
	QVERIFY(own);
	own->previewEdit->setText(typed);
	if (enter) {
		QTest::keyClick(own->previewEdit, Qt::Key_Return);
	} else {
		for (QPushButton *button : own->findChildren<QPushButton *>()) {
			if (button->text() == u"Dock.Settings.CaptionPreviewBtn"_s) {
				QTest::mouseClick(button, Qt::LeftButton);
			}
		}
	}
	const OBSSourceAutoRelease caption = obs_get_source_by_name("Talvora Captions — Spanish");
	QVERIFY(caption);
	const OBSDataAutoRelease settings = obs_source_get_settings(caption);
	QVERIFY(QString::fromUtf8(obs_data_get_string(settings, "css")).contains(u"content: \"%1\";"_s.arg(sent)));
	QCOMPARE(own->previewEdit->text(), typed);
}

QTEST_MAIN(PluginDockTest)
#include "plugin-dock-settings-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "dock/audio-source-rows.h"
#include "dock/caption-rows.h"
#include "dock/language-rows.h"
#include "dock/language-table.h"
#include "dock/level-rows.h"
#include "dock/settings-section.h"

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
	void settingChangedElsewhereIsShown_data();
	void settingChangedElsewhereIsShown();
	void settingChangedElsewhereIsNotHandedBack();

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
	using Change = void (*)(TalvoraPlugin &);
	using Shown = QString (*)(const SettingsSection &);

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
	const QList<QWidget *> order{labelOf(dock->settings->audioSource->audioSourceCombo),
				     dock->settings->audioSource->audioSourceCombo,
				     dock->settings->audioSource->muteOriginalCheck,
				     labelOf(dock->settings->languages->sourceLangCombo),
				     dock->settings->languages->sourceLangCombo,
				     *targetLanguages,
				     dock->settings->languages->languageTable,
				     dock->settings->languages->languageCountLabel,
				     labelOf(dock->settings->captions->captionModeCombo),
				     dock->settings->captions->captionModeCombo,
				     labelOf(dock->settings->captions->captionAlignCombo),
				     dock->settings->captions->captionAlignCombo,
				     dock->settings->captions->captionColorButton,
				     dock->settings->captions->captionBgColorButton,
				     dock->settings->captions->opacityValueLabel,
				     dock->settings->captions->opacitySlider,
				     labelOf(dock->settings->captions->captionFontButton),
				     dock->settings->captions->captionFontButton,
				     labelOf(dock->settings->captions->previewEdit),
				     dock->settings->captions->previewEdit,
				     dock->settings->levels->duckingValueLabel,
				     dock->settings->levels->duckingSlider,
				     dock->settings->levels->ttsVolumeValueLabel,
				     dock->settings->levels->ttsVolumeSlider};
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
	QVERIFY(std::abs(top(*preview) - top(dock->settings->captions->previewEdit)) < 4);
	QVERIFY((*preview)->x() > dock->settings->captions->previewEdit->x());
	const auto *refresh = dock->settings->audioSource->audioSourceCombo->parentWidget()->findChild<QToolButton *>();
	QVERIFY(refresh);
	QVERIFY(refresh->x() > dock->settings->audioSource->audioSourceCombo->x());

	// What stands in one row begins at the left, the label first.
	const auto left = [this](const QWidget *widget) { return widget->mapTo(dock->widget(), QPoint()).x(); };
	const int margin = left(labelOf(dock->settings->audioSource->audioSourceCombo));
	QCOMPARE(left(labelOf(dock->settings->captions->previewEdit)), margin);
	const QList<std::pair<QWidget *, QWidget *>> rows{
		{dock->settings->captions->captionColorButton, dock->settings->captions->captionColorButton},
		{dock->settings->captions->captionBgColorButton, dock->settings->captions->captionBgColorButton},
		{dock->settings->captions->opacitySlider, dock->settings->captions->opacityValueLabel},
		{dock->settings->levels->duckingSlider, dock->settings->levels->duckingValueLabel},
		{dock->settings->levels->ttsVolumeSlider, dock->settings->levels->ttsVolumeValueLabel}};
	for (const auto &[control, next] : rows) {
		const QLabel *label = labelOf(control);
		QCOMPARE(left(label), margin);
		const int gap = left(next) - left(label) - label->width();
		QVERIFY2(gap >= 0 && gap < 20, qPrintable(label->text()));
	}
	QCOMPARE(qobject_cast<QGroupBox *>(dock->settings->languages->languageTable->parentWidget())->title(),
		 u"Dock.Settings.Title"_s);
}

void PluginDockTest::labelsAreBuddiesOfTheirControls()
{
	make();
	const QHash<QWidget *, QString> keys{
		{dock->settings->audioSource->audioSourceCombo, u"Dock.Settings.AudioSource"_s},
		{dock->settings->languages->sourceLangCombo, u"Dock.Settings.SourceLang"_s},
		{dock->settings->captions->captionModeCombo, u"Dock.Settings.CaptionMode"_s},
		{dock->settings->captions->captionAlignCombo, u"Dock.Settings.CaptionAlign"_s},
		{dock->settings->captions->captionColorButton, u"Dock.Settings.CaptionColor"_s},
		{dock->settings->captions->captionBgColorButton, u"Dock.Settings.CaptionBgColor"_s},
		{dock->settings->captions->opacitySlider, u"Dock.Settings.CaptionOpacity"_s},
		{dock->settings->captions->captionFontButton, u"Dock.Settings.CaptionFont"_s},
		{dock->settings->captions->previewEdit, u"Dock.Settings.CaptionPreview"_s},
		{dock->settings->levels->duckingSlider, u"Dock.Settings.DuckingLevel"_s},
		{dock->settings->levels->ttsVolumeSlider, u"Dock.Settings.TtsVolume"_s}};
	for (auto it = keys.begin(); it != keys.end(); ++it) {
		const QLabel *label = labelOf(it.key());
		QVERIFY2(label, qPrintable(it.value()));
		QCOMPARE(label->text(), it.value());
	}
}

void PluginDockTest::refreshButton()
{
	make();
	const auto *refresh = dock->settings->audioSource->audioSourceCombo->parentWidget()->findChild<QToolButton *>();
	QVERIFY(refresh);
	QCOMPARE(refresh->text(), u"\u21BB"_s);
	QCOMPARE(refresh->minimumSize(), QSize(24, 24));
	QCOMPARE(refresh->maximumSize(), QSize(24, 24));
	QCOMPARE(refresh->toolTip(), u"Dock.Settings.RefreshTooltip"_s);
	QCOMPARE(refresh->accessibleName(), u"Dock.Settings.RefreshTooltip"_s);
}

void PluginDockTest::muteBox()
{
	QVERIFY(!make().settings->audioSource->muteOriginalCheck->isChecked());
	QCOMPARE(dock->settings->audioSource->muteOriginalCheck->text(), u"Dock.Settings.MuteOriginal"_s);
	QCOMPARE(dock->settings->audioSource->muteOriginalCheck->toolTip(), u"Dock.Settings.MuteOriginalTip"_s);
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
	QCOMPARE(texts(dock->settings->languages->sourceLangCombo), names);
	QCOMPARE(datas(dock->settings->languages->sourceLangCombo), codes);
}

void PluginDockTest::captionModes()
{
	make();
	QCOMPARE(datas(dock->settings->captions->captionModeCombo), (QStringList{u"translated"_s, u"original"_s}));
	QCOMPARE(texts(dock->settings->captions->captionModeCombo),
		 (QStringList{u"Dock.Settings.CaptionMode.Translated"_s, u"Dock.Settings.CaptionMode.Original"_s}));
}

void PluginDockTest::captionAlignments()
{
	make();
	QCOMPARE(datas(dock->settings->captions->captionAlignCombo), (QStringList{u"left"_s, u"center"_s, u"right"_s}));
	QCOMPARE(texts(dock->settings->captions->captionAlignCombo),
		 (QStringList{u"Dock.Settings.AlignLeft"_s, u"Dock.Settings.AlignCenter"_s,
			      u"Dock.Settings.AlignRight"_s}));
}

void PluginDockTest::swatchesAndSliders()
{
	make();
	for (const QPushButton *swatch :
	     {dock->settings->captions->captionColorButton, dock->settings->captions->captionBgColorButton}) {
		QCOMPARE(swatch->text(), QString());
		QCOMPARE(swatch->minimumSize(), QSize(40, 24));
		QCOMPARE(swatch->maximumSize(), QSize(40, 24));
		QCOMPARE(swatch->parentWidget()->styleSheet(),
			 u"QPushButton { padding: 0px; min-width: 38px; max-width: 38px; "
			 "min-height: 22px; max-height: 22px; }"_s);
	}
	for (const QSlider *slider : {dock->settings->captions->opacitySlider, dock->settings->levels->duckingSlider,
				      dock->settings->levels->ttsVolumeSlider}) {
		QCOMPARE(slider->orientation(), Qt::Horizontal);
		QCOMPARE(slider->minimum(), 0);
		QCOMPARE(slider->maximum(), 100);
	}
	for (const QLabel *value :
	     {dock->settings->captions->opacityValueLabel, dock->settings->levels->duckingValueLabel,
	      dock->settings->levels->ttsVolumeValueLabel}) {
		QCOMPARE(value->minimumWidth(), 35);
	}
}

void PluginDockTest::previewField()
{
	QCOMPARE(make().settings->captions->previewEdit->placeholderText(),
		 u"Dock.Settings.CaptionPreviewPlaceholder"_s);
	QCOMPARE(dock->settings->captions->previewEdit->text(), QString());
}

// Values at the start

void PluginDockTest::showsTheDefaults()
{
	make();
	QCOMPARE(dock->settings->languages->sourceLangCombo->currentData().toString(), u"en"_s);
	QCOMPARE(dock->settings->captions->captionModeCombo->currentData().toString(), u"translated"_s);
	QCOMPARE(dock->settings->captions->captionAlignCombo->currentData().toString(), u"center"_s);
	QCOMPARE(dock->settings->captions->captionColorButton->styleSheet(),
		 u"background-color: #ffffffff; border: 1px solid #555;"_s);
	QCOMPARE(dock->settings->captions->captionBgColorButton->styleSheet(),
		 u"background-color: #00000000; border: 1px solid #555;"_s);
	QCOMPARE(dock->settings->captions->opacitySlider->value(), 100);
	QCOMPARE(dock->settings->captions->opacityValueLabel->text(), u"100%"_s);
	QCOMPARE(dock->settings->captions->captionFontButton->text(), u"-apple-system"_s);
	QCOMPARE(dock->settings->levels->duckingSlider->value(), 20);
	QCOMPARE(dock->settings->levels->duckingValueLabel->text(), u"20%"_s);
	QCOMPARE(dock->settings->levels->ttsVolumeSlider->value(), 100);
	QCOMPARE(dock->settings->levels->ttsVolumeValueLabel->text(), u"100%"_s);
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
	QVERIFY(dock->settings->audioSource->muteOriginalCheck->isChecked());
	QCOMPARE(dock->settings->languages->sourceLangCombo->currentText(), u"Filipino"_s);
	QCOMPARE(dock->settings->captions->captionModeCombo->currentData().toString(), u"original"_s);
	QCOMPARE(dock->settings->captions->captionAlignCombo->currentData().toString(), u"right"_s);
	QCOMPARE(dock->settings->captions->captionColorButton->styleSheet(),
		 u"background-color: #04010203; border: 1px solid #555;"_s);
	QCOMPARE(dock->settings->captions->captionBgColorButton->styleSheet(),
		 u"background-color: #fdfafbfc; border: 1px solid #555;"_s);
	QCOMPARE(dock->settings->captions->opacitySlider->value(), 42);
	QCOMPARE(dock->settings->captions->opacityValueLabel->text(), u"42%"_s);
	QCOMPARE(dock->settings->captions->captionFontButton->text(), u"Some Family"_s);
	QCOMPARE(dock->settings->levels->duckingSlider->value(), 50);
	QCOMPARE(dock->settings->levels->duckingValueLabel->text(), u"50%"_s);
	QCOMPARE(dock->settings->levels->ttsVolumeSlider->value(), 75);
	QCOMPARE(dock->settings->levels->ttsVolumeValueLabel->text(), u"75%"_s);
}

void PluginDockTest::unknownStoredValuesSelectNothingElse()
{
	plugin->settings.sourceLanguage = u"EN"_s;
	plugin->settings.captionMode = u"Original"_s;
	plugin->settings.captionAlignment = u"Right"_s;
	make();
	QCOMPARE(dock->settings->languages->sourceLangCombo->currentIndex(), 0);
	QCOMPARE(dock->settings->captions->captionModeCombo->currentIndex(), 0);
	QCOMPARE(dock->settings->captions->captionAlignCombo->currentIndex(), 0);
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
	QTEST(dock->settings->levels->duckingSlider->value(), "slider");
	QTEST(dock->settings->levels->duckingValueLabel->text(), "label");
	QTEST(dock->settings->levels->ttsVolumeSlider->value(), "slider");
	QTEST(dock->settings->levels->ttsVolumeValueLabel->text(), "label");
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
	make().settings->audioSource->refreshAudioSources();
	QStringList expected;
	obs_enum_sources(
		[](void *names, obs_source_t *source) {
			*static_cast<QStringList *>(names) += QString::fromUtf8(obs_source_get_name(source));
			return true;
		},
		&expected);
	QCOMPARE(expected.size(), 3);
	QCOMPARE(texts(dock->settings->audioSource->audioSourceCombo),
		 QStringList{u"Dock.Settings.AudioSourceNone"_s} + expected);
	QCOMPARE(datas(dock->settings->audioSource->audioSourceCombo), QStringList{QString()} + expected);
	QVERIFY(!dock->settings->audioSource->audioSourceCombo->itemData(0, Qt::ToolTipRole).isValid());
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->currentIndex(), 0);
	for (int index = 1; index < dock->settings->audioSource->audioSourceCombo->count(); ++index) {
		// A name may be longer than the list is wide, and one with a tag in it would be shown without that.
		const QString tip =
			dock->settings->audioSource->audioSourceCombo->itemData(index, Qt::ToolTipRole).toString();
		QCOMPARE(tip, u"<p>"_s +
				      dock->settings->audioSource->audioSourceCombo->itemText(index).toHtmlEscaped() +
				      u"</p>"_s);
	}
}

void PluginDockTest::neverListsBrowserSources()
{
	const TestAudioSource browser("Web page", "browser_source", OBS_SOURCE_VIDEO | OBS_SOURCE_AUDIO);
	const TestAudioSource voice("Voice");
	make().settings->audioSource->refreshAudioSources();
	QCOMPARE(datas(dock->settings->audioSource->audioSourceCombo), (QStringList{QString(), u"Voice"_s}));
}

void PluginDockTest::neverListsOwnDubs()
{
	const TestAudioSource plain("Talvora Dub");
	const TestAudioSource spanish("Talvora Dub — Spanish");
	const TestAudioSource any("Talvora Dubbing room");
	const TestAudioSource lower("talvora dub");
	make().settings->audioSource->refreshAudioSources();
	QCOMPARE(datas(dock->settings->audioSource->audioSourceCombo), (QStringList{QString(), u"talvora dub"_s}));
}

void PluginDockTest::neverListsVideoOnlySources()
{
	const TestAudioSource camera("Camera", "test_video_only", OBS_SOURCE_VIDEO);
	make().settings->audioSource->refreshAudioSources();
	QCOMPARE(datas(dock->settings->audioSource->audioSourceCombo), QStringList{QString()});
}

void PluginDockTest::savedSourceIsSelected()
{
	const TestAudioSource voice("Voice");
	const TestAudioSource other("Other");
	plugin->settings.audioSource = u"Voice"_s;
	make().setVisible(true);
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->currentData().toString(), u"Voice"_s);
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->currentText(), u"Voice"_s);
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->count(), 3);
}

void PluginDockTest::missingSourceStaysAsOffline()
{
	const TestAudioSource other("Other");
	plugin->settings.audioSource = u"Voice"_s;
	make().settings->audioSource->refreshAudioSources();
	QCOMPARE(texts(dock->settings->audioSource->audioSourceCombo),
		 (QStringList{u"Dock.Settings.AudioSourceNone"_s, u"Other"_s, u"Voice (Offline)"_s}));
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->currentIndex(), 2);
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->currentData().toString(), u"Voice"_s);
	// Its case counts.
	const TestAudioSource almost("voice");
	dock->settings->audioSource->refreshAudioSources();
	QCOMPARE(dock->settings->audioSource->audioSourceCombo->currentText(), u"Voice (Offline)"_s);
	// And it is there only once.
	dock->settings->audioSource->refreshAudioSources();
	QCOMPARE(texts(dock->settings->audioSource->audioSourceCombo).count(u"Voice (Offline)"_s), 1);
}

void PluginDockTest::refreshTellsThePluginNothing()
{
	plugin->settings.audioSource = u"Voice"_s;
	make().settings->audioSource->refreshAudioSources();
	QSignalSpy changes(dock->settings->audioSource->audioSourceCombo, &QComboBox::currentIndexChanged);
	const TestAudioSource voice("Voice");
	dock->settings->audioSource->refreshAudioSources();
	plugin->settings.audioSource.clear();
	dock->settings->audioSource->refreshAudioSources();
	QCOMPARE(changes.count(), 0);
	QCOMPARE(plugin->settings.audioSource, QString());
	QVERIFY(!dock->settings->audioSource->audioSourceCombo->signalsBlocked());
}

void PluginDockTest::refreshButtonRefreshes()
{
	make().setVisible(true);
	const TestAudioSource voice("Voice");
	QTest::mouseClick(dock->settings->audioSource->audioSourceCombo->parentWidget()->findChild<QToolButton *>(),
			  Qt::LeftButton);
	QCOMPARE(datas(dock->settings->audioSource->audioSourceCombo), (QStringList{QString(), u"Voice"_s}));
}

void PluginDockTest::selectingASourcePassesItsName()
{
	const TestAudioSource voice("Voice");
	make().setVisible(true);
	dock->settings->audioSource->audioSourceCombo->setFocus();
	QTest::keyClick(dock->settings->audioSource->audioSourceCombo, Qt::Key_Down);
	QCOMPARE(plugin->settings.audioSource, u"Voice"_s);
	QCOMPARE(session->savedConfig()[u"audioSource"], QJsonValue(u"Voice"_s));

	// The name, not what is shown.
	plugin->settings.audioSource = u"Gone"_s;
	dock->settings->audioSource->refreshAudioSources();
	dock->settings->audioSource->audioSourceCombo->setCurrentIndex(0);
	dock->settings->audioSource->audioSourceCombo->setCurrentIndex(2);
	QCOMPARE(plugin->settings.audioSource, u"Gone"_s);
}

void PluginDockTest::selectingNonePassesTheEmptyString()
{
	const TestAudioSource voice("Voice");
	plugin->settings.audioSource = u"Voice"_s;
	make().settings->audioSource->refreshAudioSources();
	dock->settings->audioSource->audioSourceCombo->setCurrentIndex(0);
	QCOMPARE(plugin->settings.audioSource, QString());
	QCOMPARE(session->savedConfig()[u"audioSource"], QJsonValue(QString()));
}

void PluginDockTest::noIndexIsIgnored()
{
	const TestAudioSource voice("Voice");
	plugin->settings.audioSource = u"Voice"_s;
	make().settings->audioSource->refreshAudioSources();
	dock->settings->audioSource->audioSourceCombo->setCurrentIndex(-1);
	QCOMPARE(plugin->settings.audioSource, u"Voice"_s);
}

// Changes

void PluginDockTest::muteIsHandedOn()
{
	make().setVisible(true);
	QTest::keyClick(dock->settings->audioSource->muteOriginalCheck, Qt::Key_Space);
	QVERIFY(plugin->settings.muteOriginal);
	QTest::keyClick(dock->settings->audioSource->muteOriginalCheck, Qt::Key_Space);
	QVERIFY(!plugin->settings.muteOriginal);
}

void PluginDockTest::captionModeIsHandedOnAndRerunsTheLimit()
{
	make();
	QVERIFY(LanguageTable::checkBoxAt(dock->settings->languages->languageTable, 0, 1)->isEnabled());
	dock->settings->captions->captionModeCombo->setCurrentIndex(1);
	QCOMPARE(plugin->settings.captionMode, u"original"_s);
	QVERIFY(!LanguageTable::checkBoxAt(dock->settings->languages->languageTable, 0, 1)->isEnabled());
	dock->settings->captions->captionModeCombo->setCurrentIndex(0);
	QCOMPARE(plugin->settings.captionMode, u"translated"_s);
	QVERIFY(LanguageTable::checkBoxAt(dock->settings->languages->languageTable, 0, 1)->isEnabled());
}

void PluginDockTest::alignmentIsHandedOn()
{
	make();
	for (const auto &alignment : {u"right"_s, u"left"_s, u"center"_s}) {
		dock->settings->captions->captionAlignCombo->setCurrentIndex(
			dock->settings->captions->captionAlignCombo->findData(alignment));
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
	make().settings->captions->opacitySlider->setValue(value);
	QCOMPARE(plugin->settings.captionOpacity, value);
	QTEST(dock->settings->captions->opacityValueLabel->text(), "label");
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
	make().settings->levels->duckingSlider->setValue(value);
	QTEST(plugin->settings.duckingLevel, "gain");
	QCOMPARE(dock->settings->levels->duckingValueLabel->text(), u"%1%"_s.arg(value));
	QCOMPARE(dock->settings->levels->ttsVolumeValueLabel->text(), u"100%"_s);
}

void PluginDockTest::volumeSliderSendsAGain()
{
	make().settings->levels->ttsVolumeSlider->setValue(35);
	QCOMPARE(plugin->settings.ttsVolume, 0.35f);
	QCOMPARE(dock->settings->levels->ttsVolumeValueLabel->text(), u"35%"_s);
	QCOMPARE(plugin->settings.duckingLevel, 0.2f);
}

void PluginDockTest::slidersFollowTheKeyboard()
{
	make().setVisible(true);
	dock->settings->levels->duckingSlider->setFocus();
	QTest::keyClick(dock->settings->levels->duckingSlider, Qt::Key_Right);
	QCOMPARE(plugin->settings.duckingLevel, 0.21f);
	QTest::keyClick(dock->settings->levels->duckingSlider, Qt::Key_End);
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
	QPushButton *swatch = background ? dock->settings->captions->captionBgColorButton
					 : dock->settings->captions->captionColorButton;
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
	for (QPushButton *swatch :
	     {dock->settings->captions->captionColorButton, dock->settings->captions->captionBgColorButton}) {
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
	QTest::mouseClick(dock->settings->captions->captionFontButton, Qt::LeftButton);
	QTRY_COMPARE(dialogs, 1);
	QVERIFY(plugin->settings.captionFont != before);
	QCOMPARE(plugin->settings.captionFont.pointSize(), 24);
	QCOMPARE(dock->settings->captions->captionFontButton->text(), plugin->settings.captionFont.family());
}

void PluginDockTest::cancelledFontChangesNothing()
{
	make().setVisible(true);
	const QJsonObject before = plugin->settings.toJson();
	whenOpen<QFontDialog>([](QFontDialog *dialog) {
		dialog->setCurrentFont(QFont(u"DejaVu Sans"_s, 24));
		dialog->reject();
	});
	QTest::mouseClick(dock->settings->captions->captionFontButton, Qt::LeftButton);
	QTRY_COMPARE(dialogs, 1);
	QCOMPARE(plugin->settings.toJson(), before);
	QCOMPARE(dock->settings->captions->captionFontButton->text(), u"-apple-system"_s);
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
	QMetaObject::invokeMethod(dock->settings->captions, slot.constData(), Qt::DirectConnection);
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
	QMetaObject::invokeMethod(dock->settings->captions, "onCaptionColorClicked", Qt::DirectConnection);
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
	own->settings->captions->previewEdit->setText(typed);
	if (enter) {
		QTest::keyClick(own->settings->captions->previewEdit, Qt::Key_Return);
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
	QCOMPARE(own->settings->captions->previewEdit->text(), typed);
}

/** What a hotkey or a remote control does. */
void PluginDockTest::settingChangedElsewhereIsShown_data()
{
	QTest::addColumn<Change>("change");
	QTest::addColumn<Shown>("shown");
	QTest::addColumn<QString>("expected");
	const auto row = [](const char *name, Change change, Shown shown, const QString &expected) {
		QTest::newRow(name) << change << shown << expected;
	};
	row(
		"audio source", [](TalvoraPlugin &core) { core.setAudioSource(u"Voice"_s); },
		[](const SettingsSection &section) { return section.audioSource->audioSourceCombo->currentText(); },
		u"Voice"_s);
	row(
		"audio source that is away", [](TalvoraPlugin &core) { core.setAudioSource(u"Gone"_s); },
		[](const SettingsSection &section) { return section.audioSource->audioSourceCombo->currentText(); },
		u"Gone (Offline)"_s);
	row(
		"mute", [](TalvoraPlugin &core) { core.setMuteOriginal(true); },
		[](const SettingsSection &section) {
			return QVariant(section.audioSource->muteOriginalCheck->isChecked()).toString();
		},
		u"true"_s);
	row(
		"mode", [](TalvoraPlugin &core) { core.setCaptionMode(u"original"_s); },
		[](const SettingsSection &section) {
			return section.captions->captionModeCombo->currentData().toString();
		},
		u"original"_s);
	row(
		"mode closes the boxes of captions", [](TalvoraPlugin &core) { core.setCaptionMode(u"original"_s); },
		[](const SettingsSection &section) {
			const QCheckBox *box = LanguageTable::checkBoxAt(section.languages->languageTable, 0, 1);
			return QVariant(box->isEnabled()).toString();
		},
		u"false"_s);
	row(
		"alignment", [](TalvoraPlugin &core) { core.setCaptionAlignment(u"right"_s); },
		[](const SettingsSection &section) {
			return section.captions->captionAlignCombo->currentData().toString();
		},
		u"right"_s);
	row(
		"text colour", [](TalvoraPlugin &core) { core.setCaptionTextColor(QColor(1, 2, 3, 4)); },
		[](const SettingsSection &section) { return section.captions->captionColorButton->styleSheet(); },
		u"background-color: #04010203; border: 1px solid #555;"_s);
	row(
		"background", [](TalvoraPlugin &core) { core.setCaptionBgColor(QColor(1, 2, 3, 4)); },
		[](const SettingsSection &section) { return section.captions->captionBgColorButton->styleSheet(); },
		u"background-color: #04010203; border: 1px solid #555;"_s);
	row(
		"opacity", [](TalvoraPlugin &core) { core.setCaptionOpacity(40); },
		[](const SettingsSection &section) {
			return QString::number(section.captions->opacitySlider->value()) + u' ' +
			       section.captions->opacityValueLabel->text();
		},
		u"40 40%"_s);
	row(
		"font", [](TalvoraPlugin &core) { core.setCaptionFont(QFont(u"Serif"_s)); },
		[](const SettingsSection &section) { return section.captions->captionFontButton->text(); }, u"Serif"_s);
	row(
		"ducking", [](TalvoraPlugin &core) { core.setDuckingLevel(0.35f); },
		[](const SettingsSection &section) {
			return QString::number(section.levels->duckingSlider->value()) + u' ' +
			       section.levels->duckingValueLabel->text();
		},
		u"35 35%"_s);
	row(
		"volume", [](TalvoraPlugin &core) { core.setTtsVolume(0.5f); },
		[](const SettingsSection &section) {
			return QString::number(section.levels->ttsVolumeSlider->value()) + u' ' +
			       section.levels->ttsVolumeValueLabel->text();
		},
		u"50 50%"_s);
}

void PluginDockTest::settingChangedElsewhereIsShown()
{
	QFETCH(Change, change);
	QFETCH(Shown, shown);
	QFETCH(QString, expected);
	const TestAudioSource voice("Voice");
	make().setVisible(true);
	QVERIFY(shown(*dock->settings) != expected);
	change(*plugin);
	QCOMPARE(shown(*dock->settings), expected);
}

void PluginDockTest::settingChangedElsewhereIsNotHandedBack()
{
	make().setVisible(true);
	const QSignalSpy saves(plugin.get(), &TalvoraPlugin::settingsChanged);
	// A slider has whole percent only.
	plugin->setDuckingLevel(0.356f);
	QCOMPARE(dock->settings->levels->duckingSlider->value(), 35);
	QCOMPARE(plugin->currentSettings().duckingLevel, 0.356f);
	plugin->setCaptionMode(u"original"_s);
	plugin->setSourceLanguage(u"de"_s);
	plugin->setLanguageTargets({{u"es"_s, {.dubbing = true, .captions = true}}});
	QCOMPARE(saves.count(), 4);
}

QTEST_MAIN(PluginDockTest)
#include "plugin-dock-settings-test.moc"

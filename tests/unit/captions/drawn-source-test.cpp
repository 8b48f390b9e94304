// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/drawn-source.h"

#include "captions/caption-css.h"
#include "captions/caption-page.h"

#include "log-capture.h"
#include "obs-fixture.h"

#include <QTest>

#include <obs.hpp>

using namespace Qt::StringLiterals;

namespace {

OBSDataAutoRelease settingsOf(const QString &page, const QString &text, int width = 1024, int height = 240)
{
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_bool(settings, "is_local_file", true);
	obs_data_set_string(settings, "local_file", page.toUtf8());
	obs_data_set_string(settings, "css", captionCss({}, text).toUtf8());
	obs_data_set_int(settings, "width", width);
	obs_data_set_int(settings, "height", height);
	return settings;
}

} // namespace

/** The type in an OBS that has no video: what it is for OBS, and that it bears that. */
class DrawnSourceTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void initTestCase();
	void cleanupTestCase();

	void typeIsHiddenAndHasAudioForFilters();
	void sizeIsThatOfTheSettings_data();
	void sizeIsThatOfTheSettings();
	void sourceIsNotHeard();
	void ownPagesAreKnownByTheirPath_data();
	void ownPagesAreKnownByTheirPath();
	void propertiesSayWhatItIs();
	void withoutVideoNothingHappens();
	void foreignPageKeepsItsSettingsAndFilters();

private:
	std::optional<LogCapture> log;
	std::optional<ObsFixture> obs;
};

void DrawnSourceTest::initTestCase()
{
	log.emplace();
	obs.emplace();
	registerDrawnSource();
}

void DrawnSourceTest::cleanupTestCase()
{
	ObsFixture::waitForDestroyedSources();
	releaseDrawnSource();
	obs.reset();
	log.reset();
}

void DrawnSourceTest::typeIsHiddenAndHasAudioForFilters()
{
	const uint32_t flags = obs_get_source_output_flags("browser_source");
	QCOMPARE(flags, uint32_t{OBS_SOURCE_VIDEO | OBS_SOURCE_AUDIO | OBS_SOURCE_CUSTOM_DRAW |
				 OBS_SOURCE_DO_NOT_DUPLICATE | OBS_SOURCE_SRGB | OBS_SOURCE_CAP_DISABLED});
	QCOMPARE(obs_source_get_icon_type("browser_source"), OBS_ICON_TYPE_BROWSER);
}

void DrawnSourceTest::sizeIsThatOfTheSettings_data()
{
	QTest::addColumn<int>("width");
	QTest::addColumn<int>("height");
	QTest::addColumn<uint32_t>("sourceWidth");
	QTest::addColumn<uint32_t>("sourceHeight");
	QTest::newRow("usual") << 1024 << 240 << 1024U << 240U;
	QTest::newRow("none") << 0 << 0 << 0U << 0U;
	QTest::newRow("negative") << -5 << 240 << 0U << 240U;
	QTest::newRow("more than OBS allows") << 100000 << 8193 << 8192U << 8192U;
}

void DrawnSourceTest::sizeIsThatOfTheSettings()
{
	QFETCH(const int, width);
	QFETCH(const int, height);
	const OBSDataAutoRelease settings = settingsOf(captionPagePath(u"es"_s), u"Hola"_s, width, height);
	const OBSSourceAutoRelease source = obs_source_create("browser_source", "Captions", settings, nullptr);
	QVERIFY(source);
	QTEST(obs_source_get_width(source), "sourceWidth");
	QTEST(obs_source_get_height(source), "sourceHeight");
}

void DrawnSourceTest::sourceIsNotHeard()
{
	const OBSDataAutoRelease settings = settingsOf(captionPagePath(u"es"_s), u"Hola"_s);
	const OBSSourceAutoRelease source = obs_source_create("browser_source", "Captions", settings, nullptr);
	QVERIFY2(!obs_source_audio_active(source), "OBS's mixer would show it");
}

void DrawnSourceTest::ownPagesAreKnownByTheirPath_data()
{
	QTest::addColumn<QString>("path");
	QTest::addColumn<bool>("own");
	QTest::newRow("own") << captionPagePath(u"es"_s) << true;
	QTest::newRow("own of another folder") << u"/elsewhere/talvora_caption_ui_fil.html"_s << true;
	QTest::newRow("empty") << QString() << false;
	QTest::newRow("another page") << u"/tmp/page.html"_s << false;
	QTest::newRow("longer name") << u"/tmp/my_talvora_caption_ui_es.html"_s << false;
	QTest::newRow("folder of the name") << u"/tmp/talvora_caption_ui_es.html/page.html"_s << false;
	QTest::newRow("other ending") << u"/tmp/talvora_caption_ui_es.html.bak"_s << false;
}

void DrawnSourceTest::ownPagesAreKnownByTheirPath()
{
	QFETCH(const QString, path);
	QTEST(isCaptionPage(path), "own");
}

void DrawnSourceTest::propertiesSayWhatItIs()
{
	obs_properties_t *list = obs_get_source_properties("browser_source");
	QVERIFY(obs_properties_get(list, "explanation"));
	QVERIFY(obs_properties_get(list, "width"));
	QVERIFY(obs_properties_get(list, "height"));
	obs_properties_destroy(list);
}

void DrawnSourceTest::withoutVideoNothingHappens()
{
	log->clear();
	const OBSDataAutoRelease settings = settingsOf(captionPagePath(u"es"_s), u"Hola"_s);
	const OBSSourceAutoRelease source = obs_source_create("browser_source", "Captions", settings, nullptr);
	const OBSDataAutoRelease next = settingsOf(captionPagePath(u"es"_s), u"Adiós"_s);
	obs_source_update(source, next);
	obs_source_video_render(source);
	QCOMPARE(log->ownLines(), QStringList());
	QCOMPARE(log->lines(LOG_ERROR), QStringList());
}

void DrawnSourceTest::foreignPageKeepsItsSettingsAndFilters()
{
	obs_source_info filter = {};
	filter.id = "audio_filter";
	filter.type = OBS_SOURCE_TYPE_FILTER;
	filter.output_flags = OBS_SOURCE_AUDIO;
	filter.get_name = [](void *) { return "Filter"; };
	filter.create = [](obs_data_t *, obs_source_t *source) -> void * { return source; };
	filter.destroy = [](void *) {};
	obs_register_source(&filter);

	const OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_string(settings, "url", "https://example.org/");
	obs_data_set_bool(settings, "reroute_audio", true);
	const OBSSourceAutoRelease source = obs_source_create("browser_source", "Page", settings, nullptr);
	const OBSSourceAutoRelease added = obs_source_create("audio_filter", "Louder", nullptr, nullptr);
	obs_source_filter_add(source, added);
	const OBSDataAutoRelease saved = obs_save_source(source);
	const OBSDataAutoRelease kept = obs_data_get_obj(saved, "settings");
	QCOMPARE(obs_data_get_string(kept, "url"), "https://example.org/");
	QVERIFY(obs_data_get_bool(kept, "reroute_audio"));
	const OBSDataArrayAutoRelease filters = obs_data_get_array(saved, "filters");
	QCOMPARE(obs_data_array_count(filters), size_t{1});
	obs_source_filter_remove(source, added);
}

QTEST_MAIN(DrawnSourceTest)
#include "drawn-source-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/browser-source.h"

#include "core/talvora-plugin.h"
#include "dock/plugin-dock.h"

#include "dock-session.h"
#include "test-audio-source.h"

#include <QLabel>
#include <QTest>

#include <obs-module.h>

#include <algorithm>
#include <memory>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

const QString kNoteKey = u"Dock.Settings.NoBrowserSource"_s;

} // namespace

/** What a user is told in an OBS without a browser source, and in one that has it. */
class PluginDockTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	void missingTypeIsNoticed();
	void dockShowsANote();
	void logSaysItOnceWhenCaptionsAreWanted();
	void nothingIsSaidWithABrowserSource();

private:
	int notes() const
	{
		int count = 0;
		const PluginDock dock(plugin.get(), nullptr);
		for (const QLabel *label : dock.findChildren<QLabel *>()) {
			count += label->text() == QString::fromUtf8(obs_module_text(kNoteKey.toUtf8().constData()));
		}
		return count;
	}
	qsizetype lines() const
	{
		return session->log.lines(LOG_WARNING)
			.count(u"[talvora-obs] Talvora: this OBS has no browser source, so captions cannot be shown. "
			       "OBS from Flathub or from the OBS Project's Ubuntu PPA has it. Dubs and the transcript "
			       "work without it."_s);
	}
	void wantCaptions() { plugin->setLanguageTargets({{u"es"_s, {.dubbing = false, .captions = true}}}); }

	std::optional<DockSession> session;
	std::unique_ptr<TalvoraPlugin> plugin;
};

void PluginDockTest::init()
{
	session.emplace();
	plugin.reset(new TalvoraPlugin());
}

void PluginDockTest::cleanup()
{
	plugin.reset();
	session.reset();
}

void PluginDockTest::missingTypeIsNoticed()
{
	QVERIFY(!hasBrowserSource());
	const TestAudioSource browser("Web page", kBrowserSourceId);
	QVERIFY(hasBrowserSource());
}

void PluginDockTest::dockShowsANote()
{
	QCOMPARE(notes(), 1);
	const PluginDock dock(plugin.get(), nullptr);
	const auto labels = dock.findChildren<QLabel *>();
	const auto note = std::ranges::find(labels, kNoteKey, &QLabel::text);
	QVERIFY(note != labels.end());
	QCOMPARE((*note)->styleSheet(), u"color: orange; font-size: 11px;"_s);
}

void PluginDockTest::logSaysItOnceWhenCaptionsAreWanted()
{
	plugin->initialize();
	plugin->setLanguageTargets({{u"es"_s, {.dubbing = true, .captions = false}}});
	QCOMPARE(lines(), 0);
	wantCaptions();
	QCOMPARE(lines(), 1);
	plugin->setCaptionOpacity(50);
	plugin->previewCaptionText(u"Hola"_s);
	QCOMPARE(lines(), 1);
}

void PluginDockTest::nothingIsSaidWithABrowserSource()
{
	const TestAudioSource browser("Web page", kBrowserSourceId);
	plugin->initialize();
	wantCaptions();
	QCOMPARE(lines(), 0);
	QCOMPARE(notes(), 0);
}

QTEST_MAIN(PluginDockTest)
#include "browser-source-test.moc"

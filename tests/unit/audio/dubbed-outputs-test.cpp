// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/dubbed-outputs.h"

#include "heard.h"
#include "log-capture.h"
#include "obs-fixture.h"
#include "settings/settings.h"
#include "test-audio-source.h"

#include <QSignalSpy>
#include <QTest>

#include <obs.hpp>

#include <atomic>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;

class DubbedOutputsTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	void noDubOfTheSourceLanguage();
	void dubsFollowTheSelection();
	void dubOfTheNewSourceLanguageGoesAtOnce();
	void dubsAreMadeAndRenewedWithoutHoldingUpTheAudio();
	void removedDubIsRestored();
	void sourceOfTheNameIsTakenUp();
	void changesAreTold();
	void onlyTheFeedIsHeard();
	void dubThatOutputsToTheFeedEndsIt();
	void feedChangesBetweenChunks();
	void speechOfAnUnknownLanguageIsDropped();
	void oddSpeechPieceLosesItsLastByte();
	void pieceOfOneSampleIsSpoken();
	void eventsOfAClipAreToldLater();
	void clipThatIsFlushedIsToldAsLost();
	void clipThatIsNoLongerHeardIsToldAsLost();
	void abandonedDubsAreLeftToObs();

private:
	void select(const LanguageTargets &targets);
	/** A chunk of silence from `source`; false when it is not the feed. */
	bool play(const obs_source_t *source, size_t frames);

	std::optional<LogCapture> log;
	std::optional<ObsFixture> obs;
	Settings settings;
	std::optional<DubbedOutputs> dubs;
};

void DubbedOutputsTest::init()
{
	// Outlives libobs, whose threads log until its end.
	log.emplace();
	obs.emplace();
	obs_register_source(dubbed_source_info());
	settings = {};
	dubs.emplace(settings);
	log->clear();
}

void DubbedOutputsTest::cleanup()
{
	dubs.reset();
	obs.reset();
	log.reset();
}

void DubbedOutputsTest::select(const LanguageTargets &targets)
{
	settings.languageTargets = targets;
	dubs->update();
}

bool DubbedOutputsTest::play(const obs_source_t *source, size_t frames)
{
	const std::vector<float> silence(frames, 0.0f);
	const DubbedOutputs::Chunk chunk = dubs->beginChunk(source);
	if (!chunk) {
		return false;
	}
	chunk.push(silence.data(), silence.data(), frames, 48000, 1);
	return true;
}

// Which dubs there are

void DubbedOutputsTest::noDubOfTheSourceLanguage()
{
	settings.sourceLanguage = u"es"_s;
	dubs->update();
	select({{u"es"_s, {true, false}}});
	QVERIFY(dubs->dubbedSources.empty());
}

void DubbedOutputsTest::dubsFollowTheSelection()
{
	select({{u"fr"_s, {true, false}}, {u"es"_s, {true, true}}, {u"de"_s, {false, true}}});
	QCOMPARE(log->ownLines().filter(u"Talvora: creating"_s),
		 (QStringList{u"[talvora-obs] Talvora: creating dubbed source for 'es' (Spanish)"_s,
			      u"[talvora-obs] Talvora: creating dubbed source for 'fr' (French)"_s}));
	QCOMPARE(dubs->dubbedSources.size(), size_t{2});
	const DubbedSource *french = dubs->dubbedSources.at(u"fr"_s).get();

	settings.duckingLevel = 0.35f;
	dubs->setDuckingLevel(0.35f);
	settings.ttsVolume = 0.5f;
	dubs->setTtsVolume(0.5f);
	settings.muteOriginal = true;
	dubs->setMuteOriginal(true);
	for (const auto &[code, dub] : dubs->dubbedSources) {
		QCOMPARE(dub->duckingLevel.load(), 0.35f);
		QCOMPARE(dub->ttsLevel.load(), 0.5f);
		QCOMPARE(dub->muteOriginal.load(), true);
	}

	log->clear();
	select({{u"fr"_s, {true, false}}});
	QVERIFY(log->contains(LOG_INFO, u"[talvora-obs] Talvora: removing dubbed source for 'es'"_s));
	QCOMPARE(dubs->dubbedSources.at(u"fr"_s).get(), french);
	QVERIFY(!dubs->dubbedSources.contains(u"es"_s));

	select({{u"fr"_s, {true, false}}, {u"es"_s, {true, false}}});
	const DubbedSource &again = *dubs->dubbedSources.at(u"es"_s);
	QCOMPARE(again.duckingLevel.load(), 0.35f);
	QCOMPARE(again.ttsLevel.load(), 0.5f);
	QCOMPARE(again.muteOriginal.load(), true);
}

void DubbedOutputsTest::dubOfTheNewSourceLanguageGoesAtOnce()
{
	select({{u"es"_s, {true, true}}});
	QCOMPARE(dubs->dubbedSources.size(), size_t{1});
	settings.sourceLanguage = u"es"_s;
	dubs->update();
	QVERIFY(dubs->dubbedSources.empty());
}

void DubbedOutputsTest::dubsAreMadeAndRenewedWithoutHoldingUpTheAudio()
{
	struct Seen {
		DubbedOutputs &dubs;
		QStringList free;
		QStringList taken;
		/** What the audio thread does at a chunk that comes just now. */
		void look(const char *what)
		{
			std::thread([&] {
				const std::shared_lock guard(dubs.dubbedMutex, std::try_to_lock);
				(guard ? free : taken).append(QString::fromUtf8(what));
			}).join();
		}
	};
	Seen seen{*dubs, {}, {}};
	const auto created = [](void *data, calldata_t *) { static_cast<Seen *>(data)->look("created"); };
	const auto removed = [](void *data, calldata_t *) { static_cast<Seen *>(data)->look("removed"); };
	signal_handler_connect(obs_get_signal_handler(), "source_create", created, &seen);
	signal_handler_connect(obs_get_signal_handler(), "source_remove", removed, &seen);

	select({{u"es"_s, {true, false}}, {u"fr"_s, {true, false}}});
	const OBSSourceAutoRelease dub = obs_get_source_by_name("Talvora Dub — Spanish");
	obs_source_remove(dub);
	dubs->restore();
	select({});

	signal_handler_disconnect(obs_get_signal_handler(), "source_create", created, &seen);
	signal_handler_disconnect(obs_get_signal_handler(), "source_remove", removed, &seen);
	QCOMPARE(seen.taken, QStringList());
	QCOMPARE(seen.free, (QStringList{u"created"_s, u"created"_s, u"removed"_s, u"created"_s}));
}

void DubbedOutputsTest::removedDubIsRestored()
{
	select({{u"es"_s, {true, false}}});
	const DubbedSource *dub = dubs->dubbedSources.at(u"es"_s).get();
	{
		const OBSSourceAutoRelease source = obs_get_source_by_name("Talvora Dub — Spanish");
		obs_source_remove(source);
	}
	QVERIFY(ObsFixture::isGone("Talvora Dub — Spanish"));
	dubs->restore();
	const OBSSourceAutoRelease source = obs_get_source_by_name("Talvora Dub — Spanish");
	QVERIFY(source);
	QVERIFY(dubs->publishes(source));
	QCOMPARE(dubs->dubbedSources.at(u"es"_s).get(), dub);
}

void DubbedOutputsTest::sourceOfTheNameIsTakenUp()
{
	select({{u"es"_s, {true, false}}});
	{
		const OBSSourceAutoRelease source = obs_get_source_by_name("Talvora Dub — Spanish");
		obs_source_remove(source);
	}
	QVERIFY(ObsFixture::isGone("Talvora Dub — Spanish"));
	const TestAudioSource other("Other");
	const TestAudioSource named("Talvora Dub — Spanish");
	dubs->takeUp(u"Other"_s);
	QVERIFY(!dubs->publishes(other.get()));
	QVERIFY(!dubs->publishes(named.get()));
	dubs->takeUp(u"Talvora Dub — Spanish"_s);
	QVERIFY(dubs->publishes(named.get()));
}

void DubbedOutputsTest::changesAreTold()
{
	const QSignalSpy changed(&*dubs, &DubbedOutputs::changed);
	select({{u"es"_s, {true, false}}});
	QCOMPARE(changed.size(), 1);
	dubs->restore();
	QCOMPARE(changed.size(), 2);
	dubs->takeUp(u"Nobody"_s);
	QCOMPARE(changed.size(), 2);
	dubs->takeUp(u"Talvora Dub — Spanish"_s);
	QCOMPARE(changed.size(), 3);
}

// What they hear

void DubbedOutputsTest::onlyTheFeedIsHeard()
{
	select({{u"es"_s, {true, false}}});
	const TestAudioSource voice("Voice");
	const TestAudioSource other("Other");
	const Heard heard("Talvora Dub — Spanish");
	QVERIFY(!dubs->hasFeed());
	QVERIFY(!play(voice.get(), 480));
	dubs->setFeed(voice.get(), [] {});
	QVERIFY(dubs->hasFeed());
	QVERIFY(!play(other.get(), 480));
	QVERIFY(heard.samples.empty());
	QVERIFY(play(voice.get(), 480));
	QCOMPARE(heard.samples.size(), size_t{480});
	dubs->clearFeed();
	QVERIFY(!play(voice.get(), 480));
}

void DubbedOutputsTest::dubThatOutputsToTheFeedEndsIt()
{
	const TestAudioSource voice("Talvora Dub — Spanish");
	dubs->setFeed(voice.get(), [] {});
	select({{u"fr"_s, {true, false}}});
	QVERIFY(dubs->hasFeed());
	bool fed = true;
	connect(&*dubs, &DubbedOutputs::changed, this, [&] { fed = dubs->hasFeed(); });
	select({{u"es"_s, {true, false}}});
	QVERIFY(dubs->publishes(voice.get()));
	QVERIFY(!fed);
	QVERIFY(!play(voice.get(), 480));
}

void DubbedOutputsTest::feedChangesBetweenChunks()
{
	const TestAudioSource first("First");
	const TestAudioSource second("Second");
	dubs->setFeed(first.get(), [] {});
	std::atomic<bool> begun = false;
	std::atomic<bool> ended = false;
	std::thread audio([&] {
		const DubbedOutputs::Chunk chunk = dubs->beginChunk(first.get());
		begun = true;
		// Long enough for the other thread to come to the lock; what is tested does not depend on it.
		QTest::qSleep(20);
		ended = static_cast<bool>(chunk);
	});
	while (!begun) {
		std::this_thread::yield();
	}
	bool endedBefore = false;
	bool begunMeanwhile = true;
	dubs->setFeed(second.get(), [&] {
		endedBefore = ended;
		std::thread([&] {
			begunMeanwhile = std::shared_lock(dubs->dubbedMutex, std::try_to_lock).owns_lock();
		}).join();
	});
	audio.join();
	QVERIFY(endedBefore);
	QVERIFY(!begunMeanwhile);
	QVERIFY(!play(first.get(), 480));
	QVERIFY(play(second.get(), 480));
}

// What they say

void DubbedOutputsTest::speechOfAnUnknownLanguageIsDropped()
{
	dubs->deliver(u"es"_s, 1, QByteArray(7, 'x'), 24000);
	QCOMPARE(log->ownLines(), QStringList());
}

void DubbedOutputsTest::oddSpeechPieceLosesItsLastByte()
{
	select({{u"es"_s, {true, false}}});
	DubbedSource &dub = *dubs->dubbedSources.at(u"es"_s);
	log->clear();
	dubs->deliver(u"es"_s, 1, QByteArray(7, 'x'), 48000);
	QCOMPARE(log->lines(LOG_WARNING),
		 QStringList{u"[talvora-obs] Talvora: odd TTS PCM size 7 for 'es', truncating last byte"_s});
	QCOMPARE(dub.speech.size(), size_t{3});

	log->clear();
	dubs->deliver(u"es"_s, 1, QByteArray(4, 'x'), 48000);
	QCOMPARE(log->lines(LOG_WARNING), QStringList());
	QCOMPARE(dub.speech.size(), size_t{5});

	dubs->deliver(u"es"_s, 1, QByteArray(1, 'x'), 48000);
	QVERIFY(log->contains(LOG_WARNING,
			      u"[talvora-obs] Talvora: odd TTS PCM size 1 for 'es', truncating last byte"_s));
	QCOMPARE(dub.speech.size(), size_t{5});

	dubs->flush();
	QCOMPARE(dub.speech.size(), size_t{0});
}

void DubbedOutputsTest::pieceOfOneSampleIsSpoken()
{
	select({{u"es"_s, {true, false}}});
	dubs->deliver(u"es"_s, 1, QByteArray("\x00\x40", 2), 48000);
	dubs->deliver(u"es"_s, 1, {}, 48000);
	float sample = 0.0f;
	const auto ignore = [](int) {};
	dubs->dubbedSources.at(u"es"_s)->speech.take(&sample, 1, 48000, ignore, ignore);
	QCOMPARE(sample, 0.5f);
}

void DubbedOutputsTest::eventsOfAClipAreToldLater()
{
	QStringList told;
	connect(&*dubs, &DubbedOutputs::clipStarted, this,
		[&](const QString &language, int clip) { told.append(u"%1 %2 started"_s.arg(language).arg(clip)); });
	connect(&*dubs, &DubbedOutputs::clipEnded, this,
		[&](const QString &language, int clip) { told.append(u"%1 %2 ended"_s.arg(language).arg(clip)); });
	select({{u"es"_s, {true, false}}, {u"fr"_s, {true, false}}});
	dubs->deliver(u"es"_s, 7, QByteArray(960, 'x'), 48000);
	dubs->deliver(u"es"_s, 7, {}, 48000);
	const TestAudioSource voice("Voice");
	dubs->setFeed(voice.get(), [] {});
	std::thread([&] { play(voice.get(), 480); }).join();
	// Played and over; told on this thread, start first.
	QCOMPARE(told, QStringList());
	QCoreApplication::processEvents();
	QCOMPARE(told, (QStringList{u"es 7 started"_s, u"es 7 ended"_s}));
}

void DubbedOutputsTest::clipThatIsFlushedIsToldAsLost()
{
	const QSignalSpy lost(&*dubs, &DubbedOutputs::clipLost);
	select({{u"es"_s, {true, false}}});
	dubs->deliver(u"es"_s, 7, QByteArray(96000, 'x'), 48000);
	const TestAudioSource voice("Voice");
	dubs->setFeed(voice.get(), [] {});
	QVERIFY(play(voice.get(), 480));
	dubs->flush();
	QCOMPARE(lost.size(), 0);
	QCoreApplication::processEvents();
	QCOMPARE(lost.size(), 1);
	QCOMPARE(lost.first().first().toString(), u"es"_s);
}

void DubbedOutputsTest::clipThatIsNoLongerHeardIsToldAsLost()
{
	const QSignalSpy lost(&*dubs, &DubbedOutputs::clipLost);
	select({{u"es"_s, {true, false}}, {u"fr"_s, {true, false}}});
	// Who is told may change the dubs at once.
	connect(&*dubs, &DubbedOutputs::clipLost, this, [this] { select({{u"fr"_s, {true, false}}}); });
	dubs->deliver(u"es"_s, 7, QByteArray(96000, 'x'), 48000);
	const TestAudioSource voice("Voice");
	dubs->setFeed(voice.get(), [] {});
	QVERIFY(play(voice.get(), 480));
	QVERIFY(!dubs->clipWatch.isActive());
	QCoreApplication::processEvents();
	QVERIFY(dubs->clipWatch.isActive());
	QVERIFY(QTest::qWaitFor([&] { return lost.size() > 0; }, 4000));
	QCOMPARE(lost.first().first().toString(), u"es"_s);
	QVERIFY(QTest::qWaitFor([&] { return !dubs->clipWatch.isActive(); }));
}

void DubbedOutputsTest::abandonedDubsAreLeftToObs()
{
	select({{u"es"_s, {true, false}}});
	dubs->abandon();
	QVERIFY(dubs->dubbedSources.empty());
	obs_source_t *left = obs_get_source_by_name("Talvora Dub — Spanish");
	QVERIFY(left);
	obs_source_release(left);
	// The reference that was left unreleased is OBS's to tear down; here there is no OBS to do it.
	obs_source_release(left);
}

QTEST_MAIN(DubbedOutputsTest)
#include "dubbed-outputs-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "audio/dubbed-source.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <obs.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>

struct Settings;

/**
 * The dubs: one DubbedSource for each dubbing language that is not the spoken one, the one source that they hear, and
 * the lock under which OBS's audio thread uses both.
 *
 * User-interface thread, except beginChunk() and its Chunk, which are OBS's audio thread's. Only the user-interface
 * thread changes the map of dubs, so there it is read without the lock.
 */
class DubbedOutputs : public QObject {
	Q_OBJECT

public:
	/** @param chosen languages and levels; must outlive this object */
	explicit DubbedOutputs(const Settings &chosen);

	/** Makes the dubs those of the dubbing languages without the spoken one. */
	void update();
	/** Finds or makes again the OBS sources of dubs that OBS has removed. */
	void restore();
	/** Goes on with a source of this name that has appeared, if a dub of the name has lost its own. */
	void takeUp(const QString &sourceName);
	/** End of the program: forgets the dubs and leaves their sources to OBS. */
	void abandon();

	/** @param level gain of the original under speech, 0 to 1 */
	void setDuckingLevel(float level);
	/** @param volume gain of the speech, 0 to 1 */
	void setTtsVolume(float volume);
	void setMuteOriginal(bool mute);

	/**
	 * Gives a piece of a clip to the dub of its language; without such a dub it is dropped.
	 * @param pcm mono signed 16-bit little-endian; empty at the clip's end. An odd last byte is cut off, and
	 * logged.
	 * @param sampleRate Hz
	 */
	void deliver(const QString &language, int clipId, const QByteArray &pcm, int sampleRate);
	/** Drops all speech that is queued. */
	void flush();

	/** Whether a dub outputs to `source`, whatever the source's type. */
	bool publishes(const obs_source_t *source);

	/**
	 * From now on the dubs hear `source`; it is compared only, never dereferenced. `prepare` runs when the chunk in
	 * flight, if any, is done with, and before the next one.
	 */
	template <typename Prepare> void setFeed(obs_source_t *source, Prepare prepare)
	{
		const std::unique_lock guard(dubbedMutex);
		prepare();
		feed = source;
	}
	/** Waits for nothing: a chunk that has begun is heard to its end. */
	void clearFeed() { feed = nullptr; }
	/** False as well when a dub has come to output to the source it would hear. */
	bool hasFeed() const { return feed != nullptr; }

	/** One chunk of the feed. The dubs stay as they are for as long as it lives. */
	class Chunk {
	public:
		/** False when it comes from another source than the feed; then it is to be ignored. */
		explicit operator bool() const { return isFeed; }
		/** Gives the chunk to all dubs, see DubbedSource::pushOriginalAudio(). */
		void push(const float *left, const float *right, size_t frames, uint32_t sampleRate,
			  uint64_t timestamp) const;

	private:
		friend class DubbedOutputs;
		Chunk(DubbedOutputs &outputs, const obs_source_t *source);

		const DubbedOutputs &dubs;
		std::shared_lock<std::shared_mutex> guard;
		bool isFeed;
	};
	/** OBS's audio thread. Waits for a change of the map, which takes no longer than an insertion. */
	Chunk beginChunk(const obs_source_t *source) { return {*this, source}; }

Q_SIGNALS:
	/** After update(), restore() and takeUp(): dubs may output elsewhere now, and the feed may be gone. */
	void changed();
	/** A clip's first sample has been played. Posted, so a little later; the same holds for the next two. */
	void clipStarted(const QString &language, int clipId);
	void clipEnded(const QString &language, int clipId);
	/**
	 * A clip that has started will not be heard to its end, or nothing of it has been heard for a while. May be
	 * told more than once.
	 */
	void clipLost(const QString &language);

private:
	friend class AudioCaptureTest;
	friend class DubbedOutputsTest;
	friend class TalvoraPluginTest;

	using DubbedSources = std::map<QString, std::unique_ptr<DubbedSource>>;

	QStringList dubbedLanguages() const;
	std::unique_ptr<DubbedSource> createDubbedSource(const QString &code);
	void restoreDub(const QString &code);
	// Making, restoring or destroying a dub takes milliseconds, and the audio thread waits for the map: so this is
	// done to a dub that is out of the map.
	DubbedSources::node_type takeDub(const QString &code);
	void putDub(DubbedSources::node_type dub);
	/** publishes() for callers that hold dubbedMutex. */
	bool isOwnOutput(const obs_source_t *source) const;
	template <typename Action> void forEachDubbedSource(Action action);
	/** Takes clips for lost of which nothing has been heard for a while: nothing else would end their captions. */
	void watchClips();

	const Settings &settings;
	/** Exclusive for a change of the map or of the feed, shared for every other use. */
	std::shared_mutex dubbedMutex;
	DubbedSources dubbedSources;
	std::atomic<obs_source_t *> feed{nullptr};
	/** Runs while a clip is being played. */
	QTimer clipWatch;
};

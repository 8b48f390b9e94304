// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <obs.h>

#include <mutex>

/**
 * Owns one strong reference to a public OBS source, and lets go of it inside that source's `remove` signal.
 *
 * OBS counts what is left after it has removed all sources (a change of scene collection, the end of the program) and
 * treats every reference still held then as an error, so holding one past the signal is not an option.
 *
 * The signal may come on any thread. The pointer is guarded by the mutex of the owner, which is what lets an audio
 * thread use the source without it going away in the middle: it calls get() and uses the result under that mutex.
 */
class PublicSource {
public:
	/** @param ownerLock guards the pointer; must outlive this object */
	explicit PublicSource(std::mutex &ownerLock) : lock(ownerLock) {}
	~PublicSource() { release(); }

	PublicSource(const PublicSource &) = delete;
	PublicSource &operator=(const PublicSource &) = delete;

	/**
	 * Takes over one strong reference (null is allowed) in place of the one held. Called without the mutex.
	 * A source that OBS has removed already is let go at once.
	 */
	void adopt(obs_source_t *strongReference);

	/** Releases the reference, if any. Called without the mutex. */
	void release();

	/** Forgets the source and leaves its reference unreleased. Called without the mutex. */
	void forget();

	/** The source, or null when there is none or OBS has removed it. Called, and the result used, under the mutex.
	 */
	obs_source_t *get() const { return source; }

	/** A new strong reference for the caller to release, or null. Called without the mutex. */
	[[nodiscard]] obs_source_t *getRef();

private:
	static void onRemove(void *data, calldata_t *);
	obs_source_t *take();

	std::mutex &lock;
	obs_source_t *source = nullptr;
};

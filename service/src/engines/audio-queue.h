// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

/**
 * Audio on its way from the network thread to a decoder. Holds at most a minute; what a client sends beyond that is
 * dropped, so that memory stays bounded however fast it sends.
 */
class AudioQueue {
public:
	/** Bytes held at most: 60 s. */
	static constexpr qsizetype kCapacity = qsizetype{60} * 16000 * 2;
	/** Bytes taken at most at a time: 1 s. */
	static constexpr qsizetype kMostTaken = qsizetype{16000} * 2;

	/** Adds raw bytes; an odd one waits for its other half. False when it was dropped for lack of room. */
	bool push(const QByteArray &added);
	/**
	 * Waits for audio and takes at most a second of it, so that the end is noticed soon; empty once the queue was
	 * ended.
	 */
	std::vector<int16_t> take();
	/** Ends the queue: take() gives nothing any more. */
	void end();
	[[nodiscard]] bool isEnded() const;

private:
	mutable std::mutex mutex;
	std::condition_variable changed;
	QByteArray bytes;
	bool ended = false;
};

// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/audio-queue.h"

#include <QtEndian>

#include <algorithm>

bool AudioQueue::push(const QByteArray &added)
{
	const std::scoped_lock lock(mutex);
	if (bytes.size() + added.size() > kCapacity) {
		return false;
	}
	bytes.append(added);
	changed.notify_one();
	return true;
}

std::vector<int16_t> AudioQueue::take()
{
	QByteArray piece;
	{
		std::unique_lock lock(mutex);
		changed.wait(lock, [this] { return bytes.size() >= 2 || ended; });
		if (ended) {
			return {};
		}
		const qsizetype taken = std::min(bytes.size() / 2 * 2, kMostTaken);
		piece = bytes.first(taken);
		bytes.remove(0, taken);
	}
	std::vector<int16_t> samples(static_cast<size_t>(piece.size() / 2));
	qFromLittleEndian<int16_t>(piece.constData(), piece.size() / 2, samples.data());
	return samples;
}

void AudioQueue::end()
{
	const std::scoped_lock lock(mutex);
	ended = true;
	bytes.clear();
	changed.notify_one();
}

bool AudioQueue::isEnded() const
{
	const std::scoped_lock lock(mutex);
	return ended;
}

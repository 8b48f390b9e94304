// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/audio-queue.h"

#include <QtEndian>

#include <algorithm>

bool AudioQueue::push(const QByteArray &bytes)
{
	const std::scoped_lock lock(m_mutex);
	if (m_bytes.size() + bytes.size() > kCapacity) {
		return false;
	}
	m_bytes.append(bytes);
	m_changed.notify_one();
	return true;
}

std::vector<int16_t> AudioQueue::take()
{
	QByteArray bytes;
	{
		std::unique_lock lock(m_mutex);
		m_changed.wait(lock, [this] { return m_bytes.size() >= 2 || m_ended; });
		if (m_ended) {
			return {};
		}
		const qsizetype taken = std::min(m_bytes.size() / 2 * 2, kMostTaken);
		bytes = m_bytes.first(taken);
		m_bytes.remove(0, taken);
	}
	std::vector<int16_t> samples(static_cast<std::size_t>(bytes.size() / 2));
	qFromLittleEndian<int16_t>(bytes.constData(), bytes.size() / 2, samples.data());
	return samples;
}

void AudioQueue::end()
{
	const std::scoped_lock lock(m_mutex);
	m_ended = true;
	m_bytes.clear();
	m_changed.notify_one();
}

bool AudioQueue::isEnded() const
{
	const std::scoped_lock lock(m_mutex);
	return m_ended;
}

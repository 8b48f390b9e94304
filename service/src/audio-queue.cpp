// SPDX-License-Identifier: GPL-3.0-or-later
#include "audio-queue.h"

#include <QtEndian>

bool AudioQueue::push(const QByteArray &bytes)
{
	const QMutexLocker lock(&m_mutex);
	if (m_bytes.size() + bytes.size() > kCapacity) {
		return false;
	}
	m_bytes.append(bytes);
	m_changed.wakeOne();
	return true;
}

std::vector<int16_t> AudioQueue::take()
{
	QByteArray bytes;
	{
		const QMutexLocker lock(&m_mutex);
		while (m_bytes.size() < 2 && !m_ended) {
			m_changed.wait(&m_mutex);
		}
		if (m_ended) {
			return {};
		}
		bytes.swap(m_bytes);
		if (bytes.size() % 2 != 0) {
			m_bytes.append(bytes.back());
			bytes.chop(1);
		}
	}
	std::vector<int16_t> samples(static_cast<std::size_t>(bytes.size() / 2));
	qFromLittleEndian<int16_t>(bytes.constData(), bytes.size() / 2, samples.data());
	return samples;
}

void AudioQueue::end()
{
	const QMutexLocker lock(&m_mutex);
	m_ended = true;
	m_bytes.clear();
	m_changed.wakeOne();
}

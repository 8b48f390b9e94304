// SPDX-License-Identifier: GPL-3.0-or-later
#include "recordings.h"

#include <QFile>
#include <QtEndian>

namespace {

// Both collections have the plain 44-byte header.
constexpr qsizetype kWavHeader = 44;

std::vector<int16_t> samplesOf(const QString &path)
{
	QFile file(path);
	if (!file.open(QIODevice::ReadOnly)) {
		return {};
	}
	const QByteArray pcm = file.readAll().mid(kWavHeader);
	std::vector<int16_t> samples(static_cast<std::size_t>(pcm.size() / 2));
	qFromLittleEndian<int16_t>(pcm.constData(), pcm.size() / 2, samples.data());
	return samples;
}

} // namespace

namespace recordings {

std::vector<int16_t> readSentence()
{
	return samplesOf("/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav");
}

std::vector<int16_t> announcement(const QString &name)
{
	const std::vector<int16_t> narrow =
		samplesOf(QStringLiteral("/usr/share/asterisk/sounds/en_US_f_Allison/%1.wav").arg(name));
	std::vector<int16_t> wide;
	wide.reserve(narrow.size() * 2);
	for (std::size_t i = 0; i < narrow.size(); ++i) {
		const int following = narrow[i + 1 < narrow.size() ? i + 1 : i];
		wide.push_back(narrow[i]);
		wide.push_back(static_cast<int16_t>((narrow[i] + following) / 2));
	}
	return wide;
}

std::vector<int16_t> silence(double seconds)
{
	return std::vector<int16_t>(static_cast<std::size_t>(seconds * 16000.0), 0);
}

QByteArray bytes(const std::vector<int16_t> &samples)
{
	QByteArray result(static_cast<qsizetype>(samples.size() * 2), '\0');
	qToLittleEndian<int16_t>(samples.data(), static_cast<qsizetype>(samples.size()), result.data());
	return result;
}

} // namespace recordings

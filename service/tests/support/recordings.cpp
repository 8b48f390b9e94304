// SPDX-License-Identifier: GPL-3.0-or-later
#include "recordings.h"

#include <QFile>
#include <QProcess>
#include <QtEndian>

namespace {

/** The recording has the plain 44-byte header. */
constexpr qsizetype kWavHeader = 44;

std::vector<int16_t> samplesOf(const QByteArray &pcm)
{
	std::vector<int16_t> samples(static_cast<size_t>(pcm.size() / 2));
	qFromLittleEndian<int16_t>(pcm.constData(), pcm.size() / 2, samples.data());
	return samples;
}

} // namespace

namespace recordings {

std::vector<int16_t> readSentence()
{
	QFile file("/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav");
	return file.open(QIODevice::ReadOnly) ? samplesOf(file.readAll().mid(kWavHeader)) : std::vector<int16_t>();
}

std::vector<int16_t> announcement(const QString &name)
{
	QProcess ffmpeg;
	ffmpeg.start("ffmpeg", {"-nostdin", "-loglevel", "error", "-i",
				QStringLiteral("/usr/share/asterisk/sounds/en_US_f_Allison/%1.g722").arg(name), "-f",
				"s16le", "-ac", "1", "-ar", "16000", "-"});
	return ffmpeg.waitForFinished() ? samplesOf(ffmpeg.readAllStandardOutput()) : std::vector<int16_t>();
}

std::vector<int16_t> silence(double seconds)
{
	return std::vector<int16_t>(static_cast<size_t>(seconds * 16000.0), 0);
}

QByteArray bytes(const std::vector<int16_t> &samples)
{
	QByteArray result(static_cast<qsizetype>(samples.size() * 2), '\0');
	qToLittleEndian<int16_t>(samples.data(), static_cast<qsizetype>(samples.size()), result.data());
	return result;
}

} // namespace recordings

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <vector>

/** Recorded human speech as 16 kHz samples; empty when the recording is not installed. */
namespace recordings {

/** A sentence read aloud: "he was not an ill disposed young man". */
std::vector<int16_t> readSentence();
/** A telephone announcement of asterisk-core-sounds-en-g722 by its name. */
std::vector<int16_t> announcement(const QString &name);
/** So many seconds of silence. */
std::vector<int16_t> silence(double seconds);
/** The samples as little-endian bytes. */
QByteArray bytes(const std::vector<int16_t> &samples);

} // namespace recordings

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QtGlobal>

#include <chrono>

/** Milliseconds of the system's monotonic clock (CLOCK_MONOTONIC), comparable between processes of one machine. */
inline qint64 monotonicMs()
{
	using namespace std::chrono;
	return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

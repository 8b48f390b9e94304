// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QString>
#include <QtGlobal>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// What the fuzz targets share. A target takes arbitrary bytes and checks what must hold whatever they are.

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/** Ends the program when `condition` does not hold, so that the input is kept as a finding. */
#define FUZZ_CHECK(condition) ((condition) ? static_cast<void>(0) : fuzzCheckFailed(#condition, __FILE__, __LINE__))

[[noreturn]] inline void fuzzCheckFailed(const char *condition, const char *file, int line)
{
	std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
	std::abort();
}

/** Qt says of many an input what it thinks of it, which would fill a disk. */
inline void silenceQt()
{
	qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
}

/** An input taken apart from its front. Views end with the input. */
class FuzzInput {
public:
	FuzzInput(const uint8_t *data, size_t size) : left(data, static_cast<qsizetype>(size)) {}

	/** The next byte; 0 at the end. */
	uint8_t byte()
	{
		if (left.isEmpty()) {
			return 0;
		}
		const auto first = static_cast<uint8_t>(left.front());
		left = left.sliced(1);
		return first;
	}

	/** What comes before the next line feed, which is skipped; at the last one the rest. */
	QByteArrayView line()
	{
		const qsizetype end = left.indexOf('\n');
		const QByteArrayView found = end < 0 ? left : left.first(end);
		left = end < 0 ? QByteArrayView() : left.sliced(end + 1);
		return found;
	}

	bool atEnd() const { return left.isEmpty(); }

	/** Everything that has not been taken. */
	QByteArrayView rest() const { return left; }

private:
	QByteArrayView left;
};

// SPDX-License-Identifier: GPL-2.0-or-later
#include <benchmark/benchmark.h>

#include <QApplication>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
	const QApplication application(argc, argv);
	benchmark::Initialize(&argc, argv);
	if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
		return EXIT_FAILURE;
	}
	benchmark::RunSpecifiedBenchmarks();
	benchmark::Shutdown();
	std::fflush(nullptr);
	// libobs and its threads are still there, and need no end.
	std::_Exit(EXIT_SUCCESS);
}

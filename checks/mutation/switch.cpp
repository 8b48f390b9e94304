// SPDX-License-Identifier: GPL-2.0-or-later
#include "switch.h"

#include <dlfcn.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Part of a build that is made for one look and never shipped: which mutant is there, and which ones a test function
// comes by. It runs on every thread and under the guards of the audio thread, so it neither allocates nor locks.
namespace {

constexpr size_t kMostMutants = 1 << 14;
constexpr size_t kMostFunctions = 1 << 10;
using Name = std::array<char, 120>;

struct Reached {
	Reached()
	{
		path = getenv("TALVORA_MUTANTS_REACHED");
		// There is none in programs that are not made with Qt Test.
		function = reinterpret_cast<const char *(*)()>(dlsym(RTLD_DEFAULT, "_ZN5QTest19currentTestFunctionEv"));
	}

	~Reached()
	{
		FILE *file = fopen(path, "we");
		if (!file) {
			return;
		}
		for (size_t mutant = 0; mutant < kMostMutants; ++mutant) {
			for (size_t i = 0; i < names; ++i) {
				if (seen[i][mutant]) {
					fprintf(file, "%zu %s\n", mutant, known[i].data());
				}
			}
		}
		fclose(file);
	}

	void note(int mutant)
	{
		const char *name = function ? function() : nullptr;
		name = name ? name : "-";
		size_t i = last;
		if (strncmp(known[i].data(), name, known[i].size()) != 0) {
			for (i = 0; i < names && strcmp(known[i].data(), name) != 0; ++i) {
			}
			if (i == names && i < kMostFunctions) {
				strncpy(known[i].data(), name, known[i].size() - 1);
				++names;
			}
			last = i;
		}
		seen[i][static_cast<size_t>(mutant)] = true;
	}

	const char *path;
	const char *(*function)();
	std::atomic<size_t> last = 0;
	std::atomic<size_t> names = 0;
	static inline std::array<Name, kMostFunctions> known;
	static inline bool seen[kMostFunctions][kMostMutants];
};

} // namespace

MutantSwitch::MutantSwitch() : present(-1), noting(getenv("TALVORA_MUTANTS_REACHED"))
{
	if (const char *chosen = getenv("TALVORA_MUTANT")) {
		present = atoi(chosen);
	}
}

[[gnu::init_priority(101)]] MutantSwitch mutantSwitch;

void noteMutant(int mutant)
{
	static Reached reached;
	reached.note(mutant);
}

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#ifdef __cplusplus
/** What the environment asks for, read before anything else of the library is made. */
struct MutantSwitch {
	MutantSwitch();

	/** The number of the mutant that is there (TALVORA_MUTANT), or -1. */
	int present;
	/** Whether to note which test functions come by which mutants: the file is TALVORA_MUTANTS_REACHED. */
	bool noting;
};

extern MutantSwitch mutantSwitch;
void noteMutant(int mutant);

/** Whether the mutant of this number is there. From any thread, and quick enough for the innermost loops. */
[[gnu::always_inline]] inline bool mutantIs(int mutant)
{
	if (mutantSwitch.noting) {
		noteMutant(mutant);
	}
	return mutant == mutantSwitch.present;
}
#endif

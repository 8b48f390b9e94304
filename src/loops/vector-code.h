// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

/**
 * Marks a function that is compiled for several instruction sets, of which the machine's best is taken when the module
 * is loaded.
 *
 * Release builds run on any x86-64, whose common vector instructions are those of 2003. The code is the same plain
 * loop each time; contraction is off, so the results are the same bits. Elsewhere, with other compilers, and under
 * sanitizers, which start later than the choice is made, there is only the common code.
 */
#if defined(__x86_64__) && defined(__gnu_linux__) && defined(__GNUC__) && !defined(__clang__) && \
	!defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(TALVORA_COMMON_CODE)
#define TALVORA_VECTOR_CODE __attribute__((target_clones("default", "arch=x86-64-v3", "arch=x86-64-v4")))
#else
#define TALVORA_VECTOR_CODE
#endif

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <array>
#include <cstddef>

/**
 * Counts the calls of the memory allocator made by this thread while the object lives:
 *
 *     HeapGuard guard;
 *     converter.convert(left, right, frames);
 *     guard.stop();
 *     QVERIFY2(guard.calls() == 0, guard.report());
 *
 * Sees malloc, calloc, realloc, free and the aligned ones, hence also operator new and delete, bmalloc and bfree, in
 * the program and in every shared library. In a build with a sanitizer the sanitizer's own hooks are used, which tell
 * allocations and frees apart but not their names. Freeing null is not counted.
 *
 * Guards nest; the inner one takes over. What OBS does by itself is let through by a Permit.
 */
class HeapGuard {
public:
	HeapGuard();
	~HeapGuard();

	HeapGuard(const HeapGuard &) = delete;
	HeapGuard &operator=(const HeapGuard &) = delete;

	/** Ends the counting before the object goes; the results stay. */
	void stop();

	/** Calls counted so far. */
	int calls() const { return count; }

	/** The first call counted, with the functions it came from; for the message of a failing test. */
	const char *report();

	/** Lets the calls of this thread pass uncounted while it lives. */
	class Permit {
	public:
		Permit();
		~Permit();

		Permit(const Permit &) = delete;
		Permit &operator=(const Permit &) = delete;

	private:
		HeapGuard *const suspended;
	};

	/** For the hooks: one call of this thread. @param name a string literal */
	static void note(const char *name, size_t bytes);

private:
	HeapGuard *const outer;
	bool counting = true;
	int count = 0;
	const char *firstName = nullptr;
	size_t firstBytes = 0;
	std::array<void *, 16> firstStack{};
	int firstDepth = 0;
	std::array<char, 4096> text{};
};

// SPDX-License-Identifier: GPL-2.0-or-later
#include "heap-guard.h"

#include <execinfo.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

// GCC and clang say in different ways that a sanitizer with an allocator of its own is in.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HEAP_GUARD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define HEAP_GUARD_SANITIZER
#endif
#endif

namespace {

thread_local constinit HeapGuard *current = nullptr;

} // namespace

#ifdef HEAP_GUARD_SANITIZER

extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void *, size_t),
							 void (*onFree)(const volatile void *));

namespace {

void on_malloc(const volatile void *, size_t bytes)
{
	HeapGuard::note("an allocation", bytes);
}

void on_free(const volatile void *memory)
{
	if (memory) {
		HeapGuard::note("a free", 0);
	}
}

[[maybe_unused]] const int hooks_installed = __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free);

} // namespace

#else

// The C library lets a program put its own allocator in place of the one it has, and keeps that reachable under other
// names. What is put in place here only counts.
#define HEAP_GUARD_EXPORT extern "C" __attribute__((visibility("default")))

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the library's names
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

HEAP_GUARD_EXPORT void *malloc(size_t bytes)
{
	HeapGuard::note("malloc", bytes);
	return __libc_malloc(bytes);
}

HEAP_GUARD_EXPORT void *calloc(size_t count, size_t bytes)
{
	HeapGuard::note("calloc", count * bytes);
	return __libc_calloc(count, bytes);
}

HEAP_GUARD_EXPORT void *realloc(void *memory, size_t bytes)
{
	HeapGuard::note("realloc", bytes);
	return __libc_realloc(memory, bytes);
}

HEAP_GUARD_EXPORT void free(void *memory)
{
	if (memory) {
		HeapGuard::note("free", 0);
	}
	__libc_free(memory);
}

HEAP_GUARD_EXPORT void *memalign(size_t alignment, size_t bytes)
{
	HeapGuard::note("memalign", bytes);
	return __libc_memalign(alignment, bytes);
}

HEAP_GUARD_EXPORT void *aligned_alloc(size_t alignment, size_t bytes)
{
	HeapGuard::note("aligned_alloc", bytes);
	return __libc_memalign(alignment, bytes);
}

HEAP_GUARD_EXPORT int posix_memalign(void **memory, size_t alignment, size_t bytes)
{
	HeapGuard::note("posix_memalign", bytes);
	void *made = __libc_memalign(alignment, bytes);
	if (!made) {
		return ENOMEM;
	}
	*memory = made;
	return 0;
}

#endif

HeapGuard::HeapGuard() : outer(current)
{
	// The first call of backtrace() loads a library: not to be counted, and not inside the allocator.
	[[maybe_unused]] static const int loaded = backtrace(firstStack.data(), 1);
	current = this;
}

HeapGuard::~HeapGuard()
{
	stop();
}

void HeapGuard::stop()
{
	if (counting) {
		counting = false;
		current = outer;
	}
}

void HeapGuard::note(const char *name, size_t bytes)
{
	HeapGuard *guard = current;
	if (!guard || guard->count++ > 0) {
		return;
	}
	guard->firstName = name;
	guard->firstBytes = bytes;
	// What looks at the stack must not count itself.
	current = nullptr;
	guard->firstDepth = backtrace(guard->firstStack.data(), static_cast<int>(guard->firstStack.size()));
	current = guard;
}

const char *HeapGuard::report()
{
	if (count == 0) {
		return "the allocator was not called";
	}
	const Permit permit;
	int length = std::snprintf(text.data(), text.size(), "the allocator was called %d times, first %s (%zu bytes)",
				   count, firstName, firstBytes);
	char **functions = backtrace_symbols(firstStack.data(), firstDepth);
	for (int i = 1; functions && i < firstDepth && length < static_cast<int>(text.size()); ++i) {
		length += std::snprintf(text.data() + length, text.size() - static_cast<size_t>(length), "\n  from %s",
					functions[i]);
	}
	std::free(static_cast<void *>(functions));
	return text.data();
}

HeapGuard::Permit::Permit() : suspended(current)
{
	current = nullptr;
}

HeapGuard::Permit::~Permit()
{
	current = suspended;
}

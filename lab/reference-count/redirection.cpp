// SPDX-License-Identifier: GPL-2.0-or-later
// Sees the module being loaded, and has its calls of OBS's functions go to the wrappers first. Its own table of what it
// calls is changed, so that nobody else's calls are counted, and each of its own is, wherever it returns to.
#include "holdings.h"
#include "wrappers.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

namespace {

constexpr std::string_view MODULE = "/talvora-obs.so";

using DlopenFunction = void *(const char *, int);

/** What a module's dynamic section says under one tag; 0 if there is no such entry. */
std::uintptr_t entry(const link_map &module, ElfW(Sxword) tag)
{
	for (const ElfW(Dyn) *one = module.l_ld; one->d_tag != DT_NULL; ++one) {
		if (one->d_tag == tag) {
			return one->d_un.d_ptr;
		}
	}
	return 0;
}

void overwrite(void **slot, void *value)
{
	const auto size = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
	void *page = reinterpret_cast<void *>(reinterpret_cast<std::uintptr_t>(slot) / size * size);
	// Read-only where the linker was asked for that.
	if (mprotect(page, size, PROT_READ | PROT_WRITE) != 0) {
		std::abort();
	}
	*slot = value;
}

void redirect(const link_map &module, std::uintptr_t table, std::uintptr_t bytes)
{
	const auto *symbols = reinterpret_cast<const ElfW(Sym) *>(entry(module, DT_SYMTAB));
	const auto *names = reinterpret_cast<const char *>(entry(module, DT_STRTAB));
	const std::span relocations(reinterpret_cast<const ElfW(Rela) *>(table), bytes / sizeof(ElfW(Rela)));
	for (const ElfW(Rela) & one : relocations) {
		const auto symbol = ELF64_R_SYM(one.r_info);
		if (symbol == 0) {
			continue;
		}
		const char *name = names + symbols[symbol].st_name;
		if (void *wrapper = wrapperOf(name)) {
			overwrite(reinterpret_cast<void **>(module.l_addr + one.r_offset), wrapper);
		} else if (isUncounted(name)) {
			holdings::take("uncounted function", name, name);
		}
	}
}

void redirect(void *handle)
{
	link_map *module = nullptr;
	if (dlinfo(handle, RTLD_DI_LINKMAP, &module) != 0) {
		std::abort();
	}
	redirect(*module, entry(*module, DT_JMPREL), entry(*module, DT_PLTRELSZ));
	redirect(*module, entry(*module, DT_RELA), entry(*module, DT_RELASZ));
}

/** What OBS starts is not watched. */
[[gnu::constructor]] void leaveChildrenAlone()
{
	unsetenv("LD_PRELOAD");
}

} // namespace

/** The C library's own name: what OBS calls comes here first. */
extern "C" __attribute__((visibility("default"))) void *dlopen(const char *path, int flags)
{
	// Libraries that this one needs load others before it is set up itself.
	static auto *const next = reinterpret_cast<DlopenFunction *>(dlsym(RTLD_NEXT, "dlopen"));
	void *handle = next(path, flags);
	const std::string_view name = path ? path : "";
	// Without RTLD_NOLOAD and the like it is loaded once.
	if (handle && name.ends_with(MODULE) && !(flags & RTLD_NOLOAD)) {
		redirect(handle);
	}
	return handle;
}

// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/browser-source.h"

#include <obs.h>

#include <cstring>

namespace {

/** The module of OBS that has the browser source. */
constexpr char kBrowserModule[] = "obs-browser";

struct Search {
	const char *ownPath;
	/** It is among the modules behind the own one, or among all if that is in none of OBS's folders. */
	bool found;
};

} // namespace

bool isBrowserSourceYetToCome(const char *ownPath)
{
	Search search{ownPath, false};
	// In the order in which OBS loads them.
	obs_find_modules2(
		[](void *data, const obs_module_info2 *module) {
			auto *found = static_cast<Search *>(data);
			if (found->ownPath && std::strcmp(module->bin_path, found->ownPath) == 0) {
				found->found = false;
			} else if (std::strcmp(module->name, kBrowserModule) == 0) {
				found->found = true;
			}
		},
		&search);
	return search.found;
}

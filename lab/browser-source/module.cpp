// SPDX-License-Identifier: GPL-2.0-or-later
#include "browser-source.h"

#include <obs-module.h>

OBS_DECLARE_MODULE()

MODULE_EXPORT const char *obs_module_name(void)
{
	return "Talvora lab browser";
}

MODULE_EXPORT const char *obs_module_description(void)
{
	return "Shows local pages as browser sources where OBS has none of its own";
}

bool obs_module_load(void)
{
	// OBS loads its own modules before those of the user, so its own browser source has precedence. Types that are
	// registered later belong to no module, and newer OBS shows sources of such types in red.
	if (obs_source_get_display_name("browser_source")) {
		blog(LOG_INFO, "[talvora-lab-browser] OBS has a browser source of its own: not needed");
		return true;
	}
	registerBrowserSource();
	blog(LOG_INFO, "[talvora-lab-browser] registered as browser_source");
	return true;
}

void obs_module_unload(void)
{
	releaseBrowserEngine();
}

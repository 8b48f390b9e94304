// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/source-name.h"

#include "plugin-support.h"

#include <obs.hpp>

#include <string>

void freeSourceName(const char *name)
{
	const OBSSourceAutoRelease holder = obs_get_source_by_name(name);
	if (holder) {
		obs_source_set_name(holder, (std::string(name) + " (old)").c_str());
		talvora_log(LOG_INFO, "Talvora: renamed source '%s' to '%s' to free its name", name,
			    obs_source_get_name(holder));
	}
}

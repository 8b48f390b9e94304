// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/browser-source.h"

#include <obs.h>

bool hasBrowserSource()
{
	return obs_source_get_display_name(kBrowserSourceId) != nullptr;
}

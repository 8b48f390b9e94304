// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <string_view>

/** What the module is to call instead of a function of OBS with this name, or null to leave it at that function. */
void *wrapperOf(std::string_view name);

/** Whether a function of OBS may give or take references for all that its name says, though there is no wrapper for it.
 */
bool isUncounted(std::string_view name);

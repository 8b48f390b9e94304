// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

/** The type of OBS's browser source, which shows the captions. */
inline constexpr char kBrowserSourceId[] = "browser_source";

/**
 * Whether OBS will try to load its own browser source when the module that is being loaded has been. A browser source
 * that was tried before and is not there now will not come: it is disabled or broken.
 * @param ownPath of the binary of the module that is being loaded; null when it comes from no file
 */
bool isBrowserSourceYetToCome(const char *ownPath);

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

/** The type of OBS's browser source, which draws the captions. */
inline constexpr char kBrowserSourceId[] = "browser_source";

/**
 * Whether this OBS can draw captions. Distributions build OBS without a browser source; creating one then yields a
 * placeholder that keeps its settings and draws nothing. Any thread, once all modules are loaded.
 */
bool hasBrowserSource();

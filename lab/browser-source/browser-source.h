// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

/// Registers the source type "browser_source". Once, on the thread that loads the module.
void registerBrowserSource();

/// Ends the browser, or leaves that to the last source when there is one still.
void releaseBrowserEngine();

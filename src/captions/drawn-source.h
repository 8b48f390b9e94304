// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

/**
 * Registers a source type with the id of OBS's browser source, for an OBS that has none. It draws the module's own
 * caption pages, known by their path, and nothing of other pages, whose sources keep all of their settings, and
 * filters, for an OBS that can show them. It is not offered under "Add source".
 *
 * Once, on the thread that loads the module.
 */
void registerDrawnSource();

/** Waits for what is being painted, unless there are sources still: the last of them does so then. */
void releaseDrawnSource();

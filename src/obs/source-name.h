// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

/**
 * Renames the source that bears `name`, if any, to "<name> (old)", so that the name is free for another: OBS would give
 * the other one a number, and the wrong source would be found by name. The user reads of it in the log. User-interface
 * thread.
 */
void freeSourceName(const char *name);

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <util/base.h>
#include <util/c99defs.h>

/** The module's name in OBS's folders and logs, "talvora-obs". Others can look it up in the module. */
EXPORT extern const char *const PLUGIN_NAME;

/** The module's version, "1.0.6". */
extern const char *const PLUGIN_VERSION;

/** Who has made the module, "The Talvora authors". */
extern const char *const PLUGIN_AUTHOR;

/** Writes one line to OBS's log with the module's prefix. `format` is a string literal in printf's language. */
#define talvora_log(level, format, ...) blog(level, "[talvora-obs] " format __VA_OPT__(, ) __VA_ARGS__)

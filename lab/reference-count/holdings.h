// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <string>

/** What the module has references to. All functions may be called on any thread. */
namespace holdings {

/** Counts a reference that the module has been given; none where `object` is null. `name`: to tell it by, or null. */
void take(const char *kind, const void *object, const char *name = nullptr);

/** Counts a reference that the module has given back. */
void giveBack(const char *kind, const void *object);

/** How many references the module has been given, and everything whose references do not come to zero, in one line. */
std::string described();

} // namespace holdings

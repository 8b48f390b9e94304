// SPDX-License-Identifier: GPL-2.0-or-later
#include "holdings.h"

#include <map>
#include <mutex>
#include <utility>

namespace holdings {

namespace {

struct Held {
	long references = 0;
	std::string name;
};

std::mutex mutex;
std::map<std::pair<std::string, const void *>, Held> all;
unsigned long given = 0;

void add(const char *kind, const void *object, long references, const char *name)
{
	if (!object) {
		return;
	}
	const std::lock_guard lock(mutex);
	const auto place = all.try_emplace({kind, object}).first;
	Held &held = place->second;
	held.references += references;
	given += references > 0;
	if (name) {
		held.name = name;
	}
	if (held.references == 0) {
		all.erase(place);
	}
}

} // namespace

void take(const char *kind, const void *object, const char *name)
{
	add(kind, object, 1, name);
}

void giveBack(const char *kind, const void *object)
{
	add(kind, object, -1, nullptr);
}

std::string described()
{
	const std::lock_guard lock(mutex);
	std::string text;
	for (const auto &[key, held] : all) {
		text += (text.empty() ? "" : ", ") + key.first + " '" + held.name + "' " +
			std::to_string(held.references);
	}
	return "of " + std::to_string(given) + " references the module holds: " + (text.empty() ? "nothing" : text);
}

} // namespace holdings

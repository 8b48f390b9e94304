// SPDX-License-Identifier: GPL-2.0-or-later
// Writes into OBS's log what the module holds, before each line by which OBS says that something has been left behind.
#include "holdings.h"

#include <util/base.h>

#include <cstdarg>
#include <string_view>

namespace {

void log(int level, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	blogva(level, format, arguments);
	va_end(arguments);
}

bool isAboutWhatIsLeft(std::string_view format)
{
	return format.starts_with("Not all sources were cleared") || format.starts_with("Number of memory leaks");
}

} // namespace

/** libobs's own name: what OBS calls comes here first. */
extern "C" __attribute__((visibility("default"))) void blog(int level, const char *format, ...)
{
	if (isAboutWhatIsLeft(format)) {
		log(LOG_INFO, "[reference-count] %s", holdings::described().c_str());
	}
	va_list arguments;
	va_start(arguments, format);
	blogva(level, format, arguments);
	va_end(arguments);
}

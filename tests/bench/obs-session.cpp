// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs-session.h"

#include "audio/dubbed-source.h"

#include "obs-fixture.h"

#include <util/base.h>

#include <cstdarg>
#include <cstdio>

void startObs()
{
	static const ObsFixture *const fixture = [] {
		base_set_log_handler(
			[](int, const char *format, va_list arguments, void *) {
				char line[4096];
				vsnprintf(line, sizeof(line), format, arguments);
			},
			nullptr);
		auto *started = new ObsFixture();
		obs_register_source(dubbed_source_info());
		return started;
	}();
	(void)fixture;
}

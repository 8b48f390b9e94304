// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "settings/settings.h"

#include <QJsonObject>
#include <QString>

/**
 * The settings on disk: "~/.config/talvora-obs/config.json", with the home directory as Qt knows it.
 *
 * It is always rewritten whole and in place. What that would lose is kept: content that was not understood, wholly or
 * in part, goes into "config.json.old" beside it, up to 16 MiB and without the API key, and a full disk is noticed
 * before the old content is touched.
 * User-interface thread.
 */
class SettingsFile {
public:
	/** Where it is. Creates nothing. */
	static QString path();

	/** Reads the file into `settings`; without a readable file they stay as they are. */
	void load(Settings &settings);

	/** Writes all of `settings`; a failure is logged. */
	void save(const Settings &settings);

private:
	bool keepOldContent();

	/** The file holds something that was not understood and that a save would lose. */
	bool holdsMore = false;
};

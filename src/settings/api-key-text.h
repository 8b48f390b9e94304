// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>

/**
 * A settings file's text, whole, damaged or of another version, with every API key in it made unreadable: what belongs
 * to a name that has "apiKey" in it becomes an empty string or 0, and what looks like a key becomes stars. Everything
 * else stays where it is, so that what was JSON is still that. Of two readings the one that blanks more is taken.
 */
QByteArray withoutApiKeys(QByteArray text);

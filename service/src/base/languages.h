// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>

/** Every language code that clients use. */
QStringList languageCodes();

/** English name of a language code that clients use; the code itself when it is unknown. */
QString languageName(const QString &code);

/** Name of espeak-ng's voice for a language code; empty when it has none. */
QString espeakVoice(const QString &code);

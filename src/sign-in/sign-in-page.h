// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QString>

// The pages the browser shows at the end of a sign-in. Self-contained HTML in UTF-8. Plain functions, for any thread.

/** The sign-in worked. The page asks to be closed after 3000 ms, which browsers may refuse. */
QString signInSuccessPage();

/** The sign-in's answer does not belong to the attempt in progress. */
QString signInMismatchPage();

/** The web sign-in reported an error. @param error plain text; escaped in here */
QString signInErrorPage(const QString &error);

/** The web sign-in sent no key. */
QString signInNoTokenPage();

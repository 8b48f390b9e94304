// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

/**
 * The page that stands in for a provider's own: asks whether Talvora may be signed in to, and posts `consentId` and
 * the "decision" ("allow" or "decline") back to where it came from.
 */
QByteArray consentPage(const QString &providerName, const QString &consentId);

/** A page with one sentence about what went wrong. */
QByteArray failurePage(const QString &sentence);

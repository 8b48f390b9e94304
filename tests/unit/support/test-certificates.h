// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QString>

#include <optional>

#include <QSslConfiguration>

// Server certificates for tests of TLS on the loopback interface. Made anew by mkcert or openssl at each call, in a
// temporary folder that is gone on return; nothing when the tool fails (it says why on standard error).

/**
 * For `host`, signed by mkcert's root. The machine trusts it after "mkcert -install"; the root's folder is $CAROOT,
 * or /var/lib/talvora-ca, or else mkcert's own default.
 */
std::optional<QSslConfiguration> trustedServerCertificate(const QString &host);

/** For "localhost", signed by mkcert's root, and out of date. OpenSSL 3.4 or newer. */
std::optional<QSslConfiguration> expiredServerCertificate();

/** For "localhost", signed by a root that is in nobody's trust store. */
std::optional<QSslConfiguration> unknownRootServerCertificate();

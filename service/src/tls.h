// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QSslConfiguration>
#include <QString>

#include <optional>

/** A server's TLS configuration from PEM files. On failure nothing, and `error` says which file is at fault. */
std::optional<QSslConfiguration> loadTls(const QString &certificateFile, const QString &privateKeyFile, QString *error);

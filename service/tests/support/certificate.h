// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QSslConfiguration>
#include <QString>
#include <QTemporaryDir>

/** A certificate for localhost from a certificate authority of its own, made anew for a test. */
class Certificate {
public:
	Certificate();

	[[nodiscard]] bool isValid() const;
	[[nodiscard]] QString file() const { return dir.filePath("localhost.pem"); }
	[[nodiscard]] QString keyFile() const { return dir.filePath("localhost-key.pem"); }
	/** What a client needs to trust it. */
	[[nodiscard]] QSslConfiguration clientTls() const;

private:
	QTemporaryDir dir;
};

// SPDX-License-Identifier: GPL-3.0-or-later
#include "tls.h"

#include <QFile>
#include <QSslCertificate>
#include <QSslKey>

namespace {

QSslKey readKey(const QByteArray &pem)
{
	for (const QSsl::KeyAlgorithm algorithm : {QSsl::Rsa, QSsl::Ec}) {
		QSslKey key(pem, algorithm);
		if (!key.isNull()) {
			return key;
		}
	}
	return {};
}

} // namespace

std::optional<QSslConfiguration> loadTls(const QString &certificateFile, const QString &privateKeyFile, QString *error)
{
	const QList<QSslCertificate> chain = QSslCertificate::fromPath(certificateFile);
	if (chain.isEmpty()) {
		*error = QStringLiteral("no certificate in %1").arg(certificateFile);
		return std::nullopt;
	}
	QFile file(privateKeyFile);
	if (!file.open(QIODevice::ReadOnly)) {
		*error = QStringLiteral("cannot read %1: %2").arg(privateKeyFile, file.errorString());
		return std::nullopt;
	}
	const QSslKey key = readKey(file.readAll());
	if (key.isNull()) {
		*error = QStringLiteral("no private key in %1").arg(privateKeyFile);
		return std::nullopt;
	}
	QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
	configuration.setLocalCertificateChain(chain);
	configuration.setPrivateKey(key);
	configuration.setPeerVerifyMode(QSslSocket::VerifyNone); // clients have no certificates
	return configuration;
}

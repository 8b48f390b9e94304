// SPDX-License-Identifier: GPL-3.0-or-later
#include "certificate.h"

#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSslCertificate>

Certificate::Certificate()
{
	QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
	environment.insert("CAROOT", dir.path());
	QProcess mkcert;
	mkcert.setProcessEnvironment(environment);
	mkcert.start(MKCERT, {"-cert-file", file(), "-key-file", keyFile(), "localhost"});
	mkcert.waitForFinished();
}

bool Certificate::isValid() const
{
	return QFileInfo::exists(file()) && QFileInfo::exists(keyFile());
}

QSslConfiguration Certificate::clientTls() const
{
	QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
	configuration.setCaCertificates(QSslCertificate::fromPath(dir.filePath("rootCA.pem")));
	return configuration;
}

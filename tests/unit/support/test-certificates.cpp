// SPDX-License-Identifier: GPL-2.0-or-later
#include "test-certificates.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSslCertificate>
#include <QSslKey>
#include <QTemporaryDir>

namespace {

/** mkcert's own default is used where this is empty. */
QString rootFolder()
{
	const QString chosen = QFile::decodeName(qgetenv("CAROOT"));
	const QString lab = QStringLiteral("/var/lib/talvora-ca");
	return chosen.isEmpty() && QFileInfo::exists(lab) ? lab : chosen;
}

bool run(const QString &program, const QStringList &arguments, const QString &folder)
{
	QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
	if (const QString root = rootFolder(); !root.isEmpty()) {
		environment.insert("CAROOT", root);
	}
	QProcess process;
	process.setProcessEnvironment(environment);
	process.setWorkingDirectory(folder);
	process.start(program, arguments);
	const bool done =
		process.waitForFinished() && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
	if (!done) {
		qWarning("%s failed: %s%s", qPrintable(program), qPrintable(process.errorString()),
			 process.readAllStandardError().constData());
	}
	return done;
}

std::optional<QSslConfiguration> load(const QTemporaryDir &folder)
{
	QFile certificate(folder.filePath("cert.pem"));
	QFile key(folder.filePath("key.pem"));
	if (!certificate.open(QIODevice::ReadOnly) || !key.open(QIODevice::ReadOnly)) {
		return std::nullopt;
	}
	QSslConfiguration configuration;
	configuration.setLocalCertificate(QSslCertificate(&certificate));
	configuration.setPrivateKey(QSslKey(&key, QSsl::Rsa));
	return configuration;
}

} // namespace

std::optional<QSslConfiguration> trustedServerCertificate(const QString &host)
{
	const QTemporaryDir folder;
	if (!run("mkcert", {"-cert-file", "cert.pem", "-key-file", "key.pem", host}, folder.path())) {
		return std::nullopt;
	}
	return load(folder);
}

std::optional<QSslConfiguration> expiredServerCertificate()
{
	const QTemporaryDir folder;
	QString root = rootFolder();
	if (root.isEmpty()) {
		QProcess mkcert;
		mkcert.start(QStringLiteral("mkcert"), {QStringLiteral("-CAROOT")});
		if (!mkcert.waitForFinished()) {
			return std::nullopt;
		}
		root = QString::fromLocal8Bit(mkcert.readAllStandardOutput()).trimmed();
	}
	QFile extensions(folder.filePath("ext"));
	if (!extensions.open(QIODevice::WriteOnly) || extensions.write("subjectAltName=DNS:localhost") < 0) {
		return std::nullopt;
	}
	extensions.close();
	const bool made = run("openssl",
			      {"req", "-keyout", "key.pem", "-out", "request.pem", "-subj", "/CN=localhost", "-newkey",
			       "rsa:2048", "-nodes"},
			      folder.path()) &&
			  run("openssl",
			      {"x509", "-req", "-in", "request.pem", "-CA", root + "/rootCA.pem", "-CAkey",
			       root + "/rootCA-key.pem", "-CAserial", "serial", "-CAcreateserial", "-out", "cert.pem",
			       "-not_before", "20200101000000Z", "-not_after", "20200201000000Z", "-extfile", "ext"},
			      folder.path());
	return made ? load(folder) : std::nullopt;
}

std::optional<QSslConfiguration> unknownRootServerCertificate()
{
	const QTemporaryDir folder;
	const QStringList newKey{"-newkey", "rsa:2048", "-nodes"};
	QFile extensions(folder.filePath("ext"));
	if (!extensions.open(QIODevice::WriteOnly) || extensions.write("subjectAltName=DNS:localhost") < 0) {
		return std::nullopt;
	}
	extensions.close();
	const bool made =
		run("openssl",
		    QStringList{"req", "-x509", "-keyout", "ca-key.pem", "-out", "ca.pem", "-days", "2", "-subj",
				"/CN=Unknown root"} +
			    newKey,
		    folder.path()) &&
		run("openssl",
		    QStringList{"req", "-keyout", "key.pem", "-out", "request.pem", "-subj", "/CN=localhost"} + newKey,
		    folder.path()) &&
		run("openssl",
		    {"x509", "-req", "-in", "request.pem", "-CA", "ca.pem", "-CAkey", "ca-key.pem", "-CAcreateserial",
		     "-out", "cert.pem", "-days", "2", "-extfile", "ext"},
		    folder.path());
	return made ? load(folder) : std::nullopt;
}

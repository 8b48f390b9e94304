// SPDX-License-Identifier: GPL-2.0-or-later
// Accounts files of the local service: what is read can be used, written, and read again.
#include "fuzz.h"

#include "sign-in/accounts.h"

#include <QFile>
#include <QTemporaryDir>

namespace {

QByteArray written(const Accounts &accounts, const QString &path)
{
	QString error;
	FUZZ_CHECK(accounts.save(path, &error));
	QFile file(path);
	FUZZ_CHECK(file.open(QIODevice::ReadOnly));
	FUZZ_CHECK((file.permissions() & (QFileDevice::ReadGroup | QFileDevice::ReadOther)) == 0);
	return file.readAll();
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
	silenceQt();
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const QTemporaryDir folder;
	const QString path = folder.filePath(QStringLiteral("accounts.json"));
	{
		QFile file(path);
		FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
		file.write(reinterpret_cast<const char *>(data), static_cast<qint64>(size));
	}
	QString error;
	const std::optional<Accounts> accounts = Accounts::load(path, &error);
	FUZZ_CHECK(accounts.has_value() == error.isEmpty());
	if (!accounts) {
		return 0;
	}
	const QByteArray once = written(*accounts, path);
	const std::optional<Accounts> again = Accounts::load(path, &error);
	FUZZ_CHECK(again.has_value());
	FUZZ_CHECK(written(*again, path) == once);
	return 0;
}

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

/** Somebody who can sign in with an e-mail address and a password. The password itself is kept nowhere. */
struct Account {
	/** Rounds of PBKDF2 with HMAC-SHA-512 for new passwords. */
	static constexpr int kIterations = 210000;

	/** Compared without regard to letter case. */
	QString email;
	QByteArray salt;
	/** PBKDF2 of the password. */
	QByteArray hash;
	int iterations = kIterations;
	/** Below 1: the service's own limit. */
	int maxTargetLanguages = 0;
	/** Every attempt is refused. */
	bool locked = false;
	/** Every attempt ends in a server error, for trying that out. */
	bool fails = false;

	/** With a fresh salt. Takes some tenths of a second. */
	static Account withPassword(const QString &email, const QString &password, int iterations = kIterations);
	/** Whether this is the password. Takes some tenths of a second. */
	[[nodiscard]] bool hasPassword(const QString &password) const;
};

/**
 * The accounts of a file: {"accounts": [{"email", "salt", "hash", "iterations", "max_target_languages", "locked",
 * "fails"}]}, the bytes in base64.
 */
class Accounts {
public:
	/** The one account that there is without a file: demo@talvora.local, password "talvora". */
	static Accounts demo();
	/** Reads a file. On failure nothing, and `error` says what is wrong. */
	static std::optional<Accounts> load(const QString &path, QString *error);

	/** Null when nobody has this address. */
	[[nodiscard]] const Account *find(const QString &email) const;
	/** Adds an account, or puts it in the place of the one with the same address. */
	void put(const Account &account);
	/** Writes the file, readable by its owner only. */
	bool save(const QString &path, QString *error) const;

private:
	QList<Account> accounts;
};

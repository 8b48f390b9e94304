// SPDX-License-Identifier: GPL-3.0-or-later
#include "sign-in/accounts.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPasswordDigestor>
#include <QRandomGenerator>
#include <QSaveFile>

#include <algorithm>
#include <array>

namespace {

constexpr int kHashBytes = 32;
constexpr int kMostIterations = 10'000'000;

QByteArray pbkdf2(const QString &password, const QByteArray &salt, int iterations)
{
	return QPasswordDigestor::deriveKeyPbkdf2(QCryptographicHash::Sha512, password.toUtf8(), salt, iterations,
						  kHashBytes);
}

QByteArray randomSalt()
{
	std::array<quint32, 4> words{};
	QRandomGenerator::system()->fillRange(words.data(), static_cast<qsizetype>(words.size()));
	return {reinterpret_cast<const char *>(words.data()), sizeof(words)};
}

/** Takes the same time wherever two hashes differ. */
bool sameBytes(const QByteArray &a, const QByteArray &b)
{
	int difference = a.size() == b.size() ? 0 : 1;
	for (qsizetype i = 0; i < std::min(a.size(), b.size()); ++i) {
		difference |= a.at(i) ^ b.at(i);
	}
	return difference == 0;
}

QByteArray bytesFrom(const QJsonValue &value)
{
	return QByteArray::fromBase64(value.toString().toLatin1());
}

QJsonObject toJson(const Account &account)
{
	return {{"email", account.email},
		{"salt", QString::fromLatin1(account.salt.toBase64())},
		{"hash", QString::fromLatin1(account.hash.toBase64())},
		{"iterations", account.iterations},
		{"max_target_languages", account.maxTargetLanguages},
		{"locked", account.locked},
		{"fails", account.fails}};
}

std::optional<Account> fromJson(const QJsonObject &json)
{
	Account account;
	account.email = json.value("email").toString();
	account.salt = bytesFrom(json.value("salt"));
	account.hash = bytesFrom(json.value("hash"));
	account.iterations = json.value("iterations").toInt();
	account.maxTargetLanguages = json.value("max_target_languages").toInt();
	account.locked = json.value("locked").toBool();
	account.fails = json.value("fails").toBool();
	if (account.email.isEmpty() || account.salt.isEmpty() || account.hash.size() != kHashBytes ||
	    account.iterations < 1 || account.iterations > kMostIterations) {
		return std::nullopt;
	}
	return account;
}

} // namespace

Account Account::withPassword(const QString &email, const QString &password, int iterations)
{
	Account account;
	account.email = email;
	account.salt = randomSalt();
	account.iterations = iterations;
	account.hash = pbkdf2(password, account.salt, iterations);
	return account;
}

bool Account::hasPassword(const QString &password) const
{
	return sameBytes(pbkdf2(password, salt, iterations), hash);
}

Accounts Accounts::demo()
{
	Account account;
	account.email = "demo@talvora.local";
	// Of the password "talvora", made once, so that a start costs nothing.
	account.salt = QByteArray::fromBase64("dGFsdm9yYS1kZW1vLWFjYw==");
	account.hash = QByteArray::fromBase64("RqVMVYYuJwXjgp/m1fCVasRic+BlT+wy1l/wf1K0l5g=");
	Accounts result;
	result.put(account);
	return result;
}

std::optional<Accounts> Accounts::load(const QString &path, QString *error)
{
	QFile file(path);
	if (!file.open(QIODevice::ReadOnly)) {
		*error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
		return std::nullopt;
	}
	const QJsonValue list = QJsonDocument::fromJson(file.readAll()).object().value("accounts");
	if (!list.isArray()) {
		*error = QStringLiteral("%1: no object with a list \"accounts\"").arg(path);
		return std::nullopt;
	}
	Accounts result;
	const QJsonArray entries = list.toArray();
	for (const auto &entry : entries) {
		const std::optional<Account> account = fromJson(entry.toObject());
		if (!account) {
			*error =
				QStringLiteral("%1: account %2 is not valid").arg(path).arg(result.accounts.size() + 1);
			return std::nullopt;
		}
		result.put(*account);
	}
	return result;
}

const Account *Accounts::find(const QString &email) const
{
	const auto found = std::find_if(accounts.begin(), accounts.end(), [&](const Account &account) {
		return account.email.compare(email, Qt::CaseInsensitive) == 0;
	});
	return found == accounts.end() ? nullptr : &*found;
}

void Accounts::put(const Account &account)
{
	accounts.removeIf(
		[&](const Account &each) { return each.email.compare(account.email, Qt::CaseInsensitive) == 0; });
	accounts.append(account);
}

bool Accounts::save(const QString &path, QString *error) const
{
	QJsonArray list;
	for (const Account &account : accounts) {
		list.append(toJson(account));
	}
	QSaveFile file(path);
	const bool saved = file.open(QIODevice::WriteOnly) &&
			   file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) &&
			   file.write(QJsonDocument(QJsonObject{{"accounts", list}}).toJson()) > 0 && file.commit();
	if (!saved) {
		*error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
	}
	return saved;
}

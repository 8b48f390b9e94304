// SPDX-License-Identifier: GPL-3.0-or-later
#include "sign-in/accounts.h"

#include "sign-in/token-store.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr int kQuick = 100;

} // namespace

class AccountsTest : public QObject {
	Q_OBJECT

	QTemporaryDir dir;

	QString write(const QByteArray &text) const
	{
		QFile file(dir.filePath("accounts.json"));
		if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
			return {};
		}
		return file.fileName();
	}

private Q_SLOTS:
	void theDemoAccountHasItsPassword()
	{
		const Accounts accounts = Accounts::demo();
		const Account *demo = accounts.find("demo@talvora.local");
		QVERIFY(demo);
		QCOMPARE(demo->iterations, 210000);
		QVERIFY(demo->hasPassword("talvora"));
		QVERIFY(!demo->hasPassword("Talvora"));
	}

	void onlyTheRightPasswordFits()
	{
		const Account account = Account::withPassword("a@b", QStringLiteral("pä ss "), kQuick);
		QVERIFY(account.hasPassword(QStringLiteral("pä ss ")));
		QVERIFY(!account.hasPassword(QStringLiteral("pä ss")));
		QVERIFY(!account.hasPassword({}));
	}

	void theSamePasswordIsHashedDifferentlyEachTime()
	{
		const Account one = Account::withPassword("a@b", "same", kQuick);
		const Account two = Account::withPassword("a@b", "same", kQuick);
		QVERIFY(one.salt != two.salt);
		QVERIFY(one.hash != two.hash);
		QCOMPARE(one.salt.size(), 16);
	}

	void accountsAreWrittenAndRead()
	{
		Account account = Account::withPassword("Some@Body.test", "secret", kQuick);
		account.maxTargetLanguages = 3;
		account.locked = true;
		account.fails = true;
		Accounts accounts;
		accounts.put(account);
		accounts.put(Account::withPassword("other@body.test", "another", kQuick));
		const QString path = dir.filePath("written.json");
		QString error;
		QVERIFY2(accounts.save(path, &error), qPrintable(error));
		QFile file(path);
		QCOMPARE(file.permissions() &
				 (QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther),
			 QFile::Permissions());
		QVERIFY(file.open(QIODevice::ReadOnly));
		QVERIFY2(!file.readAll().contains("secret"), "the password is in the file");
		const std::optional<Accounts> again = Accounts::load(path, &error);
		QVERIFY2(again, qPrintable(error));
		const Account *found = again->find("some@body.test");
		QVERIFY(found);
		QVERIFY(found->hasPassword("secret"));
		QCOMPARE(found->maxTargetLanguages, 3);
		QVERIFY(found->locked && found->fails);
		QVERIFY(again->find("other@body.test"));
		QVERIFY(!again->find("nobody@body.test"));
	}

	void anAccountTakesThePlaceOfTheOneBefore()
	{
		Accounts accounts;
		accounts.put(Account::withPassword("a@b", "old", kQuick));
		accounts.put(Account::withPassword("A@B", "new", kQuick));
		QVERIFY(accounts.find("a@b")->hasPassword("new"));
	}

	void aFileThatIsNotValidIsNamed_data()
	{
		QTest::addColumn<QByteArray>("text");
		QTest::newRow("empty") << QByteArray();
		QTest::newRow("no JSON") << QByteArray("{");
		QTest::newRow("no list") << QByteArray(R"({"accounts":5})");
		QTest::newRow("no object") << QByteArray(R"({"accounts":[5]})");
		QTest::newRow("no hash") << QByteArray(R"({"accounts":[{"email":"a","salt":"YQ==","iterations":1}]})");
		QTest::newRow("short hash")
			<< QByteArray(R"({"accounts":[{"email":"a","salt":"YQ==","hash":"YQ==","iterations":1}]})");
		QTest::newRow("too much work") << "{\"accounts\":[{\"email\":\"a\",\"salt\":\"YQ==\",\"hash\":\"" +
							  QByteArray(32, 'x').toBase64() +
							  "\",\"iterations\":2000000000}]}";
	}

	void aFileThatIsNotValidIsNamed()
	{
		QFETCH(QByteArray, text);
		const QString path = write(text);
		QString error;
		QVERIFY(!Accounts::load(path, &error));
		QVERIFY2(error.contains(path), qPrintable(error));
	}

	void tokensAreKnownByTheirTextAndCarryTheirLimit()
	{
		TokenStore tokens;
		const QString one = tokens.issue(0);
		const QString two = tokens.issue(3);
		QVERIFY(one != two);
		QVERIFY2(QRegularExpression("^tak_live_[0-9a-f]{32}$").match(one).hasMatch(), qPrintable(one));
		QCOMPARE(tokens.maxTargetLanguages(one), std::optional<int>(0));
		QCOMPARE(tokens.maxTargetLanguages(two), std::optional<int>(3));
		QCOMPARE(tokens.maxTargetLanguages("tak_live_"), std::nullopt);
		QCOMPARE(tokens.maxTargetLanguages({}), std::nullopt);
	}

	void ofVeryManyTokensTheNewestAreKept()
	{
		TokenStore tokens;
		const QString first = tokens.issue(0);
		const QString second = tokens.issue(0);
		for (qsizetype i = 1; i < TokenStore::kMostTokens; ++i) {
			tokens.issue(0);
		}
		QVERIFY(!tokens.maxTargetLanguages(first));
		QVERIFY(tokens.maxTargetLanguages(second));
	}
};

QTEST_GUILESS_MAIN(AccountsTest)
#include "accounts-test.moc"

// SPDX-License-Identifier: GPL-2.0-or-later
#include "settings/settings-file.h"

#include "log-capture.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

/** What reserving room on the disk ends with; 0 for success. */
int reserveError = 0;

const QByteArray kNewer = R"({"apiKey": "tak_1", "voiceSpeed": 1.5})";
const QByteArray kNewerWithoutKey = R"({"apiKey": ""     , "voiceSpeed": 1.5})";

} // namespace

int fallocate(int, int, off_t, off_t)
{
	errno = reserveError;
	return reserveError ? -1 : 0;
}

/** What the settings file goes through in a user's home. */
class SettingsFileTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void cleanup();

	void contentThatIsNotUnderstoodIsKept_data();
	void contentThatIsNotUnderstoodIsKept();
	void onlyTheFirstSaveKeepsOldContent();
	void keyThatWasKeptIsTakenOut_data();
	void keyThatWasKeptIsTakenOut();
	void keyThatCannotBeTakenOutIsReported();
	void understoodFileIsNotKept_data();
	void understoodFileIsNotKept();
	void hugeFileIsNotTaken();
	void fileThatCannotBeKeptIsNotOverwritten();
	void linkToTheFileStays();
	void shorterContentReplacesLongerOne();
	void fullDiskLeavesTheOldContent();
	void fullDiskLeavesNoEmptyFile();
	void fileSystemThatCannotReserveIsWrittenTo();

private:
	void write(const QByteArray &content)
	{
		QDir().mkpath(QFileInfo(SettingsFile::path()).path());
		QFile file(SettingsFile::path());
		QVERIFY(file.open(QIODevice::WriteOnly));
		file.write(content);
	}
	static QByteArray read(const QString &path)
	{
		QFile file(path);
		return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
	}
	static QByteArray written(const Settings &settings) { return QJsonDocument(settings.toJson()).toJson(); }
	static QString oldPath() { return SettingsFile::path() + u".old"_s; }
	static QString failure()
	{
		return u"[talvora-obs] Talvora: failed to save config to "_s + SettingsFile::path();
	}

	std::optional<QTemporaryDir> home;
	std::optional<LogCapture> log;
	Settings settings;
	SettingsFile settingsFile;
};

void SettingsFileTest::init()
{
	home.emplace();
	qputenv("HOME", home->path().toUtf8());
	log.emplace();
	settings = {};
	settingsFile = {};
	reserveError = 0;
}

void SettingsFileTest::cleanup()
{
	log.reset();
}

void SettingsFileTest::contentThatIsNotUnderstoodIsKept_data()
{
	QTest::addColumn<QByteArray>("content");
	QTest::addColumn<QByteArray>("kept");
	QTest::newRow("cut short") << QByteArray(R"({"apiKey": "tak_1", "audioSo)")
				   << QByteArray(R"({"apiKey": ""     , "audioSo)");
	QTest::newRow("one byte") << QByteArray("x") << QByteArray("x");
	QTest::newRow("no object") << QByteArray(R"(["tak_1"])") << QByteArray(R"(["*****"])");
	QTest::newRow("a newer version's") << kNewer << kNewerWithoutKey;
}

void SettingsFileTest::contentThatIsNotUnderstoodIsKept()
{
	QFETCH(QByteArray, content);
	write(content);
	QFile::setPermissions(SettingsFile::path(), QFile::permissions(SettingsFile::path()) | QFileDevice::ReadOther);
	settingsFile.load(settings);
	QCOMPARE(read(SettingsFile::path()), content);
	QVERIFY2(!QFile::exists(oldPath()), "the file was moved before it had to be");
	log->clear();
	settingsFile.save(settings);
	QCOMPARE(read(SettingsFile::path()), written(settings));
	QTEST(read(oldPath()), "kept");
	QVERIFY(!(QFile::permissions(oldPath()) & QFileDevice::ReadOther));
	QCOMPARE(log->ownLines(),
		 QStringList{u"[talvora-obs] Talvora: not all of the settings file was understood, it is kept as "_s +
			     QFileInfo(oldPath()).canonicalFilePath()});
}

void SettingsFileTest::onlyTheFirstSaveKeepsOldContent()
{
	write(kNewer);
	settingsFile.load(settings);
	settingsFile.save(settings);
	settingsFile.save(settings);
	QCOMPARE(read(oldPath()), kNewerWithoutKey);
}

void SettingsFileTest::keyThatWasKeptIsTakenOut_data()
{
	QTest::addColumn<bool>("withSettings");
	QTest::newRow("beside settings") << true;
	QTest::newRow("alone") << false;
}

void SettingsFileTest::keyThatWasKeptIsTakenOut()
{
	QFETCH(bool, withSettings);
	write(kNewer);
	QVERIFY(QFile::rename(SettingsFile::path(), oldPath()));
	if (withSettings) {
		write(written(settings));
	}
	settingsFile.load(settings);
	QCOMPARE(read(oldPath()), kNewerWithoutKey);
	QCOMPARE(QFile::permissions(oldPath()) & (QFileDevice::ReadGroup | QFileDevice::ReadOther),
		 QFileDevice::Permissions());
	// Nothing to do the next time: the file is not touched.
	const QDateTime touched = QFileInfo(oldPath()).fileTime(QFileDevice::FileMetadataChangeTime);
	settingsFile.load(settings);
	QCOMPARE(QFileInfo(oldPath()).fileTime(QFileDevice::FileMetadataChangeTime), touched);
}

void SettingsFileTest::keyThatCannotBeTakenOutIsReported()
{
	write(kNewer);
	QVERIFY(QFile::rename(SettingsFile::path(), oldPath()));
	rlimit files{};
	QCOMPARE(getrlimit(RLIMIT_FSIZE, &files), 0);
	{
		const auto restore = qScopeGuard([&files] { setrlimit(RLIMIT_FSIZE, &files); });
		const auto heed = std::signal(SIGXFSZ, SIG_IGN);
		const auto restoreSignal = qScopeGuard([heed] { std::signal(SIGXFSZ, heed); });
		rlimit none = files;
		none.rlim_cur = 0;
		QCOMPARE(setrlimit(RLIMIT_FSIZE, &none), 0);
		settingsFile.load(settings);
	}
	QCOMPARE(read(oldPath()), kNewer);
	QCOMPARE(log->ownLines(),
		 QStringList{u"[talvora-obs] Talvora: the API key could not be taken out of "_s + oldPath()});
}

void SettingsFileTest::understoodFileIsNotKept_data()
{
	QTest::addColumn<QByteArray>("content");
	QTest::newRow("what is written") << written({});
	QTest::newRow("some of it") << QByteArray(R"({"autoConnect": true})");
	QTest::newRow("an early version's")
		<< QByteArray(R"({"targetLanguages": ["es"], "captions": true, "dubbing": false})");
	QTest::newRow("empty") << QByteArray();
}

void SettingsFileTest::understoodFileIsNotKept()
{
	QFETCH(QByteArray, content);
	write(content);
	settingsFile.load(settings);
	settingsFile.save(settings);
	QVERIFY(!QFile::exists(oldPath()));
	QCOMPARE(read(SettingsFile::path()), written(settings));
}

void SettingsFileTest::hugeFileIsNotTaken()
{
	write(R"({"apiKey": "tak_1"})");
	// Valid JSON but for its size.
	QFile grown(SettingsFile::path());
	QVERIFY(grown.open(QIODevice::Append));
	const QByteArray blanks(1024 * 1024, ' ');
	for (int mib = 0; mib < 16; ++mib) {
		grown.write(blanks);
	}
	grown.close();
	settingsFile.load(settings);
	QCOMPARE(settings.apiKey, QString());
	QJsonParseError error{};
	error.error = QJsonParseError::DocumentTooLarge;
	QCOMPARE(log->ownLines(),
		 QStringList{u"[talvora-obs] Talvora: failed to parse config: "_s + error.errorString()});
	settingsFile.save(settings);
	// As much as would have been read.
	QCOMPARE(QFileInfo(oldPath()).size(), 16 * 1024 * 1024);
	QVERIFY(!read(oldPath()).contains("tak_1"));
}

void SettingsFileTest::fileThatCannotBeKeptIsNotOverwritten()
{
	write(kNewer);
	QVERIFY(QDir().mkpath(oldPath() + u"/something"_s));
	settingsFile.load(settings);
	log->clear();
	settingsFile.save(settings);
	QCOMPARE(read(SettingsFile::path()), kNewer);
	QCOMPARE(log->ownLines(), QStringList{failure()});
}

void SettingsFileTest::linkToTheFileStays()
{
	write(kNewer);
	const QString elsewhere = home->filePath(u"elsewhere.json"_s);
	QVERIFY(QFile::rename(SettingsFile::path(), elsewhere));
	QVERIFY(QFile::link(elsewhere, SettingsFile::path()));
	settingsFile.load(settings);
	settingsFile.save(settings);
	QVERIFY(QFileInfo(SettingsFile::path()).isSymLink());
	QCOMPARE(read(elsewhere), written(settings));
	QCOMPARE(read(elsewhere + u".old"_s), kNewerWithoutKey);
}

void SettingsFileTest::shorterContentReplacesLongerOne()
{
	settings.apiKey = QString(2000, u'k');
	settingsFile.save(settings);
	settings.apiKey.clear();
	settingsFile.save(settings);
	QCOMPARE(read(SettingsFile::path()), written(settings));
}

void SettingsFileTest::fullDiskLeavesTheOldContent()
{
	settings.apiKey = u"tak_1"_s;
	settingsFile.save(settings);
	reserveError = ENOSPC;
	settingsFile.save({});
	QCOMPARE(read(SettingsFile::path()), written(settings));
	QCOMPARE(log->ownLines(), QStringList{failure()});
}

void SettingsFileTest::fullDiskLeavesNoEmptyFile()
{
	reserveError = EDQUOT;
	settingsFile.save(settings);
	QVERIFY(!QFile::exists(SettingsFile::path()));
	QCOMPARE(log->ownLines(), QStringList{failure()});
}

void SettingsFileTest::fileSystemThatCannotReserveIsWrittenTo()
{
	reserveError = EOPNOTSUPP;
	settingsFile.save(settings);
	QCOMPARE(read(SettingsFile::path()), written(settings));
	QCOMPARE(log->ownLines(), QStringList());
}

QTEST_MAIN(SettingsFileTest)
#include "settings-file-test.moc"

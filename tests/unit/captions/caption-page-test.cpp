// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-page.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char page[] = "<!DOCTYPE html>\n"
			"<html>\n"
			"\t<head>\n"
			"\t\t<meta charset=\"utf-8\">\n"
			"\t\t<style>\n"
			"\t\t\thtml, body {\n"
			"\t\t\t\twidth: 100%;\n"
			"\t\t\t\theight: 100%;\n"
			"\t\t\t\tmargin: 0;\n"
			"\t\t\t\tpadding: 0;\n"
			"\t\t\t\toverflow: hidden;\n"
			"\t\t\t\tbackground-color: transparent;\n"
			"\t\t\t}\n"
			"\t\t</style>\n"
			"\t</head>\n"
			"\t<body>\n"
			"\t\t<div id=\"caption-text\"></div>\n"
			"\t</body>\n"
			"</html>";

QByteArray contents(const QString &path)
{
	QFile file(path);
	return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void write(const QString &path, const QByteArray &bytes)
{
	QFile file(path);
	QVERIFY(file.open(QIODevice::WriteOnly));
	QCOMPARE(file.write(bytes), bytes.size());
}

/** A file that another user has made under `path` and lets everybody write. */
void plantFileOfAnotherUser(const QString &path)
{
	write(path, "<script>theirs</script>");
	QCOMPARE(chmod(QFile::encodeName(path).constData(), 0666), 0);
	// Nobody but root can give a file away. Others find what is never theirs: something that is no file.
	if (geteuid() == 0) {
		QCOMPARE(chown(QFile::encodeName(path).constData(), 65534, 65534), 0);
	} else {
		QVERIFY(QFile::remove(path));
		QVERIFY(QDir().mkdir(path));
	}
}

} // namespace

class CaptionPageTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init();
	void pathsAreInTheSystemsTemporaryDirectory();
	void pageIsWrittenWhole();
	void pageHasNoScript();
	void existingFileIsOverwrittenFromTheStart();
	void rightPageIsNotWrittenAgain();
	void fileThatCannotBeOpenedIsLeftAlone();
	void pipeInPlaceOfThePageDoesNotBlock();

	// Other users of the machine
	void plantedLinkIsNotFollowed_data();
	void plantedLinkIsNotFollowed();
	void fileOfAnotherUserIsNeitherWrittenNorUsed();
	void rootsFileIsNotUsedEither();
	void rightPageOfAnotherUserIsNotUsed();
	void othersCannotWriteThePage();
	void newPageIsReadableByAllAndWritableByOne();
	void pageIsWrittenWithStandardInputClosed();
	void withoutARuntimeDirectoryATakenNameIsNotUsed();
	void pageIsWhereItCouldBeWritten();

private:
	QTemporaryDir directory;
	QString path;
};

/** What Qt says of a runtime directory that is not one, or not this user's. */
const QRegularExpression kRefusedRuntimeDirectory("^QStandardPaths: runtime directory '.*' is not ");

/** A temporary directory as all users share it, and a runtime directory of the user's own, while it lives. */
class SharedMachine {
public:
	SharedMachine()
	{
		QVERIFY(temporary.isValid() && runtime.isValid());
		QCOMPARE(chmod(QFile::encodeName(temporary.path()).constData(), 01777), 0);
		qputenv("TMPDIR", QFile::encodeName(temporary.path()));
		qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime.path()));
	}
	~SharedMachine()
	{
		qunsetenv("TMPDIR");
		qunsetenv("XDG_RUNTIME_DIR");
	}

	QString page() const { return temporary.filePath("talvora_caption_ui_es.html"); }
	QString ownPage() const { return runtime.filePath("talvora_caption_ui_es.html"); }

	const QTemporaryDir temporary;
	const QTemporaryDir runtime;
};

void CaptionPageTest::init()
{
	QVERIFY(directory.isValid());
	path = directory.filePath(QString::fromLatin1(QTest::currentTestFunction()) + ".html");
}

void CaptionPageTest::pathsAreInTheSystemsTemporaryDirectory()
{
	QCOMPARE(captionPagePath("es"), QDir::tempPath() + "/talvora_caption_ui_es.html");
	QCOMPARE(captionDataPath("es"), QDir::tempPath() + "/talvora_caption_data_es.txt");
	QCOMPARE(captionPagePath("pt-%1"), QDir::tempPath() + "/talvora_caption_ui_pt-%1.html");

	qputenv("TMPDIR", directory.path().toUtf8());
	QCOMPARE(captionPagePath("fil"), directory.filePath("talvora_caption_ui_fil.html"));
	qunsetenv("TMPDIR");
}

void CaptionPageTest::pageIsWrittenWhole()
{
	writeCaptionPage(path);
	QCOMPARE(contents(path), page);
}

void CaptionPageTest::pageHasNoScript()
{
	QVERIFY(!captionPageHtml().contains("script", Qt::CaseInsensitive));
}

void CaptionPageTest::existingFileIsOverwrittenFromTheStart()
{
	write(path, QByteArray(page) + "<p>left over</p>");
	writeCaptionPage(path);
	QCOMPARE(contents(path), page);

	write(path, QByteArray(page).replace("caption-text", "captioN-text"));
	writeCaptionPage(path);
	QCOMPARE(contents(path), page);
}

void CaptionPageTest::rightPageIsNotWrittenAgain()
{
	writeCaptionPage(path);
	const QDateTime longAgo = QDateTime::fromSecsSinceEpoch(1000000000);
	QFile file(path);
	QVERIFY(file.open(QIODevice::ReadWrite));
	QVERIFY(file.setFileTime(longAgo, QFileDevice::FileModificationTime));
	file.close();

	writeCaptionPage(path);
	QCOMPARE(QFileInfo(path).lastModified(), longAgo);
}

void CaptionPageTest::fileThatCannotBeOpenedIsLeftAlone()
{
	QVERIFY(QDir().mkdir(path));
	writeCaptionPage(path);
	QVERIFY(QDir(path).isEmpty());

	const QString nowhere = directory.filePath("none/page.html");
	writeCaptionPage(nowhere);
	QVERIFY(!QFileInfo::exists(directory.filePath("none")));
}

void CaptionPageTest::pipeInPlaceOfThePageDoesNotBlock()
{
	QCOMPARE(mkfifo(path.toUtf8().constData(), 0600), 0);
	writeCaptionPage(path);
	QVERIFY(!QFileInfo(path).isFile());
}

void CaptionPageTest::plantedLinkIsNotFollowed_data()
{
	QTest::addColumn<bool>("hard");
	QTest::addColumn<bool>("dangling");
	QTest::newRow("symbolic link to a file of the user's") << false << false;
	QTest::newRow("symbolic link to nothing") << false << true;
	QTest::newRow("hard link to a file of the user's") << true << false;
}

void CaptionPageTest::plantedLinkIsNotFollowed()
{
	QFETCH(bool, hard);
	QFETCH(bool, dangling);
	const SharedMachine machine;
	const QString precious = machine.temporary.filePath("precious");
	if (!dangling) {
		write(precious, "mine");
	}
	const QByteArray target = QFile::encodeName(precious);
	const QByteArray link = QFile::encodeName(machine.page());
	QCOMPARE(hard ? ::link(target.constData(), link.constData()) : symlink(target.constData(), link.constData()),
		 0);

	writeCaptionPage(machine.page());
	QCOMPARE(QFileInfo::exists(precious), !dangling);
	QCOMPARE(contents(precious), dangling ? "" : "mine");
	QCOMPARE(captionPagePath("es"), machine.ownPage());
	QCOMPARE(provideCaptionPage("es"), machine.ownPage());
	QCOMPARE(contents(machine.ownPage()), page);
}

void CaptionPageTest::fileOfAnotherUserIsNeitherWrittenNorUsed()
{
	const SharedMachine machine;
	plantFileOfAnotherUser(machine.page());
	const QByteArray theirs = contents(machine.page());
	writeCaptionPage(machine.page());
	QCOMPARE(contents(machine.page()), theirs);
	QCOMPARE(captionPagePath("es"), machine.ownPage());
	QVERIFY2(captionPagePath("fr") == machine.temporary.filePath("talvora_caption_ui_fr.html"),
		 "the other languages stay where they are");
}

/** The user is not root, who may do more than others: it is not the kernel that refuses. */
void CaptionPageTest::rootsFileIsNotUsedEither()
{
	const SharedMachine machine;
	write(machine.page(), "root's");
	QCOMPARE(chmod(QFile::encodeName(machine.page()).constData(), 0666), 0);
	const bool isRoot = geteuid() == 0;
	const QString theirs = isRoot ? machine.page() : QStringLiteral("/etc/passwd");
	const QByteArray before = contents(theirs);
	QVERIFY(!isRoot || seteuid(65534) == 0);
	writeCaptionPage(theirs);
	if (isRoot) {
		// It is root's, and this is somebody else for now.
		QTest::ignoreMessage(QtWarningMsg, kRefusedRuntimeDirectory);
	}
	const QString used = captionPagePath("es");
	QVERIFY(!isRoot || seteuid(0) == 0);
	QCOMPARE(contents(theirs), before);
	QVERIFY(used != theirs);
}

void CaptionPageTest::rightPageOfAnotherUserIsNotUsed()
{
	const SharedMachine machine;
	plantFileOfAnotherUser(machine.page());
	if (geteuid() == 0) {
		write(machine.page(), page);
	}
	QVERIFY2(captionPagePath("es") == machine.ownPage(), "its owner can change it at any time");
}

void CaptionPageTest::othersCannotWriteThePage()
{
	const SharedMachine machine;
	const mode_t before = umask(0);
	writeCaptionPage(machine.page());
	umask(before);
	const QFileDevice::Permissions others = QFileDevice::WriteGroup | QFileDevice::WriteOther;
	QVERIFY(!(QFile::permissions(machine.page()) & others));

	QCOMPARE(chmod(QFile::encodeName(machine.page()).constData(), 0666), 0);
	write(machine.page(), "theirs");
	writeCaptionPage(machine.page());
	QCOMPARE(contents(machine.page()), page);
	QVERIFY(!(QFile::permissions(machine.page()) & others));
}

void CaptionPageTest::withoutARuntimeDirectoryATakenNameIsNotUsed()
{
	const SharedMachine machine;
	plantFileOfAnotherUser(machine.page());
	// Something that is no directory, and no better where Qt would make one.
	qputenv("XDG_RUNTIME_DIR", "/dev/null");
	const passwd *user = getpwuid(geteuid());
	QVERIFY(user);
	write(machine.temporary.filePath(QStringLiteral("runtime-") + user->pw_name), "");
	for (int look = 1; look <= 2; ++look) {
		// Qt says of each of the two why it is not to be trusted.
		QTest::ignoreMessage(QtWarningMsg, kRefusedRuntimeDirectory);
		QTest::ignoreMessage(QtWarningMsg, kRefusedRuntimeDirectory);
		const QString used = captionPagePath("es");
		QCOMPARE(used, QString());
		writeCaptionPage(used);
	}
}

void CaptionPageTest::newPageIsReadableByAllAndWritableByOne()
{
	const mode_t before = umask(0);
	writeCaptionPage(path);
	umask(before);
	struct stat found{};
	QCOMPARE(stat(QFile::encodeName(path).constData(), &found), 0);
	QCOMPARE(found.st_mode & 07777, mode_t{0644});
}

void CaptionPageTest::pageIsWrittenWithStandardInputClosed()
{
	// As a program that a desktop starts may be: the page's file gets the number 0 then.
	const int input = dup(STDIN_FILENO);
	close(STDIN_FILENO);
	writeCaptionPage(path);
	const bool closedAgain = fcntl(STDIN_FILENO, F_GETFD) == -1;
	if (input >= 0) {
		dup2(input, STDIN_FILENO);
		close(input);
	}
	QVERIFY(closedAgain);
	QCOMPARE(contents(path), page);
}

void CaptionPageTest::pageIsWhereItCouldBeWritten()
{
	const SharedMachine machine;
	QCOMPARE(provideCaptionPage("es"), machine.page());
	QCOMPARE(contents(machine.page()), page);
	// The name is taken by the time the page is written again.
	QVERIFY(QFile::remove(machine.page()));
	QVERIFY(QDir().mkdir(machine.page()));
	QCOMPARE(provideCaptionPage("es"), machine.ownPage());
	QCOMPARE(contents(machine.ownPage()), page);
	QVERIFY(QFile::remove(machine.ownPage()));
	QVERIFY(QDir().mkdir(machine.ownPage()));
	QCOMPARE(provideCaptionPage("es"), QString());
}

QTEST_GUILESS_MAIN(CaptionPageTest)
#include "caption-page-test.moc"

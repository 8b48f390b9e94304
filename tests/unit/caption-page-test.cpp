// SPDX-License-Identifier: GPL-2.0-or-later
#include "caption-page.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

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

private:
	QTemporaryDir directory;
	QString path;
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

QTEST_GUILESS_MAIN(CaptionPageTest)
#include "caption-page-test.moc"

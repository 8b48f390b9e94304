// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-page.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;

QString pageName(const QString &language)
{
	return QStringLiteral("talvora_caption_ui_%1.html").arg(language);
}

/** In the user's runtime directory; empty when there is none. */
QString inOwnDir(const QString &fileName)
{
	const QString ownDir = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
	return ownDir.isEmpty() ? QString() : QDir(ownDir).filePath(fileName);
}

QString inTempDir(const QString &fileName)
{
	return QDir(QDir::tempPath()).filePath(fileName);
}

/** A regular file of the user's that has no second name: another user may have linked one of the user's files here. */
bool isOwnFile(const struct stat &file)
{
	return S_ISREG(file.st_mode) && file.st_uid == geteuid() && file.st_nlink == 1;
}

bool isTakenByOthers(const QString &path)
{
	struct stat found{};
	return lstat(QFile::encodeName(path).constData(), &found) == 0 && !isOwnFile(found);
}

/** Opens or creates a file that is the user's own and that nobody else may write; -1 when something else is there. */
int openOwnFile(const QString &path)
{
	// O_NOFOLLOW: no symbolic link. O_NONBLOCK: a named pipe does not block.
	const int descriptor = open(QFile::encodeName(path).constData(),
				    O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
	if (descriptor < 0) {
		return -1;
	}
	struct stat found{};
	if (fstat(descriptor, &found) == 0 && isOwnFile(found) &&
	    ((found.st_mode & kOthersMayWrite) == 0 ||
	     fchmod(descriptor, found.st_mode & ~(S_IFMT | kOthersMayWrite)) == 0)) {
		return descriptor;
	}
	close(descriptor);
	return -1;
}

} // namespace

QString captionPageHtml()
{
	return QStringLiteral("<!DOCTYPE html>\n"
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
			      "</html>");
}

QString captionPagePath(const QString &language)
{
	const QString path = inTempDir(pageName(language));
	return isTakenByOthers(path) ? inOwnDir(pageName(language)) : path;
}

QString provideCaptionPage(const QString &language)
{
	// Another user may take the name at any moment, so only the attempt to write tells whether it is free.
	if (const QString path = inTempDir(pageName(language)); writeCaptionPage(path)) {
		return path;
	}
	const QString ownPath = inOwnDir(pageName(language));
	return writeCaptionPage(ownPath) ? ownPath : QString();
}

bool isCaptionPage(const QString &path)
{
	static const QRegularExpression form(QStringLiteral("/talvora_caption_ui_[^/]+\\.html\\z"));
	return form.match(path).hasMatch();
}

QString captionDataPath(const QString &language)
{
	return inTempDir(QStringLiteral("talvora_caption_data_%1.txt").arg(language));
}

bool writeCaptionPage(const QString &path)
{
	// Every user can write to the temporary directory: a file of this name may be a trap.
	const int descriptor = openOwnFile(path);
	QFile file;
	if (descriptor < 0 || !file.open(descriptor, QIODevice::ReadWrite, QFileDevice::AutoCloseHandle)) {
		return false;
	}
	const QByteArray html = captionPageHtml().toUtf8();
	// A browser, of this OBS or another one, may be loading the page now: a correct page is not truncated.
	if (file.readAll() == html) {
		return true;
	}
	return file.resize(0) && file.write(html) == html.size() && file.flush();
}

// SPDX-License-Identifier: GPL-2.0-or-later
#include "caption-page.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

namespace {

QString inTempDir(const QString &fileName)
{
	return QDir(QDir::tempPath()).filePath(fileName);
}

bool isWritten(const QString &path, const QString &html)
{
	const QByteArray wanted = html.toUtf8();
	QFile file(path);
	return file.open(QIODevice::ReadOnly) && file.size() == wanted.size() && file.readAll() == wanted;
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
	return inTempDir(QStringLiteral("talvora_caption_ui_%1.html").arg(language));
}

QString captionDataPath(const QString &language)
{
	return inTempDir(QStringLiteral("talvora_caption_data_%1.txt").arg(language));
}

void writeCaptionPage(const QString &path)
{
	// The directory is everybody's: a pipe put there would block us.
	const QFileInfo present(path);
	if (present.exists() && !present.isFile()) {
		return;
	}
	const QString html = captionPageHtml();
	// A browser may be loading the page at this moment, also one of another OBS: a right page is not truncated.
	if (isWritten(path, html)) {
		return;
	}
	QFile file(path);
	if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) {
		return;
	}
	QTextStream stream(&file);
	stream.setEncoding(QStringConverter::Utf8);
	stream << html;
}

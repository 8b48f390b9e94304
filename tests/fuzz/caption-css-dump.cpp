// SPDX-License-Identifier: GPL-2.0-or-later
// Writes what the files of the given folders become as captions, for a browser to read: a JSON array of {"file",
// "text", "plain", "css", "rightToLeft", "styled"}, where "text" is what the page gets for the text "plain", "css" is
// in the module's own style, "rightToLeft" the same for a right-to-left language, and "styled" in the style of the
// file.
#include "caption-input.h"
#include "captions/caption-css.h"

#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

int main(int argc, char **argv)
{
	const QGuiApplication application(argc, argv);
	QJsonArray captions;
	for (int i = 1; i < argc; ++i) {
		const QDir folder(QString::fromLocal8Bit(argv[i]));
		for (const QString &name : folder.entryList(QDir::Files)) {
			QFile file(folder.filePath(name));
			if (!file.open(QIODevice::ReadOnly)) {
				std::fprintf(stderr, "cannot read %s\n", qPrintable(file.fileName()));
				return 1;
			}
			const QByteArray bytes = file.readAll();
			const CaptionInput input(reinterpret_cast<const uint8_t *>(bytes.constData()),
						 static_cast<size_t>(bytes.size()));
			// As OBS gets it: in UTF-8.
			const auto utf8 = [](const QString &text) { return QString::fromUtf8(text.toUtf8()); };
			captions.append(QJsonObject{
				{"file", file.fileName()},
				{"text", utf8(isolateRightToLeftLines(input.text))},
				{"plain", utf8(input.text)},
				{"css", utf8(captionCss(CaptionStyle(), input.text))},
				{"rightToLeft", utf8(captionCss(CaptionStyle(), input.text, Qt::RightToLeft))},
				{"styled", utf8(captionCss(input.style, input.text))}});
		}
	}
	std::puts(QJsonDocument(captions).toJson(QJsonDocument::Compact).constData());
	return 0;
}

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QList>
#include <QSet>
#include <QString>

#include <utility>

/** A binary frame cut up as it is written down: byte by byte. Language and bytes of each segment. */
inline QList<std::pair<QString, QByteArray>> plainSplit(const QByteArray &frame, const QSet<QString> &open)
{
	const auto tagAt = [&](qsizetype pos) -> QString {
		if (pos + 2 >= frame.size()) {
			return {};
		}
		const auto length = qsizetype{static_cast<unsigned char>(frame[pos])};
		if (length < 2 || length > 10 || pos + 1 + length > frame.size()) {
			return {};
		}
		for (qsizetype i = pos + 1; i <= pos + length; ++i) {
			const char c = frame[i];
			if (!(c >= 'A' && c <= 'Z') && !(c >= 'a' && c <= 'z') && c != '-') {
				return {};
			}
		}
		const QString code = QString::fromLatin1(frame.sliced(pos + 1, length));
		return open.contains(code) ? code : QString();
	};

	QList<std::pair<QString, QByteArray>> segments;
	if (open.isEmpty() || frame.isEmpty()) {
		return segments;
	}
	qsizetype pos = 0;
	for (QString code = tagAt(pos); !code.isEmpty(); code = tagAt(pos)) {
		const qsizetype start = pos + 1 + code.size();
		qsizetype end = start;
		while (end < frame.size() && tagAt(end).isEmpty()) {
			++end;
		}
		segments.append({code, frame.sliced(start, end - start)});
		pos = end;
		if (pos >= frame.size()) {
			return segments;
		}
	}
	if (segments.isEmpty() && open.size() == 1) {
		segments.append({*open.begin(), frame});
	}
	return segments;
}

// SPDX-License-Identifier: GPL-2.0-or-later
#include "settings/api-key-text.h"

#include <QByteArrayView>

#include <algorithm>

namespace {

/** What the service's keys begin with. */
constexpr QByteArrayView kKeyStart = "tak_";
/** A file in UTF-16 has a NUL beside every letter. */
constexpr QByteArrayView kBlanks("\0 \t\r\n", 5);

bool isWordCharacter(char character)
{
	const auto lower = static_cast<char>(character | 0x20);
	return (lower >= 'a' && lower <= 'z') || (character >= '0' && character <= '9') || character == '_' ||
	       character == '-';
}

/** The first position from `at` on whose character is none of `characters`. */
qsizetype skip(QByteArrayView text, qsizetype at, QByteArrayView characters)
{
	while (at < text.size() && characters.contains(text[at])) {
		++at;
	}
	return at;
}

qsizetype skipWord(QByteArrayView text, qsizetype at)
{
	while (at < text.size() && (isWordCharacter(text[at]) || text[at] == '\0')) {
		++at;
	}
	return at;
}

/** The end of "apiKey" if it is at `at`, in any case, each letter plain or as in "\u0061"; otherwise -1. */
qsizetype endOfName(QByteArrayView text, qsizetype at)
{
	for (const char letter : QByteArrayView("apikey")) {
		at = skip(text, at, QByteArrayView("\0", 1));
		if (at >= text.size()) {
			return -1;
		}
		char found = text[at];
		if (text.sliced(at).startsWith("\\u00") && at + 6 <= text.size()) {
			found = static_cast<char>(text.sliced(at + 4, 2).toByteArray().toInt(nullptr, 16));
			at += 6;
		} else {
			++at;
		}
		if ((found | 0x20) != letter) {
			return -1;
		}
	}
	return at;
}

/** The end of the string that begins with the quotation mark at `at`. */
qsizetype endOfString(QByteArrayView text, qsizetype at)
{
	const char mark = text[at++];
	while (at < text.size() && text[at] != mark) {
		at += text[at] == '\\' ? 2 : 1;
	}
	return std::min(at + 1, text.size());
}

/** The end of the array or object that begins at `at`. */
qsizetype endOfGroup(QByteArrayView text, qsizetype at)
{
	int depth = 0;
	do {
		switch (text[at]) {
		case '"':
			at = endOfString(text, at);
			continue;
		case '[':
		case '{':
			++depth;
			break;
		case ']':
		case '}':
			--depth;
			break;
		default:
			break;
		}
		++at;
	} while (depth > 0 && at < text.size());
	return at;
}

/** The end of the value at `at`, with everything up to the next separator: a damaged string ends too early. */
qsizetype endOfValue(QByteArrayView text, qsizetype at)
{
	if (at < text.size() && (text[at] == '"' || text[at] == '\'')) {
		at = endOfString(text, at);
	} else if (at < text.size() && (text[at] == '[' || text[at] == '{')) {
		at = endOfGroup(text, at);
	}
	while (at < text.size() && !QByteArrayView(",}]\n").contains(text[at])) {
		++at;
	}
	return at;
}

/** Puts an empty value in the place of another. */
void blank(QByteArray &text, qsizetype begin, qsizetype end)
{
	const qsizetype length = end - begin;
	if (length <= 0) {
		return;
	}
	const bool isString = text[begin] == '"' && length > 1;
	text.replace(begin, length, QByteArray(isString ? "\"\"" : "0").leftJustified(length, ' '));
}

void blankNamedKeys(QByteArray &text)
{
	for (qsizetype at = 0; at < text.size(); ++at) {
		const qsizetype name = endOfName(text, at);
		if (name < 0) {
			continue;
		}
		const qsizetype closed = skip(text, skipWord(text, name), "\\\"'");
		const qsizetype colon = skip(text, closed, kBlanks);
		const qsizetype value = skip(text, skip(text, colon, ":="), kBlanks);
		const qsizetype end = endOfValue(text, value);
		blank(text, value, end);
		at = std::max(name, end) - 1;
	}
}

void blankWhatLooksLikeAKey(QByteArray &text)
{
	for (qsizetype at = text.indexOf(kKeyStart); at >= 0; at = text.indexOf(kKeyStart, at)) {
		for (; at < text.size() && isWordCharacter(text[at]); ++at) {
			text[at] = '*';
		}
	}
}

} // namespace

QByteArray withoutApiKeys(QByteArray text)
{
	blankNamedKeys(text);
	blankWhatLooksLikeAKey(text);
	return text;
}

// SPDX-License-Identifier: GPL-3.0-or-later
#include "sign-in/http-reader.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char *kHeadEnd = "\r\n\r\n";

bool isDigit(char c)
{
	return c >= '0' && c <= '9';
}

bool isLetter(char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isToken(const QByteArray &text)
{
	return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](char c) {
		return isLetter(c) || isDigit(c) || (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c));
	});
}

bool isPrintable(const QByteArray &text)
{
	return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

} // namespace

HttpReader::State HttpReader::feed(const QByteArray &bytes)
{
	if (state != State::Reading) {
		return state;
	}
	buffer.append(bytes);
	if (inBody) {
		return readBody();
	}
	const qsizetype end = buffer.indexOf(kHeadEnd);
	// Up to three bytes at the end may be the first part of the blank line.
	const qsizetype mostUnfinished = kLongestHead + static_cast<qsizetype>(qstrlen(kHeadEnd)) - 1;
	if (end > kLongestHead || (end < 0 && buffer.size() > mostUnfinished)) {
		return refuse(431);
	}
	if (end < 0) {
		return state;
	}
	const QByteArray head = buffer.first(end);
	buffer.remove(0, end + static_cast<qsizetype>(qstrlen(kHeadEnd)));
	return readHead(head);
}

HttpReader::State HttpReader::refuse(int status)
{
	status_ = status;
	buffer.clear();
	state = State::Refused;
	return state;
}

HttpReader::State HttpReader::readHead(const QByteArray &head)
{
	QList<QByteArray> lines = head.split('\n');
	for (qsizetype i = 0; i + 1 < lines.size(); ++i) {
		if (!lines.at(i).endsWith('\r')) {
			return refuse(400);
		}
		lines[i].chop(1);
	}
	if (!readRequestLine(lines.takeFirst())) {
		return refuse(400);
	}
	for (const QByteArray &line : std::as_const(lines)) {
		if (!readHeader(line)) {
			return refuse(400);
		}
	}
	if (!request_.headers.contains("host") || request_.headers.contains("transfer-encoding") || !readLength()) {
		return refuse(400);
	}
	if (bodyLength > kLongestBody) {
		return refuse(413);
	}
	inBody = true;
	return readBody();
}

bool HttpReader::readRequestLine(const QByteArray &line)
{
	const QList<QByteArray> words = line.split(' ');
	if (words.size() != 3 || !isToken(words.at(0)) || !words.at(1).startsWith('/') || !isPrintable(words.at(1)) ||
	    (words.at(2) != "HTTP/1.1" && words.at(2) != "HTTP/1.0")) {
		return false;
	}
	request_.method = words.at(0);
	request_.target = words.at(1);
	return true;
}

bool HttpReader::readHeader(const QByteArray &line)
{
	const qsizetype colon = line.indexOf(':');
	const QByteArray name = line.first(std::max<qsizetype>(colon, 0)).toLower();
	const QByteArray value = line.mid(colon + 1).trimmed();
	if (!isToken(name) || value.contains('\0') || value.contains('\r')) {
		return false;
	}
	if (request_.headers.contains(name) && (name == "host" || name == "content-length")) {
		return false;
	}
	request_.headers.insert(name, value);
	return true;
}

bool HttpReader::readLength()
{
	const QByteArray text = request_.headers.value("content-length", "0");
	constexpr qsizetype mostDigits = 9;
	if (text.isEmpty() || text.size() > mostDigits || !std::all_of(text.begin(), text.end(), isDigit)) {
		return false;
	}
	bodyLength = text.toInt();
	return true;
}

HttpReader::State HttpReader::readBody()
{
	if (buffer.size() >= bodyLength) {
		request_.body = buffer.first(bodyLength);
		buffer.clear();
		state = State::Done;
	}
	return state;
}

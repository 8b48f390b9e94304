// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QMap>

/** One HTTP request. */
struct HttpRequest {
	QByteArray method;
	/** Path and query, as sent. */
	QByteArray target;
	/** Names in lower case. */
	QMap<QByteArray, QByteArray> headers;
	QByteArray body;
};

/**
 * Reads one HTTP/1.1 request (RFC 9112) from a stream, strictly: what is unusual is refused. Only bodies with a
 * length are read.
 */
class HttpReader {
public:
	/** Bytes. */
	static constexpr qsizetype kLongestHead = 16 * 1024;
	/** Bytes. */
	static constexpr qsizetype kLongestBody = 16 * 1024;

	enum class State { Reading, Done, Refused };

	State feed(const QByteArray &bytes);
	/** The status to answer with when the state is Refused. */
	[[nodiscard]] int status() const { return status_; }
	/** When the state is Done. */
	[[nodiscard]] const HttpRequest &request() const { return request_; }

private:
	State refuse(int status);
	State readHead(const QByteArray &head);
	State readBody();
	[[nodiscard]] bool readRequestLine(const QByteArray &line);
	[[nodiscard]] bool readHeader(const QByteArray &line);
	[[nodiscard]] bool readLength();

	State state = State::Reading;
	int status_ = 0;
	QByteArray buffer;
	bool inBody = false;
	qsizetype bodyLength = 0;
	HttpRequest request_;
};

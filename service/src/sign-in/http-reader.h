// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QMap>

/// One HTTP request.
struct HttpRequest {
	QByteArray method;
	QByteArray target;                    ///< path and query, as sent
	QMap<QByteArray, QByteArray> headers; ///< names in lower case
	QByteArray body;
};

/// Reads one HTTP/1.1 request (RFC 9112) from a stream, strictly: what is unusual is refused. Only bodies with a
/// length are read.
class HttpReader {
public:
	static constexpr qsizetype kLongestHead = 16 * 1024; ///< bytes
	static constexpr qsizetype kLongestBody = 16 * 1024; ///< bytes

	enum class State { Reading, Done, Refused };

	State feed(const QByteArray &bytes);
	/// The status to answer with when the state is Refused.
	[[nodiscard]] int status() const { return m_status; }
	/// When the state is Done.
	[[nodiscard]] const HttpRequest &request() const { return m_request; }

private:
	State refuse(int status);
	State readHead(const QByteArray &head);
	State readBody();
	[[nodiscard]] bool readRequestLine(const QByteArray &line);
	[[nodiscard]] bool readHeader(const QByteArray &line);
	[[nodiscard]] bool readLength();

	State m_state = State::Reading;
	int m_status = 0;
	QByteArray m_buffer;
	bool m_inBody = false;
	qsizetype m_bodyLength = 0;
	HttpRequest m_request;
};

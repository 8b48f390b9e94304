// SPDX-License-Identifier: GPL-2.0-or-later
// What comes in at the sign-in's loopback listener. The first byte says in pieces of which size.
#include "fuzz.h"

#include "sign-in/http-request-head.h"
#include "sign-in/sign-in-page.h"

#include <algorithm>

namespace {

/** The listener's way: searches each piece once. The head with what came in with its end, or nothing. */
QByteArray receive(QByteArrayView bytes, qsizetype pieceSize)
{
	QByteArray buffer;
	while (!bytes.isEmpty()) {
		const qsizetype searched = buffer.size();
		const qsizetype taken = std::min(pieceSize, bytes.size());
		buffer.append(bytes.first(taken));
		bytes = bytes.sliced(taken);
		const bool whole = hasWholeRequestHead(buffer, searched);
		FUZZ_CHECK(whole == buffer.contains("\r\n\r\n"));
		if (whole) {
			return buffer;
		}
	}
	return {};
}

void checkErrorPage(const QString &error)
{
	const QString page = signInErrorPage(error);
	const QString empty = signInErrorPage(QString());
	// Whatever the error is, it adds text and no markup.
	for (const QChar markup : {u'<', u'>', u'"'}) {
		FUZZ_CHECK(page.count(markup) == empty.count(markup));
	}
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
	silenceQt();
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	FuzzInput input(data, size);
	const qsizetype pieceSize = 1 + input.byte();
	const QByteArray head = receive(input.rest(), pieceSize);
	if (head.isEmpty()) {
		return 0;
	}
	const std::optional<QUrl> target = readRequestTarget(head);
	FUZZ_CHECK(target.has_value() == (QString::fromUtf8(head).count(u' ') >= 2));
	if (!target) {
		return 0;
	}
	target->path(QUrl::FullyDecoded);
	const SignInCallback callback = readSignInCallback(*target);
	checkErrorPage(callback.error.value_or(callback.token));
	return 0;
}

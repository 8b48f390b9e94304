// SPDX-License-Identifier: GPL-2.0-or-later
// Requests to the local service's sign-in, from the bytes to the answer. The first byte says in pieces of which size.
#include "fuzz.h"

#include "sign-in/http-reader.h"
#include "sign-in/sign-in.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace {

const QString kEmail = QStringLiteral("me@here");

HttpReader receive(QByteArrayView bytes, qsizetype pieceSize)
{
	HttpReader reader;
	while (!bytes.isEmpty()) {
		const qsizetype taken = std::min(pieceSize, bytes.size());
		reader.feed(bytes.first(taken).toByteArray());
		bytes = bytes.sliced(taken);
	}
	return reader;
}

void checkSame(HttpReader &pieces, HttpReader &whole)
{
	const HttpReader::State state = whole.feed({});
	FUZZ_CHECK(pieces.feed({}) == state);
	FUZZ_CHECK(pieces.status() == whole.status());
	if (state == HttpReader::State::Done) {
		FUZZ_CHECK(pieces.request().method == whole.request().method);
		FUZZ_CHECK(pieces.request().target == whole.request().target);
		FUZZ_CHECK(pieces.request().headers == whole.request().headers);
		FUZZ_CHECK(pieces.request().body == whole.request().body);
	}
}

/** Somebody unknown is checked as long as a real password takes, which is long. */
bool isUnknown(const HttpRequest &request)
{
	const QString email = QJsonDocument::fromJson(request.body).object().value(u"email").toString();
	return !email.isEmpty() && email.trimmed().compare(kEmail, Qt::CaseInsensitive) != 0;
}

void checkAnswer(const HttpResponse &response)
{
	for (const auto &[name, value] : response.headers) {
		FUZZ_CHECK(!value.contains('\r') && !value.contains('\n'));
		// The key goes to a program on this machine and nowhere else.
		FUZZ_CHECK(name != "Location" || value.startsWith("http://localhost") ||
			   value.startsWith("http://127.0.0.1") || value.startsWith("http://[::1]"));
	}
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
	silenceQt();
	// Never destroyed: what a target keeps may outlive it.
	[[maybe_unused]] static const auto *const application = new QCoreApplication(*argc, *argv);
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static TokenStore tokens;
	static EventLog events;
	FuzzInput input(data, size);
	const qsizetype pieceSize = 1 + input.byte();
	HttpReader pieces = receive(input.rest(), pieceSize);
	HttpReader whole = receive(input.rest(), std::max<qsizetype>(input.rest().size(), 1));
	checkSame(pieces, whole);
	if (whole.feed({}) != HttpReader::State::Done || isUnknown(whole.request())) {
		return 0;
	}
	Accounts accounts;
	accounts.put(Account::withPassword(kEmail, QStringLiteral("pw"), 1));
	SignIn signIn({}, {accounts, 3, 10000}, tokens, events);
	int answers = 0;
	const auto answer = [&answers](const HttpResponse &response) {
		++answers;
		checkAnswer(response);
	};
	signIn.handle(whole.request(), answer);
	while (answers == 0) {
		QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
	}
	FUZZ_CHECK(answers == 1);
	return 0;
}

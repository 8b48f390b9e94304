// SPDX-License-Identifier: GPL-2.0-or-later
// What a service may send: a line is a text message, or a binary frame when it begins with a byte 1. They all go
// through one client, so that frames find clips that messages opened.
#include "fuzz.h"

#include "client/service-messages.h"
#include "client/ws-client.h"

#include <util/base.h>

#include <QCoreApplication>
#include <QJsonDocument>

#include <array>
#include <variant>

namespace {

/** As long as QWebSocket lets a message be. */
constexpr qsizetype kLongestMessage = 1024 * 1024;

/** Formats every line as OBS does, and keeps none. */
void formatLogLine(int, const char *format, va_list arguments, void *)
{
	std::array<char, 4096> line;
	std::vsnprintf(line.data(), line.size(), format, arguments);
}

/** Text that Unicode knows a form of. */
void checkText(const QString &text)
{
	FUZZ_CHECK(text.toUtf8().isEmpty() == text.isEmpty());
}

/** What came out of a client must be presentable: complete samples, and text that can be written anywhere. */
class Listener : public QObject {
public:
	explicit Listener(WSClient &client)
	{
		connect(&client, &WSClient::ttsAudioReady, this,
			[this](const QString &, int, const QByteArray &pcm, int) {
				FUZZ_CHECK(pcm.size() % 2 == 0);
				pcmBytes += pcm.size();
			});
		connect(&client, &WSClient::transcriptFinal, this,
			[](const QString &text, const QJsonObject &translations) {
				checkText(text);
				QJsonDocument(translations).toJson();
			});
		connect(&client, &WSClient::authSucceeded, this,
			[](const QJsonObject &voiceProfile, const QJsonObject &limits, int) {
				QJsonDocument(voiceProfile).toJson();
				QJsonDocument(limits).toJson();
			});
		connect(&client, &WSClient::errorOccurred, this, &checkText);
		connect(&client, &WSClient::captionCleared, this,
			[] { fuzzCheckFailed("captionCleared is never emitted", __FILE__, __LINE__); });
		connect(&client, &WSClient::stateChanged, this, [](WsState state) {
			FUZZ_CHECK(state == WsState::Authenticated || state == WsState::Disconnected);
		});
	}
	qsizetype pcmBytes = 0;
};

} // namespace

/** The client's friend: a service is listened to while it is asked to let somebody in. */
class WSClientTest {
public:
	static void askToBeLetIn(WSClient &client) { client.setState(WsState::Connected); }
};

namespace {

void checkReading(const QByteArray &utf8)
{
	const QJsonDocument document = QJsonDocument::fromJson(utf8);
	if (!document.isObject()) {
		return;
	}
	const QString type = document.object().value(u"type").toString();
	const ServiceMessage message = readServiceMessage(document.object());
	const auto *unknown = std::get_if<UnknownMessage>(&message);
	FUZZ_CHECK(!unknown || unknown->type == type);
	FUZZ_CHECK(unknown || !type.isEmpty());
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
	silenceQt();
	base_set_log_handler(formatLogLine, nullptr);
	// Never destroyed: what a target keeps may outlive it.
	[[maybe_unused]] static const auto *const application = new QCoreApplication(*argc, *argv);
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	WSClient client;
	WSClientTest::askToBeLetIn(client);
	const Listener listener(client);
	FuzzInput input(data, size);
	qsizetype frameBytes = 0;
	while (!input.atEnd()) {
		const QByteArray line = input.line().toByteArray();
		if (line.size() > kLongestMessage) {
			continue;
		}
		if (line.startsWith('\1')) {
			const QByteArray frame = line.sliced(1);
			frameBytes += frame.size();
			QMetaObject::invokeMethod(&client, "onBinaryMessageReceived", Q_ARG(QByteArray, frame));
		} else {
			const QString text = QString::fromUtf8(line);
			checkReading(text.toUtf8());
			QMetaObject::invokeMethod(&client, "onTextMessageReceived", Q_ARG(QString, text));
		}
	}
	FUZZ_CHECK(listener.pcmBytes <= frameBytes);
	return 0;
}

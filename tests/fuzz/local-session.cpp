// SPDX-License-Identifier: GPL-2.0-or-later
// What a client may send to the local service: a line is a text message, or audio when it begins with a byte 1. The
// first byte chooses a live or a scripted session. Engines are stand-ins that answer at once.
#include "fuzz.h"

#include "base/clock.h"
#include "session/live-session.h"
#include "session/scripted-session.h"

#include <QCoreApplication>
#include <QWebSocket>

#include <atomic>
#include <memory>

namespace {

class OrderedRecogniser : public Recogniser {
public:
	void process(std::span<const int16_t> samples, RecogniserListener &listener) override
	{
		for (const int16_t order : samples) {
			if (order == 0x7373) {
				listener.utteranceStarted();
			} else if (order == 0x7070) {
				listener.partialWords(QStringLiteral("i am"));
			} else if (order == 0x6565) {
				listener.utteranceEnded(QStringLiteral("i am here"), 3.0, monotonicMs());
			}
		}
	}
};

class EchoTranslator : public Translator {
public:
	bool canTranslate(const QString &language) const override { return language != QLatin1String("de"); }
	void prepare(const QString &) override {}
	std::optional<QString> translate(const QString &sentence, const QString &language) override
	{
		return language == QLatin1String("it") ? std::nullopt : std::make_optional(sentence);
	}
};

class ShortSynthesiser : public Synthesiser {
public:
	bool hasVoice(const QString &language) const override { return language != QLatin1String("fil"); }
	std::optional<SpeechClip> synthesise(const QString &, const QString &) override
	{
		return SpeechClip{QByteArray(2205 * 2, '\5'), 22050};
	}
};

struct Service {
	EngineRoom engines{[] { return std::make_unique<OrderedRecogniser>(); }, std::make_unique<EchoTranslator>(),
			   std::make_unique<ShortSynthesiser>()};
	EventLog events;
	TokenStore tokens;
	int lastClip = 0;
	script::Steps steps{script::Expect{QStringLiteral("auth")}, script::AfterAudioBytes{4},
			    script::SendTts{QStringLiteral("es"), 1, 24000, 2, QByteArray(8, 'x'), true, true},
			    script::Expect{QStringLiteral("stop")}, script::Close{1000}};

	SessionSettings settings()
	{
		return {QStringLiteral("k"), 3, 10000, &tokens, [this] { return ++lastClip; }};
	}
};

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
	static Service &service = *new Service;
	FuzzInput input(data, size);
	const bool scripted = input.byte() == 's';
	{
		// Never opened: what the session sends goes nowhere.
		Connection connection(1, new QWebSocket, nullptr);
		if (scripted) {
			new ScriptedSession(connection, service.steps, service.events, &connection);
		} else {
			new LiveSession(connection, service.engines, service.events, service.settings(), &connection);
		}
		while (!input.atEnd()) {
			const QByteArray line = input.line().toByteArray();
			if (line.startsWith('\1')) {
				emit connection.binaryReceived(line.sliced(1));
			} else {
				emit connection.textReceived(QString::fromUtf8(line));
			}
			QCoreApplication::processEvents();
		}
	}
	QCoreApplication::processEvents();
	return 0;
}

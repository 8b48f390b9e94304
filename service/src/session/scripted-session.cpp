// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/scripted-session.h"

#include "session/wire.h"

#include <QJsonDocument>

namespace {

/** Messages that no "expect" takes are forgotten beyond this number. */
constexpr qsizetype kMostRemembered = 1000;

template <class... Ts> struct Overloaded : Ts... {
	using Ts::operator()...;
};

} // namespace

ScriptedSession::ScriptedSession(Connection &connection_, const script::Steps &steps_, EventLog &events_,
				 QObject *parent)
	: QObject(parent), connection(connection_), steps(steps_), events(events_)
{
	connect(&connection, &Connection::textReceived, this, &ScriptedSession::onText);
	connect(&connection, &Connection::binaryReceived, this, &ScriptedSession::onBinary);
	timer.setSingleShot(true);
	connect(&timer, &QTimer::timeout, this, [this] {
		waited = true;
		proceed();
	});
	proceed();
}

void ScriptedSession::onText(const QString &text)
{
	const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
	received.append(message.value(QLatin1String("type")).toString());
	if (received.size() > kMostRemembered) {
		received.removeFirst();
	}
	proceed();
}

void ScriptedSession::onBinary(const QByteArray &frame)
{
	audioBytes += frame.size();
	proceed();
}

void ScriptedSession::proceed()
{
	while (next < steps.size() && perform(steps.at(next))) {
		++next;
		events.write("script_step", connection.number(), {{"done", next}});
	}
}

/** True when the step is done, false when it waits. */
bool ScriptedSession::perform(const script::Step &step)
{
	return std::visit(Overloaded{
				  [this](const script::Expect &expect) {
					  const qsizetype at = received.indexOf(expect.type);
					  received.remove(0, at + 1);
					  return at >= 0;
				  },
				  [this](const script::AfterMs &after) {
					  if (!waited && !timer.isActive()) {
						  timer.start(after.ms);
					  }
					  return std::exchange(waited, false);
				  },
				  [this](const script::AfterAudioBytes &after) { return audioBytes >= after.bytes; },
				  [this](const script::SendText &send) {
					  connection.sendText(send.text);
					  return true;
				  },
				  [this](const script::SendBinary &send) {
					  connection.sendBinary(send.frame);
					  return true;
				  },
				  [this](const script::SendTts &tts) {
					  sendTts(tts);
					  return true;
				  },
				  [this](const script::Close &close) {
					  connection.close(static_cast<QWebSocketProtocol::CloseCode>(close.code));
					  return true;
				  },
				  [this](const script::Drop &) {
					  // The socket may be in the middle of handing over a message.
					  QMetaObject::invokeMethod(&connection, &Connection::drop,
								    Qt::QueuedConnection);
					  return true;
				  },
			  },
			  step);
}

void ScriptedSession::sendTts(const script::SendTts &tts)
{
	if (tts.start) {
		connection.sendJson(messages::ttsStart(tts.language, tts.clipId, tts.sampleRate));
	}
	const QList<QByteArray> frames = taggedFrames(tts.language, tts.pcm, tts.frameBytes);
	for (const QByteArray &frame : frames) {
		connection.sendBinary(frame);
	}
	if (tts.end) {
		connection.sendJson(messages::ttsEnd(tts.language));
	}
}

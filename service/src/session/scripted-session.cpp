// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/scripted-session.h"

#include "session/wire.h"

#include <QJsonDocument>

namespace {

// Messages that no "expect" takes are forgotten beyond this number.
constexpr qsizetype kMostRemembered = 1000;

template <class... Ts> struct Overloaded : Ts... {
	using Ts::operator()...;
};

} // namespace

ScriptedSession::ScriptedSession(Connection &connection, const script::Steps &steps, EventLog &events, QObject *parent)
	: QObject(parent), m_connection(connection), m_steps(steps), m_events(events)
{
	connect(&connection, &Connection::textReceived, this, &ScriptedSession::onText);
	connect(&connection, &Connection::binaryReceived, this, &ScriptedSession::onBinary);
	m_timer.setSingleShot(true);
	connect(&m_timer, &QTimer::timeout, this, [this] {
		m_waited = true;
		proceed();
	});
	proceed();
}

void ScriptedSession::onText(const QString &text)
{
	const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
	m_received.append(message.value(QLatin1String("type")).toString());
	if (m_received.size() > kMostRemembered) {
		m_received.removeFirst();
	}
	proceed();
}

void ScriptedSession::onBinary(const QByteArray &frame)
{
	m_audioBytes += frame.size();
	proceed();
}

void ScriptedSession::proceed()
{
	while (m_next < m_steps.size() && perform(m_steps.at(m_next))) {
		++m_next;
		m_events.write("script_step", m_connection.number(), {{"done", m_next}});
	}
}

// True when the step is done, false when it waits.
bool ScriptedSession::perform(const script::Step &step)
{
	return std::visit(Overloaded{
				  [this](const script::Expect &expect) {
					  const qsizetype at = m_received.indexOf(expect.type);
					  m_received.remove(0, at + 1);
					  return at >= 0;
				  },
				  [this](const script::AfterMs &after) {
					  if (!m_waited && !m_timer.isActive()) {
						  m_timer.start(after.ms);
					  }
					  return std::exchange(m_waited, false);
				  },
				  [this](const script::AfterAudioBytes &after) { return m_audioBytes >= after.bytes; },
				  [this](const script::SendText &send) {
					  m_connection.sendText(send.text);
					  return true;
				  },
				  [this](const script::SendBinary &send) {
					  m_connection.sendBinary(send.frame);
					  return true;
				  },
				  [this](const script::SendTts &tts) {
					  sendTts(tts);
					  return true;
				  },
				  [this](const script::Close &close) {
					  m_connection.close(static_cast<QWebSocketProtocol::CloseCode>(close.code));
					  return true;
				  },
				  [this](const script::Drop &) {
					  // The socket may be in the middle of handing over a message.
					  QMetaObject::invokeMethod(&m_connection, &Connection::drop,
								    Qt::QueuedConnection);
					  return true;
				  },
			  },
			  step);
}

void ScriptedSession::sendTts(const script::SendTts &tts)
{
	if (tts.start) {
		m_connection.sendJson(messages::ttsStart(tts.language, tts.clipId, tts.sampleRate));
	}
	const QList<QByteArray> frames = taggedFrames(tts.language, tts.pcm, tts.frameBytes);
	for (const QByteArray &frame : frames) {
		m_connection.sendBinary(frame);
	}
	if (tts.end) {
		m_connection.sendJson(messages::ttsEnd(tts.language));
	}
}

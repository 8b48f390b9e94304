// SPDX-License-Identifier: GPL-2.0-or-later
#include "devtools-client.h"

#include "devtools-pipe.h"

#include <QJsonDocument>

DevtoolsClient::DevtoolsClient(DevtoolsPipe &devtoolsPipe) : pipe(devtoolsPipe) {}

void DevtoolsClient::call(const QString &session, const QString &method, const QJsonObject &parameters,
			  ReplyHandler handler)
{
	QJsonObject command{{"id", ++lastId}, {"method", method}, {"params", parameters}};
	if (!session.isEmpty()) {
		command["sessionId"] = session;
	}
	if (handler) {
		waiting.emplace(lastId, std::move(handler));
	}
	pipe.send(QJsonDocument(command).toJson(QJsonDocument::Compact));
}

void DevtoolsClient::listen(const QString &session, EventHandler handler)
{
	listeners[session] = std::move(handler);
}

void DevtoolsClient::stopListening(const QString &session)
{
	listeners.erase(session);
}

void DevtoolsClient::dispatch()
{
	while (const auto message = pipe.receive()) {
		dispatch(*message);
	}
}

void DevtoolsClient::dispatch(const QByteArray &message)
{
	const QJsonObject object = QJsonDocument::fromJson(message).object();
	if (object.contains("id")) {
		auto reply = waiting.extract(object["id"].toInt());
		if (!reply.empty()) {
			reply.mapped()(object["result"].toObject(), object["error"]["message"].toString());
		}
		return;
	}
	const auto listener = listeners.find(object["sessionId"].toString());
	if (listener != listeners.end()) {
		// A copy: the handler may stop listening.
		const EventHandler handler = listener->second;
		handler(object["method"].toString(), object["params"].toObject());
	}
}

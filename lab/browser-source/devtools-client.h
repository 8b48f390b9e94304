// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <functional>
#include <map>

class DevtoolsPipe;

/// Commands, replies and events of the Chrome DevTools Protocol, with several page sessions on one pipe ("flat" mode).
/// https://chromedevtools.github.io/devtools-protocol/
class DevtoolsClient {
public:
	/// `error` is empty on success.
	using ReplyHandler = std::function<void(const QJsonObject &result, const QString &error)>;
	using EventHandler = std::function<void(const QString &method, const QJsonObject &parameters)>;

	/// `devtoolsPipe` must outlive the client.
	explicit DevtoolsClient(DevtoolsPipe &devtoolsPipe);

	/// Sends a command to a page's session, or to the browser itself when `session` is empty.
	void call(const QString &session, const QString &method, const QJsonObject &parameters, ReplyHandler handler);
	/// Names who gets the events of a session.
	void listen(const QString &session, EventHandler handler);
	void stopListening(const QString &session);
	/// Hands every message received so far to its handler.
	void dispatch();

private:
	void dispatch(const QByteArray &message);

	DevtoolsPipe &pipe;
	int lastId = 0;
	std::map<int, ReplyHandler> waiting;
	std::map<QString, EventHandler> listeners;
};

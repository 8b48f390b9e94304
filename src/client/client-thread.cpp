// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/client-thread.h"

#include "client/ws-client.h"
#include "deployment.h"
#include "plugin-support.h"
#include "settings/settings.h"

#include <QThread>

#include <utility>

WSClient *ClientThread::make(QObject *parent)
{
	auto *const thread = new QThread(parent);
	thread->setObjectName(QStringLiteral("TA-WebSocket"));
	auto *client = new WSClient();
	client->moveToThread(thread);
	wsThread = thread;
	wsClient = client;
	return client;
}

void ClientThread::start()
{
	wsThread->start();
}

void ClientThread::stop()
{
	if (!wsThread) {
		return;
	}
	wsThread->quit();
	if (!wsThread->wait(kThreadStopDeadline)) {
		talvora_log(LOG_WARNING, "Talvora: WS thread did not stop in 5 s — detaching (leak to avoid UB)");
		wsThread->disconnect();
		// A running thread must not be deleted, not even with its parent, nor what lives on it.
		wsThread->setParent(nullptr);
		wsThread = nullptr;
		wsClient = nullptr;
		return;
	}
	delete std::exchange(wsThread, nullptr);
	delete wsClient.exchange(nullptr);
}

bool ClientThread::isRunning() const
{
	return wsThread && wsThread->isRunning();
}

WsState ClientThread::state() const
{
	const WSClient *client = wsClient;
	return client ? client->state() : WsState::Disconnected;
}

bool ClientThread::connectToServer(const Settings &chosen)
{
	return wsClient &&
	       QMetaObject::invokeMethod(
		       wsClient, "connectToServer", Qt::QueuedConnection, Q_ARG(QString, chosen.apiKey),
		       Q_ARG(QString, QString::fromUtf8(kServiceEndpoint)), Q_ARG(QString, chosen.sourceLanguage),
		       Q_ARG(QJsonArray, chosen.targetLanguagesJson()), Q_ARG(QString, chosen.captionMode));
}

void ClientThread::disconnectFromServer()
{
	if (wsClient) {
		QMetaObject::invokeMethod(wsClient, "disconnectFromServer", Qt::QueuedConnection);
	}
}

void ClientThread::updateConfig(const Settings &chosen)
{
	if (wsClient) {
		QMetaObject::invokeMethod(wsClient, "updateConfig", Qt::QueuedConnection,
					  Q_ARG(QJsonArray, chosen.targetLanguagesJson()),
					  Q_ARG(QString, chosen.captionMode));
	}
}

void ClientThread::enqueueAudio(const int16_t *samples, size_t count)
{
	if (WSClient *client = wsClient.load(std::memory_order_acquire)) {
		client->enqueueAudio(samples, count);
	}
}

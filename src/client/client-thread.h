// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "client/ws-state.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

class QObject;
class QThread;
class WSClient;
struct Settings;

/**
 * The service's client and the thread "TA-WebSocket" that it lives on. What the client is asked for is queued on that
 * thread; without a client nothing happens.
 *
 * User-interface thread, except state(), callable from any thread, and enqueueAudio(), called on OBS's audio thread.
 */
class ClientThread {
public:
	/** How long the thread may take to end, ms. */
	static constexpr unsigned long kThreadStopDeadline = 5000;

	/**
	 * Makes the client and its thread, a child of `parent`. Nothing runs before start(), so that all of the
	 * client's signals can be connected first.
	 */
	WSClient *make(QObject *parent);
	void start();
	/**
	 * Ends the thread and deletes both. A thread that does not end in time cannot be deleted: it is left to itself
	 * together with the client, and that is logged.
	 */
	void stop();

	bool exists() const { return wsClient != nullptr; }
	bool isRunning() const;
	/** Of the connection; `Disconnected` without a client. */
	WsState state() const;

	/** Opens a session with the endpoint this build was made for. False when Qt did not queue the call. */
	bool connectToServer(const Settings &chosen);
	void disconnectFromServer();
	/** Hands over target languages and caption mode, see WSClient::updateConfig(). */
	void updateConfig(const Settings &chosen);
	/** See WSClient::enqueueAudio(). */
	void enqueueAudio(const int16_t *samples, size_t count);

private:
	friend class AudioCaptureTest;
	friend class ClientThreadTest;
	friend class TalvoraPluginTest;

	std::atomic<WSClient *> wsClient{nullptr};
	QThread *wsThread = nullptr;
};

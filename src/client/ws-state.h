// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QMetaType>

/** State of the connection to the translation service. The values are shown in logs and read by the dock. */
enum class WsState : int {
	Disconnected = 0,
	/** A connection has been asked for and the handshake has not ended. */
	Connecting = 1,
	/** The WebSocket is up and the credential has been sent. */
	Connected = 2,
	/** The service has accepted the credential; audio flows. */
	Authenticated = 3,
	/** The connection was lost and the next attempt is waiting for its time. */
	Reconnecting = 4,
	/** Reserved: a disconnect in this state counts as wanted. */
	Disconnecting = 5,
};

Q_DECLARE_METATYPE(WsState)

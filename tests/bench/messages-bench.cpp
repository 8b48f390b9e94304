// SPDX-License-Identifier: GPL-2.0-or-later
// A "caption" message from its text to the queued caption and the CSS that shows it.
#include "captions/caption-manager.h"
#include "client/ws-client.h"

#include "obs-session.h"
#include "timing.h"

#include <QJsonDocument>
#include <QWebSocket>

namespace {

const QString kMessage = QStringLiteral(
	"{\"type\":\"caption\",\"language\":\"es\",\"text\":\"Buenas tardes a todos, y gracias por venir hoy aquí.\","
	"\"duration\":2.6,\"clipId\":41}");

void messagesOurs(benchmark::State &state)
{
	startObs();
	WSClient client;
	CaptionManager captions;
	captions.setLanguages({QStringLiteral("es")}, {{QStringLiteral("es"), QStringLiteral("Spanish")}});
	const auto queue = [&](const QString &language, const QString &text, double duration, int clipId) {
		captions.onCaption(language, text, duration, clipId, true);
	};
	QObject::connect(&client, &WSClient::captionUpdated, &captions, queue);
	auto *const socket = client.findChild<QWebSocket *>();
	const auto receive = [socket](const QString &message) { Q_EMIT socket->textMessageReceived(message); };
	// From now on it is the text that is shown.
	receive(kMessage);
	captions.onClipStarted(QStringLiteral("es"), 41);
	for (auto _ : state) {
		receive(kMessage);
		benchmark::DoNotOptimize(captions.generateCss(QStringLiteral("es")).toUtf8());
	}
	state.SetItemsProcessed(state.iterations());
}
BENCHMARK(messagesOurs)->Name("messages/ours");

void messagesParse(benchmark::State &state)
{
	const QByteArray message = kMessage.toUtf8();
	for (auto _ : state) {
		benchmark::DoNotOptimize(QJsonDocument::fromJson(message));
	}
	state.SetItemsProcessed(state.iterations());
}
BENCHMARK(messagesParse)->Name("messages/parse");

} // namespace

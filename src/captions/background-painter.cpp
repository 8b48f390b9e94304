// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/background-painter.h"

#include <QThreadPool>

#include <mutex>
#include <utility>

namespace {

struct Order {
	QByteArray css;
	QSize view;

	bool operator==(const Order &) const = default;
};

BackgroundPainter::Result paint(const Order &order)
{
	if (order.view.isEmpty()) {
		return {};
	}
	const std::optional<CaptionSheet> sheet = readCaptionSheet(QString::fromUtf8(order.css));
	if (!sheet) {
		return {{}, true};
	}
	return {paintCaption(*sheet, order.view), false};
}

} // namespace

/** What the painter shares with the task that paints for it. */
struct BackgroundPainter::Desk {
	std::mutex lock;
	/** The one that came last, and whether it is still to be painted. */
	Order newest;
	bool isWaiting = false;
	std::optional<Result> result;
	/** A task is there that looks for orders until there are none. */
	bool hasTask = false;
	bool abandoned = false;

	void work()
	{
		while (const std::optional<Order> next = takeOrder()) {
			std::optional<Result> done = paint(*next);
			const std::lock_guard guard(lock);
			std::swap(result, done);
		}
	}

private:
	std::optional<Order> takeOrder()
	{
		const std::lock_guard guard(lock);
		hasTask = isWaiting && !abandoned;
		isWaiting = false;
		return hasTask ? std::make_optional(newest) : std::nullopt;
	}
};

BackgroundPainter::BackgroundPainter(std::shared_ptr<QThreadPool> sharedPool)
	: pool(std::move(sharedPool)), desk(std::make_shared<Desk>())
{
}

BackgroundPainter::~BackgroundPainter()
{
	const std::lock_guard guard(desk->lock);
	desk->abandoned = true;
}

void BackgroundPainter::order(QByteArray css, QSize view)
{
	const std::lock_guard guard(desk->lock);
	Order order{std::move(css), view};
	if (order == desk->newest) {
		return;
	}
	desk->newest = std::move(order);
	desk->isWaiting = true;
	if (!desk->hasTask) {
		desk->hasTask = true;
		pool->start([desk = desk] { desk->work(); });
	}
}

std::optional<BackgroundPainter::Result> BackgroundPainter::take()
{
	const std::lock_guard guard(desk->lock);
	return std::exchange(desk->result, std::nullopt);
}

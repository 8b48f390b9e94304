// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "captions/caption-painter.h"

#include <QByteArray>
#include <QSize>

#include <memory>
#include <optional>

class QThreadPool;

/**
 * Paints the captions of one source, one after the other, on a thread of a pool. Of the orders that come while one is
 * being painted only the last is carried out. Any thread; nobody waits for the painting.
 */
class BackgroundPainter {
public:
	/** What became of an order. */
	struct Result {
		CaptionPicture picture;
		/** The CSS is none that captionCss() writes; the picture is empty then. */
		bool isForeign = false;
	};

	/** @param pool shared with whoever else paints */
	explicit BackgroundPainter(std::shared_ptr<QThreadPool> pool);
	/** What is being painted is dropped when it is done; the pool waits for it, not the caller. */
	~BackgroundPainter();
	BackgroundPainter(const BackgroundPainter &) = delete;
	BackgroundPainter &operator=(const BackgroundPainter &) = delete;

	/**
	 * Has the caption painted, unless the last order was the same.
	 * @param css UTF-8
	 * @param view pixels; without any, the result is empty whatever the CSS, and so it is before the first order
	 */
	void order(QByteArray css, QSize view);

	/** The newest result, once. */
	std::optional<Result> take();

private:
	struct Desk;

	const std::shared_ptr<QThreadPool> pool;
	const std::shared_ptr<Desk> desk;
};

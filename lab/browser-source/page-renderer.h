// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "picture.h"

#include <QJsonObject>
#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class DevtoolsClient;

/// Renders one source's pages in a target (a tab) of its own: one request at a time, and of those that come meanwhile
/// only the newest. Belongs to the browser's thread.
class PageRenderer {
public:
	using Clock = std::chrono::steady_clock;

	/// `onPicture` is called with every finished picture.
	explicit PageRenderer(std::function<void(Picture)> onPicture);
	~PageRenderer();
	PageRenderer(const PageRenderer &) = delete;
	PageRenderer &operator=(const PageRenderer &) = delete;

	/// Asks for a page; replaces a request that has not been begun.
	void request(PageRequest request);
	/// A browser is there. `devtools` must stay until disconnect() or the destructor.
	void connect(DevtoolsClient &devtools);
	/// The browser is gone, and the target with it. A request under way is taken up again with the next browser
	/// once; the second time it is given up.
	void disconnect();

	/// By when the browser must have answered; nothing when no answer is due.
	std::optional<Clock::time_point> deadline() const;
	/// True when the page's process has crashed: only a new browser helps.
	bool crashed() const;

private:
	using Step = void (PageRenderer::*)(const QJsonObject &result);

	// The way to a target that can be rendered.
	void openTarget();
	void attach(const QJsonObject &result);
	void enablePageEvents(const QJsonObject &result);
	void enableLifecycleEvents(const QJsonObject &result);
	void makeTransparent(const QJsonObject &result);
	void beReady(const QJsonObject &result);

	// The way of one request.
	void renderNext();
	void navigate(const QJsonObject &result);
	void awaitLoad(const QJsonObject &result);
	void addStyle();
	void capture(const QJsonObject &result);
	void deliver(const QJsonObject &result);

	void call(const QString &method, const QJsonObject &parameters, Step next);
	void onEvent(const QString &method, const QJsonObject &parameters);
	void giveUp(const QString &reason);
	void forgetTarget();

	std::function<void(Picture)> onPicture;
	DevtoolsClient *client = nullptr;
	/// Replies meant for an earlier target or for a renderer that is gone hold a weak pointer to it and are
	/// ignored.
	std::shared_ptr<bool> life;
	QString target;
	QString session;
	bool ready = false;
	bool pageCrashed = false;
	std::optional<Clock::time_point> answerDue;
	std::unique_ptr<PageRequest> next;
	std::unique_ptr<PageRequest> current;
	int attempts = 0;      ///< browsers that went away under the current request
	QString awaitedLoader; ///< the navigation whose load is awaited
	QString loadedLoader;  ///< the navigation that loaded last
};

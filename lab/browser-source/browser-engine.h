// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "picture.h"

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

class DevtoolsClient;
class DevtoolsPipe;
class PageRenderer;

/// One browser for all sources, and the thread that speaks to it. It is started with the first request, and started
/// again when it ends or does not answer. Public functions may be called on any thread and never wait for the browser,
/// but for the destructor, which ends it.
class BrowserEngine {
public:
	BrowserEngine();
	~BrowserEngine();
	BrowserEngine(const BrowserEngine &) = delete;
	BrowserEngine &operator=(const BrowserEngine &) = delete;

	/// Asks for a picture to be put into `slot`. Of requests that follow each other quickly only the last is
	/// rendered.
	void request(const std::shared_ptr<PictureSlot> &slot, PageRequest request);
	/// Nothing is rendered for `slot` any more.
	void remove(const std::shared_ptr<PictureSlot> &slot);

private:
	using Clock = std::chrono::steady_clock;
	/// What is asked for each slot; nothing means that it goes.
	using Inbox = std::map<std::shared_ptr<PictureSlot>, std::optional<PageRequest>>;

	void post(const std::shared_ptr<PictureSlot> &slot, std::optional<PageRequest> request);
	void wake() const;

	// All below on the engine's thread.
	void run();
	/// False when the thread is to end.
	bool takeInbox();
	void startBrowser();
	void endBrowser(const char *reason);
	void serveBrowser();
	void sleep() const;
	int millisecondsToNextDeadline() const;

	int wakeup; ///< event counter that interrupts the thread's wait
	std::mutex mutex;
	Inbox inbox;
	bool ending = false;

	std::map<std::shared_ptr<PictureSlot>, std::unique_ptr<PageRenderer>> pages;
	std::unique_ptr<DevtoolsPipe> pipe;
	std::unique_ptr<DevtoolsClient> client;
	bool programMissing = false;
	int failures = 0; ///< browsers that ended since the last picture
	Clock::time_point startNotBefore;

	std::thread thread;
};

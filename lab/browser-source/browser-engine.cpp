// SPDX-License-Identifier: GPL-2.0-or-later
#include "browser-engine.h"

#include "devtools-client.h"
#include "devtools-pipe.h"
#include "page-renderer.h"

#include <util/base.h>
#include <util/threading.h>

#include <algorithm>
#include <csignal>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

static constexpr int maxRestartSeconds = 60;

BrowserEngine::BrowserEngine() : wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), thread([this] { run(); }) {}

BrowserEngine::~BrowserEngine()
{
	{
		const std::lock_guard lock(mutex);
		ending = true;
	}
	wake();
	thread.join();
	close(wakeup);
}

void BrowserEngine::request(const std::shared_ptr<PictureSlot> &slot, PageRequest request)
{
	post(slot, std::move(request));
}

void BrowserEngine::remove(const std::shared_ptr<PictureSlot> &slot)
{
	post(slot, std::nullopt);
}

void BrowserEngine::post(const std::shared_ptr<PictureSlot> &slot, std::optional<PageRequest> request)
{
	{
		const std::lock_guard lock(mutex);
		inbox[slot] = std::move(request);
	}
	wake();
}

void BrowserEngine::wake() const
{
	eventfd_write(wakeup, 1);
}

void BrowserEngine::run()
{
	os_set_thread_name("talvora-lab-browser");
	// A browser that ends while it is written to must not end OBS.
	sigset_t pipeSignal;
	sigemptyset(&pipeSignal);
	sigaddset(&pipeSignal, SIGPIPE);
	pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);

	while (takeInbox()) {
		if (!pipe && !pages.empty() && !programMissing && Clock::now() >= startNotBefore) {
			startBrowser();
		}
		if (pipe) {
			serveBrowser();
		} else {
			sleep();
		}
	}

	pages.clear();
	client.reset();
	pipe.reset();
}

bool BrowserEngine::takeInbox()
{
	Inbox news;
	{
		const std::lock_guard lock(mutex);
		if (ending) {
			return false;
		}
		news.swap(inbox);
	}
	for (auto &[slot, wanted] : news) {
		if (!wanted) {
			pages.erase(slot);
			continue;
		}
		std::unique_ptr<PageRenderer> &page = pages[slot];
		if (!page) {
			page = std::make_unique<PageRenderer>([this, target = slot.get()](Picture picture) {
				failures = 0;
				target->put(std::move(picture));
			});
			if (client) {
				page->connect(*client);
			}
		}
		page->request(std::move(*wanted));
	}
	return true;
}

void BrowserEngine::startBrowser()
{
	const QString program = DevtoolsPipe::program();
	if (program.isEmpty()) {
		programMissing = true;
		blog(LOG_ERROR,
		     "[talvora-lab-browser] chromium-headless-shell is not installed: nothing will be shown");
		return;
	}
	pipe = std::make_unique<DevtoolsPipe>(program);
	client = std::make_unique<DevtoolsClient>(*pipe);
	for (const auto &[slot, page] : pages) {
		page->connect(*client);
	}
}

void BrowserEngine::endBrowser(const char *reason)
{
	for (const auto &[slot, page] : pages) {
		page->disconnect();
	}
	client.reset();
	pipe.reset();

	const int delay = failures < 6 ? 1 << failures : maxRestartSeconds;
	++failures;
	startNotBefore = Clock::now() + std::chrono::seconds(delay);
	blog(LOG_ERROR, "[talvora-lab-browser] %s: starting it again in %d s", reason, delay);
}

void BrowserEngine::serveBrowser()
{
	const bool alive = pipe->exchange(wakeup, millisecondsToNextDeadline());
	eventfd_t count = 0;
	eventfd_read(wakeup, &count);
	client->dispatch();

	const Clock::time_point now = Clock::now();
	const auto isLate = [now](const auto &entry) {
		return entry.second->deadline() && *entry.second->deadline() <= now;
	};
	if (!alive) {
		endBrowser("the browser has ended");
	} else if (std::ranges::any_of(pages, [](const auto &entry) { return entry.second->crashed(); })) {
		endBrowser("the browser's page has crashed");
	} else if (std::ranges::any_of(pages, isLate)) {
		endBrowser("the browser does not answer");
	}
}

void BrowserEngine::sleep() const
{
	int timeoutMs = -1;
	if (!pages.empty() && !programMissing) {
		const auto left = std::chrono::ceil<std::chrono::milliseconds>(startNotBefore - Clock::now());
		timeoutMs = static_cast<int>(std::max<int64_t>(left.count(), 0));
	}
	pollfd news = {wakeup, POLLIN, 0};
	poll(&news, 1, timeoutMs);
	eventfd_t count = 0;
	eventfd_read(wakeup, &count);
}

int BrowserEngine::millisecondsToNextDeadline() const
{
	std::optional<Clock::time_point> first;
	for (const auto &[slot, page] : pages) {
		const auto due = page->deadline();
		if (due && (!first || *due < *first)) {
			first = due;
		}
	}
	if (!first) {
		return -1;
	}
	const auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now());
	return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

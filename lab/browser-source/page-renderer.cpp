// SPDX-License-Identifier: GPL-2.0-or-later
#include "page-renderer.h"

#include "devtools-client.h"
#include "png-image.h"

#include <util/base.h>

#include <QJsonArray>
#include <QJsonDocument>

#include <utility>

static constexpr std::chrono::seconds answerLimit(15);
static constexpr int maxAttempts = 2;

PageRenderer::PageRenderer(std::function<void(Picture)> pictureHandler) : onPicture(std::move(pictureHandler)) {}

PageRenderer::~PageRenderer()
{
	if (client && !target.isEmpty()) {
		client->call({}, "Target.closeTarget", {{"targetId", target}}, {});
		client->stopListening(session);
	}
}

void PageRenderer::request(PageRequest request)
{
	next = std::make_unique<PageRequest>(std::move(request));
	renderNext();
}

void PageRenderer::connect(DevtoolsClient &devtools)
{
	client = &devtools;
	renderNext();
}

void PageRenderer::disconnect()
{
	client = nullptr;
	forgetTarget();
	if (!current) {
		return;
	}
	if (!next && ++attempts == maxAttempts) {
		giveUp("the browser ended or did not answer");
	} else if (!next) {
		next = std::move(current);
	} else {
		attempts = 0;
		current.reset();
	}
}

std::optional<PageRenderer::Clock::time_point> PageRenderer::deadline() const
{
	return answerDue;
}

bool PageRenderer::crashed() const
{
	return pageCrashed;
}

void PageRenderer::openTarget()
{
	forgetTarget();
	life = std::make_shared<bool>();
	answerDue = Clock::now() + answerLimit;
	DevtoolsClient *const devtools = client;
	// Not by call(): a target that comes into being after its renderer has gone must be closed again.
	client->call({}, "Target.createTarget", {{"url", "about:blank"}},
		     [this, devtools, alive = std::weak_ptr(life)](const QJsonObject &result, const QString &error) {
			     if (alive.expired()) {
				     devtools->call({}, "Target.closeTarget", {{"targetId", result["targetId"]}}, {});
			     } else if (!error.isEmpty()) {
				     giveUp(error);
			     } else {
				     attach(result);
			     }
		     });
}

void PageRenderer::attach(const QJsonObject &result)
{
	target = result["targetId"].toString();
	call("Target.attachToTarget", {{"targetId", target}, {"flatten", true}}, &PageRenderer::enablePageEvents);
}

void PageRenderer::enablePageEvents(const QJsonObject &result)
{
	session = result["sessionId"].toString();
	client->listen(session,
		       [this](const QString &method, const QJsonObject &parameters) { onEvent(method, parameters); });
	call("Page.enable", {}, &PageRenderer::enableLifecycleEvents);
}

void PageRenderer::enableLifecycleEvents(const QJsonObject &)
{
	// These say which navigation has loaded; Page.loadEventFired does not.
	call("Page.setLifecycleEventsEnabled", {{"enabled", true}}, &PageRenderer::makeTransparent);
}

void PageRenderer::makeTransparent(const QJsonObject &)
{
	const QJsonObject clear{{"r", 0}, {"g", 0}, {"b", 0}, {"a", 0}};
	call("Emulation.setDefaultBackgroundColorOverride", {{"color", clear}}, &PageRenderer::beReady);
}

void PageRenderer::beReady(const QJsonObject &)
{
	answerDue.reset();
	ready = true;
	renderNext();
}

void PageRenderer::renderNext()
{
	if (!client || !next || current || answerDue) {
		return;
	}
	if (!ready) {
		openTarget();
		return;
	}
	current = std::move(next);
	call("Emulation.setDeviceMetricsOverride",
	     {{"width", current->width}, {"height", current->height}, {"deviceScaleFactor", 1}, {"mobile", false}},
	     &PageRenderer::navigate);
}

void PageRenderer::navigate(const QJsonObject &)
{
	awaitedLoader.clear();
	call("Page.navigate", {{"url", current->url}}, &PageRenderer::awaitLoad);
}

void PageRenderer::awaitLoad(const QJsonObject &result)
{
	const QString failure = result["errorText"].toString();
	if (!failure.isEmpty()) {
		giveUp(QStringLiteral("%1: %2").arg(current->url, failure));
		return;
	}
	awaitedLoader = result["loaderId"].toString();
	if (awaitedLoader == loadedLoader) {
		addStyle();
	}
}

void PageRenderer::addStyle()
{
	awaitedLoader.clear();
	// A JSON text is also a JavaScript expression, so no character of the css can end the string it stands in.
	const QByteArray css = QJsonDocument(QJsonArray{current->css}).toJson(QJsonDocument::Compact);
	const QString script = QStringLiteral("const style = document.createElement('style');"
					      "style.textContent = %1[0];"
					      "(document.head ?? document.documentElement).append(style);")
				       .arg(QString::fromUtf8(css));
	call("Runtime.evaluate", {{"expression", "{" + script + "}"}}, &PageRenderer::capture);
}

void PageRenderer::capture(const QJsonObject &)
{
	call("Page.captureScreenshot", {{"format", "png"}, {"optimizeForSpeed", true}}, &PageRenderer::deliver);
}

void PageRenderer::deliver(const QJsonObject &result)
{
	auto image = decodePng(QByteArray::fromBase64(result["data"].toString().toLatin1()));
	if (!image) {
		giveUp("the browser's picture could not be read");
		return;
	}
	const std::unique_ptr<PageRequest> done = std::move(current);
	answerDue.reset();
	attempts = 0;
	onPicture({std::move(*image), done->generation, done->requestedAt});
	renderNext();
}

void PageRenderer::call(const QString &method, const QJsonObject &parameters, Step step)
{
	answerDue = Clock::now() + answerLimit;
	client->call(
		session, method, parameters,
		[this, method, step, alive = std::weak_ptr(life)](const QJsonObject &result, const QString &error) {
			if (alive.expired()) {
				return;
			}
			if (!error.isEmpty()) {
				giveUp(QStringLiteral("%1: %2").arg(method, error));
				return;
			}
			(this->*step)(result);
		});
}

void PageRenderer::onEvent(const QString &method, const QJsonObject &parameters)
{
	if (method == "Inspector.targetCrashed") {
		pageCrashed = true;
	} else if (method == "Page.lifecycleEvent" && parameters["name"] == "load" && parameters["frameId"] == target) {
		// The page's own frame bears the name of its target; frames within it are waited for by its load.
		loadedLoader = parameters["loaderId"].toString();
		if (!awaitedLoader.isEmpty() && loadedLoader == awaitedLoader) {
			addStyle();
		}
	}
}

void PageRenderer::giveUp(const QString &reason)
{
	// Before there is a target the request has not been begun yet.
	if (!current) {
		current = std::move(next);
	}
	if (!ready) {
		forgetTarget();
	}
	if (current) {
		blog(LOG_ERROR, "[talvora-lab-browser] '%s': no picture: %s", qUtf8Printable(current->sourceName),
		     qUtf8Printable(reason));
	}
	current.reset();
	answerDue.reset();
	attempts = 0;
	renderNext();
}

void PageRenderer::forgetTarget()
{
	life.reset();
	target.clear();
	session.clear();
	ready = false;
	pageCrashed = false;
	answerDue.reset();
	awaitedLoader.clear();
	loadedLoader.clear();
}

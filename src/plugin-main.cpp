// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/audio-filter.h"
#include "audio/dubbed-source.h"
#include "captions/drawn-source.h"
#include "core/talvora-plugin.h"
#include "dock/plugin-dock.h"
#include "obs/browser-source.h"
#include "plugin-support.h"

#include <QSslConfiguration>

#include <obs-frontend-api.h>
#include <obs-module.h>

#include <future>
#include <system_error>

OBS_DECLARE_MODULE()
OBS_MODULE_USE_DEFAULT_LOCALE(PLUGIN_NAME, "en-US")
OBS_MODULE_AUTHOR(PLUGIN_AUTHOR)

static void on_frontend_event(enum obs_frontend_event event, void *);

static bool listening = false;

/**
 * Loads the system's CA certificates on a thread of its own while OBS starts; otherwise the first TLS use blocks OBS's
 * window (30 ms measured).
 */
static std::future<void> tls_start;

static void start_reading_certificates()
{
	try {
		tls_start = std::async(std::launch::async, [] { QSslConfiguration::defaultConfiguration(); });
	} catch (const std::system_error &failure) {
		talvora_log(LOG_WARNING, "Talvora: certificates are read at the first connection: %s", failure.what());
	}
}

/** wait() and not get(): an exception of the thread is not thrown into OBS. */
static void wait_for_certificates()
{
	if (tls_start.valid()) {
		tls_start.wait();
	}
}

/** Draws the captions itself where OBS has no browser source. */
static void register_drawn_source_if_needed()
{
	if (!obs_source_get_display_name(kBrowserSourceId)) {
		registerDrawnSource();
		talvora_log(LOG_INFO, "Talvora: this OBS has no browser source, so Talvora draws the captions itself");
	}
}

static void listen_to_frontend()
{
	obs_frontend_add_event_callback(on_frontend_event, nullptr);
	listening = true;
}

/** At most once: after the exit event OBS has no front-end any more and logs an error for each call of its functions.
 */
static void stop_listening_to_frontend()
{
	if (listening) {
		listening = false;
		obs_frontend_remove_event_callback(on_frontend_event, nullptr);
	}
}

static void on_frontend_event(enum obs_frontend_event event, void *)
{
	switch (event) {
	case OBS_FRONTEND_EVENT_FINISHED_LOADING:
		TalvoraPlugin::instance()->initialize();
		talvora_log(LOG_INFO, "Talvora plugin initialized");
		break;
	case OBS_FRONTEND_EVENT_EXIT:
		TalvoraPlugin::instance()->shutdown();
		stop_listening_to_frontend();
		break;
	default:
		break;
	}
}

MODULE_EXPORT const char *obs_module_name(void)
{
	return "Talvora";
}

MODULE_EXPORT const char *obs_module_description(void)
{
	return "Talvora — real-time AI dubbing and captions for OBS";
}

bool obs_module_load(void)
{
	talvora_log(LOG_INFO, "Loading Talvora OBS plugin v%s", PLUGIN_VERSION);
	TalvoraPlugin::instance()->setDockFactory(createPluginDock);
	obs_register_source(audio_capture_filter_info());
	obs_register_source(dubbed_source_info());
	// A type that is registered later belongs to no module, and OBS 32 shows its sources in red.
	if (!isBrowserSourceYetToCome(obs_get_module_binary_path(obs_current_module()))) {
		register_drawn_source_if_needed();
	}
	listen_to_frontend();
	start_reading_certificates();
	return true;
}

void obs_module_post_load(void)
{
	// OBS's own may have failed to load.
	register_drawn_source_if_needed();
}

void obs_module_unload(void)
{
	stop_listening_to_frontend();
	TalvoraPlugin::instance()->shutdown();
	wait_for_certificates();
	releaseDrawnSource();
	talvora_log(LOG_INFO, "Talvora OBS plugin unloaded");
}

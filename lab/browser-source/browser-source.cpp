// SPDX-License-Identifier: GPL-2.0-or-later
#include "browser-source.h"

#include "browser-engine.h"
#include "picture.h"

#include <graphics/graphics.h>
#include <obs-module.h>

#include <QUrl>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>

static constexpr int maxSide = 8192;

namespace {

std::mutex engineMutex;
std::shared_ptr<BrowserEngine> sharedEngine;

std::shared_ptr<BrowserEngine> engineForSource()
{
	const std::lock_guard lock(engineMutex);
	if (!sharedEngine) {
		sharedEngine = std::make_shared<BrowserEngine>();
	}
	return sharedEngine;
}

/// True when an old picture may stay until the new one is there, unlike in OBS's own browser source.
bool isSeamless()
{
	return qEnvironmentVariable("TALVORA_LAB_BROWSER") == "seamless";
}

/// The page's address, empty when it is none that is shown here: only local files are.
QString pageUrl(obs_data_t *settings)
{
	const bool isLocalFile = obs_data_get_bool(settings, "is_local_file");
	const QString text = QString::fromUtf8(obs_data_get_string(settings, isLocalFile ? "local_file" : "url"));
	if (text.isEmpty()) {
		return QStringLiteral("about:blank");
	}
	const QUrl url = isLocalFile ? QUrl::fromLocalFile(text) : QUrl(text);
	return url.isLocalFile() ? url.toString(QUrl::FullyEncoded) : QString();
}

int side(obs_data_t *settings, const char *name)
{
	return static_cast<int>(std::clamp<long long>(obs_data_get_int(settings, name), 1, maxSide));
}

/// One source in OBS. Like OBS's own, it makes its page anew, and shows nothing meanwhile, when anything but the size
/// changes; an update that changes nothing has no effect.
class BrowserSource {
public:
	BrowserSource(obs_data_t *settings, obs_source_t *obsSource);
	~BrowserSource();
	BrowserSource(const BrowserSource &) = delete;
	BrowserSource &operator=(const BrowserSource &) = delete;

	/// OBS calls it in the graphics thread, before the frame is drawn.
	void update(obs_data_t *settings);
	/// Makes the page anew although the settings are the same, because its file has changed.
	void refresh();
	/// Graphics thread, once per frame.
	void tick();
	/// Graphics thread, in the graphics context.
	void render() const;
	uint32_t width() const { return currentWidth; }
	uint32_t height() const { return currentHeight; }

private:
	void requestPage(bool dropPicture);
	void upload(const Picture &picture);
	void dropTexture();

	obs_source_t *const source; ///< owns this object
	const std::shared_ptr<BrowserEngine> engine = engineForSource();
	const std::shared_ptr<PictureSlot> slot = std::make_shared<PictureSlot>();
	const bool seamless = isSeamless();

	std::mutex mutex; ///< over `wanted`: settings may be changed and refreshed from different threads
	PageRequest wanted;
	std::atomic<uint64_t> oldestDrawable = 0; ///< generation
	std::atomic<uint32_t> currentWidth = 0;
	std::atomic<uint32_t> currentHeight = 0;

	// Graphics thread only.
	gs_texture_t *texture = nullptr;
	uint64_t textureGeneration = 0;
};

BrowserSource::BrowserSource(obs_data_t *settings, obs_source_t *obsSource) : source(obsSource)
{
	update(settings);
}

BrowserSource::~BrowserSource()
{
	engine->remove(slot);
	dropTexture();
}

void BrowserSource::update(obs_data_t *settings)
{
	const QString url = pageUrl(settings);
	const QString css = QString::fromUtf8(obs_data_get_string(settings, "css"));
	const int width = side(settings, "width");
	const int height = side(settings, "height");

	const std::lock_guard lock(mutex);
	const bool isSamePage = wanted.generation > 0 && url == wanted.url && css == wanted.css;
	if (isSamePage && width == wanted.width && height == wanted.height) {
		return;
	}
	wanted.url = url;
	wanted.css = css;
	wanted.width = width;
	wanted.height = height;
	currentWidth = static_cast<uint32_t>(width);
	currentHeight = static_cast<uint32_t>(height);
	requestPage(!isSamePage);
}

void BrowserSource::refresh()
{
	const std::lock_guard lock(mutex);
	requestPage(true);
}

void BrowserSource::requestPage(bool dropPicture)
{
	++wanted.generation;
	wanted.requestedAt = std::chrono::steady_clock::now();
	wanted.sourceName = QString::fromUtf8(obs_source_get_name(source));
	if (dropPicture && !seamless) {
		oldestDrawable = wanted.generation;
	}
	if (wanted.url.isEmpty()) {
		blog(LOG_WARNING, "[talvora-lab-browser] '%s': only local files are shown",
		     qUtf8Printable(wanted.sourceName));
		oldestDrawable = wanted.generation;
		engine->remove(slot);
		return;
	}
	engine->request(slot, wanted);
}

void BrowserSource::tick()
{
	if (const auto picture = slot->take(); picture && picture->generation >= oldestDrawable) {
		upload(*picture);
	}
	if (texture && textureGeneration < oldestDrawable) {
		dropTexture();
	}
}

void BrowserSource::upload(const Picture &picture)
{
	const uint8_t *rows = picture.image.bgra.data();
	obs_enter_graphics();
	gs_texture_destroy(texture);
	texture = gs_texture_create(picture.image.width, picture.image.height, GS_BGRA, 1, &rows, 0);
	obs_leave_graphics();
	textureGeneration = picture.generation;

	const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - picture.requestedAt;
	blog(LOG_INFO, "[talvora-lab-browser] '%s': shown after %.0f ms", obs_source_get_name(source), taken.count());
}

void BrowserSource::dropTexture()
{
	obs_enter_graphics();
	gs_texture_destroy(texture);
	obs_leave_graphics();
	texture = nullptr;
}

void BrowserSource::render() const
{
	if (!texture || textureGeneration < oldestDrawable) {
		return;
	}
	gs_effect_t *const effect = obs_get_base_effect(OBS_EFFECT_DEFAULT);
	const bool wasSrgb = gs_framebuffer_srgb_enabled();
	gs_enable_framebuffer_srgb(true);
	gs_blend_state_push();
	gs_blend_function(GS_BLEND_ONE, GS_BLEND_INVSRCALPHA);

	gs_effect_set_texture_srgb(gs_effect_get_param_by_name(effect, "image"), texture);
	while (gs_effect_loop(effect, "Draw")) {
		gs_draw_sprite(texture, 0, 0, 0);
	}

	gs_blend_state_pop();
	gs_enable_framebuffer_srgb(wasSrgb);
}

/// OBS's own defaults, also for settings without a meaning here, so that what is stored reads the same.
void setDefaults(obs_data_t *settings)
{
	obs_data_set_default_string(settings, "url", "https://obsproject.com/browser-source");
	obs_data_set_default_int(settings, "width", 800);
	obs_data_set_default_int(settings, "height", 600);
	obs_data_set_default_int(settings, "fps", 30);
	obs_data_set_default_bool(settings, "fps_custom", false);
	obs_data_set_default_bool(settings, "shutdown", false);
	obs_data_set_default_bool(settings, "restart_when_active", false);
	obs_data_set_default_int(settings, "webpage_control_level", 1);
	obs_data_set_default_string(settings, "css",
				    "body { background-color: rgba(0, 0, 0, 0); margin: 0px auto; overflow: hidden; }");
	obs_data_set_default_bool(settings, "reroute_audio", false);
}

bool refreshClicked(obs_properties_t *, obs_property_t *, void *data)
{
	static_cast<BrowserSource *>(data)->refresh();
	return false;
}

obs_properties_t *properties(void *data)
{
	obs_properties_t *const list = obs_properties_create();
	obs_properties_add_bool(list, "is_local_file", "Local file");
	obs_properties_add_path(list, "local_file", "Local file", OBS_PATH_FILE, "*.*", nullptr);
	obs_properties_add_text(list, "url", "URL (file: only)", OBS_TEXT_DEFAULT);
	obs_properties_add_int(list, "width", "Width", 1, maxSide, 1);
	obs_properties_add_int(list, "height", "Height", 1, maxSide, 1);
	obs_properties_add_text(list, "css", "Custom CSS", OBS_TEXT_MULTILINE);
	obs_properties_add_button2(list, "refreshnocache", "Refresh", refreshClicked, data);
	return list;
}

} // namespace

void registerBrowserSource()
{
	obs_source_info info = {};
	info.id = "browser_source";
	info.type = OBS_SOURCE_TYPE_INPUT;
	info.output_flags = OBS_SOURCE_VIDEO | OBS_SOURCE_CUSTOM_DRAW | OBS_SOURCE_SRGB | OBS_SOURCE_DO_NOT_DUPLICATE;
	info.icon_type = OBS_ICON_TYPE_BROWSER;
	info.get_name = [](void *) { return "Browser"; };
	info.get_defaults = setDefaults;
	info.get_properties = properties;
	info.create = [](obs_data_t *settings, obs_source_t *source) -> void * {
		return new BrowserSource(settings, source);
	};
	info.destroy = [](void *data) { delete static_cast<BrowserSource *>(data); };
	info.update = [](void *data, obs_data_t *settings) { static_cast<BrowserSource *>(data)->update(settings); };
	info.video_tick = [](void *data, float) { static_cast<BrowserSource *>(data)->tick(); };
	info.video_render = [](void *data, gs_effect_t *) { static_cast<const BrowserSource *>(data)->render(); };
	info.get_width = [](void *data) { return static_cast<const BrowserSource *>(data)->width(); };
	info.get_height = [](void *data) { return static_cast<const BrowserSource *>(data)->height(); };
	obs_register_source(&info);
}

void releaseBrowserEngine()
{
	const std::lock_guard lock(engineMutex);
	sharedEngine.reset();
}

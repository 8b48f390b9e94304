// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/drawn-source.h"

#include "captions/background-painter.h"
#include "captions/caption-page.h"
#include "obs/browser-source.h"
#include "plugin-support.h"

#include <QThreadPool>

#include <obs-module.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

namespace {

/** As many pixels as OBS's browser source allows a side. */
constexpr long long kMaxSide = 8192;

std::mutex poolLock;
std::shared_ptr<QThreadPool> sharedPool;

/** Two threads: many languages change at the same time, and a long text may take longer than the others. */
std::shared_ptr<QThreadPool> poolForSource()
{
	const std::lock_guard guard(poolLock);
	if (!sharedPool) {
		sharedPool = std::make_shared<QThreadPool>();
		sharedPool->setMaxThreadCount(2);
		// With a thread its fonts would go, which take longer to load than a caption to paint.
		sharedPool->setExpiryTimeout(-1);
	}
	return sharedPool;
}

int side(obs_data_t *settings, const char *name)
{
	return static_cast<int>(std::clamp<long long>(obs_data_get_int(settings, name), 0, kMaxSide));
}

bool isOwnPage(obs_data_t *settings)
{
	return obs_data_get_bool(settings, "is_local_file") &&
	       isCaptionPage(QString::fromUtf8(obs_data_get_string(settings, "local_file")));
}

/** One source in OBS. The picture of a caption stays until that of the next one is ready. */
class DrawnSource {
public:
	DrawnSource(obs_data_t *settings, obs_source_t *obsSource);
	~DrawnSource();
	DrawnSource(const DrawnSource &) = delete;
	DrawnSource &operator=(const DrawnSource &) = delete;

	/** With the first settings on the thread that makes the source, later on the graphics thread. */
	void update(obs_data_t *settings);
	/** Graphics thread, in the graphics context. */
	void render();
	uint32_t width() const { return static_cast<uint32_t>(currentWidth); }
	uint32_t height() const { return static_cast<uint32_t>(currentHeight); }

private:
	void show(const BackgroundPainter::Result &result);
	void upload(const QImage &image);
	void dropTexture();
	void draw() const;

	obs_source_t *const source; // owns this object
	BackgroundPainter painter{poolForSource()};
	std::atomic<int> currentWidth = 0;
	std::atomic<int> currentHeight = 0;

	// Graphics thread only.
	gs_texture_t *texture = nullptr;
	QPoint position;
	/** Told of once, until all is well again. */
	bool isForeign = false;
	bool uploadFails = false;
};

DrawnSource::DrawnSource(obs_data_t *settings, obs_source_t *obsSource) : source(obsSource)
{
	// As a browser source is whose page is not heard by OBS: the type has audio for the filters on it alone.
	obs_source_set_audio_active(source, false);
	update(settings);
}

DrawnSource::~DrawnSource()
{
	obs_enter_graphics();
	dropTexture();
	obs_leave_graphics();
}

void DrawnSource::update(obs_data_t *settings)
{
	currentWidth = side(settings, "width");
	currentHeight = side(settings, "height");
	const QSize view = isOwnPage(settings) ? QSize(currentWidth, currentHeight) : QSize();
	painter.order(view.isEmpty() ? QByteArray() : QByteArray(obs_data_get_string(settings, "css")), view);
}

void DrawnSource::render()
{
	if (const std::optional<BackgroundPainter::Result> result = painter.take()) {
		show(*result);
	}
	if (texture) {
		draw();
	}
}

void DrawnSource::show(const BackgroundPainter::Result &result)
{
	if (result.isForeign && !isForeign) {
		talvora_log(LOG_WARNING, "DrawnSource: the CSS of '%s' is none of a caption, so nothing is drawn",
			    obs_source_get_name(source));
	}
	isForeign = result.isForeign;
	position = result.picture.position;
	if (result.picture.image.isNull()) {
		dropTexture();
	} else {
		upload(result.picture.image);
	}
}

void DrawnSource::upload(const QImage &image)
{
	const auto width = static_cast<uint32_t>(image.width());
	const auto height = static_cast<uint32_t>(image.height());
	const uint8_t *rows = image.constBits();
	dropTexture();
	texture = gs_texture_create(width, height, GS_BGRA, 1, &rows, 0);
	if (!texture && !uploadFails) {
		talvora_log(LOG_WARNING, "DrawnSource: no texture of %u by %u pixels could be made for '%s'", width,
			    height, obs_source_get_name(source));
	}
	uploadFails = !texture;
}

void DrawnSource::dropTexture()
{
	if (texture) {
		gs_texture_destroy(texture);
		texture = nullptr;
	}
}

void DrawnSource::draw() const
{
	gs_effect_t *const effect = obs_get_base_effect(OBS_EFFECT_DEFAULT);
	const bool wasSrgb = gs_framebuffer_srgb_enabled();
	gs_enable_framebuffer_srgb(true);
	gs_blend_state_push();
	gs_blend_function(GS_BLEND_ONE, GS_BLEND_INVSRCALPHA);
	gs_matrix_push();
	gs_matrix_translate3f(static_cast<float>(position.x()), static_cast<float>(position.y()), 0.0F);

	gs_effect_set_texture_srgb(gs_effect_get_param_by_name(effect, "image"), texture);
	while (gs_effect_loop(effect, "Draw")) {
		gs_draw_sprite(texture, 0, 0, 0);
	}

	gs_matrix_pop();
	gs_blend_state_pop();
	gs_enable_framebuffer_srgb(wasSrgb);
}

/** The size that OBS's browser source has by default. */
void setDefaults(obs_data_t *settings)
{
	obs_data_set_default_int(settings, "width", 800);
	obs_data_set_default_int(settings, "height", 600);
}

obs_properties_t *properties(void *)
{
	obs_properties_t *const list = obs_properties_create();
	obs_properties_add_text(list, "explanation", obs_module_text("DrawnSource.Explanation"), OBS_TEXT_INFO);
	obs_properties_add_int(list, "width", obs_module_text("DrawnSource.Width"), 1, kMaxSide, 1);
	obs_properties_add_int(list, "height", obs_module_text("DrawnSource.Height"), 1, kMaxSide, 1);
	return list;
}

} // namespace

void registerDrawnSource()
{
	obs_source_info info = {};
	info.id = kBrowserSourceId;
	info.type = OBS_SOURCE_TYPE_INPUT;
	// Audio as OBS's own type has it: filters on a type without are refused, and would be gone from the collection.
	info.output_flags = OBS_SOURCE_VIDEO | OBS_SOURCE_AUDIO | OBS_SOURCE_CUSTOM_DRAW | OBS_SOURCE_DO_NOT_DUPLICATE |
			    OBS_SOURCE_SRGB | OBS_SOURCE_CAP_DISABLED;
	info.icon_type = OBS_ICON_TYPE_BROWSER;
	info.get_name = [](void *) { return obs_module_text("DrawnSource.Name"); };
	info.get_defaults = setDefaults;
	info.get_properties = properties;
	info.create = [](obs_data_t *settings, obs_source_t *source) -> void * {
		return new DrawnSource(settings, source);
	};
	info.destroy = [](void *data) { delete static_cast<DrawnSource *>(data); };
	info.update = [](void *data, obs_data_t *settings) { static_cast<DrawnSource *>(data)->update(settings); };
	info.video_render = [](void *data, gs_effect_t *) { static_cast<DrawnSource *>(data)->render(); };
	info.get_width = [](void *data) { return static_cast<const DrawnSource *>(data)->width(); };
	info.get_height = [](void *data) { return static_cast<const DrawnSource *>(data)->height(); };
	obs_register_source(&info);
}

void releaseDrawnSource()
{
	const std::lock_guard guard(poolLock);
	sharedPool.reset();
}

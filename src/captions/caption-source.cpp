// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-source.h"

#include "obs/browser-source.h"
#include "plugin-support.h"

#include <graphics/vec2.h>
#include <obs-frontend-api.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr uint32_t kFallbackSourceWidth = 1536;
constexpr uint32_t kSourceHeight = 240;

/** Size of the canvas in pixels; 0 by 0 while OBS has no video. */
obs_video_info canvas()
{
	obs_video_info info = {};
	if (!obs_get_video_info(&info)) {
		info = {};
	}
	return info;
}

bool isBrowserSource(obs_source_t *source)
{
	return std::strcmp(obs_source_get_id(source), kBrowserSourceId) == 0;
}

/**
 * Runs `update` with the scene locked. An item that is found or added comes without a reference, so without the lock
 * another thread could remove it while it is used.
 */
template <typename Update> void updateScene(obs_scene_t *scene, Update update)
{
	obs_scene_atomic_update(
		scene, [](void *data, obs_scene_t *locked) { (*static_cast<Update *>(data))(locked); }, &update);
}

/** References to all scenes, so that they can be searched after obs_enum_all_sources() has released its lock. */
std::vector<OBSSourceAutoRelease> allScenes()
{
	std::vector<OBSSourceAutoRelease> scenes;
	// obs_enum_scenes() would leave out the scenes of other canvases and those that modules keep to themselves.
	obs_enum_all_sources(
		[](void *list, obs_source_t *source) {
			if (obs_source_is_scene(source) && !obs_source_removed(source)) {
				static_cast<decltype(scenes) *>(list)->emplace_back(obs_source_get_ref(source));
			}
			return true;
		},
		&scenes);
	return scenes;
}

/**
 * Puts the source's item with its bottom centre at `position`, adding it if need be. False when that fails, and for a
 * source that is in a group: its place there is the user's, and a second item would show every caption twice.
 */
bool placeInScene(obs_scene_t *scene, obs_source_t *source, const vec2 &position)
{
	const char *name = obs_source_get_name(source);
	obs_sceneitem_t *item = obs_scene_find_source(scene, name);
	if (!item && obs_scene_find_source_recursive(scene, name)) {
		talvora_log(LOG_INFO, "CaptionManager: left '%s' in its group", name);
		return false;
	}
	if (!item) {
		item = obs_scene_add(scene, source);
	}
	if (!item) {
		return false;
	}
	obs_sceneitem_set_alignment(item, OBS_ALIGN_BOTTOM);
	obs_sceneitem_set_pos(item, &position);
	return true;
}

void removeFromCurrentScene(const char *sourceName)
{
	const OBSSourceAutoRelease sceneSource = obs_frontend_get_current_scene();
	obs_scene_t *scene = obs_scene_from_source(sceneSource);
	if (!scene) {
		return;
	}
	OBSSceneItem item;
	updateScene(scene, [&](obs_scene_t *locked) { item = obs_scene_find_source(locked, sourceName); });
	// Not under the scene's lock. obs_sceneitem_remove() looks at the item's `removed` flag before it takes that
	// lock; a second thread waiting for our lock would then remove the item again, and OBS crashes.
	obs_sceneitem_remove(item);
}

/** The settings every caption source has. */
OBSDataAutoRelease pageSettings(const QByteArray &pagePath, const QByteArray &css)
{
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_bool(settings, "is_local_file", true);
	obs_data_set_string(settings, "local_file", pagePath.constData());
	obs_data_set_string(settings, "css", css.constData());
	return settings;
}

} // namespace

OBSSourceAutoRelease findCaptionSource(const char *name)
{
	OBSSourceAutoRelease found = obs_get_source_by_name(name);
	if (!found || obs_source_removed(found)) {
		return nullptr;
	}
	if (isBrowserSource(found)) {
		return found;
	}
	talvora_log(LOG_INFO, "CaptionManager: migrating source '%s' from %s to %s", name, obs_source_get_id(found),
		    kBrowserSourceId);
	found = nullptr;
	removeFromCurrentScene(name);
	return nullptr;
}

OBSSourceAutoRelease createCaptionSource(const char *name, const QByteArray &pagePath, const QByteArray &css)
{
	const uint32_t baseWidth = canvas().base_width;
	const OBSDataAutoRelease settings = pageSettings(pagePath, css);
	obs_data_set_int(settings, "width", baseWidth ? static_cast<uint32_t>(baseWidth * 0.8) : kFallbackSourceWidth);
	obs_data_set_int(settings, "height", kSourceHeight);
	return obs_source_create(kBrowserSourceId, name, settings, nullptr);
}

void updateCaptionCss(obs_source_t *source, const QByteArray &css)
{
	const OBSDataAutoRelease current = obs_source_get_settings(source);
	if (css == obs_data_get_string(current, "css")) {
		return;
	}
	const OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_string(settings, "css", css.constData());
	obs_source_update(source, settings);
}

void updateCaptionPage(obs_source_t *source, const QByteArray &pagePath, const QByteArray &css)
{
	const OBSDataAutoRelease current = obs_source_get_settings(source);
	if (obs_data_get_bool(current, "is_local_file") && pagePath == obs_data_get_string(current, "local_file") &&
	    css == obs_data_get_string(current, "css")) {
		return;
	}
	const OBSDataAutoRelease settings = pageSettings(pagePath, css);
	obs_source_update(source, settings);
}

bool isInAScene(obs_source_t *source)
{
	const char *name = obs_source_get_name(source);
	bool found = false;
	for (const OBSSourceAutoRelease &scene : allScenes()) {
		if (scene && !found) {
			updateScene(obs_scene_from_source(scene), [&](obs_scene_t *locked) {
				obs_sceneitem_t *item = obs_scene_find_source_recursive(locked, name);
				found = item && obs_sceneitem_get_source(item) == source;
			});
		}
	}
	return found;
}

bool autoPlaceCaptionSource(obs_source_t *source)
{
	const OBSSourceAutoRelease sceneSource = obs_frontend_get_current_scene();
	obs_scene_t *scene = obs_scene_from_source(sceneSource);
	if (!scene) {
		return false;
	}

	const obs_video_info video = canvas();
	vec2 position = {};
	position.x = video.base_width ? static_cast<float>(video.base_width) * 0.5f : 960.0f;
	position.y = video.base_height ? static_cast<float>(video.base_height) - 60.0f : 1020.0f;

	bool placed = false;
	// Lock order: graphics, then scene. Adding an item runs other modules' handlers under the scene's lock, and
	// these may enter graphics.
	obs_enter_graphics();
	updateScene(scene, [&](obs_scene_t *locked) { placed = placeInScene(locked, source, position); });
	obs_leave_graphics();
	if (placed) {
		talvora_log(LOG_INFO, "CaptionManager: placed '%s' at bottom-centre (%.0f, %.0f)",
			    obs_source_get_name(source), static_cast<double>(position.x),
			    static_cast<double>(position.y));
	}
	return true;
}

// SPDX-License-Identifier: GPL-2.0-or-later
#include "frontend-stub.h"

#include <QDockWidget>

#include <algorithm>
#include <utility>

namespace {

obs_source_t *currentScene;
obs_video_info canvas;

} // namespace

FrontendStub &frontendStub()
{
	static FrontendStub stub;
	return stub;
}

void FrontendStub::emitEvent(obs_frontend_event event) const
{
	const auto registered = callbacks;
	for (const Callback &callback : registered) {
		callback.function(event, callback.data);
	}
}

void setCurrentScene(obs_source_t *scene)
{
	obs_source_release(std::exchange(currentScene, obs_source_get_ref(scene)));
}

void setCanvasSize(uint32_t width, uint32_t height)
{
	canvas.base_width = canvas.output_width = width;
	canvas.base_height = canvas.output_height = height;
}

obs_source_t *obs_frontend_get_current_scene(void)
{
	return obs_source_get_ref(currentScene);
}

bool obs_frontend_add_dock_by_id(const char *id, const char *title, void *widget)
{
	const QString key = QString::fromUtf8(id);
	if (frontendStub().docks.contains(key)) {
		return false;
	}
	frontendStub().docks[key] = static_cast<QWidget *>(widget);
	frontendStub().dockTitles[key] = QString::fromUtf8(title);
	if (QMainWindow *window = frontendStub().mainWindow) {
		auto *dock = new QDockWidget(window);
		dock->setWidget(static_cast<QWidget *>(widget));
		dock->setObjectName(key);
		window->addDockWidget(Qt::RightDockWidgetArea, dock);
		dock->setVisible(false);
		dock->setFloating(true);
	}
	return true;
}

void *obs_frontend_get_main_window(void)
{
	return frontendStub().mainWindow;
}

#if LIBOBS_API_VER >= MAKE_SEMANTIC_VERSION(31, 0, 0)
config_t *obs_frontend_get_user_config(void)
#else
config_t *obs_frontend_get_global_config(void)
#endif
{
	return frontendStub().windowSettings;
}

void obs_frontend_remove_dock(const char *id)
{
	delete frontendStub().docks.take(QString::fromUtf8(id));
}

void obs_frontend_add_event_callback(obs_frontend_event_cb callback, void *private_data)
{
	frontendStub().callbacks.push_back({callback, private_data});
}

void obs_frontend_remove_event_callback(obs_frontend_event_cb callback, void *private_data)
{
	std::erase(frontendStub().callbacks, FrontendStub::Callback{callback, private_data});
}

bool obs_get_video_info(obs_video_info *info)
{
	*info = canvas;
	return canvas.base_width != 0;
}

// The key itself, as a module without that text answers. Weak: a test of the entry points brings the real one.
extern "C" [[gnu::weak]] const char *obs_module_text(const char *key)
{
	return key;
}

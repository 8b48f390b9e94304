// SPDX-License-Identifier: GPL-2.0-or-later
#include "scene-watcher.h"

namespace {

obs_source_t *sourceOf(calldata_t *data)
{
	return static_cast<obs_source_t *>(calldata_ptr(data, "source"));
}

QString nameOf(calldata_t *data)
{
	return QString::fromUtf8(obs_source_get_name(sourceOf(data)));
}

/** Filters and transitions are reported too, and may bear the name of any source. */
bool isInScene(calldata_t *data)
{
	const obs_source_type type = obs_source_get_type(sourceOf(data));
	return type == OBS_SOURCE_TYPE_INPUT || type == OBS_SOURCE_TYPE_SCENE;
}

SceneWatcher *watcher(void *self)
{
	return static_cast<SceneWatcher *>(self);
}

template <typename Signal, typename... Arguments>
void post(SceneWatcher *watcher, Signal signal, const Arguments &...arguments)
{
	QMetaObject::invokeMethod(watcher, [=] { Q_EMIT(watcher->*signal)(arguments...); }, Qt::QueuedConnection);
}

} // namespace

SceneWatcher::SceneWatcher(QObject *parent) : QObject(parent)
{
	obs_frontend_add_event_callback(onFrontendEvent, this);
	signal_handler_t *handler = obs_get_signal_handler();
	signal_handler_connect(handler, "source_create", onSourceCreate, this);
	signal_handler_connect(handler, "source_remove", onSourceRemove, this);
	signal_handler_connect(handler, "source_rename", onSourceRename, this);
}

SceneWatcher::~SceneWatcher()
{
	obs_frontend_remove_event_callback(onFrontendEvent, this);
	// Waits for handlers that are running on other threads.
	signal_handler_t *handler = obs_get_signal_handler();
	signal_handler_disconnect(handler, "source_create", onSourceCreate, this);
	signal_handler_disconnect(handler, "source_remove", onSourceRemove, this);
	signal_handler_disconnect(handler, "source_rename", onSourceRename, this);
}

void SceneWatcher::onFrontendEvent(obs_frontend_event event, void *self)
{
	if (event == OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED) {
		post(watcher(self), &SceneWatcher::collectionChanged);
	} else if (event == OBS_FRONTEND_EVENT_SCENE_CHANGED) {
		post(watcher(self), &SceneWatcher::sceneChanged);
	}
}

void SceneWatcher::onSourceCreate(void *self, calldata_t *data)
{
	if (isInScene(data)) {
		post(watcher(self), &SceneWatcher::sourceCreated, nameOf(data));
	}
}

void SceneWatcher::onSourceRemove(void *self, calldata_t *data)
{
	if (isInScene(data)) {
		post(watcher(self), &SceneWatcher::sourceRemoved, nameOf(data));
	}
}

void SceneWatcher::onSourceRename(void *self, calldata_t *data)
{
	if (isInScene(data)) {
		post(watcher(self), &SceneWatcher::sourceRenamed, QString::fromUtf8(calldata_string(data, "prev_name")),
		     QString::fromUtf8(calldata_string(data, "new_name")));
	}
}

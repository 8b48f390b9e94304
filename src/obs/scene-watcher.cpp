// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/scene-watcher.h"

namespace {

obs_source_t *sourceOf(calldata_t *data)
{
	return static_cast<obs_source_t *>(calldata_ptr(data, "source"));
}

QString nameOf(calldata_t *data)
{
	return QString::fromUtf8(obs_source_get_name(sourceOf(data)));
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
	collectionTimer.setSingleShot(true);
	connect(&collectionTimer, &QTimer::timeout, this, [this] {
		clearing = false;
		Q_EMIT collectionChanged();
	});
	obs_frontend_add_event_callback(onFrontendEvent, this);
	signal_handler_t *handler = obs_get_signal_handler();
	signal_handler_connect(handler, "source_create", onSourceCreate, this);
	signal_handler_connect(handler, "source_remove", onSourceRemove, this);
	signal_handler_connect(handler, "source_destroy", onSourceDestroy, this);
	signal_handler_connect(handler, "source_rename", onSourceRename, this);
}

SceneWatcher::~SceneWatcher()
{
	obs_frontend_remove_event_callback(onFrontendEvent, this);
	// Waits for handlers that are running on other threads.
	signal_handler_t *handler = obs_get_signal_handler();
	signal_handler_disconnect(handler, "source_create", onSourceCreate, this);
	signal_handler_disconnect(handler, "source_remove", onSourceRemove, this);
	signal_handler_disconnect(handler, "source_destroy", onSourceDestroy, this);
	signal_handler_disconnect(handler, "source_rename", onSourceRename, this);
}

void SceneWatcher::onFrontendEvent(obs_frontend_event event, void *self)
{
	if (event == OBS_FRONTEND_EVENT_SCENE_COLLECTION_CLEANUP) {
		watcher(self)->clearing = true;
	} else if (event == OBS_FRONTEND_EVENT_SCENE_COLLECTION_CHANGED) {
		watcher(self)->collectionTimer.start();
	} else if (event == OBS_FRONTEND_EVENT_SCENE_CHANGED) {
		post(watcher(self), &SceneWatcher::sceneChanged);
	}
}

void SceneWatcher::onSourceCreate(void *self, calldata_t *data)
{
	post(watcher(self), &SceneWatcher::sourceCreated, nameOf(data));
}

void SceneWatcher::onSourceRemove(void *self, calldata_t *data)
{
	post(watcher(self), &SceneWatcher::sourceRemoved, nameOf(data));
}

void SceneWatcher::onSourceDestroy(void *self, calldata_t *data)
{
	// A source that the user deletes in OBS's window is only taken out of its scene and goes with its last
	// reference, without a `remove` signal. A source that was removed has been reported by that signal.
	if (!obs_source_removed(sourceOf(data))) {
		post(watcher(self), &SceneWatcher::sourceRemoved, nameOf(data));
	}
}

void SceneWatcher::onSourceRename(void *self, calldata_t *data)
{
	post(watcher(self), &SceneWatcher::sourceRenamed, QString::fromUtf8(calldata_string(data, "prev_name")),
	     QString::fromUtf8(calldata_string(data, "new_name")));
}

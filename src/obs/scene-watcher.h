// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <obs-frontend-api.h>
#include <obs.h>

/**
 * Tells what happens to OBS's sources and scene collections while it lives.
 *
 * OBS reports it on any thread and in the middle of its own work; the signals come later, on the user-interface thread,
 * when that work is done. To be destroyed at the front-end's exit event at the latest.
 */
class SceneWatcher : public QObject {
	Q_OBJECT

public:
	explicit SceneWatcher(QObject *parent = nullptr);
	~SceneWatcher() override;

	/**
	 * Whether OBS is taking a collection down, until collectionChanged(). Meanwhile OBS delivers posted events;
	 * if one of them creates a source, OBS shows an error and quits.
	 */
	bool isClearing() const { return clearing; }

Q_SIGNALS:
	/** Another scene collection, with sources of its own, has been loaded. */
	void collectionChanged();
	/** Another scene is the current one, in studio mode the one on air. */
	void sceneChanged();
	/** A public source of this name has been created. */
	void sourceCreated(const QString &name);
	/** A public source of this name has been taken out of OBS, or has gone with the last scene that it was in. */
	void sourceRemoved(const QString &name);
	void sourceRenamed(const QString &from, const QString &to);

private:
	static void onFrontendEvent(obs_frontend_event event, void *self);
	static void onSourceCreate(void *self, calldata_t *data);
	static void onSourceRemove(void *self, calldata_t *data);
	static void onSourceDestroy(void *self, calldata_t *data);
	static void onSourceRename(void *self, calldata_t *data);

	/**
	 * Interval 0. A timer and not a posted event: while OBS changes a collection it delivers posted events but runs
	 * no timers, so this fires when the change is over.
	 */
	QTimer collectionTimer;
	bool clearing = false;
};

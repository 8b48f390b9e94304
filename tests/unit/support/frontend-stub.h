// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QMainWindow>
#include <QMap>
#include <QString>
#include <QWidget>

#include <obs-frontend-api.h>
#include <obs.h>

#include <vector>

/** What the stand-in for OBS's front-end was told, and what it answers. */
struct FrontendStub {
	struct Callback {
		obs_frontend_event_cb function;
		void *data;

		bool operator==(const Callback &) const = default;
	};

	/** Docks by id, with their titles. Removing a dock deletes its widget. */
	QMap<QString, QWidget *> docks;
	QMap<QString, QString> dockTitles;
	std::vector<Callback> callbacks;
	/** With a window, docks are put into it as OBS does: hidden and floating. */
	QMainWindow *mainWindow = nullptr;
	/** OBS's settings of its windows; null for none. The test owns them. */
	config_t *windowSettings = nullptr;

	/** Tells the registered callbacks. */
	void emitEvent(obs_frontend_event event) const;
};

FrontendStub &frontendStub();

/** The scene the front-end will name as the current one; null for none. Holds a reference until changed. */
void setCurrentScene(obs_source_t *scene);

/** The canvas OBS will report, in pixels; without a call, or with zero, OBS has no video. */
void setCanvasSize(uint32_t width, uint32_t height);

// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>

#include <obs.hpp>

// The browser source that shows the captions of one language, and its place in scenes. It shows a page from a local
// file; style and text come to it as CSS. User-interface thread.

/**
 * The browser source of this name for captions to go on with, or null. A source of the name that is of another type is
 * taken out of the current scene.
 */
OBSSourceAutoRelease findCaptionSource(const char *name);

/** A new one, 80 percent of the canvas wide and 240 px high; in no scene yet. Null when OBS cannot make it. */
OBSSourceAutoRelease createCaptionSource(const char *name, const QByteArray &pagePath, const QByteArray &css);

// A browser source starts its browser anew at every update, so these send nothing that the source has already.

void updateCaptionCss(obs_source_t *source, const QByteArray &css);
void updateCaptionPage(obs_source_t *source, const QByteArray &pagePath, const QByteArray &css);

/** Whether any scene has the source, on any canvas, in a group or not. */
bool isInAScene(obs_source_t *source);

/**
 * Puts the source at the bottom centre of the current scene, adding it if need be; one that is in a group stays as it
 * is. False without a current scene.
 */
bool autoPlaceCaptionSource(obs_source_t *source);

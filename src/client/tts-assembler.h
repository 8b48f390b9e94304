// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <cstddef>
#include <functional>
#include <map>

// Reassembly of synthesised speech: which bytes of a binary frame belong to which language's clip, and how many of
// them are whole samples. Plain functions on plain records, for any thread.

/** A clip being received for one language. */
struct PendingTtsClip {
	int clipId = 0;
	/** Hz. */
	int sampleRate = 24000;
	/** Mono signed 16-bit little-endian, received and not yet taken: at most one odd byte between frames. */
	QByteArray pcm;
};

/** Open clips by language code. */
using PendingTtsClips = std::map<QString, PendingTtsClip, std::less<>>;

/** A run of PCM bytes of one language. Both views end with the frame and the clips they were cut from. */
struct TtsSegment {
	PendingTtsClips::iterator clip;
	QByteArrayView pcm;
};

/** Most clips that are open at once: twice as many as there are languages. */
inline constexpr size_t kMaxOpenClips = 64;
/** Longest name of a clip's language, in UTF-16 units; tags are shorter. */
inline constexpr qsizetype kMaxClipLanguageLength = 64;

/**
 * Opens a clip. One that is already open with the same id is left as it is, its sample rate included; so clip id 0,
 * the id of a fresh entry, always keeps the default rate. What would be beyond the limits above is not opened.
 */
void openTtsClip(PendingTtsClips &clips, const QString &language, int clipId, int sampleRate);

/**
 * Calls `visit` with each segment of a binary frame, in frame order. It may change the open clips' samples, and neither
 * open nor close one. A segment starts with a tag (a length byte of 2 to 10, then
 * that many ASCII letters or "-", naming an open clip) and runs to the next tag of an open clip. A frame without a
 * leading tag belongs whole to the only open clip, or to none when several are open.
 */
void splitTtsFrame(QByteArrayView frame, PendingTtsClips &clips, const std::function<void(const TtsSegment &)> &visit);

/** Takes the whole samples out of `clip.pcm`; an odd last byte stays. */
QByteArray takeWholeSamples(PendingTtsClip &clip);

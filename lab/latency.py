# SPDX-License-Identifier: GPL-2.0-or-later
"""How long captions and dubs take, measured from what the service received, what OBS logged and what OBS recorded."""

import datetime
import re

import numpy as np

from lab.media import read_track

UPLINK_RATE = 16000

# Fine enough for what is told in tenths of a second.
_STEP = 480

# Louder than what AAC adds, 20 dB under speech.
_AUDIBLE = 0.01


def _offset(part, whole):
	"""Where `part` best fits into `whole` (both one-dimensional), in samples; may be negative."""
	size = 1 << (len(part) + len(whole)).bit_length()
	fit = np.fft.irfft(np.fft.rfft(whole, size) * np.conj(np.fft.rfft(part, size)), size)
	best = int(np.argmax(fit))
	return best - size if best > size // 2 else best


def _loudness(samples):
	"""Root mean square of each hundredth of a second of a 48 kHz channel."""
	whole = samples[:len(samples) // _STEP * _STEP].reshape(-1, _STEP)
	return np.sqrt((whole.astype(np.float64) ** 2).mean(axis=1))


def _wall_clock(event):
	return datetime.datetime.fromisoformat(event["wall"])


def sentence_arrivals(service, speech, sentences, connection=1):
	"""When the last sample of each sentence reached the service, CLOCK_MONOTONIC in ms.

	`speech` is the played file at 48 kHz, one channel. Sentences that did not come in whole are left out.
	"""
	uplink = service.uplink(connection).astype(np.float64)
	played = speech[:len(speech) // 3 * 3].reshape(-1, 3).mean(axis=1)
	offset = _offset(played, uplink)
	frames = service.received("binary", connection)
	ends = np.array([frame["offset"] + frame["bytes"] for frame in frames]) / 2
	arrivals = []
	for sentence in sentences:
		index = np.searchsorted(ends, offset + sentence.end * UPLINK_RATE)
		if index < len(frames):
			arrivals.append(frames[index]["mono_ms"])
	return arrivals


def _last_before(times, moment):
	earlier = [time for time in times if time <= moment]
	return earlier[-1] if earlier else None


def caption_latencies(obs_log, service, arrivals, source_names):
	"""Seconds from the end of an utterance to its caption being drawn, one per caption and language.

	source_names: language code to the name of its caption source.
	"""
	found = []
	for caption in service.events("caption"):
		sent = _wall_clock(caption).astimezone()
		name = re.escape(source_names.get(caption["language"], ""))
		ended = _last_before(arrivals, caption["mono_ms"])
		for line in re.finditer(rf"^([\d:.]{{12}}): \[talvora-lab-browser\] '{name}': shown after", obs_log, re.MULTILINE):
			time = datetime.time.fromisoformat(line.group(1))
			shown = sent.replace(hour=time.hour, minute=time.minute, second=time.second, microsecond=time.microsecond)
			if shown >= sent and ended is not None:
				found.append((caption["mono_ms"] - ended) / 1000 + (shown - sent).total_seconds())
				break
	return found


def dub_latencies(recording, speech, sentences, track):
	"""Seconds from the end of an utterance to the first sample of its dub, from a recording.

	The original is on track 1. Dubs that begin while the original or another dub is heard are left out.
	"""
	original, dub = read_track(recording, 1)[:, 0], read_track(recording, track)[:, 0]
	offset = _offset(speech.astype(np.float64), original.astype(np.float64))
	speaking = np.convolve(_loudness(original) > _AUDIBLE, np.ones(21), "same") > 0
	heard = _loudness(dub) > _AUDIBLE
	length = min(len(speaking), len(heard))
	# In a pause of the original nothing but the voice is in the dub.
	voice = heard[:length] & ~speaking[:length]
	found = []
	for step in np.flatnonzero(voice[1:] & ~voice[:-1]) + 1:
		if heard[max(0, step - 10):step].any() or speaking[max(0, step - 10):step].any():
			continue
		moment = (step * _STEP - offset) / 48000
		ended = _last_before([sentence.end for sentence in sentences], moment)
		if ended is not None:
			found.append(moment - ended)
	return found


def summary(seconds):
	"""Median and range in words."""
	if not seconds:
		return "not measured"
	return f"median {np.median(seconds):.2f} s, {min(seconds):.2f} to {max(seconds):.2f} s, of {len(seconds)}"

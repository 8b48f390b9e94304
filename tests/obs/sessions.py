# SPDX-License-Identifier: GPL-2.0-or-later
"""Pieces that tests with a session are made of."""

import subprocess
import wave

import numpy as np

from lab.service import KEY

MICROPHONE = "Microphone"
SPANISH_DUB = "Talvora Dub — Spanish"
SPANISH_CAPTIONS = "Talvora Captions — Spanish"

LET_IN = [{"expect": "auth"}, {"send": {"type": "auth_ok", "maxTargetLanguages": 0}}]

# And when a caption comes in a language that was not chosen, beside one that was.
NOT_CHOSEN = r"\[talvora-obs\] CaptionManager: no state for language '{}' \(have: 1 states\)$"

# Why a connection is lost: the service has gone away in the middle of it, or is not there.
GONE, NOT_THERE = "The remote host closed the connection", "Connection refused"

AUTHENTICATED = r"\[talvora-obs\] WSClient: authenticated$"

# What the module complains about when the source that it is to capture is not there.
NOT_FOUND = r"\[talvora-obs\] Talvora: audio source '{}' not found$"


def broken_off(reason, count=1):
	"""What the module complains about when a connection that nobody has ended is lost, as often as that happens."""
	return {rf"\[talvora-obs\] {said}$": count for said in (
		rf"WebSocket error \d+: {reason}", rf"Talvora WS error: {reason}", rf"PluginDock error: {reason}",
		"WebSocket disconnected unexpectedly — scheduling reconnect")}


def refused(reason):
	"""What it complains about when the service does not let it in."""
	said = [rf"WSClient: auth failed: {reason}", rf"Talvora WS error: Auth failed: {reason}", rf"PluginDock error: Auth failed: {reason}"]
	return {rf"\[talvora-obs\] {one}$": 1 for one in said}


def target(code, dubbing=False, captions=False):
	return {"code": code, "dubbing": dubbing, "captions": captions}


def session_config(*targets, **settings):
	"""A configuration that connects by itself."""
	return {"apiKey": KEY, "audioSource": MICROPHONE, "autoConnect": True, "targetLanguages": list(targets), **settings}


def write_wav(path, frames):
	"""Writes 16-bit frames, one row a frame with left and right, as a 48 kHz file."""
	frames = np.ascontiguousarray(frames, "<i2")
	with wave.open(str(path), "wb") as file:
		file.setnchannels(frames.shape[1])
		file.setsampwidth(2)
		file.setframerate(48000)
		file.writeframes(frames.tobytes())
	return path


def write_float_wav(path, frames):
	"""Writes 32-bit float frames, which may go beyond full scale, as a 48 kHz file."""
	subprocess.run(["ffmpeg", "-loglevel", "error", "-f", "f32le", "-ar", "48000", "-ac", "2", "-i", "-", "-c:a", "pcm_f32le",
			str(path)], input=np.ascontiguousarray(frames, "<f4").tobytes(), check=True)
	return path


def constant_wav(path, seconds, value):
	"""A file in which every sample is `value`: whatever is done to its gain can be read off the result."""
	return write_wav(path, np.full((round(seconds * 48000), 2), value, np.int16))


def noise_wav(path, seconds):
	"""A file of noise over the whole range, different left and right, so that any piece of it is found in one place only."""
	chance = np.random.default_rng(20)
	frames = chance.integers(-32768, 32768, (round(seconds * 48000), 2)).astype(np.int16)
	# Full scale on both sides, long enough to stay there after averaging.
	frames[48000:48030] = 32767
	frames[48030:48060] = -32768
	return write_wav(path, frames), frames


def loud_noise(seconds, seed):
	"""16-bit frames of noise between a quarter and a half of full scale, either side of zero, different left and right. Whatever is
	done to its gain can be read off each of them, and any piece of it is found in one place only."""
	chance = np.random.default_rng(seed)
	size = (seconds * 48000, 2)
	return (chance.integers(8192, 16384, size) * chance.choice((-1, 1), size)).astype(np.int16)


def expected_uplink(frames, phase):
	"""The captured samples for a file of 16-bit frames, when the first group of three begins at `phase`."""
	left, right = (frames[phase:, side].astype(np.float32) / np.float32(32768) for side in (0, 1))
	mono = (left + right) * np.float32(0.5)
	mono = mono[:len(mono) // 3 * 3].reshape(-1, 3)
	mean = ((mono[:, 0] + mono[:, 1]) + mono[:, 2]) / np.float32(3)
	return (np.clip(mean, np.float32(-1), np.float32(1)) * np.float32(32767)).astype(np.int16)


def assert_is_heard(uplink, frames):
	"""All that the service has heard is one piece of a file of 16-bit frames, sample for sample."""
	places = {phase: find(uplink[:64], expected_uplink(frames, phase)) for phase in range(3)}
	phases = [phase for phase, place in places.items() if place is not None]
	assert phases, "what came in first is nowhere in the source"
	phase = phases[0]
	expected = expected_uplink(frames, phase)[places[phase]:][:len(uplink)]
	assert len(expected) == len(uplink), "the service has heard more than there is in the source"
	wrong = np.flatnonzero(expected != uplink)
	assert not len(wrong), (f"{len(wrong)} of {len(uplink)} samples differ, the first at {wrong[0]}: "
				f"{uplink[wrong[0]]} instead of {expected[wrong[0]]}")


def find(part, whole):
	"""Where `part` is in `whole`, or None."""
	at = whole.tobytes().find(part.tobytes())
	while at > 0 and at % 2 == 1:
		at = whole.tobytes().find(part.tobytes(), at + 1)
	return None if at < 0 else at // 2

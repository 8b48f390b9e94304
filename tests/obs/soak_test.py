"""Half an hour in a session, in real time: what grows, what lags, what is lost.

Run by './dev soak'. The figures are left beside the logs, in figures.json.
"""

import json
import re
import subprocess
import threading
import time
import wave
from pathlib import Path

import numpy as np
import pytest

from lab.media import CHUNK, silent_chunks
from lab.obs import media_file, wait_until
from sessions import AUTHENTICATED, LET_IN, MICROPHONE, SPANISH_CAPTIONS, SPANISH_DUB, expected_uplink, find, session_config, target

RATE = 48000
UPLINK_RATE = 16000
UPLINK_BYTES = 2 * UPLINK_RATE

# A caption and a second of voice per language every three seconds, after ten in which everything is set up.
FIRST_CAPTION = 10
PERIOD = 3
VOICE = 8192
VOICE_SECONDS = 1

# A media source without the module had 12 such chunks in 397 s of recording on a busy machine.
MOST_SILENT_CHUNKS_A_MINUTE = 3

# What a machine that is busy with other things may add to a delay, without it being a queue that grows.
SCHEDULING_SECONDS = 0.3
# What waits in a queue is late by as long as it waits, whichever queue it is: the uplink's ring holds 8 s, the socket any
# amount, a language's captions 5 s and more, its speech 10 s. So a bound of every delay is one of everything that is queued.
QUEUED_SECONDS = 2
# An allocator's habits, which were 3 MiB. The two medians that are compared are two thirds of the time apart, in half an hour
# 1200 s. So a leak of 400 bytes per chunk of the source, which comes in 4096 frames, would be more: 14062 chunks, 5.4 MiB; or
# one of 50 bytes per frame of the uplink, of which there are a hundred a second: 5.7 MiB.
GROWTH_MIB = 5


def write_noise(path, seconds):
	"""Noise of half scale of which any piece is found in one place only, written a minute at a time; its frames."""
	chance = np.random.default_rng(8)
	with wave.open(str(path), "wb") as file:
		file.setnchannels(2)
		file.setsampwidth(2)
		file.setframerate(RATE)
		for start in range(0, seconds, 60):
			frames = chance.integers(-16384, 16384, (min(60, seconds - start) * RATE, 2), dtype=np.int16)
			file.writeframes(frames.tobytes())
	return np.memmap(path, "<i2", "r", offset=44).reshape(-1, 2)


def session_script(count):
	steps = [*LET_IN]
	for number in range(1, count + 1):
		steps.append({"after_audio_bytes": (FIRST_CAPTION + PERIOD * (number - 1)) * UPLINK_BYTES})
		for language in ("es", "fr"):
			steps.append({"send": {"type": "caption", "language": language, "text": f"number {number}", "duration": 2.0,
					       "clipId": number}})
			steps.append({"send_tts": {"language": language, "clip_id": number, "pcm": "voice.pcm"}})
	return steps


class Observer(threading.Thread):
	"""Looks at a running OBS until it is told to stop: when each caption is shown, and how much memory there is."""

	def __init__(self, obs):
		super().__init__(daemon=True)
		self._obs = obs
		self._done = threading.Event()
		self.shown = {}
		self.memory = []

	def run(self):
		next_memory = 0
		while not self._done.wait(0.05):
			now = time.monotonic()
			text = re.search(r'content: "number (\d+)"', self._obs.input_settings(SPANISH_CAPTIONS)["css"])
			if text:
				self.shown.setdefault(int(text.group(1)), now)
			if now >= next_memory:
				self.memory.append((now, self._obs.memory_mib()))
				next_memory = now + 5

	def stop(self):
		self._done.set()
		self.join(10)


def left_of(path, track):
	"""The left side of a track of a file at 48 kHz: 32-bit floats."""
	command = ["ffmpeg", "-nostdin", "-loglevel", "error", "-i", str(path), "-map", f"0:a:{track - 1}", "-f", "f32le",
		   "-af", "pan=mono|c0=c0", "-ar", str(RATE), "-"]
	return np.frombuffer(subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout, "<f4")


def check_uplink(uplink, frames):
	"""All that the service has heard is one piece of the source, sample for sample. Returns where in the source it begins, in
	frames."""
	head = {phase: find(uplink[:64], expected_uplink(frames[:60 * RATE], phase)) for phase in range(3)}
	found = [(phase, place) for phase, place in head.items() if place is not None]
	assert found, "what came in first is nowhere in the first minute of the source"
	phase, place = found[0]
	begin = phase + 3 * place
	for start in range(0, len(uplink), 60 * UPLINK_RATE):
		heard = uplink[start:start + 60 * UPLINK_RATE]
		first = begin + 3 * start
		expected = expected_uplink(frames[first:first + 3 * len(heard)], 0)
		wrong = np.flatnonzero(expected != heard)
		assert not len(wrong), f"from sample {start + wrong[0]} on the service has not heard what was said"
	return begin


def of_the_source(track):
	"""A recorded track without OBS's chunks of silence, where in it they were, and how many: few."""
	silent = silent_chunks(track)
	count = np.count_nonzero(silent) // CHUNK
	minutes = len(track) / RATE / 60
	assert count <= MOST_SILENT_CHUNKS_A_MINUTE * minutes, f"{count} chunks of silence in {minutes:.1f} minutes are not OBS's alone"
	return track[~silent], np.unique(np.cumsum(~silent)[silent]), count


def skipped_by_obs(log):
	"""How many samples at most OBS has left out by itself, of every source at once: it does so when its mixer was very late."""
	added = re.findall(r"adding (\d+) milliseconds of audio buffering", log)
	return sum((int(ms) * RATE // 1000 // CHUNK + 1) * CHUNK + 1 for ms in added)


def check_dub(recording, clips, frames, skipped):
	"""The dub is the original and the voice, at the same distance to the sample, all the time.

	skipped: samples that OBS may have left out of both, beside a silence.
	Returns its length in seconds, how many chunks OBS has left silent in the original and in the dub, and where in the source
	each clip is heard, in frames.
	"""
	(original, cuts, original_silent), (dub, _, dub_silent) = (of_the_source(left_of(recording, track)) for track in (1, 2))

	# OBS places the first chunk of a source to the sample, and each later one right behind the one before it.
	ahead = original[:RATE].tobytes().find(dub[RATE // 2:RATE // 2 + 64].tobytes()) // 4 - RATE // 2
	assert abs(ahead) < RATE // 10, "the dub is not beside the original"
	original, dub = original[max(ahead, 0):], dub[max(-ahead, 0):]
	length = min(len(original), len(dub))
	voice = dub[:length] - original[:length]
	# Between silence and a voice of one value there is the middle of the two.
	if skipped:
		# What is left out of both at one time is not the same in both, but for what they are apart.
		for cut in cuts - max(ahead, 0):
			voice[max(cut - abs(ahead), 0):max(cut + abs(ahead), 0)] = 0
		skipped += 2 * abs(ahead) * len(cuts)
	strange = np.flatnonzero(~np.isin(voice, np.float32([0, 0.5, 1]) * np.float32(VOICE / 32768)))
	assert not len(strange), f"the dub is apart from the original at {strange[0] / RATE:.3f} s"
	missing = clips * VOICE_SECONDS * RATE - np.count_nonzero(voice)
	assert 0 <= missing <= skipped, "samples of the voice are missing or doubled"

	begin = find(np.int16(original[:64] * 32768), np.ascontiguousarray(frames[:60 * RATE, 0]))
	assert begin is not None, "what was recorded first is nowhere in the first minute of the source"
	heard = np.flatnonzero(np.diff(voice != 0, prepend=False))[::2]
	# Where something was left out, a clip may be in two pieces.
	heard = heard[np.diff(heard, prepend=-PERIOD * RATE) > PERIOD * RATE // 2]
	assert len(heard) == clips, f"{clips} clips are heard in {len(heard)} pieces"
	return length / RATE, original_silent, dub_silent, begin + heard


def start_end_worst(late, what, tenth):
	"""The median of the first and of the last delays, and the longest, in seconds."""
	first, last, worst = np.median(late[:tenth]), np.median(late[-tenth:]), late.max()
	assert last - first < SCHEDULING_SECONDS, f"{what} is {last - first:.2f} s later at the end than at the start"
	assert worst < QUEUED_SECONDS, f"{what} has waited for {worst:.2f} s"
	return first, last, worst


def check_uplink_lag(service):
	"""How long samples took to the service.

	The first comes with the first chunk that is captured after the service has let OBS in, and each later one is due after it by
	the clock. So, but for the length of that chunk, this is the time between capture and service, also what it is from the start.
	"""
	frames = service.received("binary")
	let_in = service.events("script_step")[len(LET_IN) - 1]["mono_ms"] / 1000
	late = np.array([one["mono_ms"] / 1000 - let_in - (one["offset"] + one["bytes"]) / UPLINK_BYTES for one in frames])
	return start_end_worst(late, "the uplink", len(late) // 10)


def check_caption_lag(service, script, shown):
	"""The time from a caption's message until it is in its source."""
	times = [one["mono_ms"] / 1000 for one in service.events("script_step")]
	sent = {int(step["send"]["text"].split()[1]): at for step, at in zip(script, times, strict=True)
		if step.get("send", {}).get("language") == "es"}
	assert set(shown) == set(sent), "captions were never seen"
	late = np.array([shown[number] - sent[number] for number in sorted(sent)])
	return start_end_worst(late, "a caption", max(len(late) // 10, 5))


def check_round_trip(uplink_begin, heard):
	"""The time from the sample upon which the service sends a clip until that clip is in the dub, by the source's own samples.

	It has passed all that is queued: the uplink's ring, the sockets, the dub's speech.
	"""
	due = uplink_begin + 3 * UPLINK_RATE * (FIRST_CAPTION + PERIOD * np.arange(len(heard)))
	return start_end_worst((heard - due) / RATE, "speech", max(len(heard) // 10, 5))


def check_memory(memory):
	"""Memory settles. Returns it in MiB: after the first sixth of the time, at the end, at most."""
	begin, end = memory[0][0], memory[-1][0]
	sixth = (end - begin) / 6
	early = np.median([amount for at, amount in memory if begin + sixth <= at < begin + 2 * sixth])
	late = np.median([amount for at, amount in memory if at >= end - sixth])
	assert late - early < GROWTH_MIB, f"OBS has grown from {early:.0f} to {late:.0f} MiB"
	return early, late, max(amount for _, amount in memory)


def measure(service, recording, frames, script, count, observer, log):
	dub_seconds, original_silent, dub_silent, heard = check_dub(recording, count, frames, skipped_by_obs(log))
	uplink = service.uplink()
	uplink_begin = check_uplink(uplink, frames)
	return {
		"uplink": {"seconds": len(uplink) / UPLINK_RATE, "lag_s": check_uplink_lag(service)},
		"captions": {"shown": len(observer.shown), "lag_s": check_caption_lag(service, script, observer.shown)},
		"dub": {"seconds": dub_seconds, "clips": count, "chunks_obs_left_silent": {"original": original_silent, "dub": dub_silent}},
		"speech": {"lag_s": check_round_trip(uplink_begin, heard)},
		"memory_mib": check_memory(observer.memory),
	}


@pytest.mark.soak
def test_long_session_neither_grows_nor_lags_nor_loses(make_obs, make_service, artefacts, request):
	seconds = round(request.config.getoption("--minutes") * 60)
	count = (seconds - FIRST_CAPTION) // PERIOD
	script = session_script(count)
	home = artefacts / "home"
	noise = artefacts / "noise.wav"
	frames = write_noise(noise, seconds + 120)
	config = session_config(target("es", dubbing=True, captions=True), target("fr", dubbing=True, captions=True), duckingLevel=1.0)
	service = make_service(script)
	(service.folder / "voice.pcm").write_bytes(np.full(VOICE_SECONDS * 24000, VOICE, "<i2").tobytes())
	with service, make_obs(home=home, inputs=[media_file(MICROPHONE, noise)], talvora_config=config, tracks=(1, 2), canvas=(640, 360),
			       lossless_audio=True) as obs:
		wait_until(lambda: SPANISH_DUB in obs.inputs(), 10, "the dub is among OBS's sources")
		obs.add_to_scene(SPANISH_DUB)
		obs.set_tracks(MICROPHONE, 1)
		obs.set_tracks(SPANISH_DUB, 2)
		obs.wait_for_log(AUTHENTICATED)
		before = len(obs.log)
		obs.start_recording()
		observer = Observer(obs)
		observer.start()
		wait_until(lambda: count in observer.shown, seconds + 300, "the last caption is shown")
		recording = obs.wait_for_recording_length(obs.recorded_seconds() + PERIOD)
		observer.stop()

	figures = measure(service, recording, frames, script, count, observer, obs.log[before:])
	figures["audio_buffering_ms"] = re.findall(r"total audio buffering is now (\d+) milliseconds", obs.log)
	(artefacts / "figures.json").write_text(json.dumps(figures, indent=1, default=float), encoding="utf-8")
	for path in (noise, Path(recording)):
		path.unlink()

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
# An allocator's habits; a leak of a hundred bytes per chunk of audio would be more within half an hour.
GROWTH_MIB = 16


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
	"""All that the service has heard is one piece of the source, sample for sample. Returns how long it is, in seconds."""
	head = {phase: find(uplink[:64], expected_uplink(frames[:60 * RATE], phase)) for phase in range(3)}
	found = [(phase, place) for phase, place in head.items() if place is not None]
	assert found, "what came in first is nowhere in the first minute of the source"
	phase, place = found[0]
	for start in range(0, len(uplink), 60 * UPLINK_RATE):
		heard = uplink[start:start + 60 * UPLINK_RATE]
		first = phase + 3 * (place + start)
		expected = expected_uplink(frames[first:first + 3 * len(heard)], 0)
		wrong = np.flatnonzero(expected != heard)
		assert not len(wrong), f"from sample {start + wrong[0]} on the service has not heard what was said"
	return len(uplink) / UPLINK_RATE


def of_the_source(track):
	"""A recorded track without OBS's chunks of silence, and how many there were: few."""
	silent = silent_chunks(track)
	count = np.count_nonzero(silent) // CHUNK
	minutes = len(track) / RATE / 60
	assert count <= MOST_SILENT_CHUNKS_A_MINUTE * minutes, f"{count} chunks of silence in {minutes:.1f} minutes are not OBS's alone"
	return track[~silent], count


def check_dub(recording, clips):
	"""The dub is the original and the voice, at the same distance to the sample, all the time.

	Returns its length in seconds, and how many chunks OBS has left silent in the original, and in the dub.
	"""
	(original, original_silent), (dub, dub_silent) = (of_the_source(left_of(recording, track)) for track in (1, 2))

	# OBS places the first chunk of a source to the sample, and each later one right behind the one before it.
	ahead = original[:RATE].tobytes().find(dub[RATE // 2:RATE // 2 + 64].tobytes()) // 4 - RATE // 2
	assert abs(ahead) < RATE // 10, "the dub is not beside the original"
	original, dub = original[max(ahead, 0):], dub[max(-ahead, 0):]
	length = min(len(original), len(dub))
	voice = dub[:length] - original[:length]
	# Between silence and a voice of one value there is the middle of the two.
	strange = np.flatnonzero(~np.isin(voice, np.float32([0, 0.5, 1]) * np.float32(VOICE / 32768)))
	assert not len(strange), f"the dub is apart from the original at {strange[0] / RATE:.3f} s"
	assert np.count_nonzero(voice) == clips * VOICE_SECONDS * RATE, "samples of the voice are missing or doubled"
	return length / RATE, original_silent, dub_silent


def check_uplink_lag(service):
	"""How long samples took to the service after they were due, by the clock: at the start, at the end, at worst, in seconds."""
	frames = service.received("binary")
	late = np.array([one["mono_ms"] / 1000 - (one["offset"] + one["bytes"]) / UPLINK_BYTES for one in frames])
	late -= late.min()
	tenth = len(late) // 10
	first, last = np.median(late[:tenth]), np.median(late[-tenth:])
	assert last - first < SCHEDULING_SECONDS, f"the uplink is {last - first:.2f} s later at the end than at the start"
	return first, last, late.max()


def check_caption_lag(service, script, shown):
	"""The time from a caption's message until it is in its source: at the start, at the end, at worst, in seconds."""
	times = [one["mono_ms"] / 1000 for one in service.events("script_step")]
	sent = {int(step["send"]["text"].split()[1]): at for step, at in zip(script, times, strict=True)
		if step.get("send", {}).get("language") == "es"}
	assert set(shown) == set(sent), "captions were never seen"
	late = np.array([shown[number] - sent[number] for number in sorted(sent)])
	tenth = max(len(late) // 10, 5)
	first, last = np.median(late[:tenth]), np.median(late[-tenth:])
	assert last - first < SCHEDULING_SECONDS, f"captions come {last - first:.2f} s later at the end than at the start"
	return first, last, late.max()


def check_memory(memory):
	"""Memory settles. Returns it in MiB: after the first sixth of the time, at the end, at most."""
	begin, end = memory[0][0], memory[-1][0]
	sixth = (end - begin) / 6
	early = np.median([amount for at, amount in memory if begin + sixth <= at < begin + 2 * sixth])
	late = np.median([amount for at, amount in memory if at >= end - sixth])
	assert late - early < GROWTH_MIB, f"OBS has grown from {early:.0f} to {late:.0f} MiB"
	return early, late, max(amount for _, amount in memory)


def measure(service, recording, frames, script, count, observer):
	dub_seconds, original_silent, dub_silent = check_dub(recording, count)
	return {
		"uplink": {"seconds": check_uplink(service.uplink(), frames), "lag_s": check_uplink_lag(service)},
		"captions": {"shown": len(observer.shown), "lag_s": check_caption_lag(service, script, observer.shown)},
		"dub": {"seconds": dub_seconds, "clips": count, "chunks_obs_left_silent": {"original": original_silent, "dub": dub_silent}},
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
		obs.start_recording()
		observer = Observer(obs)
		observer.start()
		wait_until(lambda: count in observer.shown, seconds + 300, "the last caption is shown")
		recording = obs.wait_for_recording_length(obs.recorded_seconds() + PERIOD)
		observer.stop()

	figures = measure(service, recording, frames, script, count, observer)
	figures["audio_buffering_ms"] = re.findall(r"total audio buffering is now (\d+) milliseconds", obs.log)
	(artefacts / "figures.json").write_text(json.dumps(figures, indent=1, default=float), encoding="utf-8")
	assert obs.exit_status == 0
	assert "Number of memory leaks: 0" in obs.log
	for path in (noise, Path(recording)):
		path.unlink()

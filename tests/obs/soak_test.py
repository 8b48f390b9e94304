# SPDX-License-Identifier: GPL-2.0-or-later
"""Half an hour in a session, in real time, with two languages and with all of them: what grows, what lags, what is lost.

Run by './dev soak'. The figures are left beside the logs, in figures.json.
"""

import json
import re
import threading
import time
import wave
from dataclasses import dataclass

import numpy as np
import pytest

from exact_audio import RATE, DubFollower, FileFollower, deliveries
from lab.audio_tap import AudioTap
from lab.obs import Input, media_file, wait_until
from lab.paths import CHECKOUT
from sessions import AUTHENTICATED, LET_IN, MICROPHONE, expected_uplink, find, session_config, target

UPLINK_RATE = 16000
UPLINK_BYTES = 2 * UPLINK_RATE

# When the first caption comes, with a second of voice in each language: before that everything is set up.
FIRST_CAPTION = 10
VOICE_SECONDS = 1

# What a machine that is busy with other things may add to a delay, without it being a queue that grows.
SCHEDULING_SECONDS = 0.3
# What waits in a queue is late by as long as it waits, whichever queue it is: the uplink's ring holds 8 s, the socket any
# amount, a language's captions 5 s and more, its speech 10 s. So a bound of every delay is one of everything that is queued.
QUEUED_SECONDS = 2
# The pages of 31 captions are drawn at once, which has kept two cores from all else for 2 s.
QUEUED_SECONDS_OF_ALL = 4
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


@dataclass
class Language:
	"""One that is captioned and dubbed. voice: every sample of its clips, another one in each language."""

	code: str
	name: str
	voice: int

	@property
	def dub(self):
		return f"Talvora Dub — {self.name}"

	@property
	def captions(self):
		return f"Talvora Captions — {self.name}"


def every_language():
	text = (CHECKOUT / "src" / "settings" / "language-catalogue.cpp").read_text(encoding="utf-8")
	found = re.findall(r'\{QStringLiteral\("(\w+)"\), QStringLiteral\("(\w+)"\)\}', text)
	return [Language(code, name, 8192 + 64 * number) for number, (code, name) in enumerate(sorted(found))]


TWO = [one for one in every_language() if one.code in ("es", "fr")]


def session_script(languages, count, period):
	steps = [*LET_IN]
	for number in range(1, count + 1):
		steps.append({"after_audio_bytes": (FIRST_CAPTION + period * (number - 1)) * UPLINK_BYTES})
		for one in languages:
			steps.append({"send": {"type": "caption", "language": one.code, "text": f"number {number}", "duration": 2.0,
					       "clipId": number}})
			steps.append({"send_tts": {"language": one.code, "clip_id": number, "pcm": f"{one.code}.pcm"}})
	return steps


class Observer(threading.Thread):
	"""Looks at a running OBS until it is told to stop: when each caption is shown, and how much memory there is."""

	def __init__(self, obs, languages):
		super().__init__(daemon=True)
		self._obs = obs
		# So that a hundred requests are made a second at most.
		self._pause = 0.01 * len(languages)
		self._done = threading.Event()
		self._sources = {one.code: one.captions for one in languages}
		self.shown = {one.code: {} for one in languages}
		self.memory = []

	def run(self):
		next_memory = 0
		while not self._done.wait(self._pause):
			for code, source in self._sources.items():
				text = re.search(r'content: "number (\d+)"', self._obs.input_settings(source)["css"])
				if text:
					self.shown[code].setdefault(int(text.group(1)), time.monotonic())
			now = time.monotonic()
			if now >= next_memory:
				self.memory.append((now, self._obs.memory_mib()))
				next_memory = now + 5

	def has_seen(self, number):
		return all(number in shown for shown in self.shown.values())

	def stop(self):
		self._done.set()
		self.join(10)


class VoiceFollower:
	"""Follows a dub in which the original is not lowered: it is the original and the voice, to the bit."""

	def __init__(self, language):
		self._language = language
		self._dub = DubFollower(language.dub)
		self.speaking = False
		self.samples = 0
		self.spoken = 0
		# Where in the source each clip is heard, in frames.
		self.heard = []

	def follow(self, delivery, place):
		"""place: where in the source the chunk begins, in frames."""
		chunk = self._dub.follow(delivery)
		if chunk is None:
			return
		left, right = chunk.samples - delivery.original.samples
		at = f"{place / RATE:.3f} s into the source"
		assert np.array_equal(left, right), f"'{self._language.dub}' is apart from the original {at}"
		# Between silence and a voice of one value there is the middle of the two.
		strange = ~np.isin(left, np.float32([0, 0.5, 1]) * np.float32(self._language.voice / 32768))
		assert not strange.any(), f"'{self._language.dub}' is neither the original nor the voice {at}"
		speaking = left != 0
		begins = np.flatnonzero(speaking & ~np.concatenate(([self.speaking], speaking[:-1])))
		self.heard += [place + int(begin) for begin in begins]
		self.speaking = speaking[-1]
		self.samples += chunk.frames
		self.spoken += int(np.count_nonzero(speaking))

	def end(self, moment):
		self._dub.until = moment


class Listener(threading.Thread):
	"""Holds every chunk of the source and of all dubs against each other while OBS runs, and keeps none."""

	def __init__(self, obs, tap, frames, languages):
		super().__init__(daemon=True)
		self._chunks = tap.chunks(obs.running, delete=True)
		self.source = FileFollower(frames)
		self.dubs = {one.code: VoiceFollower(one) for one in languages}
		self.error = None

	def run(self):
		try:
			for delivery in deliveries(self._chunks, [MICROPHONE]):
				self.source.follow(delivery.original)
				for dub in self.dubs.values():
					dub.follow(delivery, self.source.place - delivery.original.frames)
		except Exception as error:
			self.error = error

	def has_heard(self, clips):
		return all(len(dub.heard) >= clips and not dub.speaking for dub in self.dubs.values())

	def tell_end(self):
		"""OBS is going to be told to end."""
		for dub in self.dubs.values():
			dub.end(time.monotonic_ns())

	def finish(self):
		"""Once OBS has ended. Fails with what was wrong."""
		self.join(60)
		assert not self.is_alive(), "there is no end to what the tap has written"
		if self.error:
			raise self.error


def check_dubs(dubs, clips, period):
	"""Every clip is heard in every dub, in one piece."""
	for code, dub in dubs.items():
		assert dub.spoken == clips * VOICE_SECONDS * RATE, f"{code}: of {clips} clips {dub.spoken} samples are heard"
		assert len(dub.heard) == clips, f"{code}: {clips} clips are heard in {len(dub.heard)} pieces"
		assert clips == 1 or min(np.diff(dub.heard)) > period * RATE / 2, f"{code}: clips are heard too close to each other"


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


def start_end_worst(late, what, tenth, most):
	"""The median of the first and of the last delays, and the longest, in seconds."""
	first, last, worst = np.median(late[:tenth]), np.median(late[-tenth:]), late.max()
	assert last - first < SCHEDULING_SECONDS, f"{what} is {last - first:.2f} s later at the end than at the start"
	assert worst < most, f"{what} has waited for {worst:.2f} s"
	return first, last, worst


def check_uplink_lag(service, most):
	"""How long samples took to the service.

	The first comes with the first chunk that is captured after the service has let OBS in, and each later one is due after it by
	the clock. So, but for the length of that chunk, this is the time between capture and service, also what it is from the start.
	"""
	frames = service.received("binary")
	let_in = service.events("script_step")[len(LET_IN) - 1]["mono_ms"] / 1000
	late = np.array([one["mono_ms"] / 1000 - let_in - (one["offset"] + one["bytes"]) / UPLINK_BYTES for one in frames])
	return start_end_worst(late, "the uplink", len(late) // 10, most)


def check_caption_lag(service, script, code, shown, most):
	"""The time from a caption's message until it is in its source."""
	times = [one["mono_ms"] / 1000 for one in service.events("script_step")]
	sent = {int(step["send"]["text"].split()[1]): at for step, at in zip(script, times, strict=True)
		if step.get("send", {}).get("language") == code}
	assert set(shown) == set(sent), f"captions in {code} were never seen"
	late = np.array([shown[number] - sent[number] for number in sorted(sent)])
	return start_end_worst(late, "a caption", max(len(late) // 10, 5), most)


def check_round_trip(uplink_begin, heard, period, most):
	"""The time from the sample upon which the service sends a clip until that clip is in the dub, by the source's own samples.

	It has passed all that is queued: the uplink's ring, the sockets, the dub's speech.
	"""
	due = uplink_begin + 3 * UPLINK_RATE * (FIRST_CAPTION + period * np.arange(len(heard)))
	return start_end_worst((np.array(heard) - due) / RATE, "speech", max(len(heard) // 10, 5), most)


def check_memory(memory):
	"""Memory settles. Returns it in MiB: after the first sixth of the time, at the end, at most."""
	begin, end = memory[0][0], memory[-1][0]
	sixth = (end - begin) / 6
	early = np.median([amount for at, amount in memory if begin + sixth <= at < begin + 2 * sixth])
	late = np.median([amount for at, amount in memory if at >= end - sixth])
	assert late - early < GROWTH_MIB, f"OBS has grown from {early:.0f} to {late:.0f} MiB"
	return early, late, max(amount for _, amount in memory)


def measure(service, frames, script, count, period, observer, listener):
	check_dubs(listener.dubs, count, period)
	uplink = service.uplink()
	uplink_begin = check_uplink(uplink, frames)
	most = QUEUED_SECONDS if len(listener.dubs) == len(TWO) else QUEUED_SECONDS_OF_ALL
	return {
		"source": {"seconds": listener.source.seconds},
		"uplink": {"seconds": len(uplink) / UPLINK_RATE, "lag_s": check_uplink_lag(service, most)},
		"captions": {code: {"shown": len(shown), "lag_s": check_caption_lag(service, script, code, shown, most)}
			     for code, shown in observer.shown.items()},
		"dubs": {code: {"seconds": dub.samples / RATE, "clips": count,
				"lag_s": check_round_trip(uplink_begin, dub.heard, period, most)} for code, dub in listener.dubs.items()},
		"memory_mib": check_memory(observer.memory),
	}


# The spoken language is none of the catalogue's, since the spoken one is not dubbed.
@pytest.mark.soak
@pytest.mark.parametrize("languages, period, settings", [(TWO, 3, {}), (every_language(), 15, {"sourceLanguage": "cy"})],
			 ids=["two languages", "every language"])
def test_long_session_neither_grows_nor_lags_nor_loses(make_obs, make_service, artefacts, request, languages, period, settings):
	seconds = round(request.config.getoption("--minutes") * 60)
	count = (seconds - FIRST_CAPTION) // period
	script = session_script(languages, count, period)
	noise = artefacts / "noise.wav"
	frames = write_noise(noise, seconds + 120)
	targets = [target(one.code, dubbing=True, captions=True) for one in languages]
	config = session_config(*targets, duckingLevel=1.0, **settings)
	service = make_service(script)
	for one in languages:
		(service.folder / f"{one.code}.pcm").write_bytes(np.full(VOICE_SECONDS * 24000, one.voice, "<i2").tobytes())
	tap = AudioTap(artefacts / "tap", [MICROPHONE, *(one.dub for one in languages)])
	# As a user has them, in the scene: of a source that is in none OBS keeps 21 s, which looks like growth.
	inputs = [media_file(MICROPHONE, noise), *(Input(one.dub, "talvora_dubbed_source", tracks=(2,)) for one in languages)]
	with service, make_obs(inputs=inputs, talvora_config=config, canvas=(640, 360), tap=tap) as obs:
		listener = Listener(obs, tap, frames, languages)
		listener.start()
		obs.wait_for_log(AUTHENTICATED)
		wait_until(lambda: set(obs.inputs()) >= {one.captions for one in languages}, 30, "the captions are among OBS's sources")
		observer = Observer(obs, languages)
		observer.start()
		wait_until(lambda: observer.has_seen(count) or listener.error, seconds + 300, "the last caption is shown")
		wait_until(lambda: listener.has_heard(count) or listener.error, 30, "the last clip is over in every dub")
		observer.stop()
		listener.tell_end()
	listener.finish()

	figures = measure(service, frames, script, count, period, observer, listener)
	(artefacts / "figures.json").write_text(json.dumps(figures, indent=1, default=float), encoding="utf-8")
	noise.unlink()

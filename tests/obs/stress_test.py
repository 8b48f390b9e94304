# SPDX-License-Identifier: GPL-2.0-or-later
"""Everything a user can do to the audio path, at random and fast, in a real OBS in a session."""

import datetime
import itertools
import re
import time

import numpy as np

from exact_audio import RATE, FileFollower, deliveries
from lab.audio_tap import AudioTap
from lab.obs import media_file
from sessions import AUTHENTICATED, LET_IN, MICROPHONE, loud_noise, session_config, target, write_wav

SECOND = "Second microphone"
LANGUAGES = ("Spanish", "French")
DUBS = [f"Talvora Dub — {language}" for language in LANGUAGES]
SECONDS = 15

VOICE = 8192

# The gain of the original moves by no more from one sample to the next: from 1 to 0 in 150 ms.
LARGEST_STEP = 1 / 7200
# How exactly gain and voice can be told from samples of 32 bits whose sides are this far apart.
APART = 0.05
TOLD_TO = 1e-5


def speech(count):
	"""Clips for both languages, two seconds apart."""
	steps = [*LET_IN]
	for number in range(1, count + 1):
		steps.append({"after_ms": 2000})
		steps += [{"send_tts": {"language": language, "clip_id": number, "pcm": "voice.pcm"}} for language in ("es", "fr")]
		steps.append({"send": {"type": "caption", "language": "es", "text": f"Uno {number}", "duration": 1, "clipId": number}})
	return steps


class RestlessUser:
	"""Does one thing after the other with the dock and the sources."""

	def __init__(self, user, chance):
		self._obs = user.obs
		self._user = user
		self._chance = chance
		self._numbers = itertools.count(1)
		self._hands = user.hands
		dock = user.dock
		self._sliders = [self._hands.find("slider", name, dock) for name in ("Original under the dub", "Dub volume")]
		self._source = self._hands.find("combo box", "Audio source", dock)
		self._language = self._hands.find("combo box", "Spoken language", dock)
		self._mute = self._hands.find("check box", "Mute the original in dubs", dock)

	def act(self):
		self._chance.choice((self.switch_target, self.change_level, self.change_source, self.change_language, self.mute, self.disturb))()

	def switch_target(self):
		self._user.mark(self._chance.choice(LANGUAGES), "Dub")

	def change_level(self):
		self._hands.click(self._chance.choice(self._sliders))
		for _ in range(self._chance.randrange(1, 5)):
			self._hands.press(self._chance.choice(("Left", "Right", "Page_Up", "Page_Down")))

	def change_source(self):
		self._choose_neighbour(self._source)

	def change_language(self):
		self._choose_neighbour(self._language)

	def _choose_neighbour(self, box):
		self._hands.click(box)
		self._hands.press(self._chance.choice(("Up", "Down")))
		self._hands.press("Return")

	def mute(self):
		self._hands.click(self._mute)

	def disturb(self):
		"""Through the remote control: a dub is removed, another source comes and goes."""
		for dub in self._obs.inputs("talvora_dubbed_source")[:1]:
			self._obs.request("RemoveInput", inputName=dub)
		# OBS takes its time to remove a source, so each has a name of its own.
		passing = f"Passing by {next(self._numbers)}"
		self._obs.create_input(passing, "color_source_v3")
		self._obs.request("RemoveInput", inputName=passing)


def detachments(log, source):
	"""When the module has let go of a source, by the day's clock in ms, as the log has it."""
	found = re.findall(rf"^(\d+):(\d+):(\d+)\.(\d+): \[talvora-obs\] Talvora: detached audio capture from '{source}'$", log, re.MULTILINE)
	return [((int(hours) * 60 + int(minutes)) * 60 + int(seconds)) * 1000 + int(ms) for hours, minutes, seconds, ms in found]


def time_of_day(arrival):
	"""A moment of time.monotonic_ns() by the day's clock, in whole ms."""
	wall = datetime.datetime.fromtimestamp((arrival + time.time_ns() - time.monotonic_ns()) / 1e9)
	return ((wall.hour * 60 + wall.minute) * 60 + wall.second) * 1000 + wall.microsecond // 1000


class RestlessDub:
	"""Follows one dub from when it was made until it is removed: it leaves nothing of the captured source out, and every sample of it
	is that sample of the source at a gain that moves slowly, with the voice on top."""

	def __init__(self, name, log):
		self._name = name
		self._log = log
		self._source, self._number, self._arrival = None, None, None
		# The gain that was told last, and how many samples came after that.
		self._gain, self._since = None, 0
		self.chunks = 0
		self.spoken = 0

	def follow(self, original, number, chunk):
		"""number: which chunk of its source the original is."""
		if original.source == self._source and number != self._number + 1:
			# It was not listened to for a while.
			begin, end = time_of_day(self._arrival), time_of_day(original.arrival)
			assert any(begin <= one <= end for one in detachments(self._log, self._source)), \
				f"'{self._name}' has left out {number - self._number - 1} chunks of '{self._source}'"
		self._source, self._number, self._arrival = original.source, number, original.arrival
		self.chunks += 1
		self._check_mix(original.samples.astype(np.float64), chunk.samples.astype(np.float64))

	def _check_mix(self, original, dub):
		"""The voice is the same on both sides, so that it is not in their difference."""
		difference = original[0] - original[1]
		told = np.flatnonzero(np.abs(difference) > APART)
		gain = (dub[0] - dub[1])[told] / difference[told]
		assert gain.min() > -TOLD_TO and gain.max() < 1 + TOLD_TO, f"a sample of the original is missing or doubled in '{self._name}'"
		apart = np.diff(told, prepend=-1 - self._since)
		moved = np.abs(np.diff(gain, prepend=gain[0] if self._gain is None else self._gain))
		assert (moved < apart * LARGEST_STEP + 2 * TOLD_TO).all(), f"the original jumps by {moved.max():.3f} in '{self._name}'"
		self._gain, self._since = gain[-1], len(difference) - 1 - told[-1]
		voice = dub[0][told] - gain * original[0][told]
		level = voice.max()
		assert level < VOICE / 32768 + TOLD_TO
		# Half of it where the voice begins.
		strange = np.min([np.abs(voice - part * level) for part in (0, 0.5, 1)], axis=0)
		assert strange.max() < TOLD_TO, f"the voice is not in '{self._name}' as it is"
		self.spoken += np.count_nonzero(voice > 2 * TOLD_TO)


def test_audio_flows_through_everything_a_user_does(make_obs, make_service, user_of, tmp_path, chance):
	frames = {MICROPHONE: loud_noise(120, seed=20), SECOND: loud_noise(120, seed=21)}
	inputs = [media_file(name, write_wav(tmp_path / f"{name}.wav", heard)) for name, heard in frames.items()]
	config = session_config(target("es", dubbing=True, captions=True), target("fr", dubbing=True), dockVisible=True)
	service = make_service(speech(SECONDS))
	(service.folder / "voice.pcm").write_bytes(np.full(36000, VOICE, "<i2").tobytes())
	tap = AudioTap(tmp_path / "tap", [MICROPHONE, SECOND, *DUBS])
	with service, make_obs(accessible=True, inputs=inputs, talvora_config=config, screen=(1280, 1100), tap=tap) as obs:
		obs.wait_for_log(AUTHENTICATED)
		user = RestlessUser(user_of(obs), chance)
		begin = time.monotonic()
		for dub in DUBS:
			tap.wait_for(obs, dub, time.monotonic_ns())
		actions = 0
		while time.monotonic() < begin + SECONDS or actions < 10:
			user.act()
			actions += 1
	originals = {name: FileFollower(heard) for name, heard in frames.items()}
	numbers = dict.fromkeys(originals, 0)
	dubs = {}
	for delivery in deliveries(tap.chunks(), originals):
		source = delivery.original.source
		originals[source].follow(delivery.original)
		numbers[source] += 1
		for name, chunk in delivery.dubs.items():
			dubs.setdefault(chunk.life, RestlessDub(name, obs.log)).follow(delivery.original, numbers[source], chunk)
	print(f"{actions} actions, {sum(one.chunks for one in dubs.values())} chunks of {len(dubs)} dubs, "
	      f"{sum(one.spoken for one in dubs.values()) / RATE:.1f} s and more of voice")
	assert all(one.seconds > SECONDS for one in originals.values())

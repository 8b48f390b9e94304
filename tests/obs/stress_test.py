"""Everything a user can do to the audio path, at random and fast, in a real OBS in a session."""

import itertools
import re
import shutil

import numpy as np

from lab.media import CHUNK, read_track, silent_chunks
from lab.obs import BUFFERING_ADDED, media_file
from sessions import AUTHENTICATED, LET_IN, MICROPHONE, noise_wav, session_config, target

SECOND = "Second microphone"
LANGUAGES = ("Spanish", "French")
SECONDS = 15

# How many chunks of a source may come late: 64 ms of the whole time.
MOST_LATE = 3


def speech(count):
	"""Clips for both languages, two seconds apart."""
	steps = [*LET_IN]
	for number in range(1, count + 1):
		steps.append({"after_ms": 2000})
		steps += [{"send_tts": {"language": language, "clip_id": number, "pcm": "sine 440 1.5s"}} for language in ("es", "fr")]
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


def check_no_gap(track, frames, meanwhile):
	"""What was recorded of a source is one piece of its file, sample for sample, and was hardly ever waited for.

	meanwhile: what OBS had to do, to be said with a failure.
	"""
	samples = np.trim_zeros(track[:, 0])
	silent = silent_chunks(samples)
	late = np.count_nonzero(silent) // CHUNK
	assert late <= MOST_LATE, f"the source's audio was held up: {late} chunks came late{meanwhile}"
	samples = samples[~silent]
	original = frames[:, 0].astype(np.float32) / np.float32(32768)
	place = original.tobytes().find(samples[:64].tobytes())
	assert place >= 0 and place % 4 == 0, "what was recorded first is nowhere in the source"
	expected = original[place // 4:][:len(samples)]
	wrong = np.flatnonzero(samples[:len(expected)] != expected)
	assert not len(wrong), f"samples of the source are missing or doubled after {wrong[0] / 48000:.3f} s{meanwhile}"


def test_audio_flows_through_everything_a_user_does(make_obs, make_service, user_of, tmp_path, chance, usual_complaints, artefacts):
	wav, frames = noise_wav(tmp_path / "noise.wav", 120)
	inputs = [media_file(MICROPHONE, wav, tracks=(1,)), media_file(SECOND, wav, tracks=(2,))]
	config = session_config(target("es", dubbing=True, captions=True), target("fr", dubbing=True), dockVisible=True)
	script = speech(SECONDS)
	with make_service(script), make_obs(accessible=True, inputs=inputs, talvora_config=config, tracks=(1, 2), lossless_audio=True,
					    screen=(1280, 1100)) as obs:
		obs.wait_for_log(AUTHENTICATED)
		user = RestlessUser(user_of(obs), chance)
		obs.start_recording()
		before = len(obs.log)
		actions = 0
		while obs.recorded_seconds() < SECONDS or actions < 10:
			user.act()
			actions += 1
		recording = shutil.copy(obs.stop_recording(), artefacts)
		tracks = [read_track(recording, track) for track in (1, 2)]
		held_up = re.findall(r"audio buffering is now (\d+) milliseconds \(source: (.*)\)", obs.log[before:])
	print(f"{actions} actions")
	for track in tracks:
		check_no_gap(track, frames, f"; {BUFFERING_ADDED} for {held_up}" if held_up else "")
	assert not [name for _, name in held_up if name.startswith("Talvora")], f"a dub's audio came late: {held_up}"
	assert obs.exit_status == 0
	assert "Number of memory leaks: 0" in obs.log
	assert obs.complaints() == usual_complaints

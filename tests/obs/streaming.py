# SPDX-License-Identifier: GPL-2.0-or-later
"""A session that is under way while a test does something to OBS around it, and what can be seen of it from outside."""

import json
import re
import time

from websockets.sync.client import connect

from lab.obs import NOTHING_PLAYED, Input, media_file, wait_until
from sessions import LET_IN, MICROPHONE, SPANISH_CAPTIONS, SPANISH_DUB, constant_wav, session_config, target

# Numbered captions for longer than any test lasts. Each is shown for 1.8 s, so none has to wait for the one before.
NUMBERED = [*LET_IN]
for number in range(1, 300):
	NUMBERED.append({"after_ms": 1900})
	NUMBERED.append({"send": {"type": "caption", "language": "es", "text": f"uno {number}", "duration": 0.5, "clipId": number}})

INITIALIZED = r"\[talvora-obs\] Talvora plugin initialized$"
# For each caption that comes or goes without a source.
SOURCE_GONE = r"\[talvora-obs\] CaptionManager: updateObsText for 'es' but source is null$"
# The lab's browser source complains of this when it is made without a page, as tests store it.
NO_PAGE = r"\[talvora-lab-browser\] '.*': only local files are shown$"
PLACED = rf"\[talvora-obs\] CaptionManager: placed '{SPANISH_CAPTIONS}' at bottom-centre \(640, 660\)$"


def dub_in_scene():
	"""The Spanish dub as a user has put it into the scene, where it is heard."""
	return Input(SPANISH_DUB, "talvora_dubbed_source", tracks=(2,))


def microphone(folder):
	"""A source that never falls silent: every sample is 0.25."""
	return media_file(MICROPHONE, constant_wav(folder / "constant.wav", 10, 8192), looping=True)


def spanish(connect=True, **settings):
	"""A configuration with captions and dub in Spanish; with a session from the start or without."""
	return session_config(target("es", dubbing=True, captions=True), autoConnect=connect, **settings)


def saved_collection(home):
	"""The sources of the scene collection that OBS starts with, as it has saved them, by their names."""
	text = (home / ".config" / "obs-studio" / "basic" / "scenes" / "Untitled.json").read_text(encoding="utf-8")
	return {one["name"]: one for one in json.loads(text)["sources"]}


# Kinds of messages of OBS's remote control, and its twenty measurements a second of how loud inputs are.
_IDENTIFY, _EVENT = 1, 5
_VOLUME_METERS = 1 << 16


def remote_port(obs):
	settings = obs.home / ".config" / "obs-studio" / "plugin_config" / "obs-websocket" / "config.json"
	return json.loads(settings.read_text(encoding="utf-8"))["server_port"]


def level(obs, name):
	"""The loudest sample of an input in 0.3 s, before its volume; 0 for one that is not in use.

	OBS makes a meter for whoever asks. It says 0 until the source's next chunk, and counts into that chunk whatever its memory
	had in it. So what it says in the first 0.3 s is left out.
	"""
	with connect(f"ws://127.0.0.1:{remote_port(obs)}", max_size=None, open_timeout=10, close_timeout=2, compression=None) as socket:
		socket.recv(timeout=10)
		socket.send(json.dumps({"op": _IDENTIFY, "d": {"rpcVersion": 1, "eventSubscriptions": _VOLUME_METERS}}))
		events = []
		while len(events) < 12:
			message = json.loads(socket.recv(timeout=10))
			if message["op"] == _EVENT:
				events.append(message["d"]["eventData"]["inputs"])
	return max((channel[2] for inputs in events[6:] for one in inputs if one["inputName"] == name
		    for channel in one["inputLevelsMul"]), default=0)


class Witness:
	"""Tells what a user would see and hear of captions and dub.

	service: None when there is no session. steps_a_caption: how many steps of its script there are from one to the next.
	"""

	def __init__(self, obs, service=None, steps_a_caption=2):
		self.obs = obs
		self._service = service
		self._steps_a_caption = steps_a_caption
		self._connection = 1

	def caption(self, source=SPANISH_CAPTIONS):
		"""The number of the caption that is shown; 0 when there is none."""
		css = self.obs.input_settings(source).get("css", "") if source in self.obs.inputs() else ""
		shown = re.search(r'content: "uno (\d+)"', css)
		return int(shown.group(1)) if shown else 0

	def join_session(self, number):
		"""From now on the session of the connection with this number is looked at, 1 being the first."""
		self._connection = number

	def sent(self):
		"""The number of the last caption that the service has sent in this session."""
		steps = [one for one in self._service.events("script_step") if one["connection"] == self._connection]
		return (len(steps) - len(LET_IN)) // self._steps_a_caption

	def wait_for_caption(self, source=SPANISH_CAPTIONS):
		"""Waits for a caption that has not been sent yet."""
		last = self.sent()
		wait_until(lambda: self.caption(source) > last, 15, f"a caption after number {last} is shown")

	def wait_for_uplink(self):
		"""Waits until the service has heard another quarter of a second."""
		before = self.heard()
		try:
			wait_until(lambda: self.heard() >= before + 4000, 10, "the service hears the microphone")
		except TimeoutError as error:
			if MICROPHONE in self.obs.inputs() and level(self.obs, MICROPHONE) == 0:
				raise TimeoutError(f"{error}: {NOTHING_PLAYED}") from None
			raise

	def wait_for_no_uplink(self):
		"""Waits until the service hears nothing for half a second."""

		def is_quiet():
			before = self.heard()
			time.sleep(0.5)
			return self.heard() == before

		wait_until(is_quiet, 15, "the service hears nothing")

	def uplink(self):
		return self._service.uplink(self._connection)

	def heard(self):
		"""How many samples the service has heard."""
		return self._service.heard(self._connection)

	def wait_for_dub(self, source=SPANISH_DUB):
		wait_until(lambda: level(self.obs, source) > 0, 10, "the dub is heard")

	def wait_for_silent_dub(self, source=SPANISH_DUB):
		wait_until(lambda: level(self.obs, source) == 0, 10, "the dub is silent")

	def wait_for_everything(self):
		"""Captions, capture and dub, as far as there is a session."""
		self.wait_for_dub()
		if self._service:
			self.wait_for_uplink()
			self.wait_for_caption()

	def wait_for_captions_alone(self):
		"""Captions, as far as there is a session, while there is nothing to capture or to dub."""
		self.wait_for_silent_dub()
		if self._service:
			self.wait_for_no_uplink()
			self.wait_for_caption()

	def assert_one_session(self):
		"""The connection that there was at the start is still there."""
		assert len(self._service.received("open")) == 1, "the session was broken and began anew"
		assert not self._service.received("close"), "the session has ended"


# SPDX-License-Identifier: GPL-2.0-or-later
"""A long session with a service that is not to be relied on: it freezes, closes, refuses, stalls and breaks off in the middle of
frames, at random moments, each time for less than the client goes on trying.

Run by './dev soak'. The figures are left beside the logs, in figures.json.
"""

import json
import re
import threading
import time
from collections import Counter

import numpy as np
import pytest

from fault_proxy import FaultProxy
from lab.obs import Input, free_port, wait_until
from sessions import AUTHENTICATED, LET_IN, session_config, target
from soak_test import TWO, check_memory
from streaming import level, microphone

PERIOD_MS = 3000

# How a connection ends by the service's will.
ENDS = [{"close": 1000}, {"close": 1001}, {"close": 1011}, {"close": 4001}, {"drop": True}]

# The longest wait between two attempts is 8 s, and a machine that is busy takes its time.
UPLINK_SECONDS = 10
# And until the service says something again, 3 s.
CAPTION_SECONDS = 14
# A second in three is spoken, and the meter is looked at when it comes.
DUB_SECONDS = 20
# By the timers it is 4.5 s. With a clip of a second, 2 s in which nothing is heard of it, and 1.5 s, it is as long. In an hour it was
# never more than 4.6 s.
STANDING_SECONDS = 8

ANY_NUMBER = range(1_000_000)
COMPLAINTS = {rf"\[talvora-obs\] {said}": ANY_NUMBER for said in (
	r"WebSocket error \d+: ", r"WebSocket closed with code \d+: ", "WebSocket disconnected unexpectedly — scheduling reconnect$",
	"Talvora WS error: ", "PluginDock error: ", "WSClient: the line is too slow, dropped ")}


def speaking(life, connection, rounds):
	steps = [*LET_IN, {"after_ms": 300}]
	for number in range(1, rounds + 1):
		for one in TWO:
			steps.append({"send": {"type": "caption", "language": one.code, "text": f"{life}.{connection}.{number}",
					       "duration": 2.0, "clipId": number}})
			# The whole clip in one frame, which comes in several pieces.
			steps.append({"send_tts": {"language": one.code, "clip_id": number, "pcm": f"{one.code}.pcm",
						   "frame_bytes": 48000}})
		steps.append({"after_ms": PERIOD_MS})
	return steps


class Watcher(threading.Thread):
	"""Looks at the captions of a running OBS, and at its memory, until it is told to stop."""

	def __init__(self, obs):
		super().__init__(daemon=True)
		self._obs = obs
		self._done = threading.Event()
		# By language: what is up, and since when; and when the newest was first seen.
		self.up = {one.code: ("", 0.0) for one in TWO}
		self.newest = {one.code: ("", 0.0) for one in TWO}
		self.longest = {one.code: (0.0, "") for one in TWO}
		self.shown = Counter()
		self.memory = []

	def run(self):
		next_memory = 0
		while not self._done.wait(0.1):
			for one in TWO:
				found = re.search(r'content: "([\d.]+)"', self._obs.input_settings(one.captions)["css"])
				self._see(one.code, found.group(1) if found else "", time.monotonic())
			if time.monotonic() >= next_memory:
				self.memory.append((time.monotonic(), self._obs.memory_mib()))
				next_memory = time.monotonic() + 5

	def _see(self, code, text, now):
		before, since = self.up[code]
		if before:
			self.longest[code] = max(self.longest[code], (now - since, before))
		if text != before:
			self.up[code] = text, now
			self.shown[code] += bool(text)
		if text and text != self.newest[code][0]:
			self.newest[code] = text, now

	def is_blank(self):
		return not any(text for text, _ in self.up.values())

	def stop(self):
		self._done.set()
		self.join(10)


class Restless:
	"""A session, and what is done to its service."""

	def __init__(self, obs, make_service, proxy, port, chance):
		self.obs = obs
		self._make_service = make_service
		self._proxy = proxy
		self._port = port
		self._chance = chance
		self.services = []
		self.waits = []
		self.done = []

	def serve(self, restless=True):
		"""A service, in place of the one before."""
		life = len(self.services) + 1
		if restless:
			lists = []
			for connection in range(1, 100):
				rounds = self._chance.randint(4, 40)
				lists.append([*speaking(life, connection, rounds), self._chance.choice(ENDS)])
			script = {"connections": lists}
		else:
			script = speaking(life, 1, 100)
		service = self._make_service(script, name=f"service-{life}", port=self._port)
		for one in TWO:
			(service.folder / f"{one.code}.pcm").write_bytes(np.full(24000, one.voice, "<i2").tobytes())
		service.start()
		self.services.append(service)

	@property
	def service(self):
		return self.services[-1]

	def freeze(self):
		self.service.freeze()
		time.sleep(self._chance.uniform(1, 60))
		self.service.thaw()

	def stall(self):
		self._proxy.stall()
		time.sleep(self._chance.uniform(1, 60))
		self._proxy.flow()

	def refuse(self):
		self._proxy.refuse()
		self._proxy.reset()
		time.sleep(self._chance.uniform(0, 12))
		self._proxy.listen()

	def restart(self):
		self.service.stop()
		time.sleep(self._chance.uniform(0, 8))
		self.serve()

	def _cut(self):
		"""The line stands still in the middle of something."""
		self._proxy.stall_after(self._chance.randrange(100_000))
		wait_until(self._proxy.is_stalled, 30, "the line stands still")

	def cut_and_reset(self):
		self._cut()
		self._proxy.reset()

	def cut_and_wait(self):
		self._cut()
		time.sleep(self._chance.uniform(1, 40))
		self._proxy.flow()

	def one_fault(self):
		fault = self._chance.choice([self.freeze, self.stall, self.refuse, self.restart, self.cut_and_reset, self.cut_and_wait])
		begin = time.monotonic()
		fault()
		self.done.append((fault.__name__, time.monotonic() - begin))

	def wait_for_everything(self, watcher):
		"""Capture, captions and dubs go on, within what the client's waits allow. Returns how long each took, in seconds."""
		begin = time.monotonic()
		after = f"after {self.done[-1] if self.done else 'the start'}"
		heard = self.service.heard_altogether()
		wait_until(lambda: self.service.heard_altogether() > heard + 4000, UPLINK_SECONDS, f"the service hears OBS {after}")
		uplink = time.monotonic() - begin
		wait_until(lambda: all(since > begin for _, since in watcher.newest.values()), CAPTION_SECONDS - uplink,
			   f"a caption is shown in both languages {after}")
		captions = time.monotonic() - begin
		for one in TWO:
			wait_until(lambda name=one.dub: level(self.obs, name) > 0.1, DUB_SECONDS, f"'{one.dub}' is heard {after}")
		return uplink, captions, time.monotonic() - begin


def states(obs):
	return [int(number) for number in re.findall(r"WS state → (\d)", obs.log)]


@pytest.mark.soak
def test_session_outlives_a_restless_service(make_obs, make_service, artefacts, tmp_path, chance, request):
	seconds = request.config.getoption("--minutes") * 60
	targets = [target(one.code, dubbing=True, captions=True) for one in TWO]
	config = session_config(*targets, muteOriginal=True, sourceLanguage="en")
	inputs = [microphone(tmp_path), *(Input(one.dub, "talvora_dubbed_source", tracks=(2,)) for one in TWO)]
	port = free_port()
	with FaultProxy(port) as proxy, make_obs(inputs=inputs, talvora_config=config, complaints=COMPLAINTS) as obs:
		session = Restless(obs, make_service, proxy, port, chance)
		session.serve()
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		wait_until(lambda: set(obs.inputs()) >= {one.captions for one in TWO}, 30, "the captions are among OBS's sources")
		settings = json.loads(obs.talvora_config_path.read_text(encoding="utf-8"))
		watcher = Watcher(obs)
		watcher.start()
		try:
			session.wait_for_everything(watcher)
			end = time.monotonic() + seconds
			while time.monotonic() < end:
				time.sleep(chance.uniform(0, 12))
				session.one_fault()
				session.waits.append(session.wait_for_everything(watcher))

			session.service.stop()
			session.serve(restless=False)
			session.wait_for_everything(watcher)
			assert json.loads(obs.talvora_config_path.read_text(encoding="utf-8")) == settings
			seen = states(obs)
			session.service.stop()
			wait_until(watcher.is_blank, 2.5, "no caption is left standing")
		finally:
			watcher.stop()
			for one in session.services:
				one.stop()

	faults = Counter(name for name, _ in session.done)
	figures = {
		"minutes": seconds / 60, "faults": faults, "drops": seen.count(4), "sessions": seen.count(3),
		"seconds until": {what: {"median": np.median(each), "worst": max(each)}
				  for what, each in zip(("uplink", "captions", "dubs"), zip(*session.waits))},
		"captions shown": watcher.shown, "longest up": watcher.longest,
		"memory_mib": [amount for _, amount in watcher.memory[::max(1, len(watcher.memory) // 20)]],
	}
	(artefacts / "figures.json").write_text(json.dumps(figures, indent=1, default=float), encoding="utf-8")
	print(json.dumps(figures, default=float))
	assert 0 not in seen, "the session has ended"
	longest, text = max(watcher.longest.values())
	assert longest < STANDING_SECONDS, f"'{text}' was up for {longest:.1f} s"
	auths = {text["text"] for one in session.services for text in one.received("text") if '"auth"' in text["text"]}
	assert len(auths) == 1, "what the service is asked for has changed"
	check_memory(watcher.memory)

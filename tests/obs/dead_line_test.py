# SPDX-License-Identifier: GPL-2.0-or-later
"""Connections that die without a word: a service that stands still, a line that is cut, half a frame and nothing after it."""

import re
import subprocess
import time
from contextlib import contextmanager

import numpy as np
import pytest

from caption_end_test import GONE_SECONDS, SPEAKING, css, shows
from fault_proxy import FaultProxy
from lab.obs import free_port, wait_until
from lab.service import PORT
from sessions import AUTHENTICATED, LET_IN, broken_off
from streaming import NUMBERED, Witness, dub_in_scene, microphone, spanish

# A dead line is one from which nothing has come for 30 s. The last answer to a ping may be 10 s old when it dies.
SOONEST, LATEST = 19, 33

NO_ANSWER = broken_off("The service does not answer")
# Nothing is captured: there is no source of the name in the settings.
QUIET = {r"\[talvora-obs\] Talvora: audio source '.*' not found$": range(5)}
# What is said meanwhile is dropped, where the system's buffers do not hold all of it.
DROPPED = {r"\[talvora-obs\] WSClient: the line is too slow, dropped \d+ bytes of audio$": range(5)}

# Half a frame is told of in one of two ways.
TIMEOUT = r"Timeout when reading data from socket\."
HALF = {rf"\[talvora-obs\] (WebSocket error 5: The service does not answer|WebSocket closed with code 1001: {TIMEOUT})$": 1,
	r"\[talvora-obs\] WebSocket disconnected unexpectedly — scheduling reconnect$": 1,
	rf"\[talvora-obs\] (Talvora WS|PluginDock) error: (The service does not answer|The connection was closed: {TIMEOUT})$": 2}


@contextmanager
def cut_line():
	"""No packet to or from the service's port arrives in this network, and nobody is told."""
	rules = [["ipproto", "tcp", way, str(PORT), "blackhole"] for way in ("dport", "sport")]

	def ip_rule(*words):
		subprocess.run(["ip", "rule", *words], check=True)

	# Before the rule for the machine's own addresses, which is the first of all.
	ip_rule("add", "pref", "2", "lookup", "local")
	ip_rule("del", "pref", "0")
	for rule in rules:
		ip_rule("add", "pref", "1", *rule)
	try:
		yield
	finally:
		for rule in rules:
			ip_rule("del", "pref", "1", *rule)
		ip_rule("add", "pref", "0", "lookup", "local")
		ip_rule("del", "pref", "2")


@contextmanager
def frozen(service):
	service.freeze()
	try:
		yield
	finally:
		service.thaw()


def states(obs):
	return [int(number) for number in re.findall(r"WS state → (\d)", obs.log)]


@pytest.mark.parametrize("speaking", [True, False], ids=["with audio", "without audio"])
@pytest.mark.parametrize("fault", ["frozen", "cut"])
def test_dead_line_is_noticed_and_the_session_goes_on(make_obs, make_service, tmp_path, fault, speaking):
	inputs = [microphone(tmp_path)] if speaking else []
	complaints = {**NO_ANSWER, **DROPPED, **({} if speaking else QUIET)}
	service = make_service(NUMBERED)
	with service, make_obs(inputs=inputs, talvora_config=spanish(), complaints=complaints) as obs:
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		witness = Witness(obs, service)
		witness.wait_for_caption()
		with cut_line() if fault == "cut" else frozen(service):
			begin = time.monotonic()
			wait_until(lambda: "::after" not in css(obs), GONE_SECONDS + 4, "the last caption is taken away")
			obs.wait_for_log(r"\[talvora-obs\] WebSocket error 5: The service does not answer$", timeout=LATEST)
			noticed = time.monotonic() - begin
		assert SOONEST < noticed < LATEST, f"the line was dead for {noticed:.1f} s"
		obs.wait_for_log(AUTHENTICATED, timeout=10, count=2)
		witness.join_session(2)
		witness.wait_for_caption()
		if speaking:
			witness.wait_for_uplink()
		seen = states(obs)
	assert seen == [1, 2, 3, 4, 1, 2, 3]
	assert service.texts(1)[0] == service.texts(2)[0]


def test_half_a_frame_is_a_drop(make_obs, make_service, tmp_path):
	"""Qt waits 5 s for the rest of a frame and then closes, but only when the half has come in one piece. Otherwise nothing that is
	whole is heard for 30 s."""
	script = [*SPEAKING[:-1], {"send_tts": {"language": "es", "clip_id": 2, "pcm": "voice.pcm", "frame_bytes": 288000}}]
	port = free_port()
	service = make_service({"connections": [script, LET_IN]}, port=port)
	(service.folder / "voice.pcm").write_bytes(np.full(6 * 24000, 8000, "<i2").tobytes())
	with service, FaultProxy(port) as proxy, make_obs(inputs=[microphone(tmp_path), dub_in_scene()], talvora_config=spanish(),
							  complaints={**HALF, **DROPPED}) as obs:
		obs.wait_for_log(r"\[talvora-obs\] WebSocket connected — sending auth$", timeout=20)
		proxy.stall_after(100_000)
		wait_until(proxy.is_stalled, 20, "half of the frame has come")
		begin = time.monotonic()
		wait_until(lambda: shows(obs, "UNO"), 3, "the caption before the frame is shown")
		obs.wait_for_log(r"\[talvora-obs\] Talvora: WS state → 4$", timeout=LATEST)
		noticed = time.monotonic() - begin
		wait_until(lambda: "::after" not in css(obs), 2.5, "the caption is taken away")
		proxy.flow()
		obs.wait_for_log(AUTHENTICATED, timeout=10, count=2)
		wait_until(lambda: service.heard(2) > 8000, 10, "the service hears OBS again")
		seen = states(obs)
	assert 4 < noticed < LATEST, f"the line was dead for {noticed:.1f} s"
	assert seen == [1, 2, 3, 4, 1, 2, 3]

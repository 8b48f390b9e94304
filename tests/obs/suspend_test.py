# SPDX-License-Identifier: GPL-2.0-or-later
"""OBS put to sleep for a minute in the middle of a session, with all that it has started, as a machine that is suspended does it;
only the service goes on.

Run by './dev soak'.
"""

import os
import re
import signal
import subprocess
import time
from pathlib import Path

import numpy as np
import pytest

from exact_audio import RATE, SECOND, Count, DubFollower, deliveries
from lab.audio_tap import AudioTap
from lab.obs import wait_until
from lab.remote import Remote
from sessions import AUTHENTICATED, LET_IN, MICROPHONE, SPANISH_DUB
from streaming import PLACED, Witness, dub_in_scene, level, microphone, remote_port, spanish

SECONDS = 60

# Between two captions with their voice, which is soft until OBS has slept, and loud after that.
PERIOD_MS = 1900
SOFT, LOUD = 8192, 16384

# A session's audio in bytes that there is not before OBS has slept: 30 s.
AFTER_SLEEP = {"after_audio_bytes": 30 * 32000}

RECONNECT = ["WebSocket disconnected unexpectedly — scheduling reconnect", "WSClient: reconnecting in 1000 ms (attempt 1)",
	     "WSClient: reconnect attempt 2/5"]


def captions(first, last, voice):
	steps = []
	for number in range(first, last + 1):
		steps.append({"after_ms": PERIOD_MS})
		steps.append({"send": {"type": "caption", "language": "es", "text": f"uno {number}", "duration": 0.5, "clipId": number}})
		steps.append({"send_tts": {"language": "es", "clip_id": number, "pcm": voice}})
	return steps


# All through the minute, whenever in its first 30 s it begins.
PATIENT = [*LET_IN, *captions(1, 48, "soft.pcm"), AFTER_SLEEP, *captions(49, 300, "loud.pcm")]
# Breaks off 40 s after the start.
IMPATIENT = [*LET_IN, *captions(1, 11, "soft.pcm"), {"after_ms": 19000}, {"drop": True}]


def family(pid):
	"""A running process and all that it has started."""
	parents = [line.split() for line in subprocess.run(["ps", "-e", "-o", "pid=,ppid="], capture_output=True, text=True,
							   check=True).stdout.splitlines()]
	found = [pid]
	for one in found:
		found += [int(child) for child, parent in parents if int(parent) == one]
	return found


def is_stopped(pid):
	return Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace").rsplit(")", 1)[1].split()[0] == "T"


def sleep_for_a_minute(witness):
	"""Returns when OBS fell asleep and when it was woken, by the clock of the service's events."""
	obs = witness.obs
	# Its keep-alive would end the connection meanwhile.
	obs.remote.close()
	asleep = family(obs.pid)
	for one in asleep:
		os.kill(one, signal.SIGSTOP)
	try:
		begin = time.monotonic()
		wait_until(lambda: all(is_stopped(one) for one in asleep), 10, "OBS is stopped")
		witness.wait_for_no_uplink()
		heard = witness.heard()
		assert heard < 30 * 16000, "OBS has been awake for too long"
		time.sleep(begin + SECONDS - time.monotonic())
		assert witness.heard() == heard, "OBS was not asleep"
		end = time.monotonic()
	finally:
		for one in asleep:
			os.kill(one, signal.SIGCONT)
	obs.remote = wait_until(lambda: connected(remote_port(obs)), 30, "OBS takes requests again")
	return begin, end


def connected(port):
	try:
		return Remote(port)
	except (OSError, TimeoutError):
		return None


def states(obs):
	return [int(number) for number in re.findall(r"WS state → (\d)", obs.log)]


def assert_dub_is_whole(tap, told_to_end):
	"""The dub has a chunk for each of the microphone's, also of what the media source has slept through and plays at once."""
	dub = DubFollower(SPANISH_DUB)
	dub.until = told_to_end
	for delivery in deliveries(tap.chunks(), [MICROPHONE]):
		assert (delivery.original.samples == 0.25).all(), "a sample of the microphone is not the one that is played"
		dub.follow(delivery)


@pytest.mark.soak
@pytest.mark.parametrize("script", [PATIENT, {"connections": [IMPATIENT, [*LET_IN, *captions(1, 300, "loud.pcm")]]}],
			 ids=["connection outlives it", "service breaks off"])
def test_session_goes_on_after_a_minute_of_sleep(make_obs, make_service, tmp_path, script):
	drops = script is not PATIENT
	service = make_service(script)
	for name, value in (("soft.pcm", SOFT), ("loud.pcm", LOUD)):
		(service.folder / name).write_bytes(np.full(24000, value, "<i2").tobytes())
	# What is heard in the dub is the voice alone.
	config = spanish(muteOriginal=True)
	tap = AudioTap(tmp_path / "tap", [MICROPHONE, SPANISH_DUB])
	with service, make_obs(inputs=[microphone(tmp_path), dub_in_scene()], talvora_config=config, tap=tap) as obs:
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		obs.wait_for_log(PLACED)
		witness = Witness(obs, service, steps_a_caption=3)
		witness.wait_for_everything()
		begin, end = sleep_for_a_minute(witness)
		if drops:
			obs.wait_for_log(AUTHENTICATED, timeout=20, count=2)
			witness.join_session(2)
		witness.wait_for_uplink()
		witness.wait_for_caption()
		wait_until(lambda: level(obs, SPANISH_DUB) > 0.4, 60, "the voice of after the sleep is in the dub")
		loud = Count(SPANISH_DUB, 2 * RATE, lambda samples: samples == LOUD / 32768, since=round(end * SECOND))
		tap.wait_until(obs, loud, "the voice of after the sleep is in the dub", timeout=60)
		witness.wait_for_uplink()
		witness.wait_for_caption()

		seen = states(obs)
		lost = [one for one in RECONNECT if f"[talvora-obs] {one}" in obs.log]
		if drops:
			assert begin < service.events("disconnected")[0]["mono_ms"] / 1000 < end
			assert seen == [1, 2, 3, 4, 1, 2, 3]
			assert lost == RECONNECT
			assert service.texts(1)[0] == service.texts(2)[0]
		else:
			assert seen == [1, 2, 3]
			assert not lost
			witness.assert_one_session()
		told_to_end = time.monotonic_ns()
	assert_dub_is_whole(tap, told_to_end)

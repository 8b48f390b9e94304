# SPDX-License-Identifier: GPL-2.0-or-later
"""OBS ended at an awkward moment: soon, cleanly, and with nothing left behind."""

import os
import re
import signal
import socket
import time
from pathlib import Path

import pytest

from lab.hands import Hands
from lab.obs import media_file, wait_until
from lab.service import KEY, PORT
from lab.web_browser import opening_recorder
from sessions import AUTHENTICATED, GONE, LET_IN, MICROPHONE, NOT_THERE, broken_off, constant_wav, session_config, target
from streaming import SOURCE_GONE

STATE = r"\[talvora-obs\] Talvora: WS state → {}$"
INITIALIZED = r"\[talvora-obs\] Talvora plugin initialized$"

# What the client's thread is given, and a second for all the rest.
LONGEST_EXIT = 6


def end(obs):
	"""Ends OBS and holds it to a clean exit."""
	start = time.monotonic()
	obs.stop()
	seconds = time.monotonic() - start
	assert seconds < LONGEST_EXIT, f"OBS took {seconds:.1f} s to end"
	assert obs.log.count("[talvora-obs] Talvora plugin shut down") == 1
	assert "WS thread did not stop" not in obs.log


@pytest.fixture
def speaking_obs(make_obs, tmp_path):
	"""An OBS that connects by itself and has something to send."""

	def make(**options):
		wav = constant_wav(tmp_path / "constant.wav", 60, 8000)
		config = session_config(target("es", dubbing=True, captions=True), target("fr", dubbing=True))
		return make_obs(inputs=[media_file(MICROPHONE, wav)], talvora_config=config, **options)

	return make


def test_exit_while_connecting(speaking_obs):
	"""The service's port takes the connection and says nothing, so that the encryption is never agreed on."""
	with socket.create_server(("127.0.0.1", PORT)), speaking_obs() as obs:
		obs.wait_for_log(STATE.format(1))
		end(obs)
	assert not re.search(STATE.format(2), obs.log, re.MULTILINE)


def test_exit_before_the_service_has_let_it_in(speaking_obs, make_service):
	with make_service([{"expect": "auth"}]) as service, speaking_obs() as obs:
		obs.wait_for_log(STATE.format(2))
		wait_until(lambda: service.texts(), 10, "the service is asked to let it in")
		end(obs)
		wait_until(lambda: service.received("close"), 5, "the service sees the end of the connection")
	assert not re.search(STATE.format(3), obs.log, re.MULTILINE)


def test_exit_with_speech_queued(speaking_obs, make_service):
	speech = [{"send_tts": {"language": language, "clip_id": 1, "pcm": "sine 440 9.0s"}} for language in ("es", "fr")]
	unfinished = {"send_tts": {"language": "es", "clip_id": 2, "pcm": "sine 440 5.0s", "end": False}}
	captions = [{"send": {"type": "caption", "language": "es", "text": f"Uno {number}", "duration": 8}} for number in range(3)]
	script = [*LET_IN, {"after_audio_bytes": 8000}, *captions, *speech, unfinished]
	with make_service(script) as service, speaking_obs() as obs:
		obs.wait_for_log(AUTHENTICATED)
		wait_until(lambda: len(service.events("script_step")) == len(script), 10, "the service has sent the speech")
		obs.wait_for_log(r"CaptionManager: caption for 'es'", count=3)
		end(obs)


def test_exit_while_reconnecting(speaking_obs):
	with speaking_obs(complaints=broken_off(NOT_THERE)) as obs:
		obs.wait_for_log(STATE.format(4))
		end(obs)


def refuses(port):
	try:
		socket.create_connection(("127.0.0.1", port), timeout=2).close()
	except ConnectionRefusedError:
		return True
	return False


def runs(pid, program):
	"""Whether a process is there, has not ended, and is that program."""
	try:
		name, state = Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").split("(", 1)[1].rsplit(")", 1)
	except FileNotFoundError:
		return False
	return name == program and state.split()[0] != "Z"


def test_exit_while_signing_in_with_the_browser_open(make_obs, tmp_path):
	programs, opened = opening_recorder(tmp_path / "bin", stays_open=True)
	complaints = {r"\[talvora-obs\] PluginDock: OAuth login failed: Login cancelled$": 1}
	with make_obs(accessible=True, path=[programs], complaints=complaints) as obs:
		obs.wait_for_log(INITIALIZED)
		hands = Hands(obs)
		hands.choose("Docks", "Talvora")
		hands.click(hands.find("push button", "Google", hands.dock("Talvora")))
		address = wait_until(lambda: opened.exists() and opened.read_text().strip(), 10, "the browser is opened")
		port = int(re.search(r"localhost(?::|%3A)(\d+)(?:/|%2F)callback", address).group(1))
		assert not refuses(port), "nobody waits for the browser's answer"
		browser = int(opened.with_name("pid").read_text(encoding="ascii"))
		end(obs)
		assert runs(browser, "sleep"), "the browser has ended with OBS"
		# And it has not inherited what listens.
		assert refuses(port), "somebody still waits for the browser's answer"
		os.kill(browser, signal.SIGTERM)


def test_exit_with_a_colour_dialog_open(make_obs):
	with make_obs(accessible=True, talvora_config={"apiKey": KEY, "dockVisible": True}) as obs:
		obs.wait_for_log(INITIALIZED)
		hands = Hands(obs)
		hands.click(hands.find("push button", "Caption text color", hands.dock("Talvora")))
		hands.find("push button", "Pick Screen Color")
		end(obs)


def test_exit_with_a_font_dialog_open(make_obs):
	with make_obs(accessible=True, talvora_config={"apiKey": KEY, "dockVisible": True}) as obs:
		obs.wait_for_log(INITIALIZED)
		hands = Hands(obs)
		hands.click(hands.find("push button", "Caption font", hands.dock("Talvora")))
		hands.find("push button", "Cancel")
		end(obs)


def test_exit_with_a_warning_open(make_obs):
	with make_obs(accessible=True, talvora_config={"dockVisible": True}) as obs:
		obs.wait_for_log(INITIALIZED)
		hands = Hands(obs)
		dock = hands.dock("Talvora")
		hands.click(hands.find("push button", "Use an API key instead", dock))
		hands.click(hands.find("push button", "Use this key", dock))
		hands.find("push button", "OK")
		end(obs)


def logged_seconds(pattern, log):
	"""The time of day of the last log line that matches, in seconds."""
	hours, minutes, seconds = re.findall(rf"^(\d+):(\d+):([\d.]+): .*{pattern}", log, re.MULTILINE)[-1]
	return int(hours) * 3600 + int(minutes) * 60 + float(seconds)


def end_at_random_moments(cycles, chance, make):
	for cycle in range(1, cycles + 1):
		moment = chance.uniform(0, 3)
		# The service breaks off a moment after it has let OBS in, again and again, and its caption may find no source any more.
		with make(wait=False, complaints={SOURCE_GONE: range(5), **broken_off(GONE, range(5))}) as obs:
			obs.wait_for_log(r"\[talvora-obs\] Loading Talvora OBS plugin", timeout=30)
			# Nothing to wait for: any moment will do, and that is the point.
			time.sleep(moment)
			obs.stop()
		what = f"in cycle {cycle}, ended {moment:.3f} s after the module was loaded"
		# OBS does not begin before it has finished loading.
		seconds = (logged_seconds("Number of memory leaks", obs.log) - logged_seconds("Shutting down ===", obs.log)) % 86400
		assert seconds < LONGEST_EXIT, f"{seconds:.1f} s to end {what}"


SESSION = [*LET_IN, {"after_audio_bytes": 8000}, {"send_tts": {"language": "es", "pcm": "sine 440 5.0s"}},
	   {"send": {"type": "caption", "language": "es", "text": "Hola", "duration": 2}}, {"after_ms": 300}, {"drop": True}]


def test_exit_at_any_moment(speaking_obs, make_service, chance):
	with make_service(SESSION):
		end_at_random_moments(3, chance, speaking_obs)


@pytest.mark.soak
def test_a_hundred_exits_at_any_moment(speaking_obs, make_service, chance, request):
	with make_service(SESSION):
		end_at_random_moments(request.config.getoption("--cycles"), chance, speaking_obs)

# SPDX-License-Identifier: GPL-2.0-or-later
"""How a session begins, breaks, comes back and ends, against the scripted service."""

import re
import subprocess
import time

from lab.obs import media_file, wait_until
from sessions import (AUTHENTICATED, GONE, LET_IN, MICROPHONE, NOT_FOUND, NOT_THERE, broken_off, constant_wav, refused, session_config,
		      target)

STATE = r"\[talvora-obs\] Talvora: WS state → {}$"


def speaking_obs(make_obs, tmp_path, **options):
	wav = constant_wav(tmp_path / "constant.wav", 60, 8000)
	config = session_config(target("es", dubbing=True, captions=True))
	return make_obs(inputs=[media_file(MICROPHONE, wav)], talvora_config=config, **options)


def states(obs):
	return [int(number) for number in re.findall(r"WS state → (\d)", obs.log)]


def messages(obs):
	"""The client's log lines with the time of each, in seconds."""
	found = []
	for line in obs.log.splitlines():
		match = re.match(r"(\d+):(\d+):([\d.]+): \[talvora-obs\] (.*)", line)
		if match:
			hours, minutes, seconds = (float(part) for part in match.groups()[:3])
			found.append((hours * 3600 + minutes * 60 + seconds, match.group(4)))
	return found


def test_exit_in_a_session_is_clean_and_says_stop(make_obs, make_service, tmp_path):
	service = make_service(LET_IN)
	with service:
		with speaking_obs(make_obs, tmp_path) as obs:
			obs.wait_for_log(AUTHENTICATED)
			wait_until(lambda: service.heard() > 8000, 10, "the service gets audio")
		wait_until(lambda: service.received("close"), 5, "the service sees the end of the connection")
	assert service.texts()[-1] == '{"type":"stop"}'


def test_states_of_a_session_follow_each_other(make_obs, make_service, tmp_path):
	with make_service(LET_IN), speaking_obs(make_obs, tmp_path) as obs:
		obs.wait_for_log(STATE.format(3))
	assert states(obs)[:3] == [1, 2, 3]
	assert "[talvora-obs] WSClient: connecting to wss://localhost:3002/ws/audio-pipeline" in obs.log
	assert "[talvora-obs] WebSocket connected — sending auth" in obs.log
	assert "[talvora-obs] Talvora: session authenticated — maxTargetLanguages=0" in obs.log


def test_dropped_connection_comes_back_and_the_budget_is_restored(make_obs, make_service, tmp_path):
	dropped = [*LET_IN, {"after_audio_bytes": 8000}, {"drop": True}]
	service = make_service({"connections": [dropped, dropped, LET_IN]})
	with service, speaking_obs(make_obs, tmp_path, complaints=broken_off(GONE, 2)) as obs:
		obs.wait_for_log(AUTHENTICATED, timeout=20, count=3)
		wait_until(lambda: service.heard(3) > 8000, 10, "audio goes on after the second drop")
		obs.wait_for_log(STATE.format(3), count=3)
		# Before the end of OBS, which is a requested disconnect.
		seen = states(obs)
	assert seen == [1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3]
	assert obs.log.count("WSClient: reconnecting in 1000 ms (attempt 1)") == 2
	assert obs.log.count("WSClient: reconnect attempt 2/5") == 2
	auths = [service.texts(connection)[0] for connection in (1, 2, 3)]
	assert auths[0] == auths[1] == auths[2], "a reconnect says something else than the first connection"


def test_unreachable_service_is_given_up_after_four_reconnects(make_obs, tmp_path):
	gave_up = ["WSClient: max reconnect attempts reached — giving up", "Talvora WS error: Max reconnect attempts reached",
		   "PluginDock error: Max reconnect attempts reached"]
	complaints = {**broken_off(NOT_THERE, 5), **dict.fromkeys(gave_up, 1)}
	with speaking_obs(make_obs, tmp_path, complaints=complaints) as obs:
		obs.wait_for_log(r"Talvora WS error: Max reconnect attempts reached", timeout=60)
		lines = messages(obs)
		seen = states(obs)
	assert seen == [1, 4, 1, 4, 1, 4, 1, 4, 1, 4, 0]
	steps = [(time, text) for time, text in lines if re.match(r"WSClient: (reconnect|max)", text)]
	assert [text for _, text in steps] == [
		"WSClient: reconnecting in 1000 ms (attempt 1)", "WSClient: reconnect attempt 2/5",
		"WSClient: reconnecting in 2000 ms (attempt 2)", "WSClient: reconnect attempt 3/5",
		"WSClient: reconnecting in 4000 ms (attempt 3)", "WSClient: reconnect attempt 4/5",
		"WSClient: reconnecting in 8000 ms (attempt 4)", "WSClient: reconnect attempt 5/5",
		"WSClient: reconnecting in 16000 ms (attempt 5)", "WSClient: max reconnect attempts reached — giving up",
	]
	for number, wanted in enumerate((1, 2, 4, 8, 16)):
		waited = steps[2 * number + 1][0] - steps[2 * number][0]
		assert wanted * 0.95 - 0.02 <= waited <= wanted * 1.05 + 0.5, f"wait {number + 1} lasted {waited} s instead of {wanted} s"
	gave_up = ("Talvora WS error: Max reconnect attempts reached. Check your API key and internet connection.")
	assert [text for _, text in lines].count(gave_up) == 1


def test_wrong_key_is_reported_and_not_tried_again(make_obs, make_service, tmp_path):
	script = [{"expect": "auth"}, {"send": {"type": "auth_error", "error": "Invalid API key"}}]
	service = make_service(script)
	with service, speaking_obs(make_obs, tmp_path, complaints=refused("Invalid API key")) as obs:
		obs.wait_for_log(r"\[talvora-obs\] WSClient: auth failed: Invalid API key$")
		obs.wait_for_log(r"\[talvora-obs\] Talvora WS error: Auth failed: Invalid API key$")
		obs.wait_for_log(STATE.format(0))
		closed = wait_until(lambda: service.received("close"), 5, "the service sees the close")
	assert closed[0]["code"] == 1000
	assert states(obs) == [1, 2, 0]
	assert "reconnecting in" not in obs.log
	assert "tak_live_local" not in obs.log, "the key is in the log"


def test_session_ended_by_the_service_is_not_taken_up_again(make_obs, make_service, tmp_path):
	ended = {"type": "session_ended", "usage": {"captionMinutes": 1.25, "dubbedMinutes": 0.5}}
	service = make_service([*LET_IN, {"after_audio_bytes": 3200}, {"send": ended}, {"close": 1000}])
	with service, speaking_obs(make_obs, tmp_path) as obs:
		obs.wait_for_log(r"\[talvora-obs\] Talvora: session ended — captions 1\.2 min, dubbed 0\.5 min$")
		obs.wait_for_log(STATE.format(0))
		wait_until(lambda: service.received("close"), 5, "the service sees the close")
		# A reconnect would begin after one.
		time.sleep(1.5)
		seen = states(obs)
	assert seen == [1, 2, 3, 0]
	assert "reconnecting in" not in obs.log
	assert len(service.received("open")) == 1


def test_certificate_of_an_unknown_authority_is_refused(make_obs, make_service, tmp_path):
	certificate, key = tmp_path / "own.pem", tmp_path / "own-key.pem"
	subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", str(key), "-out", str(certificate),
			"-days", "2", "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost"], check=True,
		       capture_output=True)
	service = make_service(LET_IN, certificate=(certificate, key))
	# On a slow machine OBS does not end before the second attempt.
	complaints = broken_off("The certificate is self-signed, and untrusted", range(1, 3))
	with service, speaking_obs(make_obs, tmp_path, complaints=complaints) as obs:
		obs.wait_for_log(r"\[talvora-obs\] WebSocket error \d+: .*certificate")
		obs.wait_for_log(r"\[talvora-obs\] WSClient: reconnecting in 1000 ms \(attempt 1\)$")
	assert not service.texts(), "the key was sent to a service nobody vouches for"


def test_no_key_means_no_session(make_obs, tmp_path):
	config = session_config(target("es", captions=True), apiKey="")
	with make_obs(talvora_config=config, complaints={NOT_FOUND.format(MICROPHONE): 1}) as obs:
		obs.wait_for_log(r"Talvora plugin initialized\. API key: \(not set\), Languages: es$")
	assert "startSession() called" not in obs.log
	assert not states(obs)


def test_no_target_language_means_no_session(make_obs, tmp_path):
	with make_obs(talvora_config=session_config(), complaints={NOT_FOUND.format(MICROPHONE): 1}) as obs:
		obs.wait_for_log(r"Talvora plugin initialized\. API key: \(set\), Languages: $")
	assert "startSession() called" not in obs.log
	assert not states(obs)

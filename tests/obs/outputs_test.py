# SPDX-License-Identifier: GPL-2.0-or-later
"""What OBS puts out while a session runs: recording, stream, replay buffer, virtual camera; profiles and audio settings."""

import re
import subprocess
from functools import partial

import numpy as np
import pytest

from lab.camera import VirtualCamera
from lab.media import read_track
from lab.obs import free_port, wait_until
from sessions import AUTHENTICATED
from streaming import NUMBERED, Witness, dub_in_scene, microphone, spanish

# OBS ends a stream with the frame that was due when it was asked to, and gives the encoder 30 s to come to that frame.
LONGEST_STREAM_END = 40

CANVAS = (640, 360)

# Brightness of a pixel of the white letters of a caption; all else in the scene is black.
BRIGHT = 200

# 0.25 of full scale, as the service hears it.
LEVEL = 8191
# OBS makes one channel of two equal ones 3 dB louder.
MONO_LEVEL = 11584

RATE_WARNING = ("[talvora-obs] Talvora: audio sample rate is 44100 Hz (expected 48000). Downsampling will produce incorrect "
		"output. Change OBS audio settings to 48 kHz.")


def test_a_session_goes_on_through_all_that_obs_puts_out(make_obs, make_service, tmp_path, artefacts):
	profile = {"AdvOut": {"RecRB": True, "RecRBTime": 5, "RecTracks": 3, "TrackIndex": 2}}
	inputs = [microphone(tmp_path), dub_in_scene()]
	# OBS makes its picture anew when the profile is changed, and says what it keeps of the old one.
	complaints = {"Number of remaining views: 1": range(3)}
	with make_service(NUMBERED) as service, make_obs(inputs=inputs, talvora_config=spanish(), profile=profile, canvas=CANVAS,
							   complaints=complaints) as obs:
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		witness = Witness(obs, service)
		witness.wait_for_everything()
		for use in (record_twice, save_replays_twice, partial(stream_to_a_server_twice, folder=artefacts), switch_profile_and_back):
			use(witness)
			witness.wait_for_everything()
			witness.assert_one_session()


def assert_level(path, track):
	samples = read_track(path, track)[:, 0]
	playing = samples[np.abs(samples) > 0.2]
	# AAC is not exact.
	assert len(playing) > 12000 and abs(np.median(playing) - 0.25) < 0.01, f"track {track} of {path.name} is not the microphone"


def record_twice(witness):
	for _ in range(2):
		witness.obs.start_recording()
		witness.wait_for_caption()
		recording = witness.obs.wait_for_recording_length(1)
		assert_level(recording, 1)
		assert_level(recording, 2)


def save_replays_twice(witness):
	obs = witness.obs
	for _ in range(2):
		obs.request("StartReplayBuffer")
		wait_until(lambda: obs.request("GetReplayBufferStatus")["outputActive"], 10, "the replay buffer runs")
		witness.wait_for_caption()
		seen = len(obs.remote.events)
		obs.request("SaveReplayBuffer")
		obs.remote.wait_for_event("ReplayBufferSaved", since=seen)
		obs.request("StopReplayBuffer")
		wait_until(lambda: not obs.request("GetReplayBufferStatus")["outputActive"], 10, "the replay buffer has ended")
		witness.wait_for_uplink()


def stream_to_a_server_twice(witness, folder):
	obs = witness.obs
	for number in range(2):
		port, received = free_port(), folder / f"stream-{number}.mkv"
		server = subprocess.Popen(["ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-listen", "1", "-i", f"rtmp://127.0.0.1:{port}/live/key",
					   "-c", "copy", str(received)])
		try:
			wait_until(lambda: is_listening(port), 10, "the server listens")
			obs.request("SetStreamServiceSettings", streamServiceType="rtmp_custom",
				    streamServiceSettings={"server": f"rtmp://127.0.0.1:{port}/live", "key": "key"})
			obs.request("StartStream")
			wait_until(lambda: obs.request("GetStreamStatus")["outputDuration"] > 2000, 20, "OBS has streamed two seconds")
			witness.wait_for_caption()
			obs.request("StopStream")
			wait_until(lambda: not obs.request("GetStreamStatus")["outputActive"], LONGEST_STREAM_END, "the stream has ended")
			server.wait(timeout=10)
		finally:
			server.kill()
			server.wait()
		# The stream carries track 2, which is the dub.
		assert_level(received, 1)


def is_listening(port):
	"""Whether somebody listens on a port of this machine. Not tried by connecting: the server serves one client."""
	lines = open("/proc/net/tcp", encoding="ascii").read().splitlines()[1:]
	return any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == "0A" for line in lines)


def switch_profile_and_back(witness):
	obs = witness.obs
	obs.request("CreateProfile", profileName="Other", timeout=20)
	# Some versions answer before it is made, and not all switch to it then.
	wait_until(lambda: "Other" in obs.request("GetProfileList")["profiles"], 10, "the other profile is there")
	obs.request("SetCurrentProfile", profileName="Other", timeout=20)
	wait_until(lambda: obs.request("GetProfileList")["currentProfileName"] == "Other", 10, "the other profile is in use")
	witness.wait_for_everything()
	obs.request("SetCurrentProfile", profileName="Untitled", timeout=20)
	witness.wait_for_everything()
	obs.start_recording()
	assert_level(obs.wait_for_recording_length(1), 2)


def test_a_session_goes_on_through_the_virtual_camera(make_obs, make_service, tmp_path):
	"""On its own: OBS 30 that can have one closes its own standard input, and what has that number then, when the profile is changed."""
	camera = VirtualCamera(tmp_path / "camera", CANVAS)
	inputs = [microphone(tmp_path), dub_in_scene()]
	with make_service(NUMBERED) as service, \
		make_obs(inputs=inputs, talvora_config=spanish(), canvas=CANVAS, path=[camera.folder], environment=camera.environment) as obs:
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		witness = Witness(obs, service)
		witness.wait_for_everything()
		for _ in range(2):
			obs.request("StartVirtualCam")
			wait_until(lambda: obs.request("GetVirtualCamStatus")["outputActive"], 10, "the virtual camera runs")
			wait_until(lambda: camera.frames() >= 10, 10, "the virtual camera has been given a second of pictures")
			witness.wait_for_caption()
			wait_until(lambda: camera.last_frame().max() > BRIGHT, 10, "the virtual camera shows a caption")
			obs.request("StopVirtualCam")
			wait_until(lambda: not obs.request("GetVirtualCamStatus")["outputActive"], 10, "the virtual camera has ended")
			witness.wait_for_everything()
		witness.assert_one_session()
	assert obs.log.count("Virtual camera started") == obs.log.count("Virtual camera stopped") == 2


@pytest.mark.parametrize("rate, channels, heard", [(44100, "Stereo", None), (48000, "Mono", MONO_LEVEL), (48000, "5.1", LEVEL)])
def test_audio_settings_changed_and_changed_back(make_obs, make_service, tmp_path, rate, channels, heard):
	"""OBS takes such a change up when it is started again. heard: what the service hears meanwhile, None for nothing."""
	inputs = [microphone(tmp_path), dub_in_scene()]
	profile = {"Audio": {"SampleRate": rate, "ChannelSetup": channels}}
	with make_service(NUMBERED, name="changed") as service, \
		make_obs(home=tmp_path / "home", inputs=inputs, talvora_config=spanish(), profile=profile,
			 complaints={re.escape(RATE_WARNING): 1 if heard is None else 0}) as obs:
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		witness = Witness(obs, service)
		witness.wait_for_dub()
		witness.wait_for_caption()
		if heard:
			assert_uplink(witness, heard)
		else:
			obs.wait_for_log(re.escape(RATE_WARNING))
			assert witness.heard() == 0
		for name, value in (("SampleRate", "48000"), ("ChannelSetup", "Stereo")):
			obs.request("SetProfileParameter", parameterCategory="Audio", parameterName=name, parameterValue=value)
		witness.wait_for_dub()

	with make_service(NUMBERED, name="back") as service, make_obs(home=tmp_path / "home") as obs:
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		witness = Witness(obs, service)
		witness.wait_for_dub()
		assert_uplink(witness, LEVEL)


def assert_uplink(witness, level):
	witness.wait_for_uplink()
	last = witness.uplink()[-1600:]
	assert (last == level).all(), f"the service hears {sorted(set(last))} instead of {level}"

# SPDX-License-Identifier: GPL-2.0-or-later
"""What reaches the service over a real connection from a real OBS."""

import re
import time

import numpy as np

from lab.obs import media_file, wait_until
from sessions import AUTHENTICATED, LET_IN, MICROPHONE, assert_is_heard, noise_wav, session_config, target, write_float_wav

RATE = 16000


def run_session(make_obs, make_service, wav, config, seconds=2.5, **options):
	"""A session that lasts until so many seconds of audio have come in; returns the service."""
	service = make_service(LET_IN)
	with service, make_obs(inputs=[media_file(MICROPHONE, wav)], talvora_config=config, **options) as obs:
		obs.wait_for_log(AUTHENTICATED)
		wait_until(lambda: service.heard() >= seconds * RATE, 20, f"the service has {seconds} s of audio")
	return service


def test_auth_is_the_first_message_and_exact(make_obs, make_service, tmp_path):
	wav, _ = noise_wav(tmp_path / "noise.wav", 20)
	config = session_config(target("fr", captions=True), target("es", dubbing=True, captions=True), captionMode="original")
	service = run_session(make_obs, make_service, wav, config, seconds=0.5)
	opened = service.received("open")
	assert [(one["path"], one["user_agent"]) for one in opened] == [("/ws/audio-pipeline", "Talvora-OBS-Plugin/1.0")]
	first = service.received()[1]
	assert first["kind"] == "text"
	assert first["text"] == (
		'{"apiKey":"tak_live_local","captionMode":"original","sourceLanguage":"en","targetLanguages":['
		'{"captions":true,"code":"es","dubbing":true},{"captions":true,"code":"fr","dubbing":false}],"type":"auth"}')


def test_audio_frames_are_even_and_at_most_320_bytes(make_obs, make_service, tmp_path):
	wav, _ = noise_wav(tmp_path / "noise.wav", 20)
	service = run_session(make_obs, make_service, wav, session_config(target("es", captions=True)))
	sizes = [one["bytes"] for one in service.received("binary")]
	assert max(sizes) == 320
	assert min(sizes) >= 2
	assert not [size for size in sizes if size % 2], "a frame cuts a sample in half"
	assert sum(sizes) == 2 * service.heard()


def test_audio_is_the_source_sample_for_sample(make_obs, make_service, tmp_path):
	wav, frames = noise_wav(tmp_path / "noise.wav", 20)
	service = run_session(make_obs, make_service, wav, session_config(target("es", captions=True)))
	assert_is_heard(service.uplink(), frames)


def test_full_scale_and_beyond_is_32767_on_both_sides(make_obs, make_service, tmp_path):
	loud = np.repeat(np.tile(np.float32([1, 1.5, -1, -1.5]), 6000), 4)
	wav = write_float_wav(tmp_path / "loud.wav", np.column_stack((loud, loud)))
	service = make_service(LET_IN)
	with service, make_obs(inputs=[media_file(MICROPHONE, wav, looping=True)],
			       talvora_config=session_config(target("es", captions=True))) as obs:
		obs.wait_for_log(AUTHENTICATED)
		wait_until(lambda: service.heard() >= RATE, 20, "the service has a second of audio")
	uplink = service.uplink()
	assert (uplink.min(), uplink.max()) == (-32767, 32767)


def quiet_for(service, seconds):
	"""How many samples had come in when none came for so long; 0 while they come."""
	before = service.heard()
	time.sleep(seconds)
	return before if service.heard() == before else 0


def test_muted_source_sends_nothing(make_obs, make_service, tmp_path):
	wav, _ = noise_wav(tmp_path / "noise.wav", 20)
	service = make_service(LET_IN)
	with service, make_obs(inputs=[media_file(MICROPHONE, wav)],
			       talvora_config=session_config(target("es", captions=True))) as obs:
		wait_until(lambda: service.heard() > 0, 20, "the service gets audio")
		obs.request("SetInputMute", inputName=MICROPHONE, inputMuted=True)
		frozen = wait_until(lambda: quiet_for(service, 0.5), 10, "the audio stops")
		obs.request("SetInputMute", inputName=MICROPHONE, inputMuted=False)
		wait_until(lambda: service.heard() > frozen, 10, "the audio goes on")


def test_rate_other_than_48_khz_warns_once_and_sends_nothing(make_obs, make_service, tmp_path):
	wav, _ = noise_wav(tmp_path / "noise.wav", 20)
	warning = ("[talvora-obs] Talvora: audio sample rate is 44100 Hz (expected 48000). Downsampling will produce incorrect "
		   "output. Change OBS audio settings to 48 kHz.")
	service = make_service(LET_IN)
	with service, make_obs(inputs=[media_file(MICROPHONE, wav)], sample_rate=44100, complaints={re.escape(warning): 1},
			       talvora_config=session_config(target("es", captions=True))) as obs:
		obs.wait_for_log(AUTHENTICATED)
		obs.wait_for_log(re.escape(warning))
		obs.start_recording()
		obs.wait_for_recording_length(1)
	assert service.heard() == 0

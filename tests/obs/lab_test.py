"""The lab's own promises, without which no other result here means anything."""

import wave

import numpy as np

from lab.media import read_picture, read_track
from lab.obs import media_file


def write_tone(path, seconds):
	samples = (np.sin(np.arange(48000 * seconds) * 440 * 2 * np.pi / 48000) * 20000).astype("<i2")
	with wave.open(str(path), "wb") as file:
		file.setnchannels(2)
		file.setsampwidth(2)
		file.setframerate(48000)
		file.writeframes(np.repeat(samples, 2).tobytes())


def test_obs_without_the_module_exits_cleanly(make_obs):
	with make_obs(plugin=False, browser=False) as obs:
		obs.request("GetVersion")
	assert obs.exit_status == 0
	assert "Number of memory leaks: 0" in obs.log


def test_lossless_recording_keeps_a_tone_on_its_own_track(make_obs, tmp_path):
	write_tone(tmp_path / "tone.wav", 20)
	tone = media_file("Tone", tmp_path / "tone.wav", tracks=(2,))
	with make_obs(inputs=[tone], plugin=False, browser=False, tracks=(1, 2), lossless_audio=True) as obs:
		obs.start_recording()
		recording = obs.wait_for_recording_length(1.5)
		silent, heard = read_track(recording, 1), read_track(recording, 2)
	assert not silent.any(), "track 1 has sound although nothing was sent to it"
	assert abs(np.abs(heard).max() - 20000 / 32768) < 1e-3


def test_picture_shows_on_the_program(make_obs, artefacts):
	with make_obs(plugin=False, browser=False) as obs:
		obs.create_input("Colour", "color_source_v3", {"color": 0xFF3366CC, "width": 640, "height": 360})
		obs.program_screenshot(artefacts / "program.png")
		obs.window_screenshot(artefacts / "window.png")
	picture = read_picture(artefacts / "program.png")
	assert picture.shape == (720, 1280, 4)
	assert tuple(picture[100, 100, :3]) == (0xCC, 0x66, 0x33), "the colour source is not in the top left corner"
	assert not picture[500, 1000, :3].any(), "there is something where the scene is empty"
	assert read_picture(artefacts / "window.png").any(), "the display is black"

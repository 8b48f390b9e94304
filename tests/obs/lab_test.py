# SPDX-License-Identifier: GPL-2.0-or-later
"""The lab's own promises, without which no other result here means anything."""

import struct
import time
import wave
from collections import Counter

import numpy as np
import pytest

from exact_audio import SECOND, FileFollower
from lab import complaints, own_faults
from lab.audio_tap import LAST, AudioTap
from lab.media import read_picture, read_track
from lab.obs import media_file
from sessions import noise_wav
from streaming import PLACED, dub_in_scene, spanish


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


def test_lossless_recording_keeps_a_tone_on_its_own_track(make_obs, tmp_path):
	write_tone(tmp_path / "tone.wav", 20)
	tone = media_file("Tone", tmp_path / "tone.wav", tracks=(2,))
	with make_obs(inputs=[tone], plugin=False, browser=False, tracks=(1, 2), lossless_audio=True) as obs:
		obs.start_recording()
		recording = obs.wait_for_recording_length(1.5)
		silent, heard = read_track(recording, 1), read_track(recording, 2)
	assert not silent.any(), "track 1 has sound although nothing was sent to it"
	assert abs(np.abs(heard).max() - 20000 / 32768) < 1e-3


def test_tap_keeps_every_sample_of_sources_that_come_and_go(make_obs, tmp_path):
	wav, frames = noise_wav(tmp_path / "noise.wav", 60)
	noise = media_file("Noise", wav)
	tap = AudioTap(tmp_path / "tap", ["Noise", "Nobody"])
	with make_obs(inputs=[noise, media_file("Other", wav)], plugin=False, browser=False, tap=tap, verbose=True) as obs:
		tap.wait_for(obs, "Noise", time.monotonic_ns() + SECOND)
		obs.request("RemoveInput", inputName="Noise")
		# Whoever held it would keep OBS from destroying it.
		obs.wait_for_log("source 'Noise' destroyed$")
		obs.create_input(noise.name, noise.kind, noise.settings)
		tap.wait_for(obs, "Noise", time.monotonic_ns() + SECOND)
	chunks = list(tap.chunks())
	assert {one.source for one in chunks} == {"Noise"}
	assert [one.arrival for one in chunks] == sorted(one.arrival for one in chunks)
	assert {one.life for one in chunks} == {1, 2}
	for life in (1, 2):
		follower = FileFollower(frames)
		for chunk in chunks:
			if chunk.life == life:
				follower.follow(chunk)
		assert follower.begin == 0 and follower.seconds > 0.5
	assert f"[talvora-lab-tap] {len(chunks)} chunks written, 0 lost" in obs.log


@pytest.mark.parametrize("end, said", [(b"", "has no end"), (struct.pack("=IIQQ16x", LAST, 0, 0, 3), "has lost 3 chunks"),
				       (struct.pack("=IIQQ16x", LAST, 0, 1, 0), "written 1 chunks, and 0 are there")])
def test_reader_says_what_the_tap_has_not_kept(tmp_path, end, said):
	tap = AudioTap(tmp_path / "tap", ["Noise"])
	(tap.folder / "tap-00000").write_bytes(end)
	with pytest.raises((AssertionError, RuntimeError), match=said):
		list(tap.chunks())


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


def test_references_of_the_module_are_counted(make_obs):
	"""Without that no fault could be told to be OBS's own."""
	with make_obs(inputs=[dub_in_scene()], talvora_config=spanish(False, audioSource="")) as obs:
		obs.wait_for_log(PLACED)
	assert own_faults.holds_nothing_at_end(obs.log), "the module has not given back what it was given, or nothing was counted"


@pytest.mark.parametrize("held, whose", [("nothing", "OBS"), ("weak source '' 1, data '' 2", "OBS"), ("source 'Scene' 1", "module"),
					 ("scene item '' 1", "module"), ("uncounted function 'obs_scene_create' 1", "module")])
def test_lost_sources_are_obs_s_fault_when_the_module_holds_none(monkeypatch, held, whose):
	monkeypatch.setattr(own_faults, "obs_version", lambda: (32, 2, 2))
	log = f"[reference-count] of 9 references the module holds: {held}\n17:00:00.000: Not all sources were cleared when clearing"
	assert bool(own_faults.lost_sources(log)) == (whose == "OBS")
	assert not own_faults.lost_sources(log.replace("of 9 ", "of 0 ")), "nothing has been counted"


@pytest.mark.parametrize("held, leaks, whose", [("nothing", 3, "OBS"), ("nothing", 5, "module"), ("weak source '' 1", 3, "module")])
def test_lost_memory_is_obs_s_fault_when_the_module_holds_nothing(monkeypatch, held, leaks, whose):
	monkeypatch.setattr(own_faults, "obs_version", lambda: (32, 2, 2))
	log = f"[reference-count] of 9 references the module holds: {held}\n17:00:00.000: Number of memory leaks: {leaks}\n"
	assert bool(own_faults.lost_memory(log)) == (whose == "OBS")


@pytest.mark.parametrize("late", ["Microphone", "Talvora Dub — Spanish"])
def test_obs_may_wait_for_long_for_any_source_but_a_dub(late):
	console = (f"info: adding 21 milliseconds of audio buffering, total audio buffering is now 960 milliseconds (source: {late})\n"
		   "warning: Max audio buffering reached!\n")
	found = complaints.faults(console, Counter(), {}, [])
	assert found == ([] if late == "Microphone" else ["Max audio buffering reached!"])

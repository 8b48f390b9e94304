# SPDX-License-Identifier: GPL-2.0-or-later
"""The dub beside its original: where it is, what it does to the original, sample by sample, as whoever captures them is given them.

The original is never near silence, so that its gain can be read off every sample.
"""

import time

import numpy as np

from exact_audio import RATE, DubFollower, FileFollower, deliveries
from lab.audio_tap import AudioTap
from lab.media import audio_tracks, read_track
from lab.obs import media_file, wait_until
from sessions import LET_IN, MICROPHONE, SPANISH_DUB, constant_wav, loud_noise, session_config, target, write_wav

FALL = 7200
RISE = 14400
LONGEST_CHUNK = 4096

SILENCE = np.zeros((60 * RATE, 2), np.int16)

# In chunks of LONGEST_CHUNK, which is what the media source's are.
A_SECOND = 12

# What one multiplication and one division may add to a gain.
ROUNDING = 1e-6


def clip(pcm, sample_rate=24000, **more):
	return {"send_tts": {"language": "es", "clip_id": 7, "sample_rate": sample_rate, "pcm": pcm, **more}}


def runs(mask):
	"""Start and end of each run of true values."""
	edges = np.flatnonzero(np.diff(np.concatenate(([0], mask.astype(np.int8), [0]))))
	return list(zip(edges[::2], edges[1::2]))


def is_over(pairs):
	"""Something was heard in the dub, and for a second it has been the original again."""
	differs = [not np.array_equal(original, dub) for original, dub in pairs]
	return any(differs) and not any(differs[-A_SECOND:])


def paired(chunks, dub, frames):
	"""The samples of source and dub from the dub's first chunk on, as they come. Nothing of either is lost, doubled or late."""
	source = FileFollower(frames)
	for delivery in deliveries(chunks, [MICROPHONE]):
		source.follow(delivery.original)
		if (made := dub.follow(delivery)) is not None:
			yield delivery.original.samples, made.samples


def wait_until_over(obs, tap, frames, over):
	deadline = time.monotonic() + 40
	pairs = []
	for pair in paired(tap.chunks(obs.running), DubFollower(SPANISH_DUB), frames):
		pairs.append(pair)
		if over(pairs):
			return
		assert time.monotonic() < deadline, "what the script says is not over after 40 s"


def hear(make_obs, make_service, tmp_path, script, pcm, over=is_over, frames=None, **settings):
	"""Original and dub from the dub's first chunk until OBS is told to end, which is when `over` says so of what has come: one row a
	channel each. frames: what the source plays, or None for noise."""
	frames = loud_noise(60, seed=11) if frames is None else frames
	wav = write_wav(tmp_path / "original.wav", frames)
	# Half a second first, in which nothing is said.
	steps = [*LET_IN, {"after_audio_bytes": 16000}, *script]
	service = make_service(steps)
	(service.folder / "voice.pcm").write_bytes(np.asarray(pcm, "<i2").tobytes())
	tap = AudioTap(tmp_path / "tap", [MICROPHONE, SPANISH_DUB])
	dub = DubFollower(SPANISH_DUB)
	with service, make_obs(inputs=[media_file(MICROPHONE, wav)], talvora_config=session_config(target("es", dubbing=True), **settings),
			       tap=tap) as obs:
		wait_until_over(obs, tap, frames, over)
		dub.until = time.monotonic_ns()
	return tuple(np.concatenate(side, axis=1) for side in zip(*paired(tap.chunks(), dub, frames), strict=True))


def gain_of(original, dub):
	"""The gain of the original in the dub, where there is nothing else in it."""
	left, right = dub / original
	assert np.abs(left - right).max() < ROUNDING, "one side of the original is louder than the other"
	return left


def test_original_falls_in_150_ms_and_rises_in_300_ms(make_obs, make_service, tmp_path):
	"""A silent clip of one second: only the original is heard, and its gain is all there is to see."""
	gain = gain_of(*hear(make_obs, make_service, tmp_path, [clip("voice.pcm")], np.zeros(24000)))
	lowered = runs(gain < 1 - ROUNDING)
	assert lowered, "the original is never lowered"
	start, end = lowered[0][0], lowered[-1][1]
	lowest = np.flatnonzero(np.abs(gain - 0.2) < ROUNDING)
	rising = lowest[-1] + 1
	assert 48000 <= rising - start < 48000 + LONGEST_CHUNK, f"the voice was active for {rising - start} samples"
	# The gain is a sum of thousands of 32-bit steps: it may be off by two of them at the end.
	fall = 1 - 0.8 / FALL * np.arange(1, FALL + 1)
	assert np.abs(gain[start:start + FALL] - fall).max() < 2 * 0.8 / FALL, "the original does not fall evenly in 150 ms"
	rise = 0.2 + 0.8 / RISE * np.arange(1, RISE + 1)
	assert np.abs(gain[rising:rising + RISE] - rise).max() < 2 * 0.8 / RISE, "the original does not rise evenly in 300 ms"
	assert abs(end - rising - RISE) <= 2, f"the original rose in {end - rising} samples"
	assert np.abs(gain[start + FALL + 2:rising] - 0.2).max() < ROUNDING, "the original is not held at 0.2 under the voice"
	assert (gain[end:] == 1).all(), "the original is not back after the voice"
	assert (gain[:start] == 1).all(), "the original is not untouched before the voice"


def test_voice_is_in_the_dub_sample_for_sample(make_obs, make_service, tmp_path):
	"""Over a silent original, 24 kHz speech at 48 kHz: each sample and the middle between it and the one before."""
	voice = np.random.default_rng(3).integers(-32768, 32768, 12000).astype(np.int16)
	_, dub = hear(make_obs, make_service, tmp_path, [clip("voice.pcm")], voice, frames=SILENCE)
	samples = voice.astype(np.float32) / np.float32(32768)
	before = np.concatenate(([np.float32(0)], samples[:-1]))
	expected = np.column_stack((before + (samples - before) / 2, samples)).ravel()
	heard = np.flatnonzero(dub[0])
	assert len(heard), "the voice is not in the dub"
	first = heard[0] - np.flatnonzero(expected)[0]
	played = dub[:, first:first + len(expected)]
	assert np.array_equal(played[0], expected)
	assert np.array_equal(played[0], played[1]), "the voice is not the same on both sides"
	assert not dub[:, first + len(expected):].any(), "something follows the voice"


def test_voice_is_on_top_of_the_original(make_obs, make_service, tmp_path):
	"""The original is not lowered, so that voice and original are both there as they are."""
	original, dub = hear(make_obs, make_service, tmp_path, [clip("voice.pcm")], np.full(24000, 8192), duckingLevel=1.0)
	voice = dub - original
	assert np.array_equal(voice[0], voice[1]), "the voice is not the same on both sides"
	spoken = np.flatnonzero(voice[0])
	# The first sample is the middle between silence and the voice.
	expected = np.concatenate(([0.125], np.full(47999, 0.25)))
	assert np.array_equal(voice[0, spoken[0]:spoken[-1] + 1], expected), f"of {len(expected)} samples {len(spoken)} are heard"


def test_voice_volume_and_mute_original(make_obs, make_service, tmp_path):
	voice = np.full(24000, 16384)

	def over(pairs):
		return any((dub == 0.25).any() for _, dub in pairs) and not any(dub.any() for _, dub in pairs[-A_SECOND:])

	_, dub = hear(make_obs, make_service, tmp_path, [clip("voice.pcm")], voice, over, ttsVolume=0.5, muteOriginal=True)
	# The original is there at first, and falls further than to 0.2.
	spoken = dub[:, round(FALL / 0.8):]
	assert np.count_nonzero(spoken[0] == 0.25) == 47999, "the voice at half its volume over a muted original is not 0.25"
	assert np.count_nonzero(spoken) == 2 * 48000, "the original is heard although it is muted"


def test_clip_that_is_still_arriving_waits_for_800_ms(make_obs, make_service, tmp_path):
	"""Half a second is held back; with as much again there is enough to begin."""
	half = {"send_tts": {"language": "es", "clip_id": 7, "pcm": "voice.pcm", "end": False}}
	rest = {"send_tts": {"language": "es", "clip_id": 7, "pcm": "voice.pcm", "start": False}}
	_, dub = hear(make_obs, make_service, tmp_path, [half, {"after_ms": 1000}, rest], np.full(12000, 16384), frames=SILENCE)
	assert [end - start for start, end in runs(dub[0] != 0)] == [RATE], "the voice is not in one piece"


def test_dub_without_a_clip_is_the_original(make_obs, make_service, tmp_path):
	original, dub = hear(make_obs, make_service, tmp_path, [{"after_ms": 1}], [0], lambda pairs: len(pairs) > 2 * A_SECOND)
	assert np.array_equal(dub, original)


def test_dub_is_on_its_track_of_a_recording(make_obs, make_service, tmp_path):
	"""Through OBS's mixer and encoder, which may put silence in between where the machine gives them no time."""
	wav = constant_wav(tmp_path / "constant.wav", 60, 16384)
	steps = [*LET_IN, {"after_audio_bytes": 64000}, clip("voice.pcm")]
	service = make_service(steps)
	(service.folder / "voice.pcm").write_bytes(np.full(24000, 8192, "<i2").tobytes())
	config = session_config(target("es", dubbing=True), duckingLevel=1.0)
	with service, make_obs(inputs=[media_file(MICROPHONE, wav)], talvora_config=config, tracks=(1, 2), lossless_audio=True) as obs:
		wait_until(lambda: SPANISH_DUB in obs.inputs(), 10, "the dub is among OBS's sources")
		obs.add_to_scene(SPANISH_DUB)
		obs.set_tracks(MICROPHONE, 1)
		obs.set_tracks(SPANISH_DUB, 2)
		obs.start_recording()
		wait_until(lambda: len(service.events("script_step")) == len(steps), 20, "the service has sent the clip")
		recording = obs.wait_for_recording_length(obs.recorded_seconds() + 3)
		assert audio_tracks(recording) == 2
		original, dub = (read_track(recording, track) for track in (1, 2))
	assert set(np.unique(original)) <= {0, 0.5} and original.any(), "the original alone is not on its track"
	assert set(np.unique(dub)) <= {0, 0.5, 0.625, 0.75}, "something else than original and voice is on the dub's track"
	assert np.count_nonzero(dub[:, 0] == 0.75) > RATE / 2, "the voice is not on the dub's track"

"""The dub in a recording: where it is, what it does to the original, sample by sample.

The original is one constant value, so that its gain can be read off every recorded sample.
"""

import numpy as np

from lab.media import audio_tracks, read_track
from lab.obs import media_file, wait_until
from sessions import LET_IN, MICROPHONE, SPANISH_DUB, constant_wav, session_config, target

LEVEL = 0.5
FALL = 7200
RISE = 14400
LONGEST_CHUNK = 4096
OBS_CHUNK = 1024


def clip(pcm, sample_rate=24000, **more):
	return {"send_tts": {"language": "es", "clip_id": 7, "sample_rate": sample_rate, "pcm": pcm, **more}}


def runs(mask):
	"""Start and end of each run of true values."""
	edges = np.flatnonzero(np.diff(np.concatenate(([0], mask.astype(np.int8), [0]))))
	return list(zip(edges[::2], edges[1::2]))


def has_whole_chunks_of_silence(track):
	playing = np.flatnonzero(track[:, 0])
	if not len(playing):
		return False
	gaps = runs(track[playing[0]:playing[-1] + 1, 0] == 0)
	return any((end - start) % OBS_CHUNK == 0 for start, end in gaps)


def record_dub(*args, **options):
	"""Records original (track 1) and dub (track 2) while the script runs; returns both, all channels.

	On a busy machine OBS is now and then late to take up what a source has, and puts a chunk of silence in between: about
	twice a minute with ten programs beside it, in any source, with the module or without. Such a recording says nothing
	about the dub and is made anew. Where the original is heard in the dub, neither track is ever silent by itself.
	"""
	original_in_dub = options.get("level", LEVEL) > 0 and not options.get("muteOriginal", False)
	for attempt in range(1, 6):
		original, dub = record_dub_once(*args, **options)
		if not has_whole_chunks_of_silence(original) and not (original_in_dub and has_whole_chunks_of_silence(dub)):
			break
		print(f"recording {attempt}: OBS was late and left a gap")
	return original, dub


def record_dub_once(make_obs, make_service, tmp_path, script, pcm, seconds, level=LEVEL, **settings):
	wav = constant_wav(tmp_path / "constant.wav", 60, round(level * 32768))
	config = session_config(target("es", dubbing=True), **settings)
	# Two seconds of audio first, in which the recording is set up.
	steps = [*LET_IN, {"after_audio_bytes": 64000}, *script]
	service = make_service(steps)
	(service.folder / "voice.pcm").write_bytes(np.asarray(pcm, "<i2").tobytes())
	with service, make_obs(inputs=[media_file(MICROPHONE, wav)], talvora_config=config, tracks=(1, 2),
			       lossless_audio=True) as obs:
		wait_until(lambda: SPANISH_DUB in obs.inputs(), 10, "the dub is among OBS's sources")
		obs.add_to_scene(SPANISH_DUB)
		obs.set_tracks(MICROPHONE, 1)
		obs.set_tracks(SPANISH_DUB, 2)
		obs.start_recording()
		wait_until(lambda: len(service.events("script_step")) == len(steps), 20, "the service has sent the clip")
		start = obs.recorded_seconds()
		recording = obs.wait_for_recording_length(start + seconds)
		assert audio_tracks(recording) == 2
		return read_track(recording, 1), read_track(recording, 2)


def ducked_part(track, level=LEVEL):
	"""The samples from just before the original is lowered until it is back, and where the lowering begins."""
	playing = np.flatnonzero(track[:, 0] != 0)
	assert len(playing), "the dub's track is silent"
	samples = track[playing[0]:playing[-1] + 1, 0]
	lowered = runs(samples < level - 1e-7)
	assert lowered, "the original is never lowered"
	start, end = lowered[0][0], lowered[-1][1]
	return samples, start, end


def test_original_falls_in_150_ms_and_rises_in_300_ms(make_obs, make_service, tmp_path):
	"""A silent clip of one second: only the original is heard, and its gain is all there is to see."""
	_, dub = record_dub(make_obs, make_service, tmp_path, [clip("voice.pcm")], np.zeros(24000), 3)
	samples, start, end = ducked_part(dub)
	gain = samples / LEVEL
	lowest = np.flatnonzero(np.abs(gain - 0.2) < 1e-6)
	rising = lowest[-1] + 1
	assert 48000 <= rising - start < 48000 + LONGEST_CHUNK, f"the voice was active for {rising - start} samples"
	# The gain is a sum of thousands of 32-bit steps: it may be off by two of them at the end.
	fall = 1 - 0.8 / FALL * np.arange(1, FALL + 1)
	assert np.abs(gain[start:start + FALL] - fall).max() < 2 * 0.8 / FALL, "the original does not fall evenly in 150 ms"
	rise = 0.2 + 0.8 / RISE * np.arange(1, RISE + 1)
	assert np.abs(gain[rising:rising + RISE] - rise).max() < 2 * 0.8 / RISE, "the original does not rise evenly in 300 ms"
	assert abs(end - rising - RISE) <= 2, f"the original rose in {end - rising} samples"
	assert np.abs(gain[start + FALL + 2:rising] - 0.2).max() < 1e-6, "the original is not held at 0.2 under the voice"
	assert np.abs(gain[end:] - 1).max() < 1e-6, "the original is not back after the voice"
	assert np.abs(gain[:start] - 1).max() < 1e-6, "the original is not untouched before the voice"


def test_original_track_is_not_ducked(make_obs, make_service, tmp_path):
	original, dub = record_dub(make_obs, make_service, tmp_path, [clip("voice.pcm")], np.zeros(24000), 2)
	playing = np.flatnonzero(original[:, 0])
	heard = original[playing[0]:playing[-1] + 1]
	other = heard[heard != LEVEL]
	assert not len(other), f"{len(other)} samples are not at {LEVEL} but from {other.min()} to {other.max()}"
	assert dub[:, 0].min() < 0.5 * LEVEL or (dub == 0).any()


def test_voice_is_in_the_recording_sample_for_sample(make_obs, make_service, tmp_path):
	"""Over a silent original, 24 kHz speech at 48 kHz: each sample and the middle between it and the one before."""
	voice = np.random.default_rng(3).integers(-32768, 32768, 12000).astype(np.int16)
	_, dub = record_dub(make_obs, make_service, tmp_path, [clip("voice.pcm")], voice, 2, level=0)
	samples = voice.astype(np.float32) / np.float32(32768)
	before = np.concatenate(([np.float32(0)], samples[:-1]))
	expected = np.column_stack((before + (samples - before) / 2, samples)).ravel()
	heard = np.flatnonzero(dub[:, 0])
	assert len(heard), "the voice is not in the recording"
	first = heard[0] - np.flatnonzero(expected)[0]
	played = dub[first:first + len(expected)]
	assert np.abs(played[:, 0] - expected).max() < 1e-6
	assert np.array_equal(played[:, 0], played[:, 1]), "the voice is not the same on both sides"
	assert not dub[first + len(expected):].any(), "something follows the voice"


def test_voice_volume_and_mute_original(make_obs, make_service, tmp_path):
	voice = np.full(24000, 16384)
	_, dub = record_dub(make_obs, make_service, tmp_path, [clip("voice.pcm")], voice, 2, ttsVolume=0.5, muteOriginal=True)
	settled = dub[np.abs(dub[:, 0] - 0.25) < 1e-6]
	assert len(settled) > 24000, "the voice at half its volume over a muted original is not 0.25"
	assert dub[-100:, 0].max() < 1e-6, "the original is heard although it is muted"


def test_clip_that_is_still_arriving_waits_for_800_ms(make_obs, make_service, tmp_path):
	"""Half a second is held back; with 0.4 s more there is enough to begin."""
	half = {"send_tts": {"language": "es", "clip_id": 7, "pcm": "sine 440 0.5s", "end": False}}
	rest = {"send_tts": {"language": "es", "clip_id": 7, "pcm": "sine 440 0.4s", "start": False}}
	_, dub = record_dub(make_obs, make_service, tmp_path, [half, {"after_ms": 1000}, rest], [0], 3, level=0)
	heard = np.flatnonzero(np.abs(dub[:, 0]) > 1e-6)
	length = heard[-1] - heard[0] + 1
	assert abs(length - 0.9 * 48000) < 200, f"the voice lasts {length} samples: it is not in one piece"
	silence = max((end - start for start, end in runs(np.abs(dub[heard[0]:heard[-1], 0]) < 1e-6)), default=0)
	assert silence < 480, f"there is a gap of {silence} samples in the voice"


def test_dub_without_a_clip_is_the_original(make_obs, make_service, tmp_path):
	original, dub = record_dub(make_obs, make_service, tmp_path, [{"after_ms": 1}], [0], 1)
	playing = np.flatnonzero(dub[:, 0])
	assert np.all(dub[playing[0]:playing[-1] + 1] == LEVEL)
	assert original.any()

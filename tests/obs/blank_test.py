"""The time in which nothing is to be read between one caption and the next, with a browser source that makes a new
browser for each, as OBS's own does."""

import json
import subprocess

import numpy as np

from lab.obs import wait_until
from sessions import AUTHENTICATED, LET_IN, SPANISH_CAPTIONS, session_config, target
from streaming import microphone

STYLE = {"captionTextColor": "#ffffff00", "captionBgColor": "#ff000080", "captionFont": "DejaVu Sans,40,-1,5,600,0,0,0,0,0"}

WIDTH, HEIGHT, FRAMES_A_SECOND = 1280, 720, 30

# Each is shown for 1.8 s.
TEXTS = ["HOLA", "BUENOS DIAS", "HOLA", "ADIOS"]


def caption(text):
	return {"send": {"type": "caption", "language": "es", "text": text, "duration": 0.5, "clipId": 1}}


def shows(obs, text):
	return f'"{text}"' in obs.input_settings(SPANISH_CAPTIONS).get("css", "")


def captioned(make_obs, tmp_path, **options):
	config = session_config(target("es", captions=True), **STYLE)
	return make_obs(inputs=[microphone(tmp_path)], talvora_config=config, **options)


def test_source_is_updated_once_a_caption_and_not_for_the_same_text(make_obs, make_service, tmp_path):
	script = [*LET_IN, {"after_audio_bytes": 64000}, caption("HOLA"), caption("HOLA"), caption("ADIOS")]
	with make_service(script), captioned(make_obs, tmp_path) as obs:
		obs.wait_for_log(r"CaptionManager: placed")
		seen = len(obs.remote.events)
		wait_until(lambda: shows(obs, "ADIOS"), 20, "the third caption is shown")
		obs.remote.wait_for_event("InputSettingsChanged", lambda data: "display: none" in data["inputSettings"].get("css", ""), seen)
		updates = [one["eventData"]["inputSettings"]["css"] for one in obs.remote.events[seen:]
			   if one["eventType"] == "InputSettingsChanged" and one["eventData"]["inputName"] == SPANISH_CAPTIONS]
	texts = [css.split('content: "')[1].split('"')[0] if 'content: "' in css else "" for css in updates]
	assert texts == ["HOLA", "ADIOS", ""], f"the source was updated to {texts}"


def yellow_in_each_frame(recording):
	"""How many pixels of each frame have the colour of the text."""
	data = subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-i", str(recording), "-vf", "crop=1024:240:128:420,scale=512:120",
			       "-f", "rawvideo", "-pix_fmt", "rgb24", "-"], capture_output=True, check=True).stdout
	frames = np.frombuffer(data, np.uint8).reshape(-1, 120, 512, 3).astype(np.int16)
	return ((frames[..., 0] > 150) & (frames[..., 1] > 150) & (frames[..., 2] < 110)).sum(axis=(1, 2))


def blanks(yellow):
	"""Lengths in frames of the stretches without text between the first frame that has some and the last."""
	readable = np.flatnonzero(yellow > 20)
	return [int(gap) - 1 for gap in np.diff(readable) if gap > 1]


def test_blank_between_two_captions_is_short(make_obs, make_service, tmp_path, artefacts):
	script = [*LET_IN, {"after_audio_bytes": 64000}, *[caption(text) for text in TEXTS]]
	with make_service(script), captioned(make_obs, tmp_path, fps=FRAMES_A_SECOND) as obs:
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		obs.start_recording()
		wait_until(lambda: shows(obs, TEXTS[-1]), 30, "the last caption is shown")
		wait_until(lambda: not shows(obs, TEXTS[-1]), 10, "the last caption is taken away")
		recording = obs.stop_recording()
		found = blanks(yellow_in_each_frame(recording))
	milliseconds = [round(1000 * one / FRAMES_A_SECOND) for one in found]
	(artefacts / "blank.json").write_text(json.dumps({"blank_ms": milliseconds}), encoding="utf-8")
	print(f"blank between captions, ms: {milliseconds}")
	assert len(found) == len(TEXTS) - 1, f"there are {len(found)} blanks between {len(TEXTS)} captions"
	assert max(milliseconds) <= 700

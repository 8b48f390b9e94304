# SPDX-License-Identifier: GPL-2.0-or-later
"""The time in which nothing is to be read between one caption and the next, with a browser source that makes a new
browser for each, as OBS's own does."""

import json
import subprocess
import time

import numpy as np

from lab.obs import Input, wait_until
from sessions import AUTHENTICATED, LET_IN, MICROPHONE, NOT_FOUND, SPANISH_CAPTIONS, session_config, target
from streaming import NO_PAGE, microphone

STYLE = {"captionTextColor": "#ffffff00", "captionBgColor": "#ff000080", "captionFont": "DejaVu Sans,40,-1,5,600,0,0,0,0,0"}

WIDTH, HEIGHT, FRAMES_A_SECOND = 1280, 720, 30

TEXTS = ["HOLA", "BUENOS DIAS", "ADIOS", "HASTA LUEGO"] * 2

# Between two captions that are sent, of which each is shown for 1.8 s if no other follows.
PERIOD_MS = 1900

# A browser source of the test's own, above the captions: whatever the module shows, it shows half a period later.
PEER = "Peer"
PEER_TOP, CAPTIONS_TOP = 60, 420

# By how much a number of frames may be off at the start and at the end of each of two blanks.
FRAMES_OFF = 2


def caption(text):
	return {"send": {"type": "caption", "language": "es", "text": text, "duration": 0.5, "clipId": 1}}


def shows(obs, text):
	return f'"{text}"' in obs.input_settings(SPANISH_CAPTIONS).get("css", "")


def captioned(make_obs, *inputs, **options):
	return make_obs(inputs=inputs, talvora_config=session_config(target("es", captions=True), **STYLE), **options)


def test_source_is_updated_once_a_caption_and_not_for_the_same_text(make_obs, make_service, tmp_path):
	script = [*LET_IN, {"after_audio_bytes": 64000}, caption("HOLA"), caption("HOLA"), caption("ADIOS")]
	with make_service(script), captioned(make_obs, microphone(tmp_path)) as obs:
		obs.wait_for_log(r"CaptionManager: placed")
		seen = len(obs.remote.events)
		wait_until(lambda: shows(obs, "ADIOS"), 20, "the third caption is shown")
		obs.remote.wait_for_event("InputSettingsChanged", lambda data: "display: none" in data["inputSettings"].get("css", ""), seen)
		updates = [one["eventData"]["inputSettings"]["css"] for one in obs.remote.events[seen:]
			   if one["eventType"] == "InputSettingsChanged" and one["eventData"]["inputName"] == SPANISH_CAPTIONS]
	texts = [css.split('content: "')[1].split('"')[0] if 'content: "' in css else "" for css in updates]
	assert texts == ["HOLA", "ADIOS", ""], f"the source was updated to {texts}"


def frames_with_text(recording, top):
	"""The numbers of the frames in which there is text in a source whose upper edge is there."""
	data = subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-i", str(recording), "-vf", f"crop=1024:240:128:{top},scale=512:120",
			       "-f", "rawvideo", "-pix_fmt", "rgb24", "-"], capture_output=True, check=True).stdout
	frames = np.frombuffer(data, np.uint8).reshape(-1, 120, 512, 3)
	yellow = ((frames[..., 0] > 150) & (frames[..., 1] > 150) & (frames[..., 2] < 110)).sum(axis=(1, 2))
	return np.flatnonzero(yellow > 20)


def blanks(readable):
	"""Lengths in frames of the stretches without text between the first frame that has some and the last."""
	return [int(gap) - 1 for gap in np.diff(readable) if gap > 1]


def test_blank_between_two_captions_is_short(make_obs, make_service, tmp_path, artefacts):
	"""The blank is as long as the browser needs to start, which is the machine's affair; what the module adds to it is not. So the
	bound is the blank of a browser source that the module has nothing to do with, from the same seconds."""
	peer = Input(PEER, "browser_source", {"width": 1024, "height": 240}, position=(128, PEER_TOP))
	# At the start and at that of the session; the peer has nothing to show before the first caption.
	complaints = {NOT_FOUND.format(MICROPHONE): 2, NO_PAGE: 1}
	script = [*LET_IN, {"after_audio_bytes": 64000}]
	for text in TEXTS:
		script += [caption(text), {"after_ms": PERIOD_MS}]
	with make_service(script), captioned(make_obs, peer, fps=FRAMES_A_SECOND, complaints=complaints) as obs:
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		# The first browser of a machine takes seconds to start, in which a caption could come and go.
		obs.wait_for_log(rf"'{SPANISH_CAPTIONS}': shown after", timeout=60)
		obs.start_recording()
		speech = microphone(tmp_path)
		obs.create_input(speech.name, speech.kind, speech.settings)
		for number, text in enumerate(TEXTS):
			wait_until(lambda: shows(obs, text), 30, f"caption {number} is shown")
			# So that the two browsers do not start at the same time.
			time.sleep(PERIOD_MS / 2000)
			obs.request("SetInputSettings", inputName=PEER, inputSettings=obs.input_settings(SPANISH_CAPTIONS))
		wait_until(lambda: not shows(obs, TEXTS[-1]), 10, "the last caption is taken away")
		recording = obs.stop_recording()
		found = {"captions": blanks(frames_with_text(recording, CAPTIONS_TOP)), "peer": blanks(frames_with_text(recording, PEER_TOP))}
	milliseconds = {which: [round(1000 * one / FRAMES_A_SECOND) for one in lengths] for which, lengths in found.items()}
	(artefacts / "blank.json").write_text(json.dumps({"blank_ms": milliseconds}), encoding="utf-8")
	print(f"blank between captions, ms: {milliseconds}")
	for which, lengths in found.items():
		assert len(lengths) == len(TEXTS) - 1, f"there are {len(lengths)} blanks between {len(TEXTS)} texts of the {which}"
	assert np.median(found["captions"]) <= np.median(found["peer"]) + FRAMES_OFF, f"the module makes blanks longer: {milliseconds}"
	# No single one either is so long that a reader would take the caption for gone.
	assert max(milliseconds["captions"]) <= 700

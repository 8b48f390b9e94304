# SPDX-License-Identifier: GPL-2.0-or-later
"""Captions in an OBS that was built without a browser source, as Debian's is: the module draws them itself."""

import re

import numpy as np
import pytest

from blank_test import TEXTS, blanks, frames_with_text
from lab.hands import Hands
from lab.media import read_picture
from lab.obs import Input, scene_collection, wait_until
from sessions import LET_IN, MICROPHONE, NOT_FOUND, SPANISH_CAPTIONS, session_config, target
from streaming import INITIALIZED, microphone, saved_collection

TOLD = "[talvora-obs] Talvora: this OBS has no browser source, so Talvora draws the captions itself"
FORGOTTEN = "Source ID 'browser_source' not found"

STYLE = {"captionTextColor": "#ffffff00", "captionBgColor": "#ff000080", "captionFont": "DejaVu Sans,40,-1,5,600,0,0,0,0,0"}
FRAMES_A_SECOND = 30
CAPTIONS_TOP = 420

# One for each way in which scripts differ, and where its caption is put.
SPOKEN = {
	"es": ("Spanish", "¿Dijo \"hola\"; o no?"),
	"ar": ("Arabic", "قال Talvora مرحبا بكم (اليوم)."),
	"hi": ("Hindi", "नमस्ते, यह हिन्दी का वाक्य है।"),
	"ja": ("Japanese", "こんにちは、今日は良い天気です。"),
}
ROWS = {"es": 150, "ar": 300, "hi": 450, "ja": 600}

# A page of somebody else's, as an OBS with browsers has stored it.
PAGE = "Page"
PAGE_SETTINGS = {"url": "https://example.org/", "width": 640, "height": 360, "reroute_audio": True, "fps_custom": True, "fps": 15,
		 "css": "body { background-color: red; }"}
GAIN = {"id": "gain_filter", "name": "Louder", "settings": {"db": 5.0}}


def caption(text, language="es", duration=8.0):
	return {"send": {"type": "caption", "language": language, "text": text, "duration": duration, "clipId": 0}}


def text_rows(picture, top, bottom):
	"""How many pixels between these rows have the text's colour."""
	part = picture[top:bottom, :, :3].astype(int)
	return int((np.abs(part - (255, 255, 0)) < 40).all(axis=2).sum())


def test_captions_in_four_scripts_are_drawn(make_obs, make_service, tmp_path, artefacts):
	script = [*LET_IN, {"after_audio_bytes": 16000}, *(caption(text, code) for code, (_, text) in SPOKEN.items())]
	config = session_config(*(target(code, captions=True) for code in SPOKEN), **STYLE)
	with make_service(script), make_obs(browser=False, inputs=[microphone(tmp_path)], talvora_config=config) as obs:
		for code, (language, _) in SPOKEN.items():
			name = f"Talvora Captions — {language}"
			obs.wait_for_log(rf"CaptionManager: placed '{name}'", timeout=20)
			item = obs.request("GetSceneItemId", sceneName="Scene", sourceName=name)["sceneItemId"]
			obs.request("SetSceneItemTransform", sceneName="Scene", sceneItemId=item, sceneItemTransform={"positionX": 640, "positionY": ROWS[code]})

		def all_are_there():
			obs.program_screenshot(artefacts / "captions.png")
			picture = read_picture(artefacts / "captions.png")
			return all(text_rows(picture, row - 70, row) > 500 for row in ROWS.values())

		wait_until(all_are_there, 20, "the captions of all four languages are drawn")
		assert "browser_source" not in obs.request("GetInputKindList")["inputKinds"], "it is offered under Add source"
	assert obs.log.count(TOLD) == 1
	assert FORGOTTEN not in obs.log


def test_source_is_not_shown_as_missing(make_obs, artefacts):
	"""OBS 32 writes the names of sources in red that no module has a type for."""
	config = session_config(target("es", captions=True), autoConnect=False)
	with make_obs(browser=False, accessible=True, talvora_config=config, complaints={NOT_FOUND.format(MICROPHONE): 1}) as obs:
		obs.wait_for_log(rf"CaptionManager: placed '{SPANISH_CAPTIONS}'")
		hands = Hands(obs)
		# What the item is called in the list of sources; its check boxes bear the name too.
		wait_until(lambda: hands.all("label", SPANISH_CAPTIONS), 10, "the source is in the list of sources")
		hands.picture(artefacts / "window.png")
		seen = read_picture(artefacts / "window.png")[..., :3].astype(int)
		red = (np.abs(seen - (204, 0, 0)) < 24).all(axis=2).sum()
		assert red < 10, f"{red} pixels have the colour of missing sources"


def test_other_pages_are_not_drawn_and_keep_everything(make_obs, tmp_path, artefacts):
	home = tmp_path / "home"
	collection = scene_collection("Untitled", [Input(PAGE, "browser_source", PAGE_SETTINGS)])
	collection["sources"][0]["filters"] = [GAIN]
	with make_obs(browser=False, home=home, collections=[collection]) as obs:
		obs.wait_for_log(INITIALIZED)
		item = obs.request("GetSceneItemList", sceneName="Scene")["sceneItems"][0]["sceneItemTransform"]
		assert (item["sourceWidth"], item["sourceHeight"]) == (640, 360)
		obs.program_screenshot(artefacts / "program.png")
		assert not read_picture(artefacts / "program.png")[..., :3].any(), "something of the page is drawn"
	saved = saved_collection(home)[PAGE]
	assert saved["id"] == "browser_source"
	assert saved["settings"] == PAGE_SETTINGS
	assert [(one["id"], one["name"], one["settings"]) for one in saved["filters"]] == [("gain_filter", "Louder", {"db": 5.0})]


def test_nothing_is_registered_where_there_is_a_browser_source(make_obs):
	with make_obs() as obs:
		obs.wait_for_log(INITIALIZED)
		assert "browser_source" in obs.request("GetInputKindList")["inputKinds"]
	assert TOLD not in obs.log


def test_there_is_no_blank_between_two_captions(make_obs, make_service, tmp_path):
	script = [*LET_IN, {"after_audio_bytes": 64000}]
	for text in TEXTS:
		script += [caption(text, duration=0.5), {"after_ms": 1900}]
	config = session_config(target("es", captions=True), **STYLE)
	with make_service(script), make_obs(browser=False, inputs=[microphone(tmp_path)], talvora_config=config, fps=FRAMES_A_SECOND) as obs:
		obs.wait_for_log(rf"CaptionManager: placed '{SPANISH_CAPTIONS}'", timeout=20)
		obs.start_recording()
		obs.wait_for_log(re.escape(f"CaptionManager: caption for 'es': \"{TEXTS[-1]}\""), timeout=60)
		wait_until(lambda: "display: none" in obs.input_settings(SPANISH_CAPTIONS)["css"], 20, "the last caption is taken away")
		recording = obs.stop_recording()
		shown = frames_with_text(recording, CAPTIONS_TOP)
	assert len(shown) > len(TEXTS) * FRAMES_A_SECOND, f"captions are to be seen in {len(shown)} frames only"
	assert not blanks(shown), f"there are stretches without text between captions, in frames: {blanks(shown)}"


@pytest.mark.parametrize("size", [(640, 120), (320, 480)], ids=["smaller", "taller"])
def test_caption_follows_the_size_of_its_source(make_obs, make_service, tmp_path, artefacts, size):
	script = [*LET_IN, {"after_audio_bytes": 16000}, caption("HOLA MUNDO, HOLA MUNDO")]
	config = session_config(target("es", captions=True), **STYLE)
	with make_service(script), make_obs(browser=False, inputs=[microphone(tmp_path)], talvora_config=config) as obs:
		obs.wait_for_log(rf"CaptionManager: placed '{SPANISH_CAPTIONS}'", timeout=20)
		obs.wait_for_log("CaptionManager: caption for 'es'", timeout=20)
		obs.request("SetInputSettings", inputName=SPANISH_CAPTIONS, inputSettings={"width": size[0], "height": size[1]})

		def box_is_within():
			obs.program_screenshot(artefacts / "resized.png")
			box = np.argwhere(read_picture(artefacts / "resized.png")[..., 2] > 90)
			return len(box) and box[:, 1].max() - box[:, 1].min() < size[0] and abs(int(box[:, 1].min() + box[:, 1].max()) - 1280) < 16

		wait_until(box_is_within, 20, "the caption is as wide as its source allows")

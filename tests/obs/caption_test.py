# SPDX-License-Identifier: GPL-2.0-or-later
"""Captions from the service in the browser source's settings and in the rendered picture."""

import os

import numpy as np

from lab.media import read_picture
from lab.obs import media_file, wait_until
from sessions import LET_IN, MICROPHONE, NOT_CHOSEN, SPANISH_CAPTIONS, constant_wav, session_config, target
from streaming import saved_collection

PAGE = "talvora_caption_ui_es.html"
PLANTED = "<!DOCTYPE html><p>Planted"
NOBODY = 65534

# Where a caption source is on a canvas of 1280 by 720: 1024 by 240, bottom-centre at (640, 660).
LEFT, TOP, RIGHT, BOTTOM = 128, 420, 1152, 660

STYLE = {"captionTextColor": "#ffffff00", "captionBgColor": "#ff000080", "captionFont": "DejaVu Sans,40,-1,5,600,0,0,0,0,0"}


def caption(text, language="es", duration=8.0, clip_id=0):
	return {"send": {"type": "caption", "language": language, "text": text, "duration": duration, "clipId": clip_id}}


def captioned_obs(make_obs, tmp_path, *targets, home=None, complaints=None, **settings):
	wav = constant_wav(tmp_path / "constant.wav", 60, 8000)
	config = session_config(*(targets or (target("es", captions=True),)), **STYLE, **settings)
	return make_obs(home=home, inputs=[media_file(MICROPHONE, wav)], talvora_config=config, complaints=complaints)


def css(obs, source=SPANISH_CAPTIONS):
	"""Empty until the plug-in has made the source: OBS answers before its modules hear that it has finished loading."""
	return obs.input_settings(source).get("css", "") if source in obs.inputs() else ""


def pixels(picture, red, green, blue):
	"""Where the picture has about this colour: one row of y and x a pixel."""
	return np.argwhere((np.abs(picture[..., :3].astype(int) - (red, green, blue)) < 40).all(axis=2))


def test_caption_appears_in_the_settings_of_its_source(make_obs, make_service, tmp_path):
	script = [*LET_IN, {"after_audio_bytes": 16000}, caption('Dijo "hola"; fin')]
	with make_service(script), captioned_obs(make_obs, tmp_path) as obs:
		wait_until(lambda: "::after" in css(obs), 20, "the caption is in the css")
		settings = obs.input_settings(SPANISH_CAPTIONS)
		assert '#caption-text::after { content: "Dijo \\"hola\\"\\; fin"; white-space: pre-wrap; }' in settings["css"]
		assert settings["is_local_file"] is True
		assert settings["local_file"].endswith("/talvora_caption_ui_es.html")
		assert (settings["width"], settings["height"]) == (1024, 240)
	assert "[talvora-obs] CaptionManager: caption for 'es': \"Dijo \"hola\"; fin\"" in obs.log


def test_caption_source_is_placed_at_the_bottom_centre(make_obs, make_service, tmp_path):
	with make_service(LET_IN), captioned_obs(make_obs, tmp_path) as obs:
		obs.wait_for_log(rf"CaptionManager: placed '{SPANISH_CAPTIONS}' at bottom-centre \(640, 660\)$")
		items = obs.request("GetSceneItemList", sceneName="Scene")["sceneItems"]
		place = next(item for item in items if item["sourceName"] == SPANISH_CAPTIONS)["sceneItemTransform"]
	assert (place["positionX"], place["positionY"]) == (640, 660)
	assert place["alignment"] == 8, "the anchor is not bottom-centre"


def test_caption_is_drawn_on_the_program_and_goes_away(make_obs, make_service, tmp_path, artefacts):
	script = [*LET_IN, {"after_audio_bytes": 16000}, caption("HOLA MUNDO", duration=7.5)]
	with make_service(script), captioned_obs(make_obs, tmp_path) as obs:
		obs.wait_for_log(r"CaptionManager: caption for 'es'", timeout=20)
		wait_until(lambda: "::after" in css(obs), 10, "the caption is in the css")
		wait_until(lambda: len(program_pixels(obs, artefacts / "caption.png", 255, 255, 0)) > 500, 20, "the text is in the picture")
		wait_until(lambda: "::after" not in css(obs), 20, "the caption is taken away")
		wait_until(lambda: not len(program_pixels(obs, artefacts / "after.png", 255, 255, 0)), 20, "the picture is empty again")
	drawn = read_picture(artefacts / "caption.png")
	text, box = pixels(drawn, 255, 255, 0), pixels(drawn, 0, 0, 128)
	for found, what in ((text, "text"), (box, "box")):
		(top, left), (bottom, right) = found.min(axis=0), found.max(axis=0)
		assert LEFT <= left and right < RIGHT and TOP <= top and bottom < BOTTOM, f"the {what} is outside its source"
		assert abs((left + right) / 2 - 640) < 8, f"the {what} is not centred"
	assert len(box) > len(text) > 500


def program_pixels(obs, path, red, green, blue):
	obs.program_screenshot(path)
	return pixels(read_picture(path), red, green, blue)


def test_each_language_has_its_own_caption(make_obs, make_service, tmp_path):
	script = [*LET_IN, {"after_audio_bytes": 16000}, caption("Hola"), caption("Bonjour", "fr")]
	targets = target("es", captions=True), target("fr", captions=True), target("de", dubbing=True)
	french = "Talvora Captions — French"
	with make_service(script), captioned_obs(make_obs, tmp_path, *targets) as obs:
		wait_until(lambda: '"Hola"' in css(obs), 20, "the Spanish caption is in its css")
		wait_until(lambda: '"Bonjour"' in css(obs, french), 20, "the French caption is in its css")
		assert "Talvora Captions — German" not in obs.inputs(), "a language without captions has a caption source"


def test_caption_of_an_unknown_language_is_dropped_and_logged(make_obs, make_service, tmp_path):
	script = [*LET_IN, {"after_audio_bytes": 16000}, caption("Ciao", "it")]
	with make_service(script), captioned_obs(make_obs, tmp_path, complaints={NOT_CHOSEN.format("it"): 1}) as obs:
		obs.wait_for_log(r"\[talvora-obs\] CaptionManager: no state for language 'it' \(have: 1 states\)$", timeout=20)
		assert "::after" not in css(obs)


def test_exit_lets_go_of_the_caption_sources_and_the_collection_keeps_them(make_obs, tmp_path):
	"""OBS saves the collection and removes what is in it before the module hears that OBS ends: what the module has not let go
	of by then, OBS misses."""
	home = tmp_path / "home"
	with captioned_obs(make_obs, tmp_path, autoConnect=False, home=home) as obs:
		obs.wait_for_log(r"CaptionManager: placed")
		assert SPANISH_CAPTIONS in obs.scene_items()
	ending = obs.log[obs.log.index("==== Shutting down ="):]
	assert ending.index("All scene data cleared") < ending.index("[talvora-obs] Talvora plugin shut down")
	sources = saved_collection(home)
	assert sources[SPANISH_CAPTIONS]["settings"]["local_file"] == str(home / "tmp" / PAGE)
	assert SPANISH_CAPTIONS in [one["name"] for one in sources["Scene"]["settings"]["items"]]


def plant(page):
	"""Puts a page there as another user does, or, where the tests may not, a link to one."""
	if os.geteuid() == 0:
		page.write_text(PLANTED, encoding="utf-8")
		os.chown(page, NOBODY, NOBODY)
	else:
		elsewhere = page.with_name("planted.html")
		elsewhere.write_text(PLANTED, encoding="utf-8")
		page.symlink_to(elsewhere)


def test_page_planted_while_obs_was_away_is_left_at_the_next_start(make_obs, make_service, tmp_path):
	home = tmp_path / "home"
	with captioned_obs(make_obs, tmp_path, autoConnect=False, home=home) as obs:
		obs.wait_for_log(r"CaptionManager: placed")
	page = home / "tmp" / PAGE
	page.unlink()
	plant(page)
	with make_service([*LET_IN, caption("Hola")]), captioned_obs(make_obs, tmp_path, home=home) as obs:
		wait_until(lambda: '"Hola"' in css(obs), 20, "the caption is in the css")
		used = obs.input_settings(SPANISH_CAPTIONS)["local_file"]
		assert used == str(home / "run" / PAGE)
		assert 'id="caption-text"' in (home / "run" / PAGE).read_text(encoding="utf-8")
	assert saved_collection(home)[SPANISH_CAPTIONS]["settings"]["local_file"] == used
	assert page.read_text(encoding="utf-8") == PLANTED, "the module wrote to what was planted"

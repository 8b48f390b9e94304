# SPDX-License-Identifier: GPL-2.0-or-later
"""OBS started again with the languages and the style of the last time."""

import pytest

from lab.obs import Input, wait_until
from sessions import LET_IN, NOT_CHOSEN, SPANISH_CAPTIONS, SPANISH_DUB, session_config, target
from streaming import NO_PAGE, PLACED, dub_in_scene, microphone, saved_collection

FRENCH_CAPTIONS = "Talvora Captions — French"

# The first caption comes in the same breath as the leave to enter.
AT_ONCE = [*LET_IN,
	   {"send": {"type": "caption", "language": "es", "text": "Primero", "duration": 8, "clipId": 1}},
	   {"send": {"type": "caption", "language": "fr", "text": "Premier", "duration": 8, "clipId": 2}}]

FLEX = {"left": "flex-start", "center": "center", "right": "flex-end"}


def own_sources(obs):
	return sorted(name for name in obs.inputs() if name.startswith("Talvora"))


def css(obs, source):
	return obs.input_settings(source).get("css", "") if source in obs.inputs() else ""


def saved_captions(name):
	"""A caption source as OBS has saved it when it ended in the middle of a caption."""
	css = '#caption-text { display: block; } #caption-text::after { content: "Stale"; white-space: pre-wrap; }'
	return Input(name, "browser_source", {"css": css, "width": 1024, "height": 240}, position=(5, 5))


@pytest.mark.parametrize("opacity, written", [(100, "1"), (55, "0.55")])
@pytest.mark.parametrize("alignment", ["left", "center", "right"])
def test_first_caption_finds_its_source_after_a_restart(make_obs, make_service, tmp_path, alignment, opacity, written):
	inputs = [microphone(tmp_path), dub_in_scene(), saved_captions(SPANISH_CAPTIONS), saved_captions(FRENCH_CAPTIONS)]
	targets = target("es", dubbing=True, captions=True), target("fr", captions=True)
	config = session_config(*targets, captionAlignment=alignment, captionOpacity=opacity)
	with make_service(AT_ONCE), make_obs(inputs=inputs, talvora_config=config, complaints={NO_PAGE: 2}) as obs:
		wait_until(lambda: '"Primero"' in css(obs, SPANISH_CAPTIONS), 20, "the first Spanish caption is shown")
		wait_until(lambda: '"Premier"' in css(obs, FRENCH_CAPTIONS), 20, "the first French caption is shown")
		for source in (SPANISH_CAPTIONS, FRENCH_CAPTIONS):
			rules = css(obs, source)
			assert f"align-items: {FLEX[alignment]};" in rules and f"text-align: {alignment};" in rules
			assert f"   opacity: {written};" in rules
		obs.wait_for_log(r"\[talvora-obs\] CaptionManager: placed 'Talvora Captions — \w+' at bottom-centre", count=2)
		assert_own_sources_once(obs)
	assert_first_captions_had_a_source(obs.log, "reattached to existing source")


def test_second_run_goes_on_with_the_sources_of_the_first(make_obs, make_service, tmp_path):
	targets = target("es", dubbing=True, captions=True), target("fr", captions=True)
	options = {"home": tmp_path / "home", "inputs": [microphone(tmp_path), dub_in_scene()], "talvora_config": session_config(*targets)}
	for run, how in enumerate(["created source", "reattached to existing source"]):
		with make_service(AT_ONCE, name=f"service-{run}"), make_obs(**options) as obs:
			wait_until(lambda: '"Premier"' in css(obs, FRENCH_CAPTIONS), 20, "the first French caption is shown")
			obs.wait_for_log(r"\[talvora-obs\] CaptionManager: placed 'Talvora Captions — \w+' at bottom-centre", count=2)
			assert_own_sources_once(obs)
		assert_first_captions_had_a_source(obs.log, how)


def test_caption_that_was_up_when_obs_ended_is_gone_without_another(make_obs, make_service, tmp_path):
	home = tmp_path / "home"
	captions = target("es", captions=True)
	with make_service(AT_ONCE), make_obs(home=home, inputs=[microphone(tmp_path)], talvora_config=session_config(captions),
					     complaints={NOT_CHOSEN.format("fr"): 1}) as obs:
		obs.wait_for_log(PLACED)
		wait_until(lambda: '"Primero"' in css(obs, SPANISH_CAPTIONS), 20, "the caption is shown")
	assert '"Primero"' in saved_collection(home)[SPANISH_CAPTIONS]["settings"]["css"]
	with make_obs(home=home, talvora_config=session_config(captions, autoConnect=False)) as obs:
		obs.wait_for_log(rf"CaptionManager: reattached to existing source '{SPANISH_CAPTIONS}'$")
		wait_until(lambda: "#caption-text { display: none; }" in css(obs, SPANISH_CAPTIONS), 10, "nothing is shown")
		assert "Primero" not in css(obs, SPANISH_CAPTIONS)


def assert_own_sources_once(obs):
	assert own_sources(obs) == [FRENCH_CAPTIONS, SPANISH_CAPTIONS, SPANISH_DUB]
	assert [obs.scene_items().count(name) for name in (FRENCH_CAPTIONS, SPANISH_CAPTIONS)] == [1, 1]


def assert_first_captions_had_a_source(log, how):
	"""how: what the log says of where the sources came from."""
	assert "no state for language" not in log and "source is null" not in log
	assert log.count(f"CaptionManager: {how} 'Talvora Captions — ") == 2
	assert log.count("CaptionManager: added state for") == 2
	assert log.index("CaptionManager: added state for 'fr'") < log.index("WSClient: authenticated")

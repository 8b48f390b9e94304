# SPDX-License-Identifier: GPL-2.0-or-later
"""The module switched off, or taken away, and back again: OBS lives without it, and everything is as it was."""

import json
import shutil

import pytest

from lab.obs import PLUGIN, media_file, obs_version, wait_until
from sessions import AUTHENTICATED, LET_IN, MICROPHONE, SPANISH_CAPTIONS, SPANISH_DUB, constant_wav, session_config, target
from streaming import level


class TakenAway:
	"""The module's files are deleted by hand; the next run puts them back."""

	complaints = {}

	@staticmethod
	def switch_off(home):
		shutil.rmtree(home / ".config" / "obs-studio" / "plugins" / PLUGIN)
		return {"plugin": False}

	@staticmethod
	def switch_on(home):
		pass


class Disabled:
	"""As the plug-in manager of OBS 32 does it, but by hand: in its file about each module it has ever loaded."""

	complaints = {f"Skipping module '{PLUGIN}', is disabled": 1}

	@classmethod
	def switch_off(cls, home):
		cls._write(home, False)
		return {}

	@classmethod
	def switch_on(cls, home):
		cls._write(home, True)

	@staticmethod
	def _write(home, enabled):
		modules, ours = _listed(home)
		ours["enabled"] = enabled
		_list_of_modules(home).write_text(json.dumps(modules), encoding="utf-8")


def _list_of_modules(home):
	return home / ".config" / "obs-studio" / "plugin_manager" / "modules.json"


def _listed(home):
	"""What the plug-in manager has noted of all modules, and of this one."""
	modules = json.loads(_list_of_modules(home).read_text(encoding="utf-8"))
	ours = [one for one in modules if one["module_name"] == PLUGIN]
	assert len(ours) == 1, f"the plug-in manager does not list the module once: {modules}"
	return modules, ours[0]


@pytest.mark.skipif(obs_version() < (32,), reason="OBS has a plug-in manager from version 32 on")
def test_manager_knows_name_id_and_version(make_obs, tmp_path):
	home = tmp_path / "home"
	with make_obs(home=home) as obs:
		obs.wait_for_log(r"\[talvora-obs\] Talvora plugin initialized$")
	_, ours = _listed(home)
	assert {key: ours[key] for key in ("display_name", "id", "version")} == {
		"display_name": "Talvora", "id": "org.talvora.talvora-obs", "version": "1.0.6"}


@pytest.mark.parametrize("way", [TakenAway, *([Disabled] if obs_version() >= (32,) else [])])
def test_module_that_was_off_finds_everything_again(make_obs, make_service, tmp_path, way):
	home = tmp_path / "home"
	inputs = [media_file(MICROPHONE, constant_wav(tmp_path / "constant.wav", 60, 8000))]
	config = session_config(target("es", dubbing=True, captions=True))
	with make_service(LET_IN) as service:
		with make_obs(home=home, inputs=inputs, talvora_config=config) as obs:
			obs.wait_for_log(AUTHENTICATED)
			wait_until(lambda: SPANISH_CAPTIONS in obs.scene_items(), 10, "the captions are in the scene")
			obs.add_to_scene(SPANISH_DUB)
			obs.set_tracks(SPANISH_DUB, 3)
			wait_until(lambda: level(obs, SPANISH_DUB) > 0, 10, "the dub is heard")
		settings = obs.talvora_config_path.read_text(encoding="utf-8")

		options = way.switch_off(home)
		# What keeps a source whose kind is missing.
		missing = {"Source ID 'talvora_dubbed_source' not found": 1, **way.complaints}
		with make_obs(home=home, complaints=missing, **options) as obs:
			assert sorted(obs.scene_items()) == [MICROPHONE, SPANISH_CAPTIONS, SPANISH_DUB]
			wait_until(lambda: level(obs, MICROPHONE) > 0, 10, "the microphone is heard")
			assert level(obs, SPANISH_DUB) == 0, "the dub is heard without the module"
		assert "[talvora-obs]" not in obs.log
		assert obs.talvora_config_path.read_text(encoding="utf-8") == settings

		way.switch_on(home)
		with make_obs(home=home) as obs:
			obs.wait_for_log(AUTHENTICATED)
			obs.wait_for_log(rf"DubbedSource: reattached to existing '{SPANISH_DUB}'$")
			wait_until(lambda: SPANISH_CAPTIONS in obs.scene_items(), 10, "the captions are in the scene")
			assert obs.inputs("talvora_dubbed_source") == [SPANISH_DUB]
			assert obs.request("GetInputAudioTracks", inputName=SPANISH_DUB)["inputAudioTracks"]["3"] is True
			wait_until(lambda: service.heard(2) > 8000, 10, "the service gets audio again")
			wait_until(lambda: level(obs, SPANISH_DUB) > 0, 10, "the dub is heard again")

# SPDX-License-Identifier: GPL-2.0-or-later
"""The configuration file as a real OBS leaves it."""

import json
import re

from sessions import NOT_FOUND

INITIALIZED = r"\[talvora-obs\] Talvora plugin initialized$"

EVERYTHING = {
	"apiKey": "k-ü",
	"audioSource": "Mikrofon 1",
	"autoConnect": False,
	"captionAlignment": "left",
	"captionBgColor": "#80102030",
	"captionFont": "DejaVu Sans,30,-1,5,700,1,0,0,0,0,0,0,0,0,0,1",
	"captionMode": "original",
	"captionOpacity": 55,
	"captionTextColor": "#ff00ff00",
	"dockVisible": False,
	"duckingLevel": 0.5,
	"muteOriginal": True,
	"sourceLanguage": "de",
	"targetLanguages": [
		{"captions": True, "code": "en", "dubbing": False},
		{"captions": False, "code": "es", "dubbing": True},
		{"captions": False, "code": "fr", "dubbing": False},
	],
	"ttsVolume": 0.25,
}

# Its audio source is not in the test's OBS.
NOT_THERE = {NOT_FOUND.format(EVERYTHING["audioSource"]): 1}

DEFAULTS = {
	"apiKey": "",
	"audioSource": "",
	"autoConnect": False,
	"captionAlignment": "center",
	"captionBgColor": "#00000000",
	"captionMode": "translated",
	"captionOpacity": 100,
	"captionTextColor": "#ffffffff",
	"dockVisible": False,
	"duckingLevel": 0.20000000298023224,
	"muteOriginal": False,
	"sourceLanguage": "en",
	"targetLanguages": [],
	"ttsVolume": 1,
}


def saved_after_a_run(make_obs, config, **options):
	"""Runs OBS with this configuration; returns what it saved and the log."""
	saved = {}
	with make_obs(talvora_config=config, **options) as obs:
		obs.wait_for_log(INITIALIZED)
		obs.stop()
		saved.update(json.loads(obs.talvora_config_path.read_text(encoding="utf-8")))
	return saved, obs.log


def test_every_setting_survives_a_run(make_obs):
	saved, log = saved_after_a_run(make_obs, EVERYTHING, complaints=NOT_THERE)
	assert re.search(r"\[talvora-obs\] Talvora: config loaded from .*/\.config/talvora-obs/config\.json$", log, re.MULTILINE)
	font, expected_font = saved.pop("captionFont").split(","), EVERYTHING["captionFont"].split(",")
	assert font[:6] == expected_font[:6], "family, size, weight or slant of the font changed"
	assert saved == {key: value for key, value in EVERYTHING.items() if key != "captionFont"}


def test_first_run_saves_the_defaults(make_obs):
	saved, log = saved_after_a_run(make_obs, None)
	assert saved.pop("captionFont").split(",")[:2] == ["-apple-system", "40"]
	assert saved == DEFAULTS
	assert "Talvora: config loaded" not in log


def test_older_language_list_is_rewritten_as_objects(make_obs):
	saved, _ = saved_after_a_run(make_obs, {"targetLanguages": ["fr", "es"], "captions": True})
	assert saved["targetLanguages"] == [
		{"captions": True, "code": "es", "dubbing": True}, {"captions": True, "code": "fr", "dubbing": True}]


def test_unreadable_file_is_reported_and_the_defaults_hold(make_obs, tmp_path):
	path = tmp_path / ".config" / "talvora-obs" / "config.json"
	path.parent.mkdir(parents=True)
	path.write_text('{"apiKey": ', encoding="utf-8")
	complaints = {r"\[talvora-obs\] Talvora: failed to parse config: .+$": 1,
		      r"\[talvora-obs\] Talvora: not all of the settings file was understood, it is kept as .*/config\.json\.old$": 1}
	with make_obs(home=tmp_path, complaints=complaints) as obs:
		obs.wait_for_log(r"\[talvora-obs\] Talvora: failed to parse config: .+$")
		obs.wait_for_log(INITIALIZED)
	saved = json.loads(path.read_text(encoding="utf-8"))
	assert saved["sourceLanguage"] == "en"
	assert saved["apiKey"] == ""


def test_key_is_never_logged(make_obs):
	with make_obs(talvora_config={**EVERYTHING, "apiKey": "tak_secret_42"}, complaints=NOT_THERE) as obs:
		obs.wait_for_log(INITIALIZED)
	assert "API key: (set), Languages: en, es, fr" in obs.log
	assert "tak_secret_42" not in obs.log + obs.console

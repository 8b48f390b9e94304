# SPDX-License-Identifier: GPL-2.0-or-later
"""The module in an OBS of another language: OBS finds its texts, and the dock shows them and is no wider for them."""

import re
from pathlib import Path

import pytest

from dock_user import targets
from lab.obs import wait_until
from lab.paths import CHECKOUT
from lab.service import KEY
from sessions import MICROPHONE

OURS = CHECKOUT / "data" / "locale"
OBS_S_OWN = Path("/usr/share/obs/obs-studio/locale")

# The whole dock fits on it.
SCREEN = (1366, 2000)
NARROWEST = 320

# One that OBS would lay out from right to left if it did so for any, and one with long words. The night tries all.
EVERYDAY = ("ar-SA", "de-DE")
LANGUAGES = [pytest.param(path.stem, marks=[] if path.stem in EVERYDAY else pytest.mark.soak)
	     for path in sorted(OURS.glob("*.ini")) if path.stem != "en-US"]


def texts(folder, language):
	"""The texts of a language; English ones where it has none."""
	found = {}
	for name in ("en-US", language):
		content = (folder / f"{name}.ini").read_text(encoding="utf-8-sig")
		found |= dict(re.findall(r'^([\w.]+)="(.*)"\s*$', content, re.MULTILINE))
	return found


def choose_dock(user, language):
	"""Opens the dock by the menu of OBS that is called "Docks" in English."""
	menu = texts(OBS_S_OWN, language)["Basic.MainMenu.Docks"].replace("&", "")
	user.hands.choose(menu, "Talvora")


def make_narrow(user):
	"""Makes the dock as narrow and as tall as it goes by dragging its edges."""
	left, top, width, height = user.settled(lambda: user.dock.place)
	user.hands.drag((left + width // 2, top + height - 1), (left + width // 2, SCREEN[1] - 10))
	wait_until(lambda: user.dock.place[3] > height, 10, "the dock is taller")
	height = user.settled(lambda: user.dock.place)[3]
	user.hands.drag((left + width - 1, top + height // 2), (left, top + height // 2))
	wait_until(lambda: user.dock.place[2] < width, 10, "the dock is narrower")


def assert_that_nothing_is_cut_off(user):
	narrow = user.settled(lambda: user.dock.place)
	assert NARROWEST <= narrow[2] <= NARROWEST + 4, "the texts make the dock wider"
	# The title bar around it is OBS's own.
	panel = next(child for child in user.dock.children if child.name == "Talvora")
	for one in panel.walk():
		if one.role in ("label", "push button", "check box", "combo box") and one.has_state("showing"):
			left, _, width, _ = one.place
			seen = narrow[0] <= left and left + width <= narrow[0] + narrow[2]
			assert seen, f"the {one.role} '{one.name}' is cut off"
		if one.role == "scroll bar" and one.has_state("showing"):
			_, _, width, height = one.place
			assert width < height, "the texts need more room than there is beside a scroll bar"


@pytest.mark.parametrize("language", LANGUAGES)
def test_dock_speaks_the_language_of_obs(desktop_obs, user_of, language):
	words = texts(OURS, language)
	config = {"apiKey": KEY, "audioSource": MICROPHONE, "targetLanguages": targets(es="captions dubbing")}
	# Other modules have no texts in some languages.
	complaints = {rf"Failed to load '{language}' text for module: '(?!talvora)": range(100)}
	with desktop_obs(language=language, screen=SCREEN, talvora_config=config, complaints=complaints) as obs:
		user = user_of(obs)
		choose_dock(user, language)
		for role, key in (("label", "Dock.Auth.Title"), ("push button", "Dock.Auth.StartTranslating"),
				  ("label", "Dock.Settings.TargetLangs"), ("check box", "Dock.Settings.MuteOriginal")):
			user.hands.find(role, words[key], user.dock)
		make_narrow(user)
		user.hands.picture(user.folder / "signed-in.png", user.dock)
		assert_that_nothing_is_cut_off(user)

		user.click("push button", words["Dock.Auth.Logout"])
		user.click("push button", words["Dock.Auth.UseApiKey"])
		user.hands.find("push button", words["Dock.Auth.ConnectApiKey"], user.dock)
		user.hands.picture(user.folder / "signed-out.png", user.dock)
		assert_that_nothing_is_cut_off(user)
	assert f"Failed to load '{language}' text for module: 'talvora" not in obs.log


@pytest.mark.parametrize("language", [path.stem for path in sorted(OURS.glob("*.ini"))])
def test_texts_name_obs_s_window_as_obs_does(language):
	obs_s_own = texts(OBS_S_OWN, language)
	assert obs_s_own["Basic.AdvAudio"] in texts(OURS, language)["DubbedSource.InfoText"]

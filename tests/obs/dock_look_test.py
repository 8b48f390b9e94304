# SPDX-License-Identifier: GPL-2.0-or-later
"""The dock where there is little room, in OBS's themes; its pictures are there to be looked at."""

import pytest

from dock_user import targets
from lab.obs import wait_until
from lab.service import KEY
from sessions import NOT_FOUND

# A laptop's screen, pixels.
SCREEN = (1366, 768)
NARROWEST = 320

THEMES = {"dark": "com.obsproject.Yami.Original", "light": "com.obsproject.Yami.Light"}


def is_across(inner, outer):
	return outer[0] <= inner[0] and inner[0] + inner[2] <= outer[0] + outer[2]


@pytest.mark.parametrize("theme, scale, key", [
	("dark", 1, KEY), ("light", 2, KEY), ("dark", 2, ""), ("light", 1, ""),
], ids=["dark-signed-in", "light-double-signed-in", "dark-double-signed-out", "light-signed-out"])
def test_dock_fits_a_small_screen(desktop_obs, user_of, theme, scale, key):
	microphone = "A microphone with a name that is much longer than the dock is wide"
	config = {"apiKey": key, "audioSource": microphone, "targetLanguages": targets(es="captions dubbing")}
	with desktop_obs(screen=SCREEN, theme=THEMES[theme], scale=scale, talvora_config=config,
			 complaints={NOT_FOUND.format(microphone): 1}) as obs:
		user = user_of(obs)
		user.open_dock()
		left, top, width, height = user.settled(lambda: user.dock.place)
		assert left >= 0 and top >= 0 and left + width <= SCREEN[0] and top + height <= SCREEN[1], "the dock is not wholly on the screen"
		user.hands.drag((left + width - 1, top + height // 2), (left, top + height // 2))
		wait_until(lambda: user.dock.place[2] != width, 10, "the dock is narrower")
		narrow = user.settled(lambda: user.dock.place)
		assert NARROWEST * scale <= narrow[2] <= (NARROWEST + 4) * scale, "the dock cannot be made as narrow as it should"
		user.picture("top")
		# The title bar around it is OBS's own.
		panel = next(child for child in user.dock.children if child.name == "Talvora")
		for one in panel.walk():
			if one.role in ("label", "push button", "check box", "combo box", "slider", "text") and one.has_state("showing"):
				assert is_across(one.place, narrow), f"the {one.role} '{one.name}' is cut off"
		for one, name in (("Caption preview", "middle"), ("Live transcript", "bottom")):
			widget = user.hands.find("text", one, user.dock)
			user.hands.reveal(widget)
			place, now = widget.place, user.dock.place
			assert now[1] <= place[1] and place[1] + place[3] <= now[1] + now[3], f"'{one}' cannot be scrolled to"
			user.picture(name)

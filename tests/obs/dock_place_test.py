# SPDX-License-Identifier: GPL-2.0-or-later
"""Where the dock is in OBS's window, and that it is there again when OBS starts again."""

import pytest

from lab.obs import wait_until
from lab.service import KEY

# Room for OBS's window with the dock above, below or beside its own docks, pixels.
SCREEN = (1600, 1200)
WIDE = (1560, 1000)


def main_window(user):
	return next((one for one in user.hands.all("frame") if one.name.startswith("OBS ")), None)


def title_bar(place):
	return place[0] + place[2] // 3, place[1] + 14


def dock_to(user, target):
	"""Takes the floating dock by its title bar to a place of the main window."""
	user.hands.drag(title_bar(user.dock.place), target)


def dock_left(user):
	left, top, _, height = main_window(user).place
	dock_to(user, (left + 20, top + height // 3))


def dock_right(user):
	left, top, width, height = main_window(user).place
	dock_to(user, (left + width - 20, top + height // 3))


def dock_bottom(user):
	"""In the row of OBS's own docks, which has room for one more only in a wider window."""
	user.hands.resize_window("^OBS ", *WIDE)
	wait_until(lambda: main_window(user).place[2:] == WIDE, 10, "the window is wider")
	left, top, width, height = user.settled(lambda: user.hands.dock("Controls").place)
	dock_to(user, (left + width - 8, top + height // 2))


def tab_with_controls(user):
	left, top, width, height = user.hands.dock("Controls").place
	dock_to(user, (left + width // 2, top + height // 2))


def float_elsewhere(user):
	"""Above the main window, where it cannot dock."""
	user.hands.drag(title_bar(user.dock.place), (SCREEN[0] // 2, 60))


def close(user):
	user.click("push button", "Close")


def look(user):
	"""What one sees of where the dock is: its place from the main window's corner, and the tabs it shares a place with."""
	docks = user.hands.docks("Talvora")
	if not docks:
		return None
	window, place = main_window(user).place, docks[0].place
	tabs = {one.name: one.has_state("selected") for one in user.hands.all("page tab", within=main_window(user))}
	return (place[0] - window[0], place[1] - window[1], *place[2:]), tabs


def is_left(seen, window):
	(x, _, width, height), tabs = seen
	return x < 20 and height > window[3] // 3 and not tabs


def is_right(seen, window):
	(x, _, width, _), tabs = seen
	return x > 0 and abs(x + width - window[2]) < 20 and not tabs


def is_bottom(seen, window):
	(_, y, _, height), tabs = seen
	return y > window[3] // 4 and abs(y + height - window[3]) < 60 and not tabs


def is_tabbed(seen, window):
	return seen[1] == {"Controls": False, "Talvora": True}


def is_elsewhere(seen, window):
	(_, y, *_), tabs = seen
	return y < 0 and not tabs


def is_closed(seen, window):
	return seen is None


PLACES = {
	"left": (dock_left, is_left), "right": (dock_right, is_right), "bottom": (dock_bottom, is_bottom),
	"tabbed": (tab_with_controls, is_tabbed), "floating": (float_elsewhere, is_elsewhere), "closed": (close, is_closed),
}


@pytest.mark.parametrize("place", PLACES)
def test_dock_is_where_it_was_after_a_restart(make_obs, user_of, tmp_path, place):
	# With nothing in it to be heard: OBS's mixer changes its height with that, and the docks around it theirs.
	move, is_there = PLACES[place]
	home = tmp_path / "home"
	with make_obs(accessible=True, home=home, screen=SCREEN, talvora_config={"apiKey": KEY}) as obs:
		user = user_of(obs)
		user.open_dock()
		start = look(user)
		move(user)

		def has_moved():
			seen = look(user)
			return seen != start and (seen or place == "closed") and is_there(seen, main_window(user).place)

		wait_until(has_moved, 15, f"the dock is {place}")
		user.picture(f"{place}-before")
		before = user.settled(lambda: look(user))
	with make_obs(accessible=True, home=home, screen=SCREEN) as obs:
		user = user_of(obs)
		wait_until(lambda: main_window(user), 10, "OBS is on screen")
		# OBS and the window manager move its window about first.
		wait_until(lambda: user.settled(lambda: look(user)) == before, 20, f"the dock is where it was, at {before}")
		user.picture(f"{place}-after")

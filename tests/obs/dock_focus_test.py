# SPDX-License-Identifier: GPL-2.0-or-later
"""Where the keyboard is in the dock after each step of a session, and what the wheel does there."""

from dock_user import saved, targets, wait_for_saved
from lab.obs import wait_until
from lab.service import KEY
from sessions import LET_IN, MICROPHONE

CONFIG = {"audioSource": MICROPHONE, "targetLanguages": targets(es="captions")}


def wait_for_keyboard(user, role, name):
	wait_until(lambda: user.hands.find(role, name, user.dock).has_state("focused"), 5, f"the {role} '{name}' has the keyboard")


def test_keyboard_stays_with_what_the_user_does(make_service, desktop_obs, user_of):
	with make_service(LET_IN), desktop_obs(talvora_config=CONFIG) as obs:
		user = user_of(obs)
		user.open_dock()
		user.sign_in_with_key(KEY)
		wait_for_keyboard(user, "push button", "Start")
		user.picture("signed-in")
		user.click("push button", "Start")
		user.wait_for_label("Connected", 20)
		wait_for_keyboard(user, "push button", "Stop")
		user.picture("started")
		user.click("push button", "Stop")
		user.wait_for_label("Disconnected")
		wait_for_keyboard(user, "push button", "Start")
		user.click("push button", "Sign out")
		wait_for_keyboard(user, "text", "Email")
		user.picture("signed-out")


def test_wheel_scrolls_the_panel_over_a_control_that_has_the_keyboard(desktop_obs, user_of):
	with desktop_obs(talvora_config={"apiKey": KEY, **CONFIG}) as obs:
		user = user_of(obs)
		user.open_dock()
		box = user.hands.find("combo box", "Spoken language", user.dock)
		user.select("Spoken language", "German")
		wait_for_saved(obs, "sourceLanguage", "de")
		assert box.has_state("focused")
		scrolls(user, box)
		assert box.name == "German"
		user.drag("Caption opacity", 50)
		slider = user.hands.find("slider", "Caption opacity", user.dock)
		wait_for_keyboard(user, "slider", "Caption opacity")
		scrolls(user, slider)
		assert slider.value == 50
		assert saved(obs, "sourceLanguage") == "de" and saved(obs, "captionOpacity") == 50


def scrolls(user, control):
	place = user.settled(lambda: control.place)
	user.hands.roll(control)
	wait_until(lambda: control.place != place, 5, f"the panel scrolls under the pointer over '{control.name}'")

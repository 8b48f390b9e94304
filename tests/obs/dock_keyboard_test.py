# SPDX-License-Identifier: GPL-2.0-or-later
"""The dock in OBS by keyboard alone: nothing here touches the mouse."""

from dock_user import saved, targets, wait_for_saved
from lab.obs import wait_until
from lab.service import KEY
from sessions import LET_IN, MICROPHONE

# Stops on one round through the dock: the boxes of 31 languages and some twenty others.
ROUND = 90


class Keyboard:
	"""Goes through the dock by the Tab key, as far as it takes."""

	def __init__(self, user):
		self.user = user

	def open_dock(self):
		"""By the menu's letter and the arrow keys; the entries of plug-ins are the last ones."""
		hands = self.user.hands
		hands.press("alt+d")
		entry = hands.find("menu item", "Talvora")
		hands.press("Up")
		wait_until(lambda: entry.has_state("focused"), 5, "the entry 'Talvora' is chosen")
		hands.press("Return")
		hands.find("label", "Account", self.user.dock)
		wait_until(lambda: self._focused(self._stops()), 5, "the dock has the keyboard")

	def _stops(self):
		"""What can have the keyboard. Entries of closed lists say so too."""
		return [one for one in self.user.dock.walk()
			if one.role != "list item" and one.has_state("focusable") and one.has_state("showing")]

	def _focused(self, stops, after=None):
		"""What has it; looked for from the one that had it last, since the next one is mostly near."""
		first = stops.index(after) if after in stops else 0
		return next((one for one in stops[first:] + stops[:first] if one.has_state("focused")), None)

	def go_to(self, role, name):
		hands = self.user.hands
		target = hands.find(role, name, self.user.dock)
		stops = self._stops()
		here = self._focused(stops)
		for _ in range(ROUND):
			if here == target:
				return
			last = here
			hands.press("Tab")
			wait_until(lambda: self._focused(stops, last) not in (None, last), 5, "the keyboard goes on to the next control")
			here = self._focused(stops, last)
		raise AssertionError(f"the {role} '{name}' is not reached by the keyboard")

	def activate(self, role, name):
		self.go_to(role, name)
		self.user.hands.press("space")

	def write(self, role, name, text):
		self.go_to(role, name)
		self.user.hands.type(text)


def test_session_by_keyboard_alone(make_service, desktop_obs, user_of):
	with make_service(LET_IN) as service, desktop_obs() as obs:
		user = user_of(obs)
		keys = Keyboard(user)
		keys.open_dock()
		user.picture("opened")
		keys.activate("push button", "Use an API key instead")
		keys.write("text", "The API key of your Talvora account", KEY)
		user.picture("key")
		keys.activate("push button", "Use this key")
		user.hands.find("push button", "Start", user.dock)
		wait_for_saved(obs, "apiKey", KEY)

		keys.write("combo box", "Audio source", MICROPHONE)
		wait_for_saved(obs, "audioSource", MICROPHONE)
		keys.write("combo box", "Spoken language", "German")
		wait_for_saved(obs, "sourceLanguage", "de")
		keys.activate("check box", "Spanish: Captions")
		keys.activate("check box", "Spanish: Dub")
		wait_for_saved(obs, "targetLanguages", targets(es="captions dubbing"))
		user.picture("languages")

		keys.activate("push button", "Start")
		user.wait_for_label("Connected", 20)
		user.picture("connected")
		keys.activate("push button", "Stop")
		user.wait_for_label("Disconnected", 10)
		wait_until(lambda: '"stop"' in service.texts()[-1], 5, "the service is told to stop")
		keys.activate("push button", "Sign out")
		wait_until(lambda: user.hands.find("text", "Email", user.dock).has_state("focused"), 5, "the keyboard is in the first field")
		assert not saved(obs, "apiKey")
		user.picture("signed-out")

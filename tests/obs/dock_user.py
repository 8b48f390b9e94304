# SPDX-License-Identifier: GPL-2.0-or-later
"""Somebody who uses the dock in OBS, and what is saved of what they did."""

import itertools
import json
import re

from lab.hands import Hands
from lab.obs import wait_until

# How long nothing moves when all is in its place.
_SETTLED_SECONDS = 0.5

class User:
	"""Somebody in front of OBS. After each step there is a picture of it in `folder`."""

	def __init__(self, obs, folder):
		self.obs = obs
		self.hands = Hands(obs)
		self.folder = folder
		self._numbers = itertools.count(1)

	def picture(self, name):
		self.hands.picture(self.folder / f"{next(self._numbers):02d}-{name}.png")

	@property
	def dock(self):
		return self.hands.dock("Talvora")

	def open_dock(self):
		self.hands.choose("Docks", "Talvora")
		self.hands.find("label", "Account", self.dock)

	def click(self, role, name):
		self.hands.click(self.hands.find(role, name, self.dock))

	def fill(self, name, text):
		self.hands.fill(self.hands.find("text", name, self.dock), text)

	def select(self, label, entry):
		self.hands.select(self.hands.find("combo box", label, self.dock), entry)

	def drag(self, name, percent):
		self.hands.drag_slider(self.hands.find("slider", name, self.dock), percent)

	def mark(self, language, column):
		"""Clicks the box of a language in a column of the table of target languages."""
		self.click("check box", f"{language}: {column}")

	def wait_for_label(self, pattern, timeout=10):
		"""Waits for a label that can be seen and is wholly as the pattern says."""
		wait_until(lambda: any(re.fullmatch(pattern, label.name) for label in self.hands.all("label", within=self.dock)), timeout,
			   f"the dock says '{pattern}'")

	def settled(self, measure):
		"""A value that stays the same for a while: windows come to their places step by step."""
		return self.hands.settled(measure, _SETTLED_SECONDS)

	def sees(self, role, name):
		return bool(self.hands.all(role, name, self.dock))

	def sign_in_with_key(self, key):
		self.click("push button", "Use an API key instead")
		self.fill("The API key of your Talvora account", key)
		self.click("push button", "Use this key")
		self.hands.find("push button", "Start", self.dock)


def saved(obs, name):
	"""A value of the module's settings file; None while there is none."""
	try:
		return json.loads(obs.talvora_config_path.read_text(encoding="utf-8")).get(name)
	except (FileNotFoundError, json.JSONDecodeError):
		# Not written yet, or being written.
		return None


def wait_for_saved(obs, name, value):
	wait_until(lambda: saved(obs, name) == value, 10, f"'{name}' is saved as {value!r}: it is {saved(obs, name)!r}")


def targets(**languages):
	"""Target languages as they are saved: each with what it is chosen for, "captions", "dubbing" or both."""
	return [{"code": code, "dubbing": "dubbing" in chosen, "captions": "captions" in chosen} for code, chosen in sorted(languages.items())]

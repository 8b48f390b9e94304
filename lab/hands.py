# SPDX-License-Identifier: GPL-2.0-or-later
"""Hands and eyes of a user of a running OBS: they find what is on the screen by its name, click, type and drag.

	with Obs(accessible=True) as obs:
		hands = Hands(obs)
		hands.choose("Docks", "Talvora")
		dock = hands.dock("Talvora")
		hands.click(hands.find("push button", "Start", dock))

Names are looked up on the accessibility bus, as a screen reader does; what is done to them are real events of the X
server, at the place where the user would see the widget.
"""

import contextlib
import subprocess
import time

from gi.repository import GLib

from lab.accessibility import programs
from lab.obs import wait_until

# Where a mouse wheel turns a panel and nothing that lies on it.
_MARGIN = 3
_WHEEL_UP, _WHEEL_DOWN = 4, 5
_MOST_WHEEL_STEPS = 80
_DRAG_STEPS = 12
_MOST_LOOKS = 5
_LOOK_SECONDS = 0.1
_SETTLED_SECONDS = 0.05


def _is_seen(widget):
	return widget.place[2] > 0 and widget.has_state("showing")


def _reaches_over(outer, inner):
	return outer[1] <= inner[1] and inner[1] + inner[3] <= outer[1] + outer[3]


def _middle(place):
	left, top, width, height = place
	return left + width // 2, top + height // 2


class Hands:
	"""obs: an Obs that was made with accessible=True and has started."""

	def __init__(self, obs):
		self._obs = obs
		self._programs = programs(obs.session_bus, obs.scale)

	# Seeing

	def all(self, role, name=None, within=None):
		"""Every widget of this role that is not hidden and has this name, itself or on a label of its own; any name when None."""
		root = within or self._programs
		for _ in range(_MOST_LOOKS):
			with contextlib.suppress(GLib.Error):
				return [one for one in root.walk()
					if one.role == role and name in (None, one.name, *one.labels) and _is_seen(one)]
			# Something went away while it was looked at.
			time.sleep(_LOOK_SECONDS)
		raise TimeoutError(f"every {role} goes away while it is looked at")

	def find(self, role, name, within=None, timeout=10):
		"""The first of such widgets; waits until there is one."""
		return wait_until(lambda: next(iter(self.all(role, name, within)), None), timeout, f"there is a {role} '{name}'")

	def docks(self, title):
		"""The outermost frame of a dock, alone in a list; empty when it is not seen. Docked in OBS 32 it counts as a panel."""
		return (self.all("frame", title) or self.all("panel", title))[:1]

	def dock(self, title):
		"""The outermost frame of a dock; waits until there is one."""
		return wait_until(lambda: self.docks(title), 10, f"there is a dock '{title}'")[0]

	def picture(self, path, widget=None):
		"""The whole screen, or where a widget is on it, as a PNG."""
		self._obs.window_screenshot(path)
		if widget:
			left, top, width, height = widget.place
			subprocess.run(["mogrify", "-crop", f"{width}x{height}+{left}+{top}", "+repage", str(path)], check=True, timeout=30)

	# Doing

	def click(self, widget):
		"""Clicks into the middle of a widget, after scrolling to it; a window that has just opened may still be moving."""
		self.reveal(widget)
		place = None
		while place != (place := widget.place):
			self._xdotool("mousemove", *_middle(place))
		self._xdotool("click", 1)

	def type(self, text):
		"""Types into what has the keyboard."""
		self._xdotool("type", "--delay", "12", text)

	def press(self, key):
		"""Presses a key by its name in X, for example "Return"."""
		self._xdotool("key", key)

	def fill(self, field, text):
		"""Writes into a text field in place of what is there."""
		self.click(field)
		wait_until(lambda: field.has_state("focused"), 5, "the field has the keyboard")
		self.press("ctrl+a")
		self.type(text)

	def choose(self, menu, entry):
		"""Chooses an entry of a menu of the main window."""
		top = self.find("menu item", menu)
		self._click_at(*_middle(top.place))
		self._click_at(*_middle(self.find("menu item", entry, top).place))

	def select(self, box, entry):
		"""Chooses an entry of a combo box: opens it and types the entry's name."""
		self.click(box)
		wait_until(lambda: any(_is_seen(child) for child in box.children), 5, "the list is open")
		self.type(entry)
		self.press("Return")
		wait_until(lambda: box.name == entry, 5, f"'{entry}' is chosen")

	def drag_slider(self, slider, value):
		"""Takes a slider's handle and lets it go where the slider has this value, which is in percent."""
		self.reveal(slider)
		left, top, width, height = slider.place
		y = top + height // 2
		x = left + round(width * slider.value / 100)
		# The handle is a little nearer to the middle than that, and larger than the difference.
		x = min(max(x, left + 4), left + width - 5)
		self._xdotool("mousemove", x, y, "mousedown", 1)
		try:
			x = left + round(width * value / 100)
			for _ in range(width):
				self._xdotool("mousemove", x, y)
				now = self.settled(lambda: slider.value)
				if now == value:
					return
				x += 1 if now < value else -1
			raise TimeoutError(f"the slider does not come to {value}: it is at {slider.value}")
		finally:
			self._xdotool("mouseup", 1)

	def roll(self, widget):
		"""Turns the wheel towards the user by a notch, with the pointer over a widget that can be seen."""
		self._xdotool("mousemove", *_middle(widget.place), "click", _WHEEL_DOWN)

	def resize_window(self, name, width, height):
		"""Gives the window whose title matches a size of the content, in pixels, and puts it into the corner of the screen."""
		self._xdotool("search", "--onlyvisible", "--name", name, "windowmove", 0, 0, "windowsize", width, height)

	def drag(self, start, end):
		"""Takes what is at one place of the screen and lets it go at another, on the way stopping where a hand would."""
		self._xdotool("mousemove", *start, "mousedown", 1)
		try:
			for step in range(1, _DRAG_STEPS + 1):
				self._xdotool("mousemove", *(a + (b - a) * step // _DRAG_STEPS for a, b in zip(start, end)), "sleep", 0.03)
			# Docks show where they will go, and go only there.
			self._xdotool("mousemove", end[0] + 1, end[1], "sleep", 0.5)
		finally:
			self._xdotool("mouseup", 1)

	def reveal(self, widget):
		"""Turns the mouse wheel over panels and tables until the middle of a widget in them can be seen."""
		scrollers = self._scrollers(widget)
		for scroller, target in zip(scrollers, [*scrollers[1:], widget]):
			self._scroll(scroller, target)

	def _scrollers(self, widget):
		"""What is taller inside than outside or has the widget beyond its edge, of all that it lies in; the outermost first."""
		found = []
		child, parent = widget, widget.parent
		while parent.role != "application":
			if child.place[3] > parent.place[3] > 0 or not _reaches_over(parent.place, child.place):
				found.insert(0, parent)
			child, parent = parent, parent.parent
		return found

	def _scroll(self, scroller, target):
		left, top, _, height = scroller.place
		for _ in range(_MOST_WHEEL_STEPS):
			place = target.place
			# What is too tall is looked at from its top.
			y = place[1] + min(place[3], height) // 2
			if top + place[3] // 2 <= y <= top + height - min(place[3], height) // 2:
				return
			button = _WHEEL_UP if y < top + place[3] // 2 else _WHEEL_DOWN
			self._xdotool("mousemove", left + _MARGIN, top + height // 2, "click", button)
			try:
				wait_until(lambda: target.place != place, 2, "the wheel scrolls")
			except TimeoutError:
				# At its end: what there is can be seen.
				return
		raise TimeoutError(f"'{target.name}' does not come into sight")

	def settled(self, measure, seconds=_SETTLED_SECONDS):
		"""A value that stays the same for so long: things come to their places step by step."""
		def same():
			before = measure()
			time.sleep(seconds)
			return [before] if measure() == before else None

		return wait_until(same, 10, "the screen comes to rest")[0]

	def _click_at(self, x, y):
		self._xdotool("mousemove", x, y, "click", 1)

	def _xdotool(self, *arguments):
		subprocess.run(["xdotool", *map(str, arguments)], env=self._obs.desktop, check=True, timeout=20)

# SPDX-License-Identifier: GPL-2.0-or-later
"""The accessibility bus: through it a screen reader learns what a window holds, and so do tests."""

import os
import subprocess

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

_ROOT = "/org/a11y/atspi/accessible/root"
_ACCESSIBLE = "org.a11y.atspi.Accessible"
_CALL_MS = 5000

# Positions of the state bits, and kinds of relations, as AT-SPI numbers them.
_STATES = {"checked": 4, "enabled": 8, "focusable": 11, "focused": 12, "selected": 23, "showing": 25}
_LABELLED_BY = 2


class SessionBus:
	"""A message bus of its own for one program; it starts the accessibility bus by itself when it is asked for it."""

	def __init__(self, environment):
		read, write = os.pipe()
		self._process = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--nopidfile", f"--print-address={write}"],
						 env=environment, pass_fds=[write], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
		os.close(write)
		with os.fdopen(read) as answer:
			self.address = answer.readline().strip()
		if not self.address:
			raise RuntimeError("The message bus (dbus-daemon) did not start")

	def close(self):
		"""Ends the bus; the accessibility bus ends with it."""
		self._process.terminate()
		self._process.wait(timeout=10)


def _connect(address):
	flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
	return Gio.DBusConnection.new_for_address_sync(address, flags, None, None)


class Widget:
	"""Something in a window, as it is at the time of each question."""

	def __init__(self, bus, name, path, scale=1):
		self._bus, self._name, self._path, self._scale = bus, name, path, scale

	def __eq__(self, other):
		return isinstance(other, Widget) and (self._name, self._path) == (other._name, other._path)

	def _call(self, interface, method, arguments=None):
		return self._bus.call_sync(self._name, self._path, interface, method, arguments, None, Gio.DBusCallFlags.NONE, _CALL_MS,
					   None).unpack()

	def _property(self, interface, name):
		return self._call("org.freedesktop.DBus.Properties", "Get", GLib.Variant("(ss)", (interface, name)))[0]

	@property
	def name(self):
		return self._property(_ACCESSIBLE, "Name")

	@property
	def role(self):
		return self._call(_ACCESSIBLE, "GetRoleName")[0]

	@property
	def parent(self):
		return Widget(self._bus, *self._property(_ACCESSIBLE, "Parent"), self._scale)

	@property
	def children(self):
		# A child that is just going away has a path of its own for nothing.
		return [Widget(self._bus, *child, self._scale) for child in self._call(_ACCESSIBLE, "GetChildren")[0] if not child[1].endswith("/null")]

	@property
	def labels(self):
		"""Names of the labels that belong to it."""
		relations = self._call(_ACCESSIBLE, "GetRelationSet")[0]
		return [Widget(self._bus, *target).name for kind, targets in relations if kind == _LABELLED_BY for target in targets]

	@property
	def place(self):
		"""Left, top, width and height in pixels of the display."""
		return tuple(self._scale * one for one in self._call("org.a11y.atspi.Component", "GetExtents", GLib.Variant("(u)", (0,)))[0])

	@property
	def text(self):
		return self._call("org.a11y.atspi.Text", "GetText", GLib.Variant("(ii)", (0, -1)))[0]

	@property
	def value(self):
		return self._property("org.a11y.atspi.Value", "CurrentValue")

	def has_state(self, state):
		"""Whether it is "checked", "enabled", "focusable", "focused", "selected" or "showing"."""
		low, high = self._call(_ACCESSIBLE, "GetState")[0]
		return bool((high << 32 | low) >> _STATES[state] & 1)

	def walk(self):
		"""Everything below it, parents first."""
		for child in self.children:
			yield child
			yield from child.walk()


def programs(session_address, scale=1):
	"""The programs that are on the accessibility bus of a session bus: a widget whose children they are.

	scale: pixels of the display to one of theirs.
	"""
	session = _connect(session_address)
	address = session.call_sync("org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress", None, None,
				    Gio.DBusCallFlags.NONE, _CALL_MS, None).unpack()[0]
	session.close_sync(None)
	return Widget(_connect(address), "org.a11y.atspi.Registry", _ROOT, scale)

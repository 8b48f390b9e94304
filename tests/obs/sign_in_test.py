# SPDX-License-Identifier: GPL-2.0-or-later
"""Signing in through the browser on a machine that others use, too, or that is set up unlike most."""

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

from dock_user import saved
from lab.obs import wait_until
from lab.web_browser import WebBrowser, opening_recorder

NOBODY = 65534

# Somebody who wants to be taken for the module: tries to listen on a port of ::1 and of all addresses of IPv6, and says of each how
# that went; answers whoever comes, and says what they brought.
STRANGER = """
import errno, itertools, socket, sys
port = int(sys.argv[1])
for host in "::1", "::":
	for options in itertools.product((0, 1), repeat=2):
		one = socket.socket(socket.AF_INET6)
		one.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
		for name, value in zip((socket.SO_REUSEADDR, socket.SO_REUSEPORT), options):
			one.setsockopt(socket.SOL_SOCKET, name, value)
		try:
			one.bind((host, port))
			one.listen()
		except OSError as error:
			print(errno.errorcode[error.errno], flush=True)
		else:
			print("LISTENS", flush=True)
			visitor = one.accept()[0]
			print("GOT", visitor.recv(4096).split(b"\\r\\n")[0].decode(), flush=True)
			visitor.sendall(b"HTTP/1.1 200 OK\\r\\nContent-Length: 16\\r\\n\\r\\nLogin Successful")
			sys.exit()
"""


class Visit:
	"""A user who has clicked on a provider's button; the browser is not there yet."""

	def __init__(self, user, opened):
		self._opened = opened
		user.open_dock()
		user.click("push button", "Google")
		self.address = wait_until(lambda: opened.exists() and opened.read_text().strip(), 10, "the browser is opened")
		self.port = int(re.search(r"localhost(?::|%3A)(\d+)(?:/|%2F)callback", self.address).group(1))

	def sign_in(self, certificate):
		"""Goes through the sign-in; returns how long it took the browser to connect to the module, in milliseconds."""
		with WebBrowser(self.address, certificate) as browser:
			browser.wait_for_text("Sign in to Talvora with Google")
			browser.click("#allow")
			browser.wait_for_text("Login Successful")
			return browser.evaluate("(t => t.connectEnd - t.domainLookupStart)(performance.getEntriesByType('navigation')[0])")


def is_signed_in(user, obs):
	user.hands.find("push button", "Start", user.dock)
	return saved(obs, "apiKey").startswith("tak_live_")


def test_nobody_else_on_the_machine_gets_the_key(make_service, desktop_obs, user_of, tmp_path):
	programs, opened = opening_recorder(tmp_path / "bin")
	with make_service() as service, desktop_obs(path=[programs]) as obs:
		user = user_of(obs)
		visit = Visit(user, opened)
		with subprocess.Popen([sys.executable, "-c", STRANGER, str(visit.port)], user=NOBODY, cwd="/", stdout=subprocess.PIPE,
				      text=True) as stranger:
			told = [stranger.stdout.readline().strip()]
			try:
				milliseconds = visit.sign_in(service.certificate)
			finally:
				stranger.kill()
				told += stranger.stdout.read().split("\n")[:-1]
		assert told == ["EADDRINUSE"] * 8
		assert is_signed_in(user, obs)
		# Refused on ::1 at once: a browser that hears nothing waits for a quarter of a second, or for ever.
		assert milliseconds < 200
		assert not re.search(rf"^ *\d+: .*:{visit.port:04X} ", Path("/proc/net/tcp6").read_text(), re.MULTILINE), "the port is still held"


@pytest.fixture
def without_ipv6():
	"""The rest of the test is on a machine that has no IPv6: in a network of its own."""
	with open("/proc/thread-self/ns/net", "rb") as usual:
		os.unshare(os.CLONE_NEWNET)
		try:
			Path("/proc/sys/net/ipv6/conf/all/disable_ipv6").write_text("1", encoding="ascii")
			subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
			assert not Path("/proc/thread-self/net/if_inet6").read_text()
			yield
		finally:
			os.setns(usual.fileno(), os.CLONE_NEWNET)


def test_machine_without_ipv6(without_ipv6, make_service, desktop_obs, user_of, tmp_path):
	programs, opened = opening_recorder(tmp_path / "bin")
	with make_service() as service, desktop_obs(path=[programs]) as obs:
		user = user_of(obs)
		Visit(user, opened).sign_in(service.certificate)
		assert is_signed_in(user, obs)

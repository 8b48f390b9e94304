# SPDX-License-Identifier: GPL-2.0-or-later
"""A web browser without a window, for the pages that the module opens in the user's browser."""

import base64
import contextlib
import hashlib
import itertools
import json
import os
import re
import subprocess
import tempfile
import urllib.request
from pathlib import Path

from websockets.sync.client import connect

from lab.obs import wait_until

_OPTIONS = ["--remote-debugging-port=0", "--disable-gpu", "--no-first-run", "--disable-background-networking", "--disable-sync",
	    "--disable-component-update", "--disable-default-apps", "--disable-extensions", "--disable-dev-shm-usage", "--window-size=900,640"]

_CALL_SECONDS = 20


def opening_recorder(folder, stays_open=False):
	"""Makes a folder with an xdg-open that opens nothing and writes down what it is told to; returns folder and record.

	stays_open: it does not end by itself, like a browser, within the minutes that a test lasts. Its number is in `pid` beside the
	record before anything is in that.
	"""
	folder = Path(folder)
	folder.mkdir(parents=True, exist_ok=True)
	record = folder / "opened"
	program = folder / "xdg-open"
	number = f'printf "%s" "$$" >"{folder / "pid"}"\n' if stays_open else ""
	staying = "exec sleep 60\n" if stays_open else ""
	program.write_text(f'#!/bin/sh\n{number}printf "%s\\n" "$1" >>"{record}"\n{staying}', encoding="utf-8")
	program.chmod(0o755)
	return folder, record


def _key_hash(certificate):
	"""What the browser knows a certificate by: the hash of its public key."""
	public = subprocess.run(["openssl", "x509", "-in", str(certificate), "-pubkey", "-noout"], capture_output=True, check=True).stdout
	der = subprocess.run(["openssl", "pkey", "-pubin", "-outform", "der"], input=public, capture_output=True, check=True).stdout
	return base64.b64encode(hashlib.sha256(der).digest()).decode()


class WebBrowser:
	"""One page in a headless Chromium. It trusts `certificate` (a PEM file), if there is one, and what it trusts by itself."""

	def __init__(self, address, certificate=None):
		self._open = contextlib.ExitStack()
		home = self._open.enter_context(tempfile.TemporaryDirectory(prefix="talvora-browser-", ignore_cleanup_errors=True))
		self._log = Path(home) / "log"
		command = ["chromium-headless-shell", *_OPTIONS, f"--user-data-dir={home}/data"]
		if certificate:
			command.append(f"--ignore-certificate-errors-spki-list={_key_hash(certificate)}")
		if os.geteuid() == 0:
			command.append("--no-sandbox")
		with open(self._log, "wb") as log:
			self._process = subprocess.Popen([*command, address], env={**os.environ, "HOME": home}, stdin=subprocess.DEVNULL,
							 stdout=log, stderr=subprocess.STDOUT)
		self._open.callback(self._end)
		self._ids = itertools.count(1)
		self._socket = None

	def __enter__(self):
		try:
			port = wait_until(self._port, 30, "the browser has started")
			page = wait_until(lambda: self._page(port), 10, "the browser has a page")
			self._socket = self._open.enter_context(connect(page, max_size=None, compression=None))
		except BaseException:
			self._open.close()
			raise
		return self

	def __exit__(self, kind, error, trace):
		self._open.close()

	def evaluate(self, expression):
		"""The value of a JavaScript expression in the page."""
		return self._call("Runtime.evaluate", expression=expression, returnByValue=True)["result"].get("value")

	def text(self):
		"""What the page says; empty while it loads."""
		return self.evaluate("document.body ? document.body.innerText : ''") or ""

	def wait_for_text(self, text):
		wait_until(lambda: text in self.text(), 20, f"the page says '{text}'")

	def click(self, selector):
		"""Clicks into the middle of the element that a CSS selector names."""
		x, y = self.evaluate(f"(r => [r.x + r.width / 2, r.y + r.height / 2])(document.querySelector({json.dumps(selector)})"
				     ".getBoundingClientRect())")
		for kind in ("mousePressed", "mouseReleased"):
			self._call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)

	def picture(self, path):
		"""The page as a PNG, when what moves once has come to rest."""
		wait_until(lambda: self.evaluate("document.getAnimations().every(each => each.playState == 'finished' ||"
						 " each.effect.getTiming().iterations == Infinity)"), 10, "the page is at rest")
		Path(path).write_bytes(base64.b64decode(self._call("Page.captureScreenshot", format="png")["data"]))

	def _port(self):
		if self._process.poll() is not None:
			raise RuntimeError(f"The browser ended: {self._log.read_text(errors='replace')}")
		found = re.search(r"DevTools listening on ws://[^:]+:(\d+)/", self._log.read_text(errors="replace"))
		return found and int(found.group(1))

	def _page(self, port):
		with urllib.request.urlopen(f"http://127.0.0.1:{port}/json/list", timeout=_CALL_SECONDS) as answer:
			return next((one["webSocketDebuggerUrl"] for one in json.load(answer) if one["type"] == "page"), None)

	def _call(self, method, **parameters):
		number = next(self._ids)
		self._socket.send(json.dumps({"id": number, "method": method, "params": parameters}))
		while True:
			answer = json.loads(self._socket.recv(timeout=_CALL_SECONDS))
			if answer.get("id") == number:
				if "error" in answer:
					raise RuntimeError(f"{method}: {answer['error']}")
				return answer["result"]

	def _end(self):
		self._process.terminate()
		try:
			self._process.wait(timeout=10)
		except subprocess.TimeoutExpired:
			self._process.kill()
			self._process.wait()

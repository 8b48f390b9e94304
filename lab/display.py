# SPDX-License-Identifier: GPL-2.0-or-later
"""A display for programs where there is none."""

import os
import subprocess


class VirtualDisplay:
	"""An X server without a screen."""

	def __init__(self, size=(1280, 800)):
		read, write = os.pipe()
		self._process = subprocess.Popen(
			["Xvfb", "-displayfd", str(write), "-screen", "0", f"{size[0]}x{size[1]}x24", "-nolisten", "tcp"],
			pass_fds=[write], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
		os.close(write)
		with os.fdopen(read) as answer:
			number = answer.readline().strip()
		if not number:
			raise RuntimeError("The virtual display (Xvfb) did not start")
		self.name = f":{number}"

	def close(self):
		self._process.terminate()
		self._process.wait(timeout=10)

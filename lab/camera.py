# SPDX-License-Identifier: GPL-2.0-or-later
"""A video device for OBS's virtual camera, on machines whose kernel has none.

	camera = VirtualCamera(folder)
	with Obs(path=[camera.folder], environment=camera.environment) as obs:
		obs.request("StartVirtualCam")
"""

import os

import numpy as np

from lab.paths import BUILD

# Programs by which OBS learns that v4l2loopback is installed, and has it loaded. Here both have nothing to do.
_PROGRAMS = ("modinfo", "pkexec")


class VirtualCamera:
	"""The device keeps what it was given since it was last opened. Size: of OBS's canvas, in pixels."""

	def __init__(self, folder, size):
		self.folder = folder
		self._size = size
		self._file = folder / "frames.yuyv"
		folder.mkdir()
		for name in _PROGRAMS:
			program = folder / name
			program.write_text("#!/bin/sh\n", encoding="ascii")
			program.chmod(0o755)

	@property
	def environment(self):
		return {"LD_PRELOAD": str(BUILD / "lab/virtual-camera/talvora-lab-camera.so"), "TALVORA_LAB_CAMERA": str(self._file)}

	@property
	def _frame_bytes(self):
		width, height = self._size
		return width * height * 2

	def frames(self):
		"""How many whole frames it has been given."""
		return os.path.getsize(self._file) // self._frame_bytes if self._file.exists() else 0

	def last_frame(self):
		"""Brightness of each pixel of the last whole frame, row by row: 16 is black, 235 white."""
		width, height = self._size
		offset = (self.frames() - 1) * self._frame_bytes
		return np.fromfile(self._file, np.uint8, self._frame_bytes, offset=offset).reshape(height, width, 2)[:, :, 0]

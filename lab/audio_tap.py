# SPDX-License-Identifier: GPL-2.0-or-later
"""What OBS hands to those who capture the audio of a source, before any mixer or encoder: every chunk as it was.

	tap = AudioTap(folder, ["Microphone", "Talvora Dub — Spanish"])
	with Obs(tap=tap) as obs:
		...
	for chunk in tap.chunks():
		print(chunk.source, chunk.timestamp, chunk.samples)
"""

import struct
import time
from dataclasses import dataclass

import numpy as np

from lab.paths import BUILD

# RecordHeader in audio-tap/record-writer.h.
_HEADER = struct.Struct("=IIQQIIII")
# Stands for the source in the last record.
LAST = 0xFFFFFFFF

_LOOK_AGAIN_SECONDS = 0.05


@dataclass(slots=True)
class Chunk:
	"""One call of a capture callback. The calls of all sources are in the order in which they came."""

	source: str
	# Each source that comes up under the name has another one.
	life: int
	# OBS's time of the first sample, ns.
	timestamp: int
	# When the callback was called, time.monotonic_ns().
	arrival: int
	# The thread on which it was called.
	thread: int
	muted: bool
	# 32-bit floats, one row a channel.
	samples: np.ndarray

	@property
	def frames(self):
		return self.samples.shape[1]


class AudioTap:
	"""What is tapped: sources by the names that they are made with, whenever OBS makes them, and however often.

	folder: where the samples are kept, 384 kB a second and source in stereo. It is made, and stays.
	"""

	def __init__(self, folder, sources, build=BUILD):
		self.folder = folder
		self.sources = list(sources)
		self.module = build / "lab" / "audio-tap" / "talvora-lab-tap.so"
		folder.mkdir(parents=True)

	@property
	def environment(self):
		return {"TALVORA_LAB_TAP": str(self.folder), "TALVORA_LAB_TAP_SOURCES": "\n".join(self.sources)}

	def chunks(self, running=lambda: False, delete=False):
		"""Every chunk from the first to the end of OBS, which must have ended well for the tap to have lost nothing.

		running: whether OBS still runs; while it does, the next chunk is waited for.
		delete: take each file away when it has been read.
		"""
		number, seen, last = 0, 0, None
		while last is None:
			with self._open(number, running) as file:
				while header := self._read(file, _HEADER.size, number, running):
					source, life, timestamp, arrival, thread, frames, channels, muted = _HEADER.unpack(header)
					if source == LAST:
						last = timestamp, arrival
						break
					data = self._read(file, 4 * frames * channels, number, running)
					samples = np.frombuffer(data, np.float32).reshape(channels, frames)
					seen += 1
					yield Chunk(self.sources[source], life, timestamp, arrival, thread, bool(muted), samples)
			if delete:
				self._path(number).unlink()
			number += 1
		written, lost = last
		assert lost == 0, f"the tap has lost {lost} chunks"
		assert written == seen, f"the tap has written {written} chunks, and {seen} are there"

	def wait_until(self, obs, condition, what, timeout=30):
		"""Asks `condition(chunk)` of every chunk from the first until it is true of one; fails with `what` after `timeout` seconds."""
		deadline = time.monotonic() + timeout

		def running():
			if time.monotonic() > deadline:
				raise TimeoutError(f"{what}: not within {timeout} s")
			return obs.running()

		for chunk in self.chunks(running):
			if condition(chunk):
				return
		raise RuntimeError("OBS has ended")

	def wait_for(self, obs, source, moment, timeout=30):
		"""Waits until a chunk of the source has come after that moment, time.monotonic_ns()."""
		self.wait_until(obs, lambda chunk: chunk.source == source and chunk.arrival > moment, f"'{source}' gives audio", timeout)

	def _path(self, number):
		return self.folder / f"tap-{number:05}"

	def _open(self, number, running):
		while not self._path(number).exists():
			if not running():
				raise RuntimeError(f"{self._path(number)} is not there")
			time.sleep(_LOOK_AGAIN_SECONDS)
		return open(self._path(number), "rb")

	def _read(self, file, size, number, running):
		"""So many bytes, or nothing when the next file goes on."""
		data = file.read(size)
		while len(data) < size:
			# Asked before the file is read for the last time.
			over = not running()
			followed = self._path(number + 1).exists()
			data += file.read(size - len(data))
			if len(data) == size:
				break
			if followed and not data:
				return b""
			if over:
				raise RuntimeError("what the tap has written has no end: OBS has not ended, or not well, or the disk is full")
			time.sleep(_LOOK_AGAIN_SECONDS)
		return data

# SPDX-License-Identifier: GPL-2.0-or-later
"""Not a sample lost, doubled or late: what holds of the chunks that a lab.audio_tap.AudioTap has kept, and without any tolerance.

A media source's chunks are one piece of its file, sample for sample, and each begins where the one before it ends; OBS counts in
whole nanoseconds, and so each is rounded to one.

OBS hands a chunk to those who capture the source one after the other, the last that came first: to the module before the tap, which
has been there since the source was made. Within its call the module puts out each dub, which the tap hears at once, on the same
thread. So between one chunk of the captured source and the next there is just one chunk of each dub, with the time and the length of
the latter. One that is anywhere else is late, or early.
"""

from collections import defaultdict
from dataclasses import dataclass

import numpy as np

from lab.audio_tap import Chunk
from sessions import find

RATE = 48000
SECOND = 1_000_000_000


@dataclass
class Delivery:
	"""A chunk of a captured source, and what the dubs have made of it, by their names."""

	original: Chunk
	dubs: dict


def deliveries(chunks, originals):
	"""The chunks of the sources with these names, each with those of the dubs."""
	waiting = defaultdict(dict)
	for chunk in chunks:
		if chunk.source not in originals:
			earlier = waiting[chunk.thread].get(chunk.source)
			assert not earlier, f"'{chunk.source}' has put out a chunk of {earlier.timestamp} ns before one of {chunk.timestamp} ns " \
				"within one chunk of the original"
			waiting[chunk.thread][chunk.source] = chunk
			continue
		dubs = waiting.pop(chunk.thread, {})
		for name, dub in dubs.items():
			assert dub.timestamp == chunk.timestamp, \
				f"'{name}' has put out a chunk of {dub.timestamp} ns with one of the original of {chunk.timestamp} ns"
			assert dub.frames == chunk.frames, f"'{name}' has made {dub.frames} samples of {chunk.frames} at {chunk.timestamp} ns"
		yield Delivery(chunk, dubs)
	left = [chunk.source for dubs in waiting.values() for chunk in dubs.values()]
	assert not left, f"there is no original to the last chunks of {left}"


class FileFollower:
	"""Follows the chunks of a source that plays a file once. frames: the file's, 16 bits, left and right."""

	def __init__(self, frames):
		self._frames = frames
		self._last = None
		# Where in the file the source began to be heard, and how far it has come, in frames.
		self.begin = None
		self.place = None

	def follow(self, chunk):
		if self._last is None:
			head = np.ascontiguousarray(chunk.samples[0, :64] * 32768, np.int16)
			self.begin = find(head, np.ascontiguousarray(self._frames[:60 * RATE, 0]))
			assert self.begin is not None, "what came first is nowhere in the first minute of the source"
			self.place = self.begin
		else:
			gap = chunk.timestamp - self._last.timestamp
			assert abs(gap * RATE - self._last.frames * SECOND) < RATE, \
				f"a chunk comes {gap} ns after one of {self._last.frames} samples, {self.seconds:.3f} s after the start"
		expected = self._frames[self.place:self.place + chunk.frames].T.astype(np.float32) / np.float32(32768)
		wrong = np.flatnonzero((expected != chunk.samples).any(axis=0))
		assert not len(wrong), f"the source's sample {self.place + wrong[0]} is missing, doubled or not the one that is played"
		self.place += chunk.frames
		self._last = chunk

	@property
	def seconds(self):
		return (self.place - self.begin) / RATE


class DubFollower:
	"""Follows a dub that has a chunk in every delivery from its first to the moment when OBS is told to end."""

	def __init__(self, name):
		self._name = name
		self._life = None
		self._place = 0
		# The moment, time.monotonic_ns(); OBS was not told yet while it is None.
		self.until = None

	def follow(self, delivery):
		"""The dub's chunk; None where there is none yet, or no more."""
		chunk = delivery.dubs.get(self._name)
		if chunk is None:
			told_to_end = self.until is not None and delivery.original.arrival > self.until
			assert self._life is None or told_to_end, f"'{self._name}' has left out a chunk after {self._place / RATE:.3f} s"
			return None
		self._life = self._life or chunk.life
		assert chunk.life == self._life, f"'{self._name}' is another source after {self._place / RATE:.3f} s"
		self._place += chunk.frames
		return chunk


class Count:
	"""Whether so many samples of a source were such as they are to be, from a moment on, time.monotonic_ns()."""

	def __init__(self, source, samples, wanted, since=0):
		self._source = source
		self._wanted = wanted
		self._since = since
		self._left = samples

	def __call__(self, chunk):
		if chunk.source == self._source and chunk.arrival > self._since:
			self._left -= np.count_nonzero(self._wanted(chunk.samples[0]))
		return self._left <= 0

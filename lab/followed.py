# SPDX-License-Identifier: GPL-2.0-or-later
"""Files that others write while they are looked at: each look reads only what has been added."""

import codecs
import json


class FollowedText:
	"""The text of a file that only grows; empty while there is no file."""

	def __init__(self, path):
		self.path = path
		self._read = 0
		self._decoder = codecs.getincrementaldecoder("utf-8")(errors="replace")
		self._text = ""

	@property
	def text(self):
		if self.path.exists() and self.path.stat().st_size > self._read:
			with open(self.path, "rb") as file:
				file.seek(self._read)
				added = file.read()
			self._read += len(added)
			self._text += self._decoder.decode(added)
		return self._text


class FollowedRecords:
	"""The objects in a file with one of them, as JSON, in each line."""

	def __init__(self, path):
		self._file = FollowedText(path)
		self._parsed = 0
		self._records = []

	@property
	def records(self):
		text = self._file.text
		# The last line may still be being written.
		end = text.rfind("\n") + 1
		self._records += [json.loads(line) for line in text[self._parsed:end].split("\n") if line]
		self._parsed = end
		return self._records

# SPDX-License-Identifier: GPL-2.0-or-later
"""Reading recordings and pictures."""

import json
import subprocess

import numpy as np


def read_track(path, track):
	"""An audio track (1 is the first) of a file at 48 kHz: 32-bit floats, one row a frame, left and right."""
	data = subprocess.run(
		["ffmpeg", "-nostdin", "-loglevel", "error", "-i", str(path), "-map", f"0:a:{track - 1}", "-f", "f32le",
		 "-ac", "2", "-ar", "48000", "-"], capture_output=True, check=True).stdout
	return np.frombuffer(data, "<f4").reshape(-1, 2)


def audio_tracks(path):
	"""How many audio tracks a file has."""
	text = subprocess.run(["ffprobe", "-loglevel", "error", "-show_streams", "-select_streams", "a", "-of", "json", str(path)],
			      capture_output=True, check=True, text=True).stdout
	return len(json.loads(text)["streams"])


def read_picture(path):
	"""A picture as rows of red, green, blue, alpha from 0 to 255."""
	size = subprocess.run(["identify", "-format", "%w %h", str(path)], capture_output=True, check=True, text=True).stdout
	width, height = (int(part) for part in size.split())
	data = subprocess.run(["convert", str(path), "-depth", "8", "rgba:-"], capture_output=True, check=True).stdout
	return np.frombuffer(data, np.uint8).reshape(height, width, 4)

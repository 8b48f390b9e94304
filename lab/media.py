"""Reading recordings and pictures."""

import json
import subprocess

import numpy as np

# What OBS mixes at once, in frames.
CHUNK = 1024


def read_track(path, track):
	"""An audio track (1 is the first) of a file at 48 kHz: 32-bit floats, one row a frame, left and right."""
	data = subprocess.run(
		["ffmpeg", "-nostdin", "-loglevel", "error", "-i", str(path), "-map", f"0:a:{track - 1}", "-f", "f32le",
		 "-ac", "2", "-ar", "48000", "-"], capture_output=True, check=True).stdout
	return np.frombuffer(data, "<f4").reshape(-1, 2)


def silent_chunks(samples):
	"""Which samples of one channel are in chunks of silence that are OBS's.

	OBS's mixer does not wait: where its thread is late, it leaves a chunk of a source, or of all, silent, and goes on behind
	it. Such a chunk may begin anywhere.
	"""
	silent = np.zeros(len(samples), bool)
	for begin, end in np.flatnonzero(np.diff(samples == 0, prepend=False, append=False)).reshape(-1, 2):
		silent[begin:begin + (end - begin) // CHUNK * CHUNK] = True
	return silent


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

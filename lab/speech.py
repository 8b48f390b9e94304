# SPDX-License-Identifier: GPL-2.0-or-later
"""Several minutes of recorded human speech, put together from recordings that Debian packages carry."""

import subprocess
import wave
from dataclasses import dataclass
from pathlib import Path

import numpy as np

RATE = 48000

# Silence before the first sentence, seconds.
_LEAD = 1.0

# Silence after each, seconds: room for the recogniser to notice the end and for the dub to be heard.
_PAUSE = 3.0

_PROMPTS = Path("/usr/share/asterisk/sounds/en_US_f_Allison")
_NOVEL = Path("/usr/share/pocketsphinx/test/data/librivox")

# Whole sentences, the ones first that make the best first minute.
_RECORDINGS = [
	_PROMPTS / "vm-nobodyavail.g722",
	_PROMPTS / "followme/pls-hold-while-try.g722",
	_PROMPTS / "followme/status.g722",
	_PROMPTS / "invalid.g722",
	_PROMPTS / "queue-youarenext.g722",
	_PROMPTS / "ss-noservice.g722",
	_PROMPTS / "vm-msgforwarded.g722",
	_PROMPTS / "conf-invalid.g722",
	_PROMPTS / "vm-nonumber.g722",
	_PROMPTS / "confbridge-pin-bad.g722",
	_PROMPTS / "queue-periodic-announce.g722",
	_NOVEL / "sense_and_sensibility_01_austen_64kb-0880.wav",
	_PROMPTS / "pm-invalid-option.g722",
	_PROMPTS / "dir-instr.g722",
	_PROMPTS / "conf-onlyperson.g722",
	_PROMPTS / "vm-nobox.g722",
	_PROMPTS / "cannot-complete-as-dialed.g722",
	_NOVEL / "sense_and_sensibility_01_austen_64kb-0870.wav",
	_PROMPTS / "privacy-unident.g722",
	_PROMPTS / "vm-invalidpassword.g722",
	_PROMPTS / "demo-echodone.g722",
	_PROMPTS / "confbridge-only-one.g722",
	_NOVEL / "sense_and_sensibility_01_austen_64kb-0920.wav",
	_PROMPTS / "dir-nomore.g722",
	_PROMPTS / "vm-mismatch.g722",
	_PROMPTS / "something-terribly-wrong.g722",
	_NOVEL / "sense_and_sensibility_01_austen_64kb-0930.wav",
	_PROMPTS / "priv-introsaved.g722",
	_PROMPTS / "vm-mailboxfull.g722",
	_PROMPTS / "vm-intro.g722",
	_PROMPTS / "tt-monkeysintro.g722",
	_NOVEL / "sense_and_sensibility_01_austen_64kb-0890.wav",
]


@dataclass
class Sentence:
	"""Where one recording is in the whole, in seconds."""

	name: str
	start: float
	end: float


def _read(path):
	"""A recording at 48 kHz, mono, without the silence around it, at the common loudness."""
	data = subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-i", str(path), "-f", "f32le", "-ac", "1", "-ar", str(RATE), "-"],
			      capture_output=True, check=True).stdout
	samples = np.frombuffer(data, "<f4")
	loud = np.flatnonzero(np.abs(samples) > 0.02 * np.abs(samples).max())
	samples = samples[max(0, loud[0] - RATE // 20):loud[-1] + RATE // 20]
	return samples * (0.6 / np.abs(samples).max())


def compose(path, at_most=None, tail=0):
	"""Writes the speech as a stereo 16-bit WAV at 48 kHz, ending after the sentence that passes `at_most` seconds.

	tail: more silence at the end, seconds. Returns its sentences in order.
	"""
	pieces, sentences, at = [np.zeros(round(_LEAD * RATE), np.float32)], [], _LEAD
	for recording in _RECORDINGS:
		samples = _read(recording)
		pieces += [samples, np.zeros(round(_PAUSE * RATE), np.float32)]
		length = len(samples) / RATE
		sentences.append(Sentence(recording.stem, at, at + length))
		at += length + len(pieces[-1]) / RATE
		if at_most is not None and at >= at_most:
			break
	pieces.append(np.zeros(round(tail * RATE), np.float32))
	mono = np.round(np.concatenate(pieces) * 32767).astype("<i2")
	with wave.open(str(path), "wb") as file:
		file.setnchannels(2)
		file.setsampwidth(2)
		file.setframerate(RATE)
		file.writeframes(np.repeat(mono, 2).tobytes())
	return sentences

#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Speaks recordings to a running local service in real time and prints how long after the end of the speech its
answers came.

usage: measure-latency.py URL CA_FILE RECORDING.wav... (16-bit mono, 8000 or 16000 Hz)
"""
import array
import asyncio
import json
import ssl
import statistics
import sys
import time
import wave

import websockets

RATE = 16000
FRAME_BYTES = 320
PAUSE_SEC = 2.5
TARGETS = [{"code": code, "dubbing": True, "captions": True} for code in ("es", "fr", "it", "pt")]
LOUD = 300  # of 32767: below it, the end of a recording counts as silence


def load(path):
	"""The samples at 16 kHz, without the silence at the end."""
	with wave.open(path) as recording:
		samples = array.array("h", recording.readframes(recording.getnframes()))
		if recording.getframerate() == RATE // 2:
			doubled = array.array("h")
			for now, following in zip(samples, samples[1:] + samples[-1:]):
				doubled.extend((now, (now + following) // 2))
			samples = doubled
	end = max((i for i, sample in enumerate(samples) if abs(sample) > LOUD), default=0)
	return samples[: end + 1]


async def speak(socket, pcm):
	"""Sends audio in real time; returns when the last of it is due."""
	start = time.monotonic()
	for offset in range(0, len(pcm), FRAME_BYTES):
		await socket.send(pcm[offset : offset + FRAME_BYTES])
		due = start + (offset + FRAME_BYTES) / 2 / RATE
		await asyncio.sleep(max(0.0, due - time.monotonic()))


async def receive(socket, answers):
	async for message in socket:
		now = time.monotonic()
		if isinstance(message, str):
			decoded = json.loads(message)
			answers.append((now, decoded["type"], decoded.get("language", ""), decoded.get("text", "")))
		else:
			answers.append((now, "audio", message[1 : 1 + message[0]].decode(), ""))


def first(answers, ended, kind, language=""):
	"""Seconds from the end of the speech to the last first answer of a kind; None when there was none."""
	times = [at for at, type_, lang, _ in answers if type_ == kind and lang == language]
	return times[-1 if kind != "audio" else 0] - ended if times else None


async def main(url, ca_file, paths):
	tls = ssl.create_default_context(cafile=ca_file)
	results = {}
	async with websockets.connect(url, ssl=tls) as socket:
		await socket.send(json.dumps({"type": "auth", "apiKey": "tak_live_local", "sourceLanguage": "en",
			"captionMode": "translated", "targetLanguages": TARGETS}))
		answers = []
		receiver = asyncio.create_task(receive(socket, answers))
		silence = bytes(int(PAUSE_SEC * RATE) * 2)
		await speak(socket, silence)
		for path in paths:
			answers.clear()
			await speak(socket, load(path).tobytes())
			ended = time.monotonic()
			await speak(socket, silence)
			finals = [text for _, type_, _, text in answers if type_ == "transcript_final"]
			print(f"{path.rsplit('/', 1)[-1]}: {' | '.join(finals)}")
			for kind, language in (("transcript_final", ""), ("caption", "es"), ("caption", "pt"),
				("tts_start", "es"), ("audio", "es")):
				delay = first([a for a in answers if a[0] >= ended], ended, kind, language)
				if delay is not None and len(finals) == 1:
					results.setdefault(f"{kind} {language}".strip(), []).append(delay)
		receiver.cancel()
	for name, delays in results.items():
		delays.sort()
		print(f"{name:18} n={len(delays):3} median {statistics.median(delays):.2f} s, "
			f"90 % {delays[int(len(delays) * 0.9)]:.2f} s, worst {delays[-1]:.2f} s")


if __name__ == "__main__":
	if len(sys.argv) < 4:
		sys.exit(__doc__)
	asyncio.run(main(sys.argv[1], sys.argv[2], sys.argv[3:]))

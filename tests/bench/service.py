# SPDX-License-Identifier: GPL-2.0-or-later
"""The row of the local service: its processor time for a second of speech, beside its engines' own programs."""

import asyncio
import json
import resource
import shutil
import ssl
import subprocess
import time
import wave
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import websockets

from lab import speech
from lab.service import KEY, PORT, LocalService, make_certificate

from row import Row, duration

CLIENTS = (1, 4)
LANGUAGES = ("es", "pt", "fr", "it")
MODES = {"pt": "es-pt_BR", "fr": "es-fr", "it": "spa-ita"}
SPEECH_SECONDS = 20
MODELS = Path("/usr/share/pocketsphinx/model/en-us")
RATE = 16000
FRAME_BYTES = 320
QUIET_SECONDS = 2
MOST_SECONDS = 120
WITHIN = 1.10


def _recording(folder):
	"""Speech as clients send it and as the recogniser's program reads it; and its length, seconds."""
	speech.compose(folder / "speech-48.wav", at_most=SPEECH_SECONDS)
	path = folder / "speech.wav"
	subprocess.run(["ffmpeg", "-nostdin", "-y", "-loglevel", "error", "-i", str(folder / "speech-48.wav"), "-ac", "1", "-ar", str(RATE),
			"-c:a", "pcm_s16le", str(path)], check=True)
	with wave.open(str(path)) as file:
		return path, file.readframes(file.getnframes()), file.getnframes() / RATE


def _children_seconds():
	"""Seconds of a core that ended children and theirs have used so far."""
	used = resource.getrusage(resource.RUSAGE_CHILDREN)
	return used.ru_utime + used.ru_stime


def _seconds_of(work):
	before = _children_seconds()
	result = work()
	return _children_seconds() - before, result


# Ours


async def _client(pcm, targets):
	"""Sends all of it at once and reads until nothing more comes."""
	async with websockets.connect(f"wss://localhost:{PORT}/ws/audio-pipeline", ssl=ssl.create_default_context(), max_size=None) as socket:
		await socket.send(json.dumps({"type": "auth", "apiKey": KEY, "sourceLanguage": "en", "captionMode": "translated",
					      "targetLanguages": targets}))
		for offset in range(0, len(pcm), FRAME_BYTES):
			await socket.send(pcm[offset:offset + FRAME_BYTES])
		async for _ in socket:
			pass


async def _clients(count, pcm, targets, service):
	tasks = [asyncio.create_task(_client(pcm, targets)) for _ in range(count)]
	deadline = time.monotonic() + MOST_SECONDS
	known, since = 0, time.monotonic()
	while time.monotonic() - since < QUIET_SECONDS or not service.events("utterance_end"):
		await asyncio.sleep(0.25)
		if time.monotonic() > deadline:
			raise RuntimeError("The local service did not come to an end with its speech")
		if len(service.events()) != known:
			known, since = len(service.events()), time.monotonic()
	for task in tasks:
		task.cancel()
	await asyncio.gather(*tasks, return_exceptions=True)


def _service(build, certificate, count, pcm, dubbing):
	"""Runs the service with so many clients; returns the sentences that it heard from each."""
	targets = [{"code": code, "dubbing": dubbing, "captions": True} for code in LANGUAGES]
	with LocalService(build=build, certificate=certificate) as service:
		asyncio.run(_clients(count, pcm, targets, service))
		finals = service.events("final")
	heard = {}
	for one in finals:
		heard.setdefault(one["connection"], []).append(one["text"])
	if len(heard) != count:
		raise RuntimeError(f"Of {count} clients only {len(heard)} were heard")
	return list(heard.values())


# Its engines' own programs


def _run(command, text=None):
	return subprocess.run(command, input=text, capture_output=True, check=True, text=True).stdout


def _recogniser(path):
	models = ["-hmm", str(MODELS / "en-us"), "-lm", str(MODELS / "en-us.lm.bin"), "-dict", str(MODELS / "cmudict-en-us.dict")]
	# Version 5 has another program than version 0.8.
	if shutil.which("pocketsphinx_continuous"):
		return ["pocketsphinx_continuous", *models, "-logfn", "/dev/null", "-infile", str(path)]
	return ["pocketsphinx", *models, "live", str(path)]


def _tools(path, sentences):
	"""What one client's speech needs, one program after the other."""
	_run(_recogniser(path))
	texts = {"es": _run(["apertium", "-u", "eng-spa"], "\n".join(sentences))}
	for code, mode in MODES.items():
		texts[code] = _run(["apertium", "-u", mode], texts["es"])
	for code, text in texts.items():
		subprocess.run(["espeak-ng", "-v", code, "--stdout"], input=text.encode(), stdout=subprocess.DEVNULL, check=True)


def _all_tools(path, heard):
	with ThreadPoolExecutor(len(heard)) as pool:
		list(pool.map(lambda sentences: _tools(path, sentences), heard))


def rows(build, out, word):
	"""Measures. `word`: only rows whose name has it."""
	if word not in "service":
		return []
	folder = out / "service"
	folder.mkdir(parents=True, exist_ok=True)
	path, pcm, length = _recording(folder)
	certificate = make_certificate(folder)
	found = []
	for count in CLIENTS:
		mine, heard = _seconds_of(lambda: _service(build, certificate, count, pcm, dubbing=True))
		theirs, _ = _seconds_of(lambda: _all_tools(path, heard))
		name = "1 client" if count == 1 else f"{count} clients"
		found.append(Row("service", f"a second of speech, {name}, 4 languages", duration(mine / length / count),
				 "the engines' own programs", duration(theirs / length / count), f"{mine / theirs:.2f} times as long",
				 f"{WITHIN} times as long", mine / theirs <= WITHIN))
	return found

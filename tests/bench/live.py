# SPDX-License-Identifier: GPL-2.0-or-later
"""The rows that are measured in a real OBS: its start, what it costs while nothing happens, and how long things take."""

import re
import time
import wave
from pathlib import Path

import numpy as np

from lab.obs import Input, Obs, media_file, wait_until
from lab.service import KEY, LocalService

from row import Row, duration

MICROPHONE = "Microphone"
LET_IN = [{"expect": "auth"}, {"send": {"type": "auth_ok", "maxTargetLanguages": 0}}]
EIGHT = ("de", "es", "fr", "it", "ja", "ko", "nl", "pt")

WINDOW_SECONDS = 15
ROUNDS = 2
SETTLE_SECONDS = 3

CHUNK_SECONDS = 1024 / 48000
TICK_SECONDS = 0.010
MARGIN_SECONDS = 0.005
WRITING_SECONDS = 0.003
LATENCIES = 60
CAPTIONED = ("de", "fr", "it", "nl", "pt")
LATENCY_STEP_BYTES = 16000

PROFILER_LINE = re.compile(r"(obs_init_module\(([^)]+)\)|TalvoraPlugin::initialize): (?:min=[^,]*, median=)?([\d.]+)\sms")


def _config(*languages, dubbing=True, captions=False):
	return {"apiKey": KEY, "audioSource": MICROPHONE, "autoConnect": bool(languages), "captionMode": "translated",
		"targetLanguages": [{"code": code, "dubbing": dubbing, "captions": captions} for code in languages]}


def _noise(path):
	with wave.open(str(path), "wb") as file:
		file.setnchannels(2)
		file.setsampwidth(2)
		file.setframerate(48000)
		file.writeframes(np.random.default_rng(1).integers(-8000, 8000, (480000, 2)).astype("<i2").tobytes())
	return path


# Start and steady


def _cpu_seconds(pid):
	"""Seconds of a core that the process's threads have used so far."""
	total = 0
	for task in Path(f"/proc/{pid}/task").iterdir():
		try:
			total += int((task / "schedstat").read_text(encoding="utf-8").split()[0])
		except FileNotFoundError:
			continue
	return total / 1e9


def _watch(obs):
	"""The share of a core that OBS uses."""
	time.sleep(SETTLE_SECONDS)
	before, start = _cpu_seconds(obs.pid), time.monotonic()
	time.sleep(WINDOW_SECONDS)
	return (_cpu_seconds(obs.pid) - before) / (time.monotonic() - start)


def _one_run(build, sound, with_plugin, languages):
	"""The share of a core, and OBS's log."""
	options = {"inputs": [media_file(MICROPHONE, sound, looping=True)], "browser": False, "build": build}
	with LocalService(script=LET_IN, build=build), Obs(plugin=with_plugin, talvora_config=_config(*languages), **options) as obs:
		if languages:
			obs.wait_for_log("WSClient: authenticated")
		share = _watch(obs)
		obs.stop()
	return share, obs.log


def _starts(logs):
	ours, others = [], []
	for log in logs:
		parts = {module or what: float(ms) / 1000 for what, module, ms in PROFILER_LINE.findall(log)}
		ours.append(parts.pop("talvora-obs.so") + parts.pop("TalvoraPlugin::initialize"))
		slowest = max(parts, key=parts.get)
		others.append((parts[slowest], slowest))
	mine = float(np.median(ours))
	slowest = sorted(others)[len(others) // 2]
	return [Row("start", "module load and initialize(), 8 dubs", duration(mine), f"OBS's slowest module, {slowest[1]}", duration(slowest[0]),
		    f"{slowest[0] / mine:.2f} times as fast", "under 20 ms, not the slowest", mine < 0.020 and mine < slowest[0])]


def _start_and_steady(build, out, word):
	sound = _noise(out / "noise.wav")
	shares, logs = {"without": [], "idle": [], "dubs": []}, []
	for _ in range(ROUNDS):
		for kind, with_plugin, languages in (("without", False, ()), ("idle", True, ()), ("dubs", True, EIGHT)):
			share, log = _one_run(build, sound, with_plugin, languages)
			shares[kind].append(share)
			if kind == "dubs":
				logs.append(log)
	without, idle, dubs = (float(np.median(shares[kind])) for kind in ("without", "idle", "dubs"))
	rows = _starts(logs) if word in "start" else []
	if word in "steady":
		for work, share, most in (("module idle", idle, 0.002), ("authenticated, 8 dubs", dubs, 0.02)):
			rows.append(Row("steady", work, f"{share - without:+.2%} of a core", "OBS without it", f"{without:.2%} of a core", "",
					f"under {most:.1%}", share - without < most))
	return rows


# Latency


def _moments(log, what):
	return [int(ns) / 1e9 for ns in re.findall(rf"\[talvora-stopwatch\] {what} (\d+)", log)]


def _uplink_clicks(service):
	"""When the first sample of each click came in."""
	samples = service.uplink()
	loud = np.abs(samples.astype(int)) > 2000
	starts = np.flatnonzero(loud & ~np.concatenate(([False], loud[:-1])))
	frames = service.received("binary", 1)
	ends = np.array([(frame["offset"] + frame["bytes"]) // 2 for frame in frames])
	return [frames[np.searchsorted(ends, start, side="right")]["mono_ms"] / 1000 for start in starts]


def _delays(sent, arrived, longest=1.0):
	"""From each moment to the first one that follows within `longest` seconds; left out where there is none.

	The service writes a moment down after it has sent, so what arrives at once may seem to arrive before.
	"""
	found = []
	arrived = np.array(sorted(arrived))
	for moment in sent:
		index = np.searchsorted(arrived, moment - WRITING_SECONDS)
		if index < len(arrived) and arrived[index] - moment < longest:
			found.append(max(0.0, arrived[index] - moment))
	return found


def _latency_row(work, sent, arrived, bound, what):
	delays = _delays(sent, arrived)
	worst = float(np.percentile(delays, 99)) if delays else float("inf")
	median = duration(float(np.median(delays))) if delays else "none"
	return Row("latency", work, f"{duration(worst)} (median {median}, {len(delays)} of {len(sent)})", f"the bound: {what}", duration(bound) if bound else "0",
		   f"{(worst - bound) * 1000:+.1f} ms", "99th percentile within 5 ms", worst - bound <= MARGIN_SECONDS and len(delays) == len(sent))


def _latency(build, out):
	steps = list(LET_IN)
	for number in range(1, LATENCIES + 1):
		# The caption has no dub to wait for, and is the first of its language for longer than one is shown.
		language = CAPTIONED[number % len(CAPTIONED)]
		steps += [{"after_audio_bytes": number * LATENCY_STEP_BYTES},
			  {"send": {"type": "caption", "language": language, "text": f"Caption {number}", "duration": 0.1, "clipId": number}},
			  {"send_tts": {"language": "es", "clip_id": number, "sample_rate": 24000, "pcm": "voice.pcm"}}]
	config = _config("es")
	config["targetLanguages"] += [{"code": code, "dubbing": False, "captions": True} for code in CAPTIONED]
	service = LocalService(script=steps, folder=out / "latency", build=build)
	for old in service.folder.glob("*.jsonl*"):
		old.unlink()
	(service.folder / "voice.pcm").write_bytes(np.full(4800, 30000, "<i2").tobytes())
	with service, Obs(inputs=[Input(MICROPHONE, "talvora_stopwatch")], talvora_config=config, browser=False, build=build,
			  modules=[build / "tests" / "bench" / "stopwatch" / "talvora-stopwatch.so"]) as obs:
		wait_until(lambda: len(service.events("script_step")) == len(steps), 60, "the service has sent everything")
		wait_until(lambda: all(len(_moments(obs.log, what)) >= LATENCIES for what in ("caption", "voice")), 10,
			   "every caption and every clip has come through")
		obs.stop()
	log = obs.log
	sent = service.events("script_step")
	captions = [one["mono_ms"] / 1000 for one, step in zip(sent, steps) if "send" in step and step["send"]["type"] == "caption"]
	voices = [one["mono_ms"] / 1000 for one, step in zip(sent, steps) if "send_tts" in step]
	clicks = _moments(log, "click")
	wire = _uplink_clicks(service)
	return [
		# Before the first click on the wire the service had not let anybody in, after the last one OBS had ended.
		_latency_row("chunk in the source to frame on the wire", [one for one in clicks if wire[0] - 0.1 <= one <= wire[-1]], wire,
			     TICK_SECONDS, "10 ms tick"),
		_latency_row("caption on the wire to settings applied", captions, _moments(log, "caption"), 0, "at once"),
		_latency_row("complete clip on the wire to first dubbed sample", voices, _moments(log, "voice"), CHUNK_SECONDS,
			     "next chunk, 21.3 ms"),
	]


def rows(build, out, word):
	found = []
	if word in "start" or word in "steady":
		found += _start_and_steady(build, out, word)
	if word in "latency":
		found += _latency(build, out)
	return found

# SPDX-License-Identifier: GPL-2.0-or-later
"""The rows that are measured in one process: the small rooms beside their peers."""

import json
import subprocess

from row import Row, duration

REPETITIONS = 5

# Name, work, ours, then peers: name, benchmark, what is to be reached ("faster": their time / ours at least;
# "within": ours / theirs at most; None: only to compare).
COMPARED = [
	("capture", "1024 frames", "capture/ours/1024",
	 [("libswresample", "capture/libswresample/1024", ("faster", 10)), ("memcpy of the input", "capture/memcpy/1024", ("within", 4))]),
	("capture", "4096 frames", "capture/ours/4096",
	 [("libswresample", "capture/libswresample/4096", ("faster", 10)), ("memcpy of the input", "capture/memcpy/4096", ("within", 4)),
	  ("4 times 1024 frames", ("capture/ours/1024", 4), ("within", 1.05)),
	  ("4 times memcpy of 1024", ("capture/memcpy/1024", 4), None)]),
	("capture", "8192 frames", "capture/ours/8192",
	 [("libswresample", "capture/libswresample/8192", ("faster", 10)), ("memcpy of the input", "capture/memcpy/8192", ("within", 4)),
	  ("8 times 1024 frames", ("capture/ours/1024", 8), ("within", 1.05)),
	  ("8 times memcpy of 1024", ("capture/memcpy/1024", 8), None)]),
	("dub", "speaking, original held down", "dub/ours/0/manual_time",
	 [("scalar loop over std::deque", "dub/scalar/0/manual_time", ("faster", 8)), ("memcpy in and out", "dub/memcpy", ("within", 6))]),
	("dub", "speaking, original's level moving", "dub/ours/1/manual_time",
	 [("scalar loop over std::deque", "dub/scalar/1/manual_time", ("faster", 8)), ("memcpy in and out", "dub/memcpy", ("within", 6))]),
	("speech in", "10 s, 24 to 48 kHz", "speech/ours/48000",
	 [("libsamplerate linear", "speech/libsamplerate/48000", ("faster", 3)),
	  ("libswresample linear", "speech/libswresample/48000", ("faster", 3)),
	  ("libswresample linear, 2 taps", "speech/libswresample-2/48000", None)]),
	("speech in", "10 s, 24 to 44.1 kHz", "speech/ours/44100",
	 [("libsamplerate linear", "speech/libsamplerate/44100", ("faster", 3)),
	  ("libswresample linear", "speech/libswresample/44100", ("faster", 3)),
	  ("libswresample linear, 2 taps", "speech/libswresample-2/44100", None)]),
	("ring", "341 samples, two threads", "ring/ours/manual_time",
	 [("boost::lockfree::spsc_queue", "ring/boost/manual_time", ("faster", 1)),
	  ("moodycamel::ReaderWriterQueue", "ring/moodycamel/manual_time", ("faster", 1)),
	  ("memcpy in and out, one thread", "ring/memcpy", None)]),
	("frames", "9.6 kB of noise, 1 clip open", "frames/ours/1",
	 [("byte by byte", "frames/plain/1", ("faster", 10)), ("memchr", "frames/memchr/1", None)]),
	("frames", "9.6 kB of noise, 31 clips open", "frames/ours/31",
	 [("byte by byte", "frames/plain/31", ("faster", 10)), ("memchr", "frames/memchr/31", None)]),
	("messages", "caption: parse, dispatch, queue, CSS", "messages/ours", [("QJsonDocument parse", "messages/parse", ("within", 3))]),
]

CHUNK_SECONDS = 1024 / 48000
SHARE_OF_CHUNK = 0.05


def _run(build, out, pattern, *options):
	"""The best of each benchmark's repetitions, by name: seconds an item, and counters."""
	result = out / "micro.json"
	subprocess.run(["xvfb-run", "--auto-servernum", str(build / "tests" / "bench" / "talvora-bench"), f"--benchmark_filter={pattern}",
			f"--benchmark_out={result}", "--benchmark_out_format=json", *options],
		       env={"PATH": "/usr/bin:/bin", "QT_QPA_PLATFORM": "offscreen", "HOME": str(out)}, stdout=subprocess.DEVNULL, check=True)
	best = {}
	for one in json.loads(result.read_text(encoding="utf-8"))["benchmarks"]:
		if one.get("error_occurred"):
			raise RuntimeError(f"{one['name']}: {one['error_message']}")
		if one["run_type"] == "iteration":
			one["seconds"] = 1 / one["items_per_second"]
			known = best.get(one["run_name"])
			if known is None or one["seconds"] < known["seconds"]:
				best[one["run_name"]] = one
	return best


def _compared(results):
	rows = []
	for name, work, ours, peers in COMPARED:
		for peer, benchmark, goal in peers:
			benchmark, factor = benchmark if isinstance(benchmark, tuple) else (benchmark, 1)
			if ours not in results or benchmark not in results:
				continue
			mine, theirs = results[ours]["seconds"], factor * results[benchmark]["seconds"]
			faster = theirs / mine
			ratio, text, reached = f"{faster:.2f} times as fast", "", None
			if goal and goal[0] == "faster":
				text, reached = f"{goal[1]} times as fast", faster >= goal[1]
			elif goal:
				ratio, text, reached = f"{mine / theirs:.2f} times as long", f"{goal[1]} times as long", mine / theirs <= goal[1]
			elif "bytes_per_second" in results[ours]:
				ratio = f"{results[ours]['bytes_per_second'] / results[benchmark]['bytes_per_second']:.0%} of its speed"
			rows.append(Row(name, work, duration(mine), peer, duration(theirs), ratio, text, reached))
		if name == "frames" and ours in results:
			speed = results[ours]["bytes_per_second"] / 1e9
			rows.append(Row(name, work, f"{speed:.3g} GB/s", "", "", "", "1 GB/s", speed >= 1))
	return rows


def _callbacks(results):
	rows = []
	for name in sorted(results, key=lambda one: int(one.split("/")[1])):
		languages, one = int(name.split("/")[1]), results[name]
		share = one["ours_p999_us"] * 1e-6 / CHUNK_SECONDS
		for kind, what in (("median", "median"), ("p999", "99.9th percentile")):
			mine, theirs = one[f"ours_{kind}_us"] * 1e-6, one[f"gain_{kind}_us"] * 1e-6
			goal = languages == 31 and kind == "p999"
			rows.append(Row("dub, in libobs", f"{languages} speaking, {what}", duration(mine), f"gain filter on {languages} sources",
					duration(theirs), f"{theirs / mine:.2f} times as fast" + (f", {share:.1%} of the chunk" if goal else ""),
					f"under {SHARE_OF_CHUNK:.0%} of the chunk" if goal else "", share < SHARE_OF_CHUNK if goal else None))
	return rows


def rows(build, out, word):
	"""Measures. `word`: only rows whose name has it."""
	found = []
	wanted = [one for one in COMPARED if word in one[0]]
	if wanted:
		names = {"speech in": "speech"}
		pattern = "^(" + "|".join(sorted({names.get(one[0], one[0]) for one in wanted})) + ")/"
		found += _compared(_run(build, out, pattern, f"--benchmark_repetitions={REPETITIONS}", "--benchmark_min_time=0.1s",
					"--benchmark_enable_random_interleaving=true"))
	if word in "dub, in libobs":
		found += _callbacks(_run(build, out, "^callback"))
	return found

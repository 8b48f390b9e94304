# SPDX-License-Identifier: GPL-2.0-or-later
"""Whether what the demo leaves is what it promises: text where captions are, a voice in every dub, lines in every language."""

import re

import numpy as np

from lab.media import read_picture, read_track

WITHOUT_CAPTIONS = "without-captions.png"

# How wide and high the part of the picture is that a caption's text lies in, pixels, and how far it ends above its bottom.
_WIDTH, _HEIGHT, _BELOW = 580, 110, 12

# A letter is brighter than this in red, green and blue; a caption has at least so many pixels of such, and in so many columns.
_BRIGHT = 200
_LEAST_BRIGHT, _LEAST_COLUMNS = 400, 60

# A window in which something is heard or not, and how loud the mean of its samples is then; seconds, of full scale.
_WINDOW = 0.05
_AUDIBLE, _SILENT = 0.01, 0.002

# How long a dub is heard at least while the original is silent, seconds.
_LEAST_VOICE = 1.0

# Words of which translations of any three sentences have some.
_COMMON = {
	"es": {"el", "la", "los", "las", "de", "que", "en", "es", "no", "su", "un", "una", "por", "a"},
	"fr": {"le", "la", "les", "de", "que", "en", "est", "ne", "pas", "votre", "un", "une", "pour", "à", "vous"},
	"it": {"il", "la", "i", "le", "di", "che", "in", "è", "non", "suo", "un", "una", "per", "a", "si"},
	"pt": {"o", "a", "os", "as", "de", "que", "em", "é", "não", "seu", "um", "uma", "por", "sua"},
}


class Failure(SystemExit):
	"""What is wrong, in a sentence."""


def expect(condition, sentence):
	if not condition:
		raise Failure(f"The demo did not work: {sentence}")


def check_picture(with_captions, without_captions, place, name):
	"""Looks for white letters that the picture without captions does not have, where this language's captions are."""
	x, bottom = place
	part = (slice(bottom - _BELOW - _HEIGHT, bottom - _BELOW), slice(x - _WIDTH // 2, x + _WIDTH // 2))
	bright = [picture[part][:, :, :3].min(axis=2) > _BRIGHT for picture in (with_captions, without_captions)]
	letters = bright[0] & ~bright[1]
	expect(letters.sum() >= _LEAST_BRIGHT and letters.any(axis=0).sum() >= _LEAST_COLUMNS,
	       f"there is no text where the {name} captions are in captions-1.png ({letters.sum()} bright pixels in "
	       f"{letters.any(axis=0).sum()} columns that {WITHOUT_CAPTIONS} does not have).")


def loudness(samples):
	"""Of each window: the root of the mean of squares."""
	size = round(_WINDOW * 48000)
	mono = samples.mean(axis=1)
	return np.sqrt(np.square(mono[:len(mono) // size * size]).reshape(-1, size).mean(axis=1))


def check_dub(original, dub, name):
	"""Whether something is heard in the dub while the original is silent, which the original in it cannot be."""
	length = min(len(original), len(dub))
	expect(dub.any(), f"the {name} dub's track in the recording is silent.")
	voice = ((loudness(original[:length]) < _SILENT) & (loudness(dub[:length]) > _AUDIBLE)).sum() * _WINDOW
	expect(voice >= _LEAST_VOICE, f"the {name} dub's track in the recording has no voice of its own: while the original is silent "
	       f"it is heard for {voice:.1f} s.")
	return voice


def transcript_lines(path):
	"""Texts in their order, by language."""
	lines = {}
	for line in path.read_text(encoding="utf-8").splitlines():
		match = re.fullmatch(r" *\d+\.\d\d s  (\w+)  (.+)", line)
		expect(match or not line, f"a line of transcript.txt is not one: '{line}'.")
		if match:
			lines.setdefault(match[1], []).append(match[2])
	return lines


def words(text):
	return re.findall(r"[^\W\d_]+", text.lower())


def check_transcript(path, languages, sentences, expected):
	"""sentences: how many were spoken. expected: English words, most of which the recogniser understands."""
	lines = transcript_lines(path)
	spoken = lines.get("en", [])
	expect(len(spoken) >= sentences, f"transcript.txt has {len(spoken)} English lines of {sentences} spoken sentences.")
	understood = expected & {word for line in spoken for word in words(line)}
	expect(2 * len(understood) >= len(expected), "the English lines of transcript.txt are not what was spoken: of "
	       f"{', '.join(sorted(expected))} they have {', '.join(sorted(understood)) or 'none'}.")
	for code, name in languages.items():
		translated = lines.get(code, [])
		expect(len(translated) >= sentences, f"transcript.txt has {len(translated)} {name} lines of {sentences} spoken sentences.")
		same = [line for line in translated if line in spoken or line.startswith("[")]
		expect(not same, f"transcript.txt has {name} lines that are not translated: {same}.")
		expect(_COMMON[code] & {word for line in translated for word in words(line)},
		       f"the {name} lines of transcript.txt have none of the most common {name} words: {translated}.")


def check(folder, languages, places, dub_tracks, sentences, expected):
	"""Ends the program with a sentence about the first thing that is wrong.

	languages: names by code. places: middle of the lower edge of each language's captions, pixels. dub_tracks: the audio track of
	each dubbed language in the recording.
	"""
	check_transcript(folder / "transcript.txt", languages, sentences, expected)
	expect((folder / "captions-1.png").exists(), "all captions were never seen at once, so that there is no captions-1.png.")
	without = read_picture(folder / WITHOUT_CAPTIONS)
	shown = read_picture(folder / "captions-1.png")
	for code, place in places.items():
		check_picture(shown, without, place, languages[code])
	recording = folder / "recording.mkv"
	original = read_track(recording, 1)
	expect(original.any(), "the original's track in the recording is silent.")
	dubs = {code: read_track(recording, track) for code, track in dub_tracks.items()}
	voices = [f"{check_dub(original, dub, languages[code]):.1f} s" for code, dub in dubs.items()]
	first, second = (dub[:min(map(len, dubs.values()))] for dub in dubs.values())
	expect(np.abs(first - second).max() > _AUDIBLE, "both dubs' tracks in the recording are the same.")
	print(f"Checked: captions in {len(places)} places, voices for {' and '.join(voices)} while the original is silent, "
	      f"a transcript in {len(languages)} languages.", flush=True)

# SPDX-License-Identifier: GPL-2.0-or-later
"""What an OBS finds in its home when it starts: settings, a profile, and scene collections with sources."""

import json
import re
import subprocess
from dataclasses import dataclass, field

SCENE = "Scene"


def _ini(sections):
	lines = []
	for name, values in sections.items():
		lines.append(f"[{name}]")
		lines += [f"{key}={str(value).lower() if isinstance(value, bool) else value}" for key, value in values.items()]
		lines.append("")
	return "\n".join(lines)


def write(path, text):
	path.parent.mkdir(parents=True, exist_ok=True)
	path.write_text(text, encoding="utf-8")


def _track_mask(tracks):
	return sum(1 << track - 1 for track in tracks)


def obs_version():
	"""Major, minor and patch of the OBS that is used."""
	text = subprocess.run(["obs", "--version"], capture_output=True, text=True, timeout=20, check=True).stdout
	return tuple(int(part) for part in re.search(r"(\d+)\.(\d+)\.(\d+)", text).groups())


def _last_version():
	"""The running OBS's own version as its configuration stores it, so that it takes the home for an old friend's."""
	major, minor, patch = obs_version()
	return major << 24 | minor << 16 | patch


@dataclass
class Input:
	"""A source that is in the scene from the start. `tracks`: the audio tracks it goes to, 1 to 6."""

	name: str
	kind: str
	settings: dict = field(default_factory=dict)
	tracks: tuple = (1,)
	position: tuple = (0, 0)
	muted: bool = False

	def as_source(self):
		return {"name": self.name, "id": self.kind, "settings": self.settings, "mixers": _track_mask(self.tracks),
			"muted": self.muted}

	def as_item(self, number):
		return {"name": self.name, "id": number, "visible": True, "pos": {"x": self.position[0], "y": self.position[1]}}


def media_file(name, path, looping=False, **more):
	"""A media source that plays a local file as soon as it is there."""
	return Input(name, "ffmpeg_source", {"is_local_file": True, "local_file": str(path), "looping": looping}, **more)


def scene_collection(name, inputs=(), *, scenes=(), sources=()):
	"""A scene collection as OBS stores it: SCENE with the inputs, bottom first, then `scenes`, which are empty.

	sources: more sources as OBS stores them; one called SCENE takes the place of that scene.
	"""
	items = [one.as_item(number) for number, one in enumerate(inputs, 1)]
	first = {"id": "scene", "name": SCENE, "settings": {"items": items, "id_counter": len(items)}}
	stored = [one.as_source() for one in inputs] + list(sources)
	stored += [{"id": "scene", "name": one, "settings": {"items": [], "id_counter": 0}} for one in scenes]
	if all(one["name"] != SCENE for one in sources):
		stored.append(first)
	return {"name": name, "current_scene": SCENE, "current_program_scene": SCENE,
		"scene_order": [{"name": one} for one in (SCENE, *scenes)], "sources": stored}


def write_settings(config, *, preview, theme, language):
	"""OBS's own settings. `theme`: its id, or None for the default. `language`: the name of its file of texts."""
	general = {
		"FirstRun": True, "LastVersion": _last_version(), "Pre19Defaults": False, "Pre21Defaults": False,
		"Pre23Defaults": False, "Pre24.1Defaults": False, "Pre31Migrated": True, "EnableAutoUpdates": False,
		"ConfirmOnExit": False, "WarnedAboutClosingDocks": True, "Language": language,
	}
	basic = {
		"Profile": "Untitled", "ProfileDir": "Untitled", "SceneCollection": "Untitled",
		"SceneCollectionFile": "Untitled", "ConfigOnNewProfile": False,
	}
	window = {
		"SysTrayEnabled": False, "PreviewEnabled": preview, "WarnBeforeStartingStream": False, "WarnBeforeStoppingStream": False,
		"WarnBeforeStoppingRecord": False,
	}
	above = str(config.parent)
	sections = {"General": general, "Basic": basic, "BasicWindow": window}
	if theme:
		sections["Appearance"] = {"Theme": theme}
	write(config / "user.ini", _ini(sections))
	locations = {"Configuration": above, "SceneCollections": above, "Profiles": above}
	write(config / "global.ini", _ini({**sections, "Locations": locations}))


def write_profile(profile, recordings, *, canvas, fps, tracks, lossless_audio, sample_rate, more):
	"""The profile that OBS starts with. `more`: further values by section and name."""
	width, height = canvas
	mask = _track_mask(tracks)
	recorder = {"RecType": "Standard"}
	if lossless_audio:
		recorder = {
			"RecType": "FFmpeg", "FFOutputToFile": True, "FFFilePath": recordings, "FFFormat": "matroska",
			"FFExtension": "mkv", "FFIgnoreCompat": True, "FFVEncoder": "libx264", "FFVEncoderId": 27,
			"FFVCustom": "preset=ultrafast", "FFVBitrate": 2000, "FFAEncoder": "pcm_f32le",
			"FFAEncoderId": 65557, "FFABitrate": 320, "FFAudioMixes": mask,
		}
	sections = {
		"General": {"Name": "Untitled"},
		"Output": {"Mode": "Advanced"},
		"AdvOut": {
			"RecFilePath": recordings, "RecFormat2": "mkv", "RecEncoder": "obs_x264",
			"Encoder": "obs_x264", "RecTracks": mask, **recorder,
		},
		"Video": {
			"BaseCX": width, "BaseCY": height, "OutputCX": width, "OutputCY": height, "FPSType": 1,
			"FPSInt": fps,
		},
		"Audio": {"SampleRate": sample_rate, "ChannelSetup": "Stereo"},
	}
	for name, values in more.items():
		sections[name] = {**sections.get(name, {}), **values}
	write(profile / "basic.ini", _ini(sections))
	write(profile / "recordEncoder.json", json.dumps({"preset": "ultrafast", "rate_control": "CRF", "crf": 20}))

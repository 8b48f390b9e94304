# SPDX-License-Identifier: GPL-2.0-or-later
"""The settings file in homes that are not as they should be. What a user has set is never lost without a word."""

import contextlib
import ctypes
import json
import os
import re
import threading

import pytest

from lab.obs import media_file, wait_until
from lab.service import KEY
from sessions import MICROPHONE, NOT_FOUND, constant_wav

INITIALIZED = r"\[talvora-obs\] Talvora plugin initialized$"
NOT_SAVED = r"\[talvora-obs\] Talvora: failed to save config to .*/\.config/talvora-obs/config\.json$"
NOT_READ = r"\[talvora-obs\] Talvora: failed to parse config: {}$"
KEPT = r"\[talvora-obs\] Talvora: not all of the settings file was understood, it is kept as .*/config\.json\.old$"


@pytest.fixture
def folder(tmp_path):
	"""The settings' folder in the home that the test's OBS gets."""
	made = tmp_path / "home" / ".config" / "talvora-obs"
	made.mkdir(parents=True)
	return made


def run(make_obs, folder, *complaints):
	"""A run of OBS in the folder's home, to the end, in which the module complains of this, each once; returns its log."""
	with make_obs(home=folder.parents[1], browser=False, complaints=dict.fromkeys(complaints, 1)) as obs:
		obs.wait_for_log(INITIALIZED)
	return obs.log


def run_with_changes(make_obs, user_of, folder, more=None, signed_out=False):
	"""A run in which nothing can be saved, and the log says so at the start, at each change and at the end; returns its log.

	more: what else there is to complain about.
	"""
	changes = 2 + signed_out
	with make_obs(home=folder.parents[1], browser=False, accessible=True, complaints={NOT_SAVED: 1 + changes + 1, **(more or {})}) as obs:
		user = user_of(obs)
		user.open_dock()
		if signed_out:
			user.sign_in_with_key(KEY)
		for count, language in enumerate(("German", "French"), 2 + signed_out):
			user.select("Spoken language", language)
			obs.wait_for_log(NOT_SAVED, count=count)
	return obs.log


def says(pattern, log):
	return re.search(pattern, log, re.MULTILINE)


def saved(folder):
	return json.loads((folder / "config.json").read_text(encoding="utf-8"))


CUT_SHORT = '{"apiKey": "tak_live_local", "audioSource": "Micro'
# The same without its key, and what is kept of a huge file.
CUT_SHORT_KEPT = '{"apiKey": ""              , "audioSource": "Micro'
MOST_KEPT = 16 << 20


@pytest.mark.parametrize("content, reason, kept", [(CUT_SHORT, "unterminated string", CUT_SHORT_KEPT),
						   ("x" * (17 << 20), "too large document", "x" * MOST_KEPT)], ids=["truncated", "huge"])
def test_unreadable_file_is_reported_and_kept(make_obs, folder, content, reason, kept):
	(folder / "config.json").write_text(content, encoding="utf-8")
	run(make_obs, folder, NOT_READ.format(reason), KEPT)
	assert saved(folder)["sourceLanguage"] == "en"
	assert (folder / "config.json.old").read_text(encoding="utf-8") == kept


def test_empty_file_is_reported_and_replaced(make_obs, folder):
	(folder / "config.json").touch()
	run(make_obs, folder, NOT_READ.format("illegal value"))
	assert saved(folder)["sourceLanguage"] == "en"
	assert not (folder / "config.json.old").exists()


def test_newer_file_gives_what_is_known_and_is_kept(make_obs, folder):
	newer = {"apiKey": KEY, "audioSource": "Mikrofon", "voices": {"es": "Lucía"}, "targetLanguages": [
		{"code": "es", "dubbing": True, "captions": False, "voice": "Lucía"}]}
	(folder / "config.json").write_text(json.dumps(newer), encoding="utf-8")
	log = run(make_obs, folder, NOT_FOUND.format("Mikrofon"), KEPT)
	assert says(r"API key: \(set\), Languages: es$", log)
	now = saved(folder)
	assert (now["apiKey"], now["audioSource"]) == (KEY, "Mikrofon")
	assert "voices" not in now
	assert json.loads((folder / "config.json.old").read_text(encoding="utf-8")) == {**newer, "apiKey": ""}


def test_key_that_was_kept_is_taken_out(make_obs, folder):
	(folder / "config.json").write_text(json.dumps({"apiKey": KEY}), encoding="utf-8")
	(folder / "config.json.old").write_text(json.dumps({"apiKey": KEY, "voices": {"es": "Lucia"}}), encoding="utf-8")
	run(make_obs, folder)
	assert json.loads((folder / "config.json.old").read_text(encoding="utf-8")) == {"apiKey": "", "voices": {"es": "Lucia"}}
	assert saved(folder)["apiKey"] == KEY


def test_folder_in_the_place_of_the_file_is_reported_and_left(make_obs, user_of, folder):
	(folder / "config.json" / "something").mkdir(parents=True)
	run_with_changes(make_obs, user_of, folder, signed_out=True)
	assert (folder / "config.json" / "something").is_dir()


_LIBC = ctypes.CDLL(None, use_errno=True)
_READ_ONLY, _REMOUNT, _BIND, _DETACH = 1, 32, 4096, 2


@pytest.fixture
def mount():
	"""Mounts in the lab's own namespace, and takes that away again."""
	places = []

	def do(kind, folder, flags=0, options=""):
		if _LIBC.mount(os.fsencode(folder), os.fsencode(folder), kind.encode(), flags, options.encode()) != 0:
			raise OSError(ctypes.get_errno(), f"{folder} cannot be mounted")
		places.append(folder)

	yield do
	for place in reversed(places):
		_LIBC.umount2(os.fsencode(place), _DETACH)


def test_read_only_home_is_reported_and_used(make_obs, user_of, folder, mount):
	(folder / "config.json").write_text(json.dumps({"apiKey": KEY}), encoding="utf-8")
	# The module's part of it: an OBS that cannot write at all does not start.
	mount("none", folder, _BIND)
	mount("none", folder, _BIND | _REMOUNT | _READ_ONLY)
	log = run_with_changes(make_obs, user_of, folder)
	assert says(r"API key: \(set\)", log)
	assert saved(folder) == {"apiKey": KEY}


def fill(folder):
	"""Leaves no byte free on the disk that a folder is on."""
	with open(folder / "fill", "wb", buffering=0) as file, contextlib.suppress(OSError):
		while True:
			file.write(bytes(4096))


def test_full_disk_is_reported_and_nothing_is_lost(make_obs, user_of, folder, mount):
	mount("tmpfs", folder, options="size=64k")
	# A file whose new content needs more room than it has, which is a page.
	before = {"apiKey": KEY, "audioSource": "M" * 3700}
	(folder / "config.json").write_text(json.dumps(before), encoding="utf-8")
	fill(folder)
	run_with_changes(make_obs, user_of, folder, {NOT_FOUND.format("M+"): 1})
	assert saved(folder) == before


def test_full_disk_without_a_file_leaves_none(make_obs, user_of, folder, mount):
	mount("tmpfs", folder, options="size=64k")
	fill(folder)
	run_with_changes(make_obs, user_of, folder, signed_out=True)
	assert not (folder / "config.json").exists()


def test_two_instances_with_one_file_leave_it_whole(make_obs, tmp_path):
	"""Each renames its microphone over and over, which is saved each time. Who saves last has the last word."""
	wav = constant_wav(tmp_path / "constant.wav", 60, 0)
	settings = tmp_path / "settings"
	settings.mkdir()
	config = settings / "config.json"
	config.write_text(json.dumps({"apiKey": KEY, "audioSource": MICROPHONE}), encoding="utf-8")
	homes = [tmp_path / "one", tmp_path / "two"]
	for home in homes:
		(home / ".config").mkdir(parents=True)
		os.symlink(settings, home / ".config" / "talvora-obs")

	def rename(obs, who):
		name = MICROPHONE
		for number in range(20):
			new = f"{who} {number}"
			obs.request("SetInputName", inputName=name, newInputName=new)
			name = new

	# By the time the module hears of a name, the source may have the next one.
	complaints = {NOT_FOUND.format(r"(Microphone|(first|second) \d+)"): range(22)}
	first, second = (make_obs(home=home, browser=False, inputs=[media_file(MICROPHONE, wav)], complaints=complaints) for home in homes)
	with first, second:
		for obs in (first, second):
			obs.wait_for_log(INITIALIZED)
		users = [threading.Thread(target=rename, args=(obs, who)) for obs, who in ((first, "first"), (second, "second"))]
		for user in users:
			user.start()
		for user in users:
			user.join(60)
			assert not user.is_alive(), "OBS has stopped answering"
		for obs in (first, second):
			# Answered by the thread that saves, after what it was told before.
			obs.request("SetCurrentProgramScene", sceneName="Scene")
		wait_until(lambda: saved(settings)["audioSource"] in ("first 19", "second 19"), 5, "the last change of either is saved")
		second.stop()
		assert saved(settings)["audioSource"] == "second 19", "what was saved last does not hold"
		assert saved(settings)["apiKey"] == KEY
	assert saved(settings)["audioSource"] == "first 19"

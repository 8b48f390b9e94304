# SPDX-License-Identifier: GPL-2.0-or-later
"""A module built in one suite, in the OBS of the other: a build for the oldest OBS runs in the newest, but not the other way
round.

Only asked for by their mark, since the other suite's build must be there:

	./dev build
	./dev test --suite forky --only obs -- -m other_build
	./dev test --only obs -- -m other_build
"""

import re

import numpy as np
import pytest

from lab.media import read_track
from lab.obs import PLUGIN, wait_until
from lab.paths import CHECKOUT, SUITE
from module_test import SHUT_DOWN, UNLOADED, own_lines
from sessions import AUTHENTICATED, LET_IN, SPANISH_CAPTIONS, SPANISH_DUB
from streaming import INITIALIZED, dub_in_scene, microphone, spanish

OLDEST, NEWEST = "trixie", "forky"

# Half a second of speech with a caption, again and again.
SPEAKING = [*LET_IN]
for number in range(1, 60):
	SPEAKING += [{"after_ms": 1500}, {"send_tts": {"language": "es", "clip_id": number, "pcm": "sine 440 0.5s"}},
		{"send": {"type": "caption", "language": "es", "text": f"uno {number}", "duration": 0.5, "clipId": number}}]


def build_of(suite):
	return CHECKOUT / "build" / suite


def version_of_qt(build):
	"""The minor version of Qt 6 that a build's module was made with and asks the linker for."""
	versions = {int(minor) for minor in re.findall(rb"\0Qt_6\.(\d+)\0", (build / "src" / f"{PLUGIN}.so").read_bytes())}
	assert len(versions) == 1, f"the module asks for several versions of Qt 6, or for none: {versions}"
	return versions.pop()


# Each suite has one of the two tests.
if SUITE == NEWEST:

	@pytest.mark.other_build
	def test_build_for_the_oldest_obs_works_in_the_newest(make_obs, make_service, user_of, tmp_path):
		assert version_of_qt(build_of(OLDEST)) < version_of_qt(build_of(NEWEST)), "the module is not of an older build than OBS"
		with make_service(SPEAKING) as service, make_obs(
				build=build_of(OLDEST), inputs=[microphone(tmp_path), dub_in_scene()], talvora_config=spanish(dockVisible=True),
				tracks=(1, 2), lossless_audio=True, accessible=True) as obs:
			obs.wait_for_log(INITIALIZED)
			obs.wait_for_log(AUTHENTICATED)
			user = user_of(obs)
			user.wait_for_label("Connected")
			wait_until(lambda: re.search(r'content: "uno \d+"', obs.input_settings(SPANISH_CAPTIONS).get("css", "")), 20,
				   "a caption is shown")
			wait_until(lambda: len(service.uplink()) > 16000, 10, "the service hears the microphone")
			obs.start_recording()
			recording = obs.wait_for_recording_length(4)
			original, dub = read_track(recording, 1)[:, 0], read_track(recording, 2)[:, 0]
			obs.remove_from_scene(SPANISH_DUB)
		assert np.abs(original).max() <= 0.2501, "the original is changed"
		assert np.abs(dub).max() > 0.3, "the dub does not speak"
		assert own_lines(obs.log)[-1] == UNLOADED and SHUT_DOWN in own_lines(obs.log)


if SUITE == OLDEST:

	@pytest.mark.other_build
	def test_build_for_the_newest_obs_is_refused_by_the_oldest_which_says_why(make_obs):
		version = version_of_qt(build_of(NEWEST))
		# OBS 30 opens a module once to look at it and once to load it.
		complaints = {rf"os_dlopen\(.*{PLUGIN}\.so\): .*not found": 2, rf"Module '.*/{PLUGIN}\.so' not loaded": 1}
		with make_obs(build=build_of(NEWEST), browser=False, complaints=complaints) as obs:
			obs.request("GetVersion")
		assert not own_lines(obs.log), "OBS has loaded a module that was made for a newer one"
		assert re.search(rf"os_dlopen\(.*{PLUGIN}\.so\): .*version `Qt_6\.{version}' not found", obs.log), \
			f"OBS's log does not name Qt 6.{version} as missing"
		assert re.search(rf"Module '.*/{PLUGIN}\.so' not loaded$", obs.log, re.MULTILINE)

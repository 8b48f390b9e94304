# SPDX-License-Identifier: GPL-2.0-or-later
"""Captions that go with the speech of a dub, and what takes that speech away: none of them stays on air."""

import numpy as np
import pytest

from lab.hands import Hands
from lab.obs import wait_until
from sessions import AUTHENTICATED, GONE, LET_IN, MICROPHONE, SPANISH_CAPTIONS, SPANISH_DUB, broken_off
from streaming import dub_in_scene, microphone, spanish

# Two seconds in which nothing is heard of a clip, 1.5 s as after the end of any, and a moment to look.
GONE_SECONDS = 4.5

SESSION_ENDED = {"send": {"type": "session_ended", "usage": {"captionMinutes": 1, "dubbedMinutes": 1}}}


def caption(text, clip_id):
	return {"send": {"type": "caption", "language": "es", "text": text, "duration": 8.0, "clipId": clip_id}}


# The second caption is shown when its clip is heard: six seconds of it, of which the end does not come.
SPEAKING = [*LET_IN, {"after_audio_bytes": 32000}, caption("UNO", 1), caption("DOS", 2), caption("TRES", 3),
	    {"send_tts": {"language": "es", "clip_id": 2, "pcm": "voice.pcm", "end": False}}]


def css(obs, source=SPANISH_CAPTIONS):
	return obs.input_settings(source).get("css", "") if source in obs.inputs() else ""


def shows(obs, text):
	return f'"{text}"' in css(obs)


@pytest.fixture
def speaking(make_obs, make_service, tmp_path):
	"""Makes a service and an OBS, not yet started, with a caption that a clip will bring up; `then` follows it in the script."""

	def make(*then, **options):
		service = make_service([*SPEAKING, *then])
		(service.folder / "voice.pcm").write_bytes(np.full(6 * 24000, 8000, "<i2").tobytes())
		return service, make_obs(inputs=[microphone(tmp_path), dub_in_scene()], talvora_config=spanish(dockVisible=True), **options)

	return make


def assert_goes(obs, seconds=GONE_SECONDS):
	wait_until(lambda: "::after" not in css(obs), seconds, "the caption is taken away")


@pytest.mark.parametrize("end", [SESSION_ENDED, {"drop": True}], ids=["session ended", "connection lost"])
def test_caption_goes_with_its_session(speaking, end):
	lost = broken_off(GONE, range(1, 3)) if "drop" in end else None
	service, obs = speaking({"after_ms": 2000}, end, {"after_ms": 500}, caption("TARDE", 4), complaints=lost)
	with service, obs:
		wait_until(lambda: shows(obs, "DOS"), 30, "the clip brings its caption up")
		obs.wait_for_log(r"\[talvora-obs\] Talvora: WS state → [04]$")
		# After a lost connection the script begins anew, with another caption.
		wait_until(lambda: not shows(obs, "DOS"), 2.5, "the caption is taken away")
		if end == SESSION_ENDED:
			assert_goes(obs, 1)
			# The connection is still there, and brings another.
			wait_until(lambda: len(service.events("script_step")) == len(SPEAKING) + 4, 10, "the service has sent the late caption")
			obs.wait_for_log("Talvora: session ended")
		else:
			# Otherwise it would come when OBS, which ends, has no source for it any more.
			wait_until(lambda: shows(obs, "UNO"), 20, "the next session's caption is shown")
	assert '"TARDE"' not in obs.log, "a caption is shown after the session has ended"


def test_caption_goes_when_stop_is_pressed(speaking):
	service, obs = speaking(accessible=True)
	with service, obs:
		hands = Hands(obs)
		obs.wait_for_log(AUTHENTICATED, timeout=20)
		stop = hands.find("push button", "Stop", hands.dock("Talvora"))
		wait_until(lambda: shows(obs, "DOS"), 30, "the clip brings its caption up")
		hands.click(stop)
		obs.wait_for_log(r"\[talvora-obs\] Talvora: WS state → 0$")
		assert_goes(obs, 2.5)


@pytest.mark.parametrize("silence", ["microphone muted", "dub removed"])
def test_caption_goes_when_nothing_is_heard_of_its_clip(speaking, silence):
	service, obs = speaking()
	with service, obs:
		wait_until(lambda: shows(obs, "DOS"), 30, "the clip brings its caption up")
		if silence == "dub removed":
			obs.request("RemoveInput", inputName=SPANISH_DUB)
		else:
			obs.request("SetInputMute", inputName=MICROPHONE, inputMuted=True)
		# The one that waited for its clip is shown then, and goes by its own time.
		wait_until(lambda: not shows(obs, "DOS"), GONE_SECONDS, "the caption is taken away")
		wait_until(lambda: shows(obs, "TRES"), 2, "the caption that waited is shown")
		assert_goes(obs, 12)


def test_language_that_is_switched_off_leaves_a_blank_source(speaking, user_of):
	service, obs = speaking(accessible=True)
	with service, obs:
		user = user_of(obs)
		wait_until(lambda: shows(obs, "DOS"), 30, "the clip brings its caption up")
		user.mark("Spanish", "Captions")
		wait_until(lambda: "::after" not in css(obs), 5, "the source that stays is blank")
		assert SPANISH_CAPTIONS in obs.scene_items()

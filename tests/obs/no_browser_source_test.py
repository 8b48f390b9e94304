# SPDX-License-Identifier: GPL-2.0-or-later
"""An OBS that was built without a browser source, as Debian's is: captions cannot be drawn, all else works."""

import re

import numpy as np

from exact_audio import Count
from lab.audio_tap import AudioTap
from lab.hands import Hands
from lab.obs import media_file, wait_until
from sessions import LET_IN, MICROPHONE, NOT_FOUND, SPANISH_CAPTIONS, SPANISH_DUB, constant_wav, session_config, target

LOGGED = ("[talvora-obs] Talvora: this OBS has no browser source, so captions cannot be shown. OBS from Flathub or from the OBS "
	  "Project's Ubuntu PPA has it. Dubs and the transcript work without it.")
SHOWN = ("This OBS has no browser source, so captions cannot be shown. OBS from Flathub or from the OBS Project's Ubuntu PPA has it. "
	 "Dubs and the transcript work without it.")

SCRIPT = [
	*LET_IN,
	{"after_audio_bytes": 128000},
	{"send": {"type": "transcript_interim", "text": "good morning"}},
	{"send": {"type": "caption", "language": "es", "text": "Buenos días", "duration": 8}},
	{"send_tts": {"language": "es", "pcm": "voice.pcm"}},
]


def test_user_is_told_once_and_the_rest_works(make_obs, make_service, tmp_path, artefacts):
	microphone = media_file(MICROPHONE, constant_wav(tmp_path / "silence.wav", 60, 0))
	config = session_config(target("es", dubbing=True, captions=True), target("fr", captions=True), dockVisible=True)
	service = make_service(SCRIPT)
	(service.folder / "voice.pcm").write_bytes(np.full(24000, 8192, "<i2").tobytes())
	tap = AudioTap(tmp_path / "tap", [SPANISH_DUB])
	# OBS keeps both captions, and says that it cannot draw them.
	complaints = {re.escape(LOGGED): 1, "Source ID 'browser_source' not found": 2, "Failed to create source 'Talvora Captions": 2}
	with service, make_obs(browser=False, accessible=True, inputs=[microphone], talvora_config=config, tap=tap,
			       complaints=complaints) as obs:
		wait_until(lambda: SPANISH_CAPTIONS in obs.inputs(), 10, "the captions are among OBS's sources")
		# Before anything that takes longer than the caption is up.
		wait_until(lambda: '"Buenos días"' in obs.input_settings(SPANISH_CAPTIONS)["css"], 20, "the caption is where it would be drawn")
		hands = Hands(obs)
		hint = hands.find("label", SHOWN, hands.dock("Talvora"))
		hands.reveal(hint)
		hands.picture(artefacts / "hint.png")
		transcript = hands.find("text", "Live transcript", hands.dock("Talvora"))
		wait_until(lambda: transcript.text == "good morning", 20, "the transcript is shown")
		tap.wait_until(obs, Count(SPANISH_DUB, 48000, lambda samples: samples != 0), "a second of voice is heard")
	heard = sum(np.count_nonzero(chunk.samples[0]) for chunk in tap.chunks())
	assert heard == 48000, f"a second of voice is {heard} samples long"


def test_nobody_is_told_where_captions_are_not_wanted_or_can_be_drawn(make_obs):
	dubbed = session_config(target("es", dubbing=True), autoConnect=False)
	complaints = {NOT_FOUND.format(MICROPHONE): 1}
	with make_obs(browser=False, talvora_config=dubbed, complaints=complaints) as obs:
		obs.wait_for_log(r"\[talvora-obs\] Talvora plugin initialized$")
	assert LOGGED not in obs.log
	captioned = session_config(target("es", captions=True), autoConnect=False, dockVisible=True)
	with make_obs(accessible=True, talvora_config=captioned, complaints=complaints) as obs:
		obs.wait_for_log(r"\[talvora-obs\] Talvora plugin initialized$")
		hands = Hands(obs)
		hands.find("check box", "Spanish: Captions", hands.dock("Talvora"))
		assert not hands.all("label", SHOWN)
	assert LOGGED not in obs.log

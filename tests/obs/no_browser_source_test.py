"""An OBS that was built without a browser source, as Debian's is: captions cannot be drawn, all else works."""

import numpy as np

from lab.hands import Hands
from lab.media import read_track
from lab.obs import media_file, wait_until
from sessions import LET_IN, MICROPHONE, SPANISH_CAPTIONS, SPANISH_DUB, constant_wav, session_config, target

LOGGED = ("[talvora-obs] Talvora: this OBS has no browser source, so captions cannot be shown. OBS from Flathub or from the OBS "
	  "Project's Ubuntu PPA has it. Dubs and the transcript work without it.")
SHOWN = ("This OBS has no browser source, so captions cannot be shown. OBS from Flathub or from the OBS Project's Ubuntu PPA has it. "
	 "Dubs and the transcript work without it.")

SCRIPT = [
	*LET_IN,
	{"after_audio_bytes": 128000},
	{"send": {"type": "transcript_interim", "text": "good morning"}},
	{"send": {"type": "caption", "language": "es", "text": "Buenos días", "duration": 8}},
	{"send_tts": {"language": "es", "pcm": "sine 440 1.0s"}},
]


def test_user_is_told_once_and_the_rest_works(make_obs, make_service, tmp_path, artefacts):
	microphone = media_file(MICROPHONE, constant_wav(tmp_path / "silence.wav", 60, 0))
	config = session_config(target("es", dubbing=True, captions=True), target("fr", captions=True), dockVisible=True)
	with make_service(SCRIPT), make_obs(browser=False, accessible=True, inputs=[microphone], talvora_config=config, tracks=(1, 2),
					    lossless_audio=True) as obs:
		wait_until(lambda: SPANISH_DUB in obs.inputs(), 10, "the dub is among OBS's sources")
		obs.add_to_scene(SPANISH_DUB)
		obs.set_tracks(SPANISH_DUB, 2)
		obs.start_recording()
		# Before anything that takes longer than the caption is up.
		wait_until(lambda: '"Buenos días"' in obs.input_settings(SPANISH_CAPTIONS)["css"], 20, "the caption is where it would be drawn")
		hands = Hands(obs)
		hint = hands.find("label", SHOWN, hands.dock("Talvora"))
		hands.reveal(hint)
		hands.picture(artefacts / "hint.png")
		transcript = hands.find("text", "Live transcript", hands.dock("Talvora"))
		wait_until(lambda: transcript.text == "good morning", 20, "the transcript is shown")
		dub = read_track(obs.wait_for_recording_length(obs.recorded_seconds() + 2), 2)[:, 0]
	assert obs.log.count(LOGGED) == 1
	heard = np.count_nonzero(np.abs(dub) > 1e-4)
	assert 46000 < heard <= 48000, f"of a second of voice {heard} samples are heard"
	assert obs.exit_status == 0


def test_nobody_is_told_where_captions_are_not_wanted_or_can_be_drawn(make_obs):
	dubbed = session_config(target("es", dubbing=True), autoConnect=False)
	with make_obs(browser=False, talvora_config=dubbed) as obs:
		obs.wait_for_log(r"\[talvora-obs\] Talvora plugin initialized$")
	assert LOGGED not in obs.log
	captioned = session_config(target("es", captions=True), autoConnect=False, dockVisible=True)
	with make_obs(accessible=True, talvora_config=captioned) as obs:
		obs.wait_for_log(r"\[talvora-obs\] Talvora plugin initialized$")
		hands = Hands(obs)
		hands.find("check box", "Spanish: Captions", hands.dock("Talvora"))
		assert not hands.all("label", SHOWN)
	assert LOGGED not in obs.log

# SPDX-License-Identifier: GPL-2.0-or-later
"""The demo: recorded speech in a real OBS, with captions in four languages and dubs in two."""

import argparse
import os
import shutil
import time

from lab import check_demo, latency, scenery
from lab.hands import Hands
from lab.media import audio_tracks, read_track
from lab.obs import SCENE, Input, Obs, media_file
from lab.paths import CHECKOUT, OUT
from lab.service import KEY, LocalService
from lab.speech import compose

MICROPHONE = "Microphone"
LANGUAGES = {"es": "Spanish", "fr": "French", "it": "Italian", "pt": "Portuguese"}
DUBBED = {"es": 2, "fr": 3}

# Without a display: how much speech is played, and how much is enough to see that everything works, seconds.
_SPEECH = 66
_SHORT_SPEECH = 14

# What that little has in it.
_SHORT_SENTENCES = 3
_SHORT_WORDS = {"nobody", "available", "please", "hold", "while", "call"}

# Wide enough for OBS's window with the dock beside it, pixels.
_SCREEN = (1864, 800)

# The session is over when no caption has come for so long after the speech, seconds: the last dub lasts that long.
_QUIET = 8

# However slow the machine is, it is not waited for longer than this after the speech, seconds.
_PATIENCE = 60

# A dub is heard only as long as its original plays, seconds: silence after the speech, for what a slow machine says late.
_TAIL = 20

# How long a caption must be up before its picture is taken, seconds: the browser needs a tenth to draw it.
_SETTLED = 0.7

# A canvas of 1280 by 720 has room for four captions of this size in its lower half.
_CAPTION_SCALE = 0.58
_CAPTION_PLACES = {"es": (330, 540), "fr": (950, 540), "it": (330, 706), "pt": (950, 706)}

_DESCRIPTION = """On a display, OBS stays open until its window is closed. Without one, about a minute of speech is played and out/demo/
holds afterwards:
  without-captions.png  the program before anything was said
  captions-N.png  the program with captions in Spanish, French, Italian and Portuguese
  window.png      OBS with the dock
  dock.png        the dock alone
  recording.mkv   recorded by OBS: the original on audio track 1, the Spanish dub on 2, the French one on 3
  transcript.txt  what was said and its translations, with times
"""


def caption_source(code):
	return f"Talvora Captions — {LANGUAGES[code]}"


def dub_source(code):
	return f"Talvora Dub — {LANGUAGES[code]}"


def configuration():
	return {
		"audioSource": MICROPHONE, "dockVisible": True,
		"captionBgColor": "#b0101020", "captionFont": "DejaVu Sans,40,-1,5,600,0,0,0,0,0",
		"targetLanguages": [{"code": code, "captions": True, "dubbing": code in DUBBED} for code in LANGUAGES],
	}


def label(code):
	x, y = _CAPTION_PLACES[code]
	return Input(f"Label {LANGUAGES[code]}", "text_ft2_source_v2", {
		"text": LANGUAGES[code], "font": {"face": "DejaVu Sans", "size": 18, "style": "Book", "flags": 0},
		"color1": 0xC0FFFFFF, "color2": 0xC0FFFFFF}, position=(x - 292, y - 150))


def inputs(picture, speech, looping):
	return [Input("Hills at dusk", "image_source", {"file": str(picture)}),
		media_file(MICROPHONE, speech, looping=looping, muted=True), *(label(code) for code in LANGUAGES)]


def sign_in_and_start(obs):
	"""Does in the dock what a user does with an API key; returns the hands that did it."""
	hands = Hands(obs)
	dock = hands.dock("Talvora")
	hands.click(hands.find("push button", "Use an API key instead", dock))
	hands.fill(hands.find("text", "The API key of your Talvora account", dock), KEY)
	hands.click(hands.find("push button", "Use this key", dock))
	hands.click(hands.find("push button", "Start", dock))
	obs.wait_for_log(r"\[talvora-obs\] WSClient: authenticated$", timeout=30)
	return hands


def arrange(obs):
	"""Waits for what the plug-in makes and puts it where it belongs: captions side by side, dubs on tracks of their own."""
	for code in LANGUAGES:
		name = caption_source(code)
		obs.wait_for_log(rf"CaptionManager: placed '{name}'", timeout=30)
		item = obs.request("GetSceneItemId", sceneName=SCENE, sourceName=name)["sceneItemId"]
		x, y = _CAPTION_PLACES[code]
		obs.request("SetSceneItemTransform", sceneName=SCENE, sceneItemId=item, sceneItemTransform={
			"positionX": x, "positionY": y, "scaleX": _CAPTION_SCALE, "scaleY": _CAPTION_SCALE})
	obs.set_tracks(MICROPHONE, 1)
	for code, track in DUBBED.items():
		if dub_source(code) not in obs.scene_items():
			obs.add_to_scene(dub_source(code))
		obs.set_tracks(dub_source(code), track)


def speak(obs):
	"""Lets the speech begin: until then the source was muted, so that nothing of it was heard yet."""
	obs.request("TriggerMediaInputAction", inputName=MICROPHONE, mediaAction="OBS_WEBSOCKET_MEDIA_INPUT_ACTION_RESTART")
	obs.request("SetInputMute", inputName=MICROPHONE, inputMuted=False)


def is_over(service, played_until):
	"""Whether the speech has been played and what the service makes of it has come."""
	now = time.monotonic()
	if now < played_until:
		return False
	events = service.events()
	last = max([played_until, *(event["mono_ms"] / 1000 for event in events if event["event"] == "caption")])
	kinds = [event["event"] for event in events]
	all_heard = kinds.count("utterance_end") == kinds.count("utterance_start")
	return all_heard and now > last + _QUIET or now > played_until + _PATIENCE


def take_pictures(obs, hands, service, seconds, folder):
	"""Until the session is over: a picture whenever all languages show a caption and it has been up for a moment."""
	taken, last, since = 0, None, 0
	played_until = time.monotonic() + seconds
	while not is_over(service, played_until):
		texts = [obs.input_settings(caption_source(code)).get("css", "") for code in LANGUAGES]
		if texts != last:
			last, since = texts, time.monotonic()
		elif since and time.monotonic() - since > _SETTLED and all("::after" in text for text in texts):
			since = 0
			taken += 1
			obs.program_screenshot(folder / f"captions-{taken}.png")
			if taken == 1:
				hands.picture(folder / "window.png")
				hands.picture(folder / "dock.png", hands.dock("Talvora"))
		time.sleep(0.1)
	return taken


def write_transcript(service, path):
	"""Spoken and translated lines with their times from the first connection on, seconds."""
	lines, start = [], service.events("connected")[0]["mono_ms"]
	for event in service.events():
		at = (event["mono_ms"] - start) / 1000
		if event["event"] == "final":
			lines += ["", f"{at:7.2f} s  en  {event['text']}"]
		elif event["event"] == "caption":
			lines.append(f"{at:7.2f} s  {event['language']}  {event['text']}")
	path.write_text("\n".join(lines).lstrip() + "\n", encoding="utf-8")
	return len([line for line in lines if "  en  " in line])


def run_without_display(folder, picture, seconds):
	speech = folder / "speech.wav"
	sentences = compose(speech, seconds, _TAIL)
	played = read_track(speech, 1)[:, 0]
	say(f"Playing {sentences[-1].end:.0f} s of recorded speech to OBS ...")
	with LocalService(folder=folder / "service") as service, Obs(
			inputs=inputs(picture, speech, False), talvora_config=configuration(), tracks=(1, 2, 3), fps=20, preview=True,
			accessible=True, screen=_SCREEN) as obs:
		hands = sign_in_and_start(obs)
		arrange(obs)
		obs.program_screenshot(folder / check_demo.WITHOUT_CAPTIONS)
		obs.start_recording()
		speak(obs)
		taken = take_pictures(obs, hands, service, sentences[-1].end, folder)
		recording = folder / "recording.mkv"
		shutil.move(obs.stop_recording(), recording)
		obs.stop()
		(folder / "obs.log").write_text(obs.log, encoding="utf-8")
		utterances = write_transcript(service, folder / "transcript.txt")
		arrivals = latency.sentence_arrivals(service, played, sentences)
		captions = latency.caption_latencies(obs.log, service, arrivals, {code: caption_source(code) for code in LANGUAGES})
	speech.unlink()
	say("")
	say("In out/demo/ of the checkout:")
	say(f"  captions-1.png to captions-{taken}.png  the program with a caption in each language")
	say("  window.png       OBS with the dock; dock.png: the dock alone")
	say(f"  recording.mkv    {audio_tracks(recording)} audio tracks: original, Spanish dub, French dub")
	say(f"  transcript.txt   {utterances} utterances and their translations")
	say("")
	say(f"End of utterance to caption shown:       {latency.summary(captions)}")
	for code, track in DUBBED.items():
		dubs = latency.dub_latencies(recording, played, sentences, track)
		say(f"End of utterance to first dubbed sample: {latency.summary(dubs)} ({LANGUAGES[code]})")
	if not (taken and utterances and obs.exit_status == 0):
		raise SystemExit("The demo did not work: no caption was shown, or OBS did not exit cleanly. See the logs in out/demo.")


def run_on_display(folder, picture, display):
	speech = folder / "speech.wav"
	compose(speech)
	say("OBS opens on your display with the speech playing in a loop; close its window to end the demo.")
	with LocalService(folder=folder / "service") as service, Obs(
			inputs=inputs(picture, speech, True), talvora_config=configuration(), tracks=(1, 2, 3), fps=30, preview=True,
			accessible=True, display=display) as obs:
		say("The pointer moves by itself for a moment: the API key is put into the dock and the session started there.")
		sign_in_and_start(obs)
		arrange(obs)
		speak(obs)
		obs.wait()
		(folder / "obs.log").write_text(obs.log, encoding="utf-8")
		write_transcript(service, folder / "transcript.txt")
	say("What was said is in out/demo/transcript.txt, OBS's log in out/demo/obs.log.")


def say(text):
	print(text, flush=True)


def arguments():
	parser = argparse.ArgumentParser(prog="./dev demo --", description=_DESCRIPTION,
					 formatter_class=argparse.RawDescriptionHelpFormatter)
	parser.add_argument("--pictures", action="store_true", help="also take the pictures of the README anew, from a run without a display")
	parser.add_argument("--check", action="store_true", help="a few sentences without a display, and whether all that is left of "
			    "them is as it should be")
	return parser.parse_args()


def main():
	chosen = arguments()
	folder = OUT / "demo"
	shutil.rmtree(folder, ignore_errors=True)
	folder.mkdir(parents=True)
	picture = folder / "picture.png"
	scenery.draw(picture)
	display = os.environ.get("DISPLAY")
	if display and not (chosen.pictures or chosen.check):
		run_on_display(folder, picture, display)
		return
	run_without_display(folder, picture, _SHORT_SPEECH if chosen.check else _SPEECH)
	if chosen.pictures:
		images = CHECKOUT / "docs" / "images"
		images.mkdir(parents=True, exist_ok=True)
		shutil.copy(sorted(folder.glob("captions-*.png"))[-1], images / "program.png")
		shutil.copy(folder / "dock.png", images / "dock.png")
	if chosen.check:
		check_demo.check(folder, LANGUAGES, _CAPTION_PLACES, DUBBED, _SHORT_SENTENCES, _SHORT_WORDS)


if __name__ == "__main__":
	main()

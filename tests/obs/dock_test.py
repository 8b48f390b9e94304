# SPDX-License-Identifier: GPL-2.0-or-later
"""The dock in OBS, used as a user does: by what is written on it, with mouse and keyboard."""

import json

import numpy as np
import pytest

from dock_user import saved, targets, wait_for_saved
from lab.media import read_picture
from lab.obs import wait_until
from lab.service import KEY
from lab.web_browser import WebBrowser, opening_recorder
from sessions import AUTHENTICATED, MICROPHONE, SPANISH_CAPTIONS, SPANISH_DUB

FRENCH_CAPTIONS = "Talvora Captions — French"

YELLOW_ON_BLACK = {"captionTextColor": "#ffffff00", "captionBgColor": "#ff000000", "captionFont": "DejaVu Sans,40,-1,5,600,0,0,0,0,0"}
# Where a caption source is on a canvas of 1280 by 720.
CAPTION_LEFT, CAPTION_RIGHT = 128, 1152

DEMO_EMAIL, DEMO_PASSWORD = "demo@talvora.local", "talvora"

ADVISED = [
	{"expect": "auth"},
	{"send": {"type": "auth_ok", "maxTargetLanguages": 2}},
	{"after_audio_bytes": 16000},
	{"send": {"type": "transcript_interim", "text": "good morning everybody"}},
	{"send": {"type": "limit_warning", "feature": "captions", "minutesRemaining": 7}},
	{"send": {"type": "limit_reached", "feature": "dubbed"}},
	{"expect": "stop"},
]


def css(obs):
	return obs.input_settings(SPANISH_CAPTIONS)["css"]


def drawn(obs, path, red, green, blue):
	"""Columns of the program picture in which there are pixels of about this colour."""
	obs.program_screenshot(path)
	picture = read_picture(path)[..., :3].astype(int)
	return np.flatnonzero((np.abs(picture - (red, green, blue)) < 40).all(axis=2).sum(axis=0) > 2)


def test_session_from_signing_in_to_signing_out(make_service, desktop_obs, user_of, artefacts):
	picture = artefacts / "program.png"
	with make_service(ADVISED) as service, desktop_obs(talvora_config=dict(YELLOW_ON_BLACK)) as obs:
		user = user_of(obs)
		user.open_dock()
		user.picture("signed-out")
		user.sign_in_with_key(KEY)
		wait_for_saved(obs, "apiKey", KEY)
		user.wait_for_label("Disconnected")
		user.picture("signed-in")

		user.select("Audio source", MICROPHONE)
		wait_for_saved(obs, "audioSource", MICROPHONE)
		user.select("Spoken language", "German")
		wait_for_saved(obs, "sourceLanguage", "de")
		user.select("Spoken language", "English")
		wait_for_saved(obs, "sourceLanguage", "en")
		user.mark("Spanish", "Captions")
		user.mark("Spanish", "Dub")
		user.mark("French", "Captions")
		wait_for_saved(obs, "targetLanguages", targets(es="captions dubbing", fr="captions"))
		wait_until(lambda: {SPANISH_CAPTIONS, FRENCH_CAPTIONS, SPANISH_DUB} <= set(obs.inputs()), 10, "the languages have sources")
		user.picture("languages")

		user.click("push button", "Start")
		user.wait_for_label("Connected", 20)
		assert service.texts() and json.loads(service.texts()[0])["apiKey"] == KEY
		user.wait_for_label(r"00:00:0[1-9]")
		wait_until(lambda: user.hands.find("text", "Live transcript", user.dock).text == "good morning everybody", 20, "the transcript is shown")
		user.wait_for_label("7 min")
		user.wait_for_label("Limit reached")
		user.hands.reveal(user.hands.find("label", "Limit reached", user.dock))
		user.picture("transcript-and-minutes")

		hit_the_language_limit(user, obs)
		change_the_caption_style(user, obs, picture)

		user.drag("Original under the dub", 35)
		user.wait_for_label("35%")
		wait_until(lambda: np.float32(saved(obs, "duckingLevel")) == np.float32(0.35), 10, "the ducking level is saved as 0.35")
		user.picture("ducking")

		user.click("push button", "Stop")
		user.wait_for_label("Disconnected")
		user.wait_for_label("00:00:00")
		wait_until(lambda: '"stop"' in service.texts()[-1], 5, "the service is told to stop")
		user.picture("stopped")
		user.click("push button", "Sign out")
		user.hands.find("text", "Email", user.dock)
		assert not user.sees("push button", "Start")
		wait_for_saved(obs, "apiKey", "")
		user.picture("signed-out-again")


def hit_the_language_limit(user, obs):
	user.wait_for_label("2 / 2 languages")
	user.mark("German", "Captions")
	user.mark("German", "Dub")
	user.mark("French", "Dub")
	# Clicks take effect in their order: the last one did, those on the disabled boxes had come before it.
	wait_for_saved(obs, "targetLanguages", targets(es="captions dubbing", fr="captions dubbing"))
	user.wait_for_label("2 / 2 languages")
	user.picture("language-limit")
	user.mark("French", "Dub")
	user.mark("French", "Captions")
	user.wait_for_label("1 / 2 languages")
	user.mark("German", "Captions")
	wait_for_saved(obs, "targetLanguages", targets(de="captions", es="captions dubbing"))
	user.wait_for_label("2 / 2 languages")


def change_the_caption_style(user, obs, picture):
	def edges(red, green, blue):
		"""First and last column of the sample text, which is asked for again when it has gone."""
		if "::after" not in css(obs):
			user.click("push button", "Show")
		columns = drawn(obs, picture, red, green, blue)
		return (columns[0], columns[-1]) if len(columns) else None

	user.fill("Caption preview", "HOLA")
	left, right = wait_until(lambda: edges(255, 255, 0), 30, "the sample is in the program picture")
	assert abs((left + right) / 2 - 640) < 8, "the sample is not in the middle"
	user.picture("caption-preview")

	user.select("Caption alignment", "Left")
	wait_until(lambda: "align-items: flex-start;" in css(obs) and "text-align: left;" in css(obs), 10, "the css is aligned left")
	wait_for_saved(obs, "captionAlignment", "left")

	def moved():
		found = edges(255, 255, 0)
		return found and CAPTION_LEFT <= found[0] < CAPTION_LEFT + 40 and found[1] < 640

	wait_until(moved, 30, "the sample is on the left of the program picture")
	user.picture("caption-left")

	user.drag("Caption opacity", 50)
	user.wait_for_label("50%")
	wait_until(lambda: "opacity: 0.5;" in css(obs), 10, "the css has half the opacity")
	wait_for_saved(obs, "captionOpacity", 50)
	wait_until(lambda: edges(128, 128, 0), 30, "the sample is half as bright in the program picture")
	user.picture("caption-opacity")


def test_dock_has_one_title_bar_that_closes_it(desktop_obs, user_of):
	with desktop_obs(talvora_config={"apiKey": KEY}) as obs:
		user = user_of(obs)
		assert not user.hands.docks("Talvora"), "the dock is open before anybody opened it"
		user.open_dock()
		user.picture("opened")
		for name in ("Close", "Float"):
			assert len(user.hands.all("push button", name, user.dock)) == 1, f"there is not exactly one button '{name}'"
		user.click("push button", "Close")
		wait_until(lambda: not user.hands.docks("Talvora"), 10, "the dock is closed")
		user.picture("closed")
		user.open_dock()
		user.wait_for_label("Disconnected")
		user.picture("opened-again")


def test_reopened_dock_lists_the_sources_there_are_now(desktop_obs, user_of):
	with desktop_obs(talvora_config={"apiKey": KEY}) as obs:
		user = user_of(obs)
		user.open_dock()
		user.click("push button", "Close")
		wait_until(lambda: not user.hands.docks("Talvora"), 10, "the dock is closed")
		obs.create_input("Second microphone", "ffmpeg_source")
		user.open_dock()
		user.select("Audio source", "Second microphone")
		wait_for_saved(obs, "audioSource", "Second microphone")


def test_screen_reader_finds_the_boxes_of_every_language(desktop_obs, user_of):
	with desktop_obs(talvora_config={"apiKey": KEY, "targetLanguages": targets(es="dubbing")}) as obs:
		user = user_of(obs)
		user.open_dock()
		table = user.hands.find("panel", "Target languages", user.dock)
		boxes = {one.name: one for one in table.walk() if one.role == "check box"}
		assert len(boxes) == 62
		assert list(boxes)[:4] == ["Arabic: Captions", "Arabic: Dub", "Bulgarian: Captions", "Bulgarian: Dub"]
		assert [name for name, box in boxes.items() if box.has_state("checked")] == ["Spanish: Dub"]
		assert [name for name, box in boxes.items() if not box.has_state("enabled")] == ["English: Dub"]


def test_sign_in_by_email(make_service, desktop_obs, user_of):
	complaints = {r"\[talvora-obs\] PluginDock: email login failed: Wrong e-mail address or password\.$": 1}
	with make_service() as service, desktop_obs(complaints=complaints) as obs:
		user = user_of(obs)
		user.open_dock()
		user.fill("Email", DEMO_EMAIL)
		user.fill("Password", "not the password")
		user.click("push button", "Sign in")
		obs.wait_for_log(r"\[talvora-obs\] PluginDock: email login failed: Wrong e-mail address or password\.$")
		assert any("Wrong e-mail address or password." in one.name for one in user.dock.walk() if one.role == "label")
		assert user.hands.find("push button", "Sign in", user.dock).has_state("enabled")
		assert not user.sees("push button", "Start")
		user.picture("wrong-password")

		user.fill("Password", DEMO_PASSWORD)
		user.hands.press("Return")
		user.hands.find("push button", "Start", user.dock)
		obs.wait_for_log(r"\[talvora-obs\] PluginDock: email login succeeded$")
		user.picture("signed-in")
		connects_with_the_key_it_got(user, obs)
		assert [one["status"] for one in service.events("sign_in")] == [401, 200]


def connects_with_the_key_it_got(user, obs):
	user.select("Audio source", MICROPHONE)
	user.click("push button", "Start")
	obs.wait_for_log(AUTHENTICATED, timeout=20)
	user.wait_for_label("Connected")
	key = saved(obs, "apiKey")
	assert key.startswith("tak_live_") and key != KEY
	assert key not in obs.log, "the key is in the log"
	user.picture("connected")


@pytest.mark.parametrize("provider", ["Google", "Twitch", "Kick"])
def test_sign_in_by_a_provider_in_the_browser(make_service, desktop_obs, user_of, tmp_path, artefacts, provider):
	programs, opened = opening_recorder(tmp_path / "bin")
	with make_service() as service, desktop_obs(path=[programs]) as obs:
		user = user_of(obs)
		user.open_dock()
		user.click("push button", provider)
		address = wait_until(lambda: opened.exists() and opened.read_text().strip(), 10, "the browser is opened")
		assert address.startswith(f"https://localhost:3003/auth/{provider.lower()}?redirect_uri=")
		assert not user.hands.find("push button", "Sign in", user.dock).has_state("enabled")
		user.picture("waiting")
		with WebBrowser(address, service.certificate) as browser:
			browser.wait_for_text(f"Sign in to Talvora with {provider}")
			browser.picture(artefacts / "consent.png")
			browser.click("#allow")
			browser.wait_for_text("Login Successful")
			browser.picture(artefacts / "done.png")
		user.hands.find("push button", "Start", user.dock)
		connects_with_the_key_it_got(user, obs)


def test_declining_in_the_browser_leaves_the_dock_signed_out(make_service, desktop_obs, user_of, tmp_path):
	programs, opened = opening_recorder(tmp_path / "bin")
	complaints = {r"\[talvora-obs\] OAuthListener: auth error: Sign-in was declined$": 1,
		      r"\[talvora-obs\] PluginDock: OAuth login failed: Sign-in was declined$": 1}
	with make_service() as service, desktop_obs(path=[programs], complaints=complaints) as obs:
		user = user_of(obs)
		user.open_dock()
		user.click("push button", "Twitch")
		address = wait_until(lambda: opened.exists() and opened.read_text().strip(), 10, "the browser is opened")
		with WebBrowser(address, service.certificate) as browser:
			browser.wait_for_text("Sign in to Talvora with Twitch")
			browser.click("#decline")
			browser.wait_for_text("Sign-in was declined")
		obs.wait_for_log(r"\[talvora-obs\] PluginDock: OAuth login failed: Sign-in was declined$")
		wait_until(lambda: user.hands.find("push button", "Twitch", user.dock).has_state("enabled"), 5, "the buttons are enabled again")
		assert not user.sees("push button", "Start")
		assert not saved(obs, "apiKey")

# SPDX-License-Identifier: GPL-2.0-or-later
"""Caption text in a real browser's reader of CSS: whatever the text, it stays the value of one string."""

import json
import subprocess

import numpy as np
import pytest

from lab.media import read_picture
from lab.paths import BUILD, CHECKOUT
from lab.web_browser import WebBrowser

# Seeds and findings, and what a fuzzer in this checkout has found to be different from them.
FOLDERS = [CHECKOUT / "tests/fuzz/corpus/caption-css", *CHECKOUT.glob("build/fuzz-*/corpus/caption-css")]

# OBS's browser source fills a style element in one way, the lab's in the other.
READ = """(css => ['textContent', 'innerHTML'].map(way => {
	document.body.innerHTML = '<div id="caption-text"></div>';
	const style = document.createElement('style');
	style[way] = css;
	document.head.append(style);
	const result = {
		rules: [...style.sheet.cssRules].map(rule => [rule.selectorText, rule.style.length]),
		content: [...style.sheet.cssRules].map(rule => rule.style.content).filter(content => content),
		shown: getComputedStyle(document.getElementById('caption-text'), '::after').content,
		out: getComputedStyle(document.body).getPropertyValue('--out'),
		elements: document.querySelectorAll('*').length,
	};
	style.remove();
	return result;
}))"""


def serialised(text):
	"""A string as a browser gives it back (CSSOM, "serialize a string")."""
	def one(character):
		if character == "\0":
			return "\ufffd"
		if character < "\x20" or character == "\x7f":
			return f"\\{ord(character):x} "
		return "\\" + character if character in '"\\' else character
	return '"' + "".join(map(one, text)) + '"'


@pytest.fixture(scope="module")
def browser():
	with WebBrowser("about:blank") as one:
		yield one


@pytest.fixture(scope="module")
def captions():
	dump = subprocess.run([BUILD / "tests/fuzz/caption-css-dump", *FOLDERS], env={"QT_QPA_PLATFORM": "offscreen"}, check=True,
			      capture_output=True).stdout
	return json.loads(dump)


def test_no_text_leaves_its_string(browser, captions):
	assert len(captions) >= 16
	for caption in captions:
		text = caption["text"]
		for read in browser.evaluate(f"{READ}({json.dumps(caption['css'])})"):
			where = (caption["file"], text)
			selectors = [selector for selector, _ in read["rules"]]
			if text:
				assert selectors == ["body", "#caption-text", "#caption-text", "#caption-text::after"], where
				assert read["content"] == [serialised(text)], where
				assert read["shown"] == serialised(text), where
			else:
				assert selectors == ["body", "#caption-text", "#caption-text"], where
				assert read["content"] == [], where
			assert read["rules"][2][1] == 1, where
			# The page's html, head, body and box, and the style itself.
			assert read["elements"] == 5, where


def test_a_font_family_with_an_odd_quotation_mark_takes_the_text_in(browser, captions):
	"""Families go in as they are. The text then stands outside a string, but still starts no declaration and no rule."""
	caption = next(each for each in captions if each["file"].endswith("/family-odd-quote"))
	for read in browser.evaluate(f"{READ}({json.dumps(caption['styled'])})"):
		assert [selector for selector, _ in read["rules"]] == ["body", "#caption-text"]
		assert read["content"] == []
		assert read["out"] == ""
	# It would have got out without its escapes.
	for read in browser.evaluate(f"{READ}({json.dumps(caption['styled'].replace(chr(92), ''))})"):
		assert read["out"] == "1"


# A page with a caption's style and text on grey, in the direction that is told.
SHOW = """((css, direction) => {
	document.head.innerHTML = document.body.innerHTML = '';
	document.body.innerHTML = '<div id="caption-text"></div>';
	const style = document.createElement('style');
	style.textContent = css + ' html { background: #888; } #caption-text { direction: ' + direction + '; }';
	document.head.append(style);
})"""

ARABIC = ["arabic", "arabic-numbers-and-marks", "arabic-after-a-latin-name", "arabic-long"]


def shown(browser, path, css, direction="ltr"):
	browser.evaluate(f"{SHOW}({json.dumps(css)}, {json.dumps(direction)})")
	browser.picture(path)
	return read_picture(path)[..., :3].astype(int)


@pytest.mark.parametrize("name", ARABIC)
def test_right_to_left_text_is_in_its_order(browser, captions, artefacts, name):
	"""As in a page that is laid out from right to left, which the module's is not."""
	caption = next(each for each in captions if each["file"].endswith(f"/{name}"))
	drawn = shown(browser, artefacts / "drawn.png", caption["rightToLeft"])
	# The same text without what the module puts around it, to begin with in the order that is wrong.
	plain = caption["rightToLeft"].replace("\u2067", "").replace("\u2069", "")
	wrong = shown(browser, artefacts / "wrong.png", plain)
	right = shown(browser, artefacts / "right.png", plain, "rtl")
	assert np.abs(right - wrong).max() > 100, "the text looks the same in either direction"
	assert np.abs(drawn - right).max() <= 8, "the text is not in the order of a right-to-left page"


def test_each_line_has_its_own_direction(browser, captions, artefacts):
	caption = next(each for each in captions if each["file"].endswith("/arabic-and-latin-lines"))
	drawn = shown(browser, artefacts / "drawn.png", caption["css"])
	# The browser's own rule for that: each line goes by its first letter.
	plain = caption["css"].replace("\u2067", "").replace("\u2069", "")
	right = shown(browser, artefacts / "right.png", plain + " #caption-text::after { unicode-bidi: plaintext; display: block; }")
	assert np.abs(drawn - right).max() <= 8, "a line is not in its order"

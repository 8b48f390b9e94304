"""Caption text in a real browser's reader of CSS: whatever the text, it stays the value of one string."""

import json
import subprocess

import pytest

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

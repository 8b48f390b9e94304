# SPDX-License-Identifier: GPL-2.0-or-later
"""The same captions drawn by a browser and by the module."""

import json

import numpy as np

from lab.media import read_picture
from lab.obs import Input, wait_until
from streaming import INITIALIZED

WIDTH, HEIGHT = 1024, 150
CSS = ('body {{   background-color: transparent;   margin: 0px auto;   overflow: hidden;   display: flex;   flex-direction: column;'
       '   justify-content: flex-end;   align-items: {flex}; }} #caption-text {{   background-color: {back};   opacity: {opacity};'
       '   font-family: "{family}", sans-serif;   font-size: {size}px;   font-weight: {weight};   color: rgba(255, 255, 0, 1);'
       '   text-align: {align};'
       '   white-space: pre-wrap;   padding: 10px;   border-radius: 8px;   text-shadow: -2px -2px 0 #000, 2px -2px 0 #000,'
       ' -2px 2px 0 #000, 2px 2px 0 #000, 0px 4px 4px rgba(0,0,0,0.8); }} #caption-text {{ display: block; }}'
       ' #caption-text::after {{ content: "{text}"; white-space: pre-wrap; }}')
STYLES = {
	"plain": {"flex": "center", "align": "center", "back": "rgba(0, 0, 128, 1)", "opacity": "1",
		"family": "DejaVu Sans", "size": 40, "weight": "bold"},
	"left": {"flex": "flex-start", "align": "left", "back": "rgba(0, 0, 128, 1)", "opacity": "0.6",
		"family": "-apple-system", "size": 28, "weight": "normal"},
	"right": {"flex": "flex-end", "align": "right", "back": "rgba(0, 0, 128, 0.5)", "opacity": "1",
		"family": "DejaVu Sans", "size": 33, "weight": "normal"},
}
TEXTS = {
	"latin": "Buenos días, señoras y señores", "wrapped": "Esta frase es bastante larga para caber en una sola línea del cuadro de texto",
	"greek": "Καλημέρα σε όλους", "cyrillic": "Доброе утро, друзья", "arabic": "\u2067صباح الخير Talvora (اليوم).\u2069",
	"hindi": "नमस्ते, यह हिन्दी का वाक्य है।", "tamil": "வணக்கம், இன்று நல்ல நாள்.", "japanese": "おはようございます、皆さん。",
	"chinese": "大家早上好，今天天气很好。", "korean": "안녕하세요 여러분", "vietnamese": "Chào buổi sáng mọi người", "lines": "uno\\A dos y tres",
}


# How far edges may be from those of the browser's picture, pixels. In a font that has not the letters of the script, the browser
# takes blanks and punctuation from that font all the same, Qt from the font that has the letters.
MOST_OFF = {"hindi": 12, "tamil": 12}
OFF = 2


def box(picture):
	"""Top, left, bottom and right of what is drawn on the white ground; nothing when nothing is."""
	where = np.argwhere(picture[..., :3].astype(int).sum(axis=2) < 600)
	return np.array([*where.min(axis=0), *where.max(axis=0)]) if len(where) else None


def test_drawn_beside_a_browser(make_obs, artefacts, tmp_path):
	found = {}
	for style, values in STYLES.items():
		inputs = []
		for number, (name, text) in enumerate(TEXTS.items()):
			page = tmp_path / f"talvora_caption_ui_{name}.html"
			page.write_text('<!DOCTYPE html><html><head><meta charset="utf-8"><style>html, body {width: 100%; height: 100%; margin: 0;'
					' padding: 0; overflow: hidden; background-color: transparent;}</style></head><body><div id="caption-text"></div></body></html>', encoding="utf-8")
			inputs.append(Input(name, "browser_source", {"is_local_file": True, "local_file": str(page), "css": CSS.format(text=text, **values),
								     "width": WIDTH, "height": HEIGHT}, position=(0, number * HEIGHT)))
		ground = Input("Ground", "color_source_v3", {"color": 0xFFFFFFFF, "width": WIDTH, "height": HEIGHT * len(TEXTS)})
		pictures = {}
		for who, browser in (("browser", True), ("module", False)):
			path = artefacts / f"{style}-{who}.png"
			with make_obs(browser=browser, canvas=(WIDTH, HEIGHT * len(TEXTS)), inputs=[ground, *inputs]) as obs:
				obs.wait_for_log(INITIALIZED)
				if browser:
					for name in TEXTS:
						obs.wait_for_log(rf"'{name}': shown after", timeout=60)

				def all_drawn():
					obs.program_screenshot(path)
					rows = read_picture(path).reshape(len(TEXTS), HEIGHT, WIDTH, 4)
					return all(box(one) is not None for one in rows)

				wait_until(all_drawn, 20, "all are drawn")
			pictures[who] = read_picture(path).reshape(len(TEXTS), HEIGHT, WIDTH, 4)
		for number, name in enumerate(TEXTS):
			ours, theirs = (pictures[who][number] for who in ("module", "browser"))
			difference = float(np.abs(ours[..., :3].astype(int) - theirs[..., :3]).mean())
			found[f"{style} {name}"] = {"edges": (box(ours) - box(theirs)).tolist(), "difference": round(difference, 2)}
	(artefacts / "found.json").write_text(json.dumps(found, indent=1), encoding="utf-8")
	for name, one in found.items():
		off = max(abs(edge) for edge in one["edges"])
		assert off <= MOST_OFF.get(name.split()[1], OFF), f"{name}: edges are off by {one['edges']} px"
		assert one["difference"] < 10, f"{name}: colours differ by {one['difference']} on the average"

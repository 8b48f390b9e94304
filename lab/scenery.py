# SPDX-License-Identifier: GPL-2.0-or-later
"""The demo's picture: hills at dusk, drawn from a few formulas so that it belongs to nobody else."""

import math
import random
import subprocess

WIDTH, HEIGHT = 1280, 720

# Bottom line to silhouette, far to near: height over the bottom, roughness, colour.
_HILLS = [(330, 46, "#6d5a8c"), (262, 58, "#4b4377"), (190, 52, "#332f5c"), (112, 40, "#1e1d3d")]


def _ridge(base, roughness, phase):
	points = []
	for x in range(0, WIDTH + 8, 8):
		height = base + roughness * (math.sin(x / 171 + phase) + 0.45 * math.sin(x / 67 + 2.1 * phase) + 0.12 * math.sin(x / 19 + phase))
		points.append(f"{x},{HEIGHT - height:.1f}")
	return " ".join(["0,720", *points, f"{WIDTH},720"])


def _stars(count):
	chance = random.Random(7)
	return " ".join(f"circle {x},{y} {x + r:.1f},{y}" for x, y, r in (
		(chance.randrange(WIDTH), int(chance.random() ** 2 * 300), chance.uniform(0.4, 1.3)) for _ in range(count)))


def draw(path):
	"""Writes the picture, 1280 by 720 pixels, as a PNG."""
	command = ["convert", "-size", f"{WIDTH}x{HEIGHT}", "gradient:#181a45-#f29a6b",
		   "-fill", "#ffffffb0", "-draw", _stars(140),
		   "(", "-size", f"{WIDTH}x{HEIGHT}", "xc:none", "-fill", "#ffd9a0", "-draw", "circle 890,330 890,268", "-blur", "0x3",
		   "(", "+clone", "-blur", "0x46", ")", "+swap", "-composite", ")", "-composite"]
	for number, (base, roughness, colour) in enumerate(_HILLS):
		command += ["-fill", colour, "-draw", f"polygon {_ridge(base, roughness, 1.7 * number)}"]
	subprocess.run([*command, str(path)], check=True)

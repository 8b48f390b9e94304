# SPDX-License-Identifier: GPL-2.0-or-later
"""Where the parts of a build are. Everything is relative to the checkout."""

import os
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parent.parent
SUITE = os.environ.get("TALVORA_SUITE", "trixie")
BUILD = Path(os.environ.get("TALVORA_BUILD", CHECKOUT / "build" / SUITE))
OUT = CHECKOUT / "out"

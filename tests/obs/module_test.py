# SPDX-License-Identifier: GPL-2.0-or-later
"""The module in a real OBS: it loads, says what it is, and leaves nothing behind."""

import re
import subprocess

from lab.paths import BUILD

LOADED = "[talvora-obs] Loading Talvora OBS plugin v1.0.6"
INITIALIZED = "[talvora-obs] Talvora plugin initialized"
SHUT_DOWN = "[talvora-obs] Talvora plugin shut down"
UNLOADED = "[talvora-obs] Talvora OBS plugin unloaded"


def own_lines(log):
	"""The module's own log lines, in order, without their times."""
	return [line.split(": ", 1)[1] for line in log.splitlines() if ": [talvora-obs] " in line]


def test_module_loads_and_says_its_version(make_obs):
	with make_obs() as obs:
		obs.wait_for_log(re.escape(INITIALIZED) + "$")
		kinds = obs.request("GetInputKindList")["inputKinds"]
	lines = own_lines(obs.log)
	assert lines[0] == LOADED
	assert f"{INITIALIZED}. API key: (not set), Languages: " in lines
	assert "talvora_dubbed_source" in kinds, f"OBS does not know the dubbed source: {kinds}"
	assert "talvora-obs.so" in obs.log.split("Loaded Modules:")[1].split("----")[0]


def test_module_exports_its_name_and_no_more_than_obs_asks_for():
	symbols = subprocess.run(["nm", "--dynamic", "--defined-only", str(BUILD / "src/talvora-obs.so")], capture_output=True, text=True,
				 check=True).stdout.splitlines()
	names = {line.split()[-1] for line in symbols}
	assert "PLUGIN_NAME" in names
	# The standard library's templates are everybody's.
	own = {name for name in names if not name.startswith(("obs_module_", "_ZT", "_ZZNSt", "_ZNSt", "_ZSt"))}
	assert own - {"__bss_start", "_edata", "_end", "_init", "_fini"} == {"PLUGIN_NAME"}


def test_module_registers_its_capture_filter(make_obs):
	with make_obs() as obs:
		kinds = obs.request("GetSourceFilterKindList")["sourceFilterKinds"]
	assert "talvora_audio_capture" in kinds


def test_module_shuts_down_once_and_in_order(make_obs):
	with make_obs() as obs:
		obs.wait_for_log(re.escape(INITIALIZED) + "$")
	lines = own_lines(obs.log)
	assert lines.count(SHUT_DOWN) == 1
	assert lines.index(SHUT_DOWN) < lines.index(UNLOADED)
	assert lines[-1] == UNLOADED


def test_exit_is_clean(make_obs):
	with make_obs() as obs:
		obs.wait_for_log(re.escape(INITIALIZED) + "$")

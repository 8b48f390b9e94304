"""The module in a real OBS: it loads, says what it is, and leaves nothing behind."""

import re

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

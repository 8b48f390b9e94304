# SPDX-License-Identifier: GPL-2.0-or-later
"""What the tests in a real OBS share. Each test has its own OBS, home folder and (where it asks) service."""

import json
import random
import re
import shutil
import signal
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from dock_user import User  # noqa: E402
from lab.complaints import faults, usual  # noqa: E402
from lab.obs import NOT_CLEARED, NOTHING_PLAYED, Obs, media_file  # noqa: E402
from lab.own_faults import holds_nothing_at_end, lost_memory, lost_sources  # noqa: E402
from lab.paths import BUILD, OUT, SUITE  # noqa: E402
from lab.service import LocalService  # noqa: E402
from sessions import MICROPHONE, constant_wav  # noqa: E402

REFERENCE_COUNT = BUILD / "lab" / "reference-count" / "talvora-lab-reference-count.so"


def pytest_addoption(parser):
	parser.addoption("--minutes", type=float, default=30, help="how long the soak test's session lasts")
	parser.addoption("--cycles", type=int, default=100, help="how often OBS is started and ended at a random moment")
	parser.addoption("--share", default="1/1", metavar="K/N", help="run only every Nth test, from the Kth on")
	parser.addoption("--seed", type=int, default=None, help="of what tests do at random; printed, so that it can be repeated")


class OwnFaultOfObs(Exception):
	"""OBS failed by itself, as it does without the module, while the module held nothing that could be the reason."""


# How often a test is repeated for that, and how many repetitions there may be in a run. In studio mode OBS 32 loses a scene in half
# of all runs, so that one in 128 of a test that uses it fails for OBS's own fault.
MOST_RERUNS_OF_A_TEST = 6
MOST_RERUNS = 10

RERUNS = []


def pytest_collection_modifyitems(config, items):
	"""Leaves out the tests of other shares. Neighbours last about as long, so that every Nth makes equal shares."""
	share, shares = map(int, config.getoption("--share").split("/"))
	others = [item for number, item in enumerate(items) if number % shares != share - 1]
	config.hook.pytest_deselected(items=others)
	items[:] = [item for number, item in enumerate(items) if number % shares == share - 1]
	for item in items:
		item.add_marker(pytest.mark.flaky(reruns=MOST_RERUNS_OF_A_TEST, only_rerun=[r"^(conftest\.)?OwnFaultOfObs: "]))


def pytest_runtest_logreport(report):
	if report.outcome == "rerun":
		RERUNS.append({"test": report.nodeid, "why": report.longrepr.reprcrash.message.splitlines()[0]})


def pytest_sessionfinish(session):
	junit = session.config.getoption("xmlpath")
	if junit:
		Path(junit).with_suffix(".reruns.json").write_text(json.dumps(RERUNS, indent=1), encoding="utf-8")
	if len(RERUNS) > MOST_RERUNS and session.exitstatus == pytest.ExitCode.OK:
		session.exitstatus = pytest.ExitCode.TESTS_FAILED


def pytest_terminal_summary(terminalreporter):
	terminalreporter.section("repeated for faults of OBS itself")
	for one in RERUNS:
		terminalreporter.line(f"{one['test']}: {one['why']}")
	terminalreporter.line(f"{len(RERUNS)} repetitions; {MOST_RERUNS} may be")
	if len(RERUNS) > MOST_RERUNS:
		terminalreporter.line("FAILED: more than OBS's own faults account for", red=True)


@pytest.fixture
def chance(request):
	"""Random numbers that can be had again: the seed is in the test's output."""
	seed = request.config.getoption("--seed")
	seed = random.SystemRandom().randrange(1 << 32) if seed is None else seed
	print(f"seed: {seed}")
	return random.Random(seed)


@pytest.fixture
def artefacts(request):
	"""The folder a test leaves its logs, pictures and recordings in; emptied before the test."""
	folder = OUT / "tests" / SUITE / re.sub(r"[^A-Za-z0-9_.-]+", "-", request.node.name)
	shutil.rmtree(folder, ignore_errors=True)
	folder.mkdir(parents=True)
	return folder


class WatchedObs(Obs):
	"""An OBS whose end, when its context is left, is looked at: a test that leaves it without another fault fails by what is seen.

	usual_complaints: what OBS complains about without the module. loses: whether the test does what OBS 32 loses sources after.
	complaints: patterns of what else it or the module has to warn of, each with how often, a number or a range. unclean: why it
	may end in any way, for the few that may.
	"""

	def __init__(self, usual_complaints, loses, complaints=None, unclean=None, **options):
		super().__init__(preload=[REFERENCE_COUNT], **options)
		self._usual = usual_complaints
		self._loses = loses
		self._expected = complaints or {}
		self._unclean = unclean

	def __exit__(self, kind, error, trace):
		lost_before = NOT_CLEARED in self.log
		try:
			super().__exit__(kind, error, trace)
		except TimeoutError as late:
			# It does not end. If the test has failed before, that is the fault to tell of.
			error = error or late
		found = [] if self._unclean else self._faults()
		own = self._own_fault(error, lost_before, found)
		if own:
			raise OwnFaultOfObs(own) from error
		what = "How OBS ended:\n- " + "\n- ".join(found)
		if error is None and found:
			self.show_log_tail()
			raise AssertionError(what)
		if found:
			error.add_note(what)
		if error is not None and kind is None:
			raise error

	def _own_fault(self, error, lost_before, found):
		"""What OBS has done by itself that explains how the test and OBS have ended; None if nothing does."""
		if self._loses and (error is None or lost_before or NOT_CLEARED in str(error)):
			lost = lost_sources(self.log)
			if lost:
				return lost
		if self._loses and error is None and len(found) == 1:
			return lost_memory(self.log)
		if NOTHING_PLAYED in str(error) and not found and holds_nothing_at_end(self.log):
			return NOTHING_PLAYED
		return None

	def _faults(self):
		leaks = re.search(r"Number of memory leaks: \d+", self.log)
		found = []
		if self.exit_status != 0:
			found.append(describe_status(self.exit_status))
		elif not leaks or not leaks[0].endswith(" 0"):
			found.append(leaks[0] if leaks else "it did not count its memory leaks")
		return found + faults(self.console, self._usual, self._expected, self._dubs())

	def _dubs(self):
		"""The names of the dubs that OBS has made: for the module, with a scene collection, for the test."""
		made = re.findall(r"DubbedSource: created '(.+)'", self.log)
		loaded = re.findall(r"- source: '(.+)' \(talvora_dubbed_source\)", self.log)
		return made + loaded + [name for name, kind in self.created if kind == "talvora_dubbed_source"]


def describe_status(status):
	return f"it was killed by {signal.Signals(-status).name}" if status < 0 else f"its exit status is {status}"


@pytest.fixture(scope="session")
def usual_complaints(tmp_path_factory):
	"""What this OBS complains about by itself, without the module: with and without a desktop around it."""
	tone = constant_wav(tmp_path_factory.mktemp("usual") / "constant.wav", 10, 8000)
	consoles = []
	for accessible in (False, True):
		with Obs(plugin=False, accessible=accessible, inputs=[media_file(MICROPHONE, tone)]) as obs:
			obs.start_recording()
			obs.wait_for_recording_length(0.5)
		assert obs.exit_status == 0, "OBS without the module does not exit cleanly"
		consoles.append(obs.console)
	return usual(consoles)


@pytest.fixture
def make_obs(request, artefacts, usual_complaints):
	"""Makes a WatchedObs (a context, not yet started) whose log is kept in the test's artefacts."""
	made = []
	loses = request.node.get_closest_marker("changes_scenes") is not None

	def make(**options):
		obs = WatchedObs(usual_complaints, loses, **options)
		made.append(obs)
		return obs

	yield make
	for number, obs in enumerate(made, 1):
		(artefacts / f"obs-{number}.log").write_text(obs.log, encoding="utf-8")
		(artefacts / f"console-{number}.log").write_text(obs.console, encoding="utf-8")


@pytest.fixture
def make_service(artefacts):
	"""Makes a LocalService (a context, not yet started) that writes into the test's artefacts."""

	def make(script=None, name="service", **options):
		return LocalService(script=script, folder=artefacts / name, **options)

	return make


@pytest.fixture
def user_of(artefacts):
	def user(obs):
		obs.wait_for_log("Talvora plugin initialized")
		return User(obs, artefacts)

	return user


@pytest.fixture
def desktop_obs(make_obs, tmp_path):
	"""An OBS with a window to work in, a microphone that never falls silent, and nobody signed in."""

	def make(**options):
		microphone = media_file(MICROPHONE, constant_wav(tmp_path / "constant.wav", 10, 8000), looping=True)
		return make_obs(accessible=True, inputs=[microphone], **options)

	return make

# SPDX-License-Identifier: GPL-2.0-or-later
"""One real OBS with a home folder of its own, driven from outside.

	with Obs(talvora_config={"apiKey": "k"}) as obs:
		obs.wait_for_log("Talvora plugin initialized")
		obs.create_input("Microphone", "ffmpeg_source", {"local_file": "/tmp/speech.wav"})
	assert obs.exit_status == 0

It needs no display: without one, a virtual display is started for it.
"""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

from lab.accessibility import SessionBus
from lab.complaints import QT_MESSAGE_PATTERN
from lab.display import VirtualDisplay
from lab.followed import FollowedText
from lab.paths import BUILD, CHECKOUT
from lab.profile import SCENE, Input, media_file, obs_version, scene_collection, write, write_profile, write_settings
from lab.remote import Remote

# Who drives an OBS also says what is in it.
__all__ = ["BROWSER", "NOTHING_PLAYED", "NOT_CLEARED", "PLUGIN", "SCENE", "Input", "Obs", "free_port", "media_file", "obs_version",
	"scene_collection", "wait_until"]

PLUGIN = "talvora-obs"
BROWSER = "talvora-lab-browser"

# What OBS logs when sources are left that it wants to be rid of.
NOT_CLEARED = "Not all sources were cleared"
# Said where a media source has nothing to give, whoever asks.
NOTHING_PLAYED = "OBS does not play the source itself"

# Between two looks at what is waited for.
_LOOK_SECONDS = 0.05

_START_SECONDS = 30
_STOP_SECONDS = 20


def wait_until(condition, timeout, what):
	"""Waits until `condition()` is true and returns its value; fails with `what` after `timeout` seconds."""
	deadline = time.monotonic() + timeout
	while True:
		value = condition()
		if value:
			return value
		if time.monotonic() > deadline:
			raise TimeoutError(f"{what}: not within {timeout} s")
		time.sleep(_LOOK_SECONDS)


def free_port():
	with socket.socket() as probe:
		probe.bind(("127.0.0.1", 0))
		return probe.getsockname()[1]


class Obs:
	"""OBS with one scene called "Scene", the module under test, and a remote control.

	inputs: what is in the scene from the start, bottom first; more can be made later.
	collections: scene collections that there are besides, made with scene_collection(); one called "Untitled" is the one
	OBS starts with, in place of the scene with the inputs.
	browser: also install the lab's browser source.
	plugin: install the module under test.
	talvora_config: what the module's configuration file holds at the start, or None for no file.
	home: a folder to use as the home; kept afterwards. Without it a temporary one is made and removed.
	canvas: width and height in pixels. preview: show the picture in the main window; costs much without a graphics card.
	tracks: the audio tracks to record, 1 to 6.
	lossless_audio: record every sample as it was mixed (32-bit float) instead of AAC.
	profile: more values of the profile, by section and name: {"AdvOut": {"RecRB": True}}.
	display: an X display to use, or None for a virtual one. screen: width and height of that, in pixels; None: what OBS needs.
	verbose: log debug lines too.
	accessible: put the windows on an accessibility bus and manage them, for lab.hands.
	path: folders whose programs OBS finds before the machine's. environment: more variables of its environment.
	wait: return from the start when OBS takes requests; otherwise as soon as it runs, and there is no remote control.
	modules: files of more modules to install. preload: libraries that OBS alone, not what it starts, is to load before its own.
	tap: a lab.audio_tap.AudioTap that is given the audio of its sources, or None.
	theme: OBS's theme by its id, or None for the default. scale: size of everything on the screen, 2 is 200 %.
	language: what OBS is set to, by the name of its file of texts: "de-DE".
	"""

	def __init__(self, *, inputs=(), collections=(), browser=True, plugin=True, talvora_config=None, home=None, canvas=(1280, 720),
		     fps=10, preview=False, tracks=(1,), lossless_audio=False, sample_rate=48000, profile=None, display=None, screen=None,
		     verbose=False, accessible=False, path=(), environment=None, wait=True, theme=None,
		     language="en-US", scale=1, modules=(), preload=(), tap=None, build=BUILD):
		self._keep_home = home is not None
		self.home = Path(home or tempfile.mkdtemp(prefix="talvora-obs-"))
		self.recordings = self.home / "recordings"
		self._collections = [scene_collection("Untitled", inputs), *collections]
		self._browser = browser
		self._plugin = plugin
		self._talvora_config = talvora_config
		self._canvas = canvas
		self._fps = fps
		self._preview = preview
		self._tracks = tracks
		self._lossless_audio = lossless_audio
		self._sample_rate = sample_rate
		self._profile_values = profile or {}
		self._display = display
		self._screen = screen or (canvas[0], canvas[1] + 80)
		self._verbose = verbose
		self._accessible = accessible
		self._path = path
		self._more_environment = {**(tap.environment if tap else {}), **(environment or {})}
		self._modules = [*modules, *([tap.module] if tap else [])]
		self._preload = preload
		self._wait = wait
		self._theme = theme
		self._language = language
		self.scale = scale
		self._session_bus = None
		self._window_manager = None
		self._build = Path(build)
		self._virtual_display = None
		self._process = None
		self._log = None
		self._older_logs = []
		self._final_log = None
		self._final_console = None
		self.remote = None
		# Of the process when it has ended; the negative number of the signal that has killed it. None before.
		self.exit_status = None
		# Name and kind of each input that was made by request.
		self.created = []

	# Life

	def __enter__(self):
		try:
			self.start()
		except BaseException as error:
			self.show_log_tail()
			self._abandon()
			raise error
		return self

	def __exit__(self, kind, error, trace):
		try:
			if self._process and self.exit_status is None:
				self.stop()
		finally:
			if kind is not None:
				self.show_log_tail()
			self._abandon()

	def start(self):
		"""Prepares the home and starts OBS; returns when it has finished loading and takes requests, if it is to wait."""
		port = free_port()
		self._prepare(port)
		self._older_logs = list((self.home / ".config" / "obs-studio" / "logs").glob("*.txt"))
		if self._display is None:
			self._virtual_display = VirtualDisplay(self._screen)
		if self._accessible:
			self._start_desktop()
		command = ["obs", "--multi", "--disable-updater", "--websocket_port", str(port)]
		if self._verbose:
			command.append("--verbose")
		with open(self.home / "console.log", "wb") as console:
			self._process = subprocess.Popen(command, env=self._obs_environment(), stdin=subprocess.DEVNULL,
							 stdout=console, stderr=subprocess.STDOUT)
		if not self._wait:
			return
		wait_until(lambda: self._connect(port), _START_SECONDS, "OBS takes requests")
		self.request("GetSceneList", timeout=_START_SECONDS)

	def stop(self):
		"""Ends OBS as a closed window or Ctrl-C does; returns its exit status."""
		self._process.send_signal(signal.SIGINT)
		try:
			self.exit_status = self._process.wait(timeout=_STOP_SECONDS)
		except subprocess.TimeoutExpired:
			self._process.kill()
			self.exit_status = self._process.wait()
			why = f": {NOT_CLEARED}" if NOT_CLEARED in self.log else ""
			raise TimeoutError(f"OBS did not end within {_STOP_SECONDS} s{why}") from None
		return self.exit_status

	def running(self):
		return self._process is not None and self._process.poll() is None

	def wait(self):
		"""Waits until the user closes OBS."""
		self.exit_status = self._process.wait()
		return self.exit_status

	@property
	def pid(self):
		"""Of the running process."""
		return self._process.pid

	def memory_mib(self):
		"""Memory of the running process that is in use, in MiB."""
		status = Path(f"/proc/{self.pid}/status").read_text(encoding="ascii")
		return int(re.search(r"^VmRSS:\s+(\d+) kB$", status, re.MULTILINE).group(1)) / 1024

	def _abandon(self):
		"""Lets go of everything, whatever state it is in."""
		if self.running():
			self._process.kill()
			self._process.wait()
		if self.remote:
			self.remote.close()
		self._stop_desktop()
		if self._virtual_display:
			self._virtual_display.close()
			self._virtual_display = None
		self._final_log, self._final_console = self.log, self.console
		if not self._keep_home:
			shutil.rmtree(self.home, ignore_errors=True)

	def _start_desktop(self):
		"""What a desktop has that hands need: windows that take the keyboard, and names of what they hold."""
		self._session_bus = SessionBus(self._environment())
		if self._virtual_display:
			self._window_manager = subprocess.Popen(["openbox"], env=self._environment(), stdout=subprocess.DEVNULL,
								stderr=subprocess.DEVNULL)

	def _stop_desktop(self):
		if self._window_manager:
			self._window_manager.terminate()
			self._window_manager.wait(timeout=10)
			self._window_manager = None
		if self._session_bus:
			self._session_bus.close()
			self._session_bus = None

	def _connect(self, port):
		if not self.running():
			raise RuntimeError(f"OBS ended while it started, with status {self._process.returncode}")
		try:
			self.remote = Remote(port)
		except (OSError, TimeoutError):
			return False
		return True

	# Home

	def _environment(self):
		for name in ("run", "tmp"):
			(self.home / name).mkdir(mode=0o700, exist_ok=True)
		environment = {name: value for name, value in os.environ.items() if not name.startswith(("XDG_", "QT_", "DBUS_"))}
		environment.update(HOME=str(self.home), XDG_RUNTIME_DIR=str(self.home / "run"), TMPDIR=str(self.home / "tmp"),
				   QT_QPA_PLATFORM="xcb", QT_MESSAGE_PATTERN=QT_MESSAGE_PATTERN)
		if self._virtual_display:
			environment.update(DISPLAY=self._virtual_display.name, LIBGL_ALWAYS_SOFTWARE="1")
		else:
			environment.update(DISPLAY=self._display)
		if self._session_bus:
			environment.update(DBUS_SESSION_BUS_ADDRESS=self._session_bus.address, QT_ACCESSIBILITY="1",
					   QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1")
		if self.scale != 1:
			environment.update(QT_SCALE_FACTOR=str(self.scale))
		if self._path:
			environment.update(PATH=":".join([*map(str, self._path), environment["PATH"]]))
		environment.update(self._more_environment)
		return environment

	def _obs_environment(self):
		environment = self._environment()
		for library in self._preload:
			if not library.exists():
				raise FileNotFoundError(f"{library} is not built: run './dev build' first")
		libraries = [*map(str, self._preload), *environment.get("LD_PRELOAD", "").split(":")]
		return {**environment, "LD_PRELOAD": ":".join(filter(None, libraries))}

	@property
	def desktop(self):
		"""The environment of a program that is to share OBS's display and buses."""
		return self._environment()

	@property
	def session_bus(self):
		"""Address of the message bus, when OBS was made accessible."""
		return self._session_bus.address

	def _prepare(self, port):
		config = self.home / ".config" / "obs-studio"
		# Modules may have been installed for the user before OBS was ever started.
		fresh = not (config / "global.ini").exists()
		if fresh:
			write_settings(config, preview=self._preview, theme=self._theme, language=self._language)
			write_profile(config / "basic" / "profiles" / "Untitled", self.recordings, canvas=self._canvas, fps=self._fps,
				tracks=self._tracks, lossless_audio=self._lossless_audio, sample_rate=self._sample_rate, more=self._profile_values)
			for one in self._collections:
				write(config / "basic" / "scenes" / f"{one['name']}.json", json.dumps(one))
		self.recordings.mkdir(parents=True, exist_ok=True)
		write(config / "plugin_config" / "obs-websocket" / "config.json", json.dumps({
			"alerts_enabled": False, "auth_required": False, "first_load": False, "server_enabled": True,
			"server_password": "", "server_port": port}))
		if self._plugin:
			data = self._install(PLUGIN, self._build / "src" / f"{PLUGIN}.so", CHECKOUT / "data")
			shutil.copy2(self._build / "src" / "manifest.json", data)
		if self._browser:
			self._install(BROWSER, self._build / "lab" / "browser-source" / f"{BROWSER}.so", None)
		for module in self._modules:
			self._install(module.stem, module, None)
		if self._talvora_config is not None:
			write(self.talvora_config_path, json.dumps(self._talvora_config, indent=4))

	def _install(self, name, module, data):
		"""For the user alone; returns the folder of the module's data."""
		if not module.exists():
			raise FileNotFoundError(f"{module} is not built: run './dev build' first")
		folder = self.home / ".config" / "obs-studio" / "plugins" / name
		(folder / "bin" / "64bit").mkdir(parents=True, exist_ok=True)
		shutil.copy2(module, folder / "bin" / "64bit")
		if data is not None and data.is_dir():
			shutil.copytree(data, folder / "data", dirs_exist_ok=True)
		return folder / "data"

	# What it says

	@property
	def talvora_config_path(self):
		return self.home / ".config" / "talvora-obs" / "config.json"

	@property
	def log(self):
		"""OBS's log of this run, with times; after the end of the context, as it was then."""
		if self._final_log is not None:
			return self._final_log
		if self._log is None:
			files = sorted((self.home / ".config" / "obs-studio" / "logs").glob("*.txt"), key=lambda file: file.stat().st_mtime)
			new = [file for file in files if file not in self._older_logs]
			self._log = FollowedText(new[-1]) if new else None
		return self._log.text if self._log else ""

	@property
	def console(self):
		"""What OBS, Qt and the C library printed."""
		if self._final_console is not None:
			return self._final_console
		path = self.home / "console.log"
		return path.read_text(encoding="utf-8", errors="replace") if path.exists() else ""

	def wait_for_log(self, pattern, timeout=10, count=1):
		"""Waits until `count` log lines match the regular expression; returns the match of the last of them."""
		expression = re.compile(pattern, re.MULTILINE)

		seen = None

		def found():
			nonlocal seen
			log = self.log
			if log == seen and self.running():
				return None
			seen = log
			matches = list(expression.finditer(log))
			if len(matches) >= count:
				return matches[count - 1]
			if not self.running():
				raise RuntimeError(f"OBS ended before its log had {pattern!r}")
			return None

		return wait_until(found, timeout, f"OBS's log has {pattern!r} ({count} times)")

	def show_log_tail(self, lines=60):
		print(f"--- the last {lines} lines of OBS's log ---")
		# The profiler's table at the end tells nothing about a failure.
		print("\n".join((self.log.split("== Profiler Results")[0] or self.console).splitlines()[-lines:]))
		print("---", flush=True)

	# What it does

	def request(self, kind, timeout=10, **data):
		"""One obs-websocket request; returns its response data."""
		with self._explained(kind):
			return self.remote.request(kind, timeout, **data)

	def batch(self, *requests):
		"""Makes OBS do several things right after each other; each request is its kind and its data."""
		with self._explained("a batch"):
			self.remote.batch(*requests)

	@contextlib.contextmanager
	def _explained(self, kind):
		try:
			yield
		except Exception as error:
			# OBS 32 waits for ever, or has crashed, when it has not got rid of a collection's sources.
			if NOT_CLEARED in self.log:
				raise RuntimeError(f"OBS does not answer {kind}: {NOT_CLEARED}") from error
			raise

	def create_input(self, name, kind, settings=None, scene=SCENE, enabled=True):
		"""Makes a source and puts it on top of the scene; returns the scene item's number."""
		self.created.append((name, kind))
		return self.request("CreateInput", sceneName=scene, inputName=name, inputKind=kind, inputSettings=settings or {},
				    sceneItemEnabled=enabled)["sceneItemId"]

	def add_to_scene(self, name, scene=SCENE):
		"""Puts an existing source into a scene; returns the scene item's number."""
		return self.request("CreateSceneItem", sceneName=scene, sourceName=name)["sceneItemId"]

	def remove_from_scene(self, name, scene=SCENE):
		"""Takes a source out of a scene as its user does in OBS's window."""
		item = self.request("GetSceneItemId", sceneName=scene, sourceName=name)["sceneItemId"]
		self.request("RemoveSceneItem", sceneName=scene, sceneItemId=item)

	def inputs(self, kind=None):
		"""Names of the inputs, of one kind or of all."""
		arguments = {"inputKind": kind} if kind else {}
		return [entry["inputName"] for entry in self.request("GetInputList", **arguments)["inputs"]]

	def input_settings(self, name):
		return self.request("GetInputSettings", inputName=name)["inputSettings"]

	def scene_items(self, scene=SCENE):
		"""Names of the sources in a scene, bottom first."""
		return [item["sourceName"] for item in self.request("GetSceneItemList", sceneName=scene)["sceneItems"]]

	def set_tracks(self, name, *tracks):
		"""Sends an input to exactly these audio tracks, 1 to 6."""
		self.request("SetInputAudioTracks", inputName=name,
			     inputAudioTracks={str(track): track in tracks for track in range(1, 7)})

	def start_recording(self):
		seen = len(self.remote.events)
		self.request("StartRecord")
		self.remote.wait_for_event("RecordStateChanged", lambda data: data["outputState"].endswith("STARTED"), seen)

	def stop_recording(self):
		"""Ends the recording; returns the finished file."""
		seen = len(self.remote.events)
		path = Path(self.request("StopRecord")["outputPath"])
		self.remote.wait_for_event("RecordStateChanged", lambda data: data["outputState"].endswith("STOPPED"), seen, 20)
		return path

	def recorded_seconds(self):
		return self.request("GetRecordStatus")["outputDuration"] / 1000

	def wait_for_recording_length(self, seconds):
		"""Waits until that much is recorded and ends the recording; returns the finished file."""
		wait_until(lambda: self.recorded_seconds() >= seconds, seconds + 20, f"OBS has recorded {seconds} s")
		return self.stop_recording()

	def source_screenshot(self, name, path):
		"""What a source (or a scene) shows, as a PNG, without anything around it."""
		Path(path).parent.mkdir(parents=True, exist_ok=True)
		self.request("SaveSourceScreenshot", sourceName=name, imageFormat="png", imageFilePath=str(path))

	def program_screenshot(self, path):
		"""The program output as it is, as a PNG."""
		self.source_screenshot(self.request("GetCurrentProgramScene")["currentProgramSceneName"], path)

	def window_screenshot(self, path):
		"""The whole display with OBS's windows, as a PNG."""
		Path(path).parent.mkdir(parents=True, exist_ok=True)
		subprocess.run(["import", "-window", "root", str(path)], env=self._environment(), check=True, timeout=30)

# SPDX-License-Identifier: GPL-2.0-or-later
"""The local translation service, as a process of its own with a certificate that the lab's OBS trusts."""

import json
import os
import signal
import subprocess
import tempfile
import threading
from pathlib import Path

import numpy as np

from lab.followed import FollowedRecords
from lab.obs import wait_until
from lab.paths import BUILD

PORT = 3002
KEY = "tak_live_local"

# Where the root filesystem's own certificate authority is.
_LAB_AUTHORITY = Path("/var/lib/talvora-ca")

_START_SECONDS = 30


def make_certificate(folder, *names):
	"""A certificate for localhost (or `names`) by the authority this machine trusts; returns certificate and key."""
	certificate, key = Path(folder) / "service.pem", Path(folder) / "service-key.pem"
	environment = dict(os.environ)
	if _LAB_AUTHORITY.is_dir():
		environment["CAROOT"] = str(_LAB_AUTHORITY)
	done = subprocess.run(["mkcert", "-cert-file", str(certificate), "-key-file", str(key), *(names or ("localhost", "127.0.0.1"))],
			      env=environment, capture_output=True, text=True)
	if done.returncode != 0:
		raise RuntimeError(f"No certificate for the local service (is mkcert's authority installed?): {done.stderr}")
	return certificate, key


class LocalService:
	"""The service, listening from the start to the end of the context.

	script: the steps to play instead of recognising and translating (as the service's --help describes them), or None.
	key: the only key it lets in. certificate: a pair of files, certificate and key, instead of a trusted one.
	folder: where it keeps what it writes, or None for a temporary one. Paths in `script` are relative to it.
	"""

	def __init__(self, *, script=None, key=KEY, port=PORT, certificate=None, folder=None, build=BUILD):
		self._temporary = None if folder else tempfile.TemporaryDirectory(prefix="talvora-service-")
		self.folder = Path(folder or self._temporary.name)
		self.folder.mkdir(parents=True, exist_ok=True)
		self.events_path = self.folder / "events.jsonl"
		self.record_path = self.folder / "received.jsonl"
		self.console_path = self.folder / "service.log"
		self._events = FollowedRecords(self.events_path)
		self._received = FollowedRecords(self.record_path)
		self.port = port
		self.certificate = None
		self._script = script
		self._key = key
		self._certificate = certificate
		self._program = Path(build) / "service" / "talvora-local-service"
		self._process = None
		self._ready = threading.Event()
		self._reader = None

	def __enter__(self):
		self.start()
		return self

	def __exit__(self, kind, error, trace):
		self.stop()
		if kind is not None:
			print("--- what the local service printed ---")
			print("\n".join(self.console.splitlines()[-40:]))
			print("---", flush=True)
		if self._temporary:
			self._temporary.cleanup()

	def start(self):
		"""Starts the service; returns when it accepts connections."""
		if not self._program.exists():
			raise FileNotFoundError(f"{self._program} is not built: run './dev build' first")
		self.certificate, key = self._certificate or make_certificate(self.folder)
		command = [str(self._program), "--port", str(self.port), "--certificate", str(self.certificate), "--private-key", str(key),
			   "--key", self._key, "--events", str(self.events_path), "--record", str(self.record_path)]
		if self._script is not None:
			path = self.folder / "script.json"
			path.write_text(json.dumps(self._script), encoding="utf-8")
			command += ["--script", str(path)]
		self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
						 text=True, errors="replace")
		self._reader = threading.Thread(target=self._read, daemon=True)
		self._reader.start()
		wait_until(self._started, _START_SECONDS, "The local service listens")

	def stop(self):
		"""Ends the service; whoever is connected sees the connection drop."""
		if self._process is None:
			return
		self._process.send_signal(signal.SIGTERM)
		# A frozen one would not hear that.
		self.thaw()
		try:
			self._process.wait(timeout=10)
		except subprocess.TimeoutExpired:
			self._process.kill()
			self._process.wait()
		self._reader.join(timeout=5)
		self._process = None

	def freeze(self):
		"""Stops the service as it stands: what it has open stays open, and nothing is answered until thaw()."""
		self._process.send_signal(signal.SIGSTOP)

	def thaw(self):
		self._process.send_signal(signal.SIGCONT)

	@property
	def console(self):
		return self.console_path.read_text(encoding="utf-8", errors="replace") if self.console_path.exists() else ""

	def events(self, event=None):
		"""What it did, in order: objects with "event", "mono_ms", "wall" and more; of one event or of all."""
		return [one for one in self._events.records if event in (None, one["event"])]

	def received(self, kind=None, connection=None):
		"""What came in, in order: objects with "kind" ("open", "text", "binary", "close"), "mono_ms" and more."""
		return [one for one in self._received.records
			if kind in (None, one["kind"]) and connection in (None, one["connection"])]

	def texts(self, connection=None):
		"""The text messages that came in, as they were on the wire."""
		return [one["text"] for one in self.received("text", connection)]

	def uplink(self, connection=1):
		"""The audio that came in on a connection: 16-bit samples, 16 kHz, mono."""
		path = self._uplink_path(connection)
		data = path.read_bytes() if path.exists() else b""
		return np.frombuffer(data[:len(data) // 2 * 2], "<i2")

	def heard(self, connection=1):
		"""How many samples uplink() has."""
		path = self._uplink_path(connection)
		return path.stat().st_size // 2 if path.exists() else 0

	def heard_altogether(self):
		"""The same of all connections."""
		return sum(path.stat().st_size // 2 for path in self.folder.glob(f"{self.record_path.name}.*.pcm"))

	def _uplink_path(self, connection):
		return self.record_path.with_name(f"{self.record_path.name}.{connection}.pcm")

	def _read(self):
		with open(self.console_path, "a", encoding="utf-8") as file:
			for line in self._process.stdout:
				file.write(line)
				file.flush()
				if "listening on " in line:
					self._ready.set()

	def _started(self):
		if self._process.poll() is not None and not self._ready.is_set():
			raise RuntimeError(f"The local service ended with status {self._process.returncode}: {self.console}")
		return self._ready.is_set()

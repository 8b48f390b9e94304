# SPDX-License-Identifier: GPL-2.0-or-later
"""A client of obs-websocket 5: requests and events of a running OBS."""

import contextlib
import itertools
import json
import threading
import time

from websockets.exceptions import ConnectionClosed
from websockets.sync.client import connect

# Every kind of event but the high-volume ones.
_ALL_EVENTS = (1 << 11) - 1
_VOLUME_METERS = 1 << 16

_NOT_READY = 207

# Kinds of messages.
_IDENTIFY, _REIDENTIFY, _EVENT, _REQUEST, _REPLY, _BATCH, _BATCH_REPLY = 1, 3, 5, 6, 7, 8, 9


class RequestFailed(Exception):
	"""OBS refused a request; `code` is obs-websocket's status."""

	def __init__(self, request, status):
		self.code = status.get("code")
		super().__init__(f"OBS refused {request}: {self.code} {status.get('comment', '')}")


class Remote:
	"""One connection. Requests may come from any thread; a thread of its own reads what OBS sends."""

	def __init__(self, port):
		self._open = contextlib.ExitStack()
		self._socket = self._open.enter_context(
			connect(f"ws://127.0.0.1:{port}", max_size=None, open_timeout=2, close_timeout=2, compression=None))
		self._ids = itertools.count(1)
		self._changed = threading.Condition()
		self._replies = {}
		self._closed = False
		self._levels = None
		self.events = []
		json.loads(self._socket.recv(timeout=5))
		self._socket.send(json.dumps({"op": _IDENTIFY, "d": {"rpcVersion": 1, "eventSubscriptions": _ALL_EVENTS}}))
		json.loads(self._socket.recv(timeout=5))
		self._reader = threading.Thread(target=self._read, daemon=True)
		self._reader.start()

	def _read(self):
		try:
			for text in self._socket:
				message = json.loads(text)
				with self._changed:
					if message["op"] in (_REPLY, _BATCH_REPLY):
						self._replies[message["d"]["requestId"]] = message["d"]
					elif message["op"] == _EVENT and message["d"]["eventType"] == "InputVolumeMeters":
						self._levels = message["d"]["eventData"]["inputs"]
					elif message["op"] == _EVENT:
						self.events.append(message["d"])
					self._changed.notify_all()
		except ConnectionClosed:
			pass
		finally:
			with self._changed:
				self._closed = True
				self._changed.notify_all()

	def request(self, kind, timeout=10, **data):
		"""Sends one request and returns its response data. OBS answers "not ready" while it loads: asked again."""
		deadline = time.monotonic() + timeout
		while True:
			reply = self._exchange(kind, _REQUEST, {"requestType": kind, "requestData": data}, deadline)
			status = reply["requestStatus"]
			if status["result"]:
				return reply.get("responseData", {})
			if status["code"] != _NOT_READY or time.monotonic() > deadline:
				raise RequestFailed(kind, status)
			time.sleep(0.05)

	def batch(self, *requests, timeout=30):
		"""Makes OBS do several things right after each other; each request is its kind and its data."""
		listed = [{"requestType": kind, "requestData": data} for kind, data in requests]
		reply = self._exchange("a batch", _BATCH, {"requests": listed, "haltOnFailure": True}, time.monotonic() + timeout)
		for (kind, _), result in zip(requests, reply["results"]):
			if not result["requestStatus"]["result"]:
				raise RequestFailed(kind, result["requestStatus"])
		assert len(reply["results"]) == len(requests), "OBS has left out requests of a batch"

	def _exchange(self, kind, operation, message, deadline):
		number = str(next(self._ids))
		self._socket.send(json.dumps({"op": operation, "d": {"requestId": number, **message}}))
		with self._changed:
			self._changed.wait_for(lambda: number in self._replies or self._closed, deadline - time.monotonic())
			if number in self._replies:
				return self._replies.pop(number)
		raise TimeoutError(f"OBS {'closed the connection' if self._closed else 'did not answer'} after {kind}")

	def wait_for_event(self, kind, condition=lambda data: True, since=0, timeout=10):
		"""Waits for an event at or after index `since` of `events` whose data meet the condition; returns the data."""

		def find():
			for event in self.events[since:]:
				if event["eventType"] == kind and condition(event.get("eventData", {})):
					return event
			return None

		with self._changed:
			event = self._changed.wait_for(find, timeout)
		if event is None:
			raise TimeoutError(f"OBS sent no fitting {kind} within {timeout} s")
		return event.get("eventData", {})

	def level(self, name, timeout=5):
		"""The highest sample of an input in the last 50 ms, before its volume; 0 for one that is not in use."""
		with self._changed:
			self._levels = None
		self._socket.send(json.dumps({"op": _REIDENTIFY, "d": {"eventSubscriptions": _ALL_EVENTS | _VOLUME_METERS}}))
		with self._changed:
			if not self._changed.wait_for(lambda: self._levels is not None, timeout):
				raise TimeoutError(f"OBS sent no levels within {timeout} s")
			levels = self._levels
		self._socket.send(json.dumps({"op": _REIDENTIFY, "d": {"eventSubscriptions": _ALL_EVENTS}}))
		return max((channel[2] for one in levels if one["inputName"] == name for channel in one["inputLevelsMul"]), default=0)

	def close(self):
		self._open.close()

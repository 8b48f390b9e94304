# SPDX-License-Identifier: GPL-2.0-or-later
"""What stands between OBS and a service, looks at no byte, and does to them what networks do."""

import socket
import struct
import threading

from lab.obs import wait_until
from lab.service import PORT


class FaultProxy:
	"""Listens where OBS looks for the service, from the start to the end of the context. service_port: where connections go on to.

	Faults take effect at once and last until they are taken back.
	"""

	def __init__(self, service_port, port=PORT):
		self._service_port = service_port
		self._port = port
		self._listener = None
		self._sockets = []
		self._lock = threading.Lock()
		self._flows = threading.Event()
		self._flows.set()
		# Bytes that may still come down before the line is stalled by itself; None for any number.
		self._left = None
		self._closed = False
		# Connections accepted so far.
		self.connections = 0

	def __enter__(self):
		self.listen()
		return self

	def __exit__(self, kind, error, trace):
		self._closed = True
		self.refuse()
		self.reset()

	def listen(self):
		"""The port is open, also again."""
		self._listener = socket.create_server(("127.0.0.1", self._port))
		threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()

	def refuse(self):
		"""The port is closed: new connections are refused."""
		listener, self._listener = self._listener, None
		if listener:
			# A thread that waits in accept() holds the port until it is woken.
			listener.shutdown(socket.SHUT_RDWR)
			listener.close()

	def reset(self):
		"""Every connection ends without a word, and a stall with it."""
		with self._lock:
			sockets, self._sockets = self._sockets, []
			self._left = None
			self._flows.set()
		for one in sockets:
			try:
				one.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
				one.shutdown(socket.SHUT_RD)
			except OSError:
				# It has ended by itself.
				pass
			one.close()

	def stall(self):
		"""No byte passes in either direction, and none is lost."""
		self._flows.clear()

	def stall_after(self, received):
		"""The same, once so many more bytes have come from the service."""
		with self._lock:
			self._left = received

	def is_stalled(self):
		return not self._flows.is_set()

	def flow(self):
		"""Bytes pass again."""
		with self._lock:
			self._left = None
		self._flows.set()

	def _accept(self, listener):
		while True:
			try:
				client, _ = listener.accept()
			except OSError:
				return
			self.connections += 1
			try:
				service = socket.create_connection(("127.0.0.1", self._service_port))
			except OSError:
				client.close()
				continue
			with self._lock:
				self._sockets += [client, service]
			for way in ((client, service, False), (service, client, True)):
				threading.Thread(target=self._pump, args=way, daemon=True).start()

	def _pump(self, source, sink, is_down):
		try:
			while data := source.recv(4096):
				passing = self._share(len(data)) if is_down else len(data)
				self._wait()
				sink.sendall(data[:passing])
				if passing < len(data):
					with self._lock:
						if self._left is not None:
							self._flows.clear()
					self._wait()
					sink.sendall(data[passing:])
			sink.shutdown(socket.SHUT_WR)
		except OSError:
			# One of the two has ended, and with it the connection.
			for one in (source, sink):
				one.close()

	def _share(self, size):
		"""How many of so many bytes pass before the line stalls."""
		with self._lock:
			if self._left is None:
				return size
			passing = min(size, self._left)
			self._left -= passing
			return passing

	def _wait(self):
		wait_until(lambda: self._closed or self._flows.wait(1), 600, "bytes pass again")

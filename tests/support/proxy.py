"""Between a client and a server on this machine: passes everything on, until it is cut."""

import contextlib
import socket
import struct
import threading

# What PostgreSQL sends while it starts: an error with severity, SQLSTATE and text.
_FIELDS = b"SFATAL\0VFATAL\0C57P03\0Mthe database system is starting up\0\0"
STARTING_UP = b"E" + struct.pack("!I", len(_FIELDS) + 4) + _FIELDS
_ASKS_FOR_ENCRYPTION = (struct.pack("!I", 80877103), struct.pack("!I", 80877104))
# Closing sends what a broken line looks like, instead of an orderly end.
_ABORT = struct.pack("ii", 1, 0)


class Proxy:
    """A port on loopback that leads to another one, while entered.

    Attributes
    ----------
    port : int
        Where clients connect to.
    to_server, to_client : int
        Bytes passed on so far.
    cut_to_server, cut_to_client : int or None
        After so many bytes in that direction everything is cut, once.
    refusals : int
        As many connections to come are told that the server is starting up.
    """

    def __init__(self, target):
        self._target = target
        self._open = []
        self.reset()

    def reset(self):
        """Count from 0 and cut nothing."""
        self.to_server = self.to_client = 0
        self.cut_to_server = self.cut_to_client = None
        self.refusals = 0

    def __enter__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._accepting = threading.Thread(target=self._accept)
        self._accepting.start()
        return self

    def __exit__(self, *_):
        # Wakes the thread, which closing alone does not.
        self._listener.shutdown(socket.SHUT_RDWR)
        self._accepting.join()
        self._listener.close()
        self.cut()

    def cut(self):
        """Break all connections, as a line does that is cut."""
        _break(*self._open)
        self._open = []

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            if self.refusals > 0:
                self.refusals -= 1
                with client, contextlib.suppress(OSError):
                    # Clients ask first whether the line can be encrypted.
                    while client.recv(4096)[4:8] in _ASKS_FOR_ENCRYPTION:
                        client.sendall(b"N")
                    client.sendall(STARTING_UP)
                continue
            server = socket.create_connection(("127.0.0.1", self._target))
            self._open += [client, server]
            for pair in ((client, server, "server"), (server, client, "client")):
                threading.Thread(target=self._pass_on, args=pair, daemon=True).start()

    def _pass_on(self, source, target, to):
        with contextlib.suppress(OSError):
            while data := source.recv(1 << 16):
                limit = getattr(self, f"cut_to_{to}")
                passed = getattr(self, f"to_{to}")
                if limit is not None and passed + len(data) >= limit:
                    target.sendall(data[: limit - passed])
                    setattr(self, f"cut_to_{to}", None)
                    _break(source, target)
                    break
                setattr(self, f"to_{to}", passed + len(data))
                target.sendall(data)
        for one in (source, target):
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)
        source.close()


def _break(*sockets):
    for one in sockets:
        with contextlib.suppress(OSError):
            one.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, _ABORT)
            one.shutdown(socket.SHUT_RDWR)

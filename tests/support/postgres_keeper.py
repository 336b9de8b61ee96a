"""Keeps a PostgreSQL server in a folder of its own; both are gone when standard input ends.

Whatever becomes of the process that asked for it, killed included: the server never outlives it.
Requests are lines of JSON on standard input, and so are the answers on standard output.
"""

import json
import os
import pwd
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SUPERUSER = "tester"
# Nothing here has to survive a power cut, and nothing is to stand outside of the folder.
SETTINGS = {
    "listen_addresses": "127.0.0.1",
    "fsync": "off",
    "full_page_writes": "off",
    "wal_level": "minimal",
    "max_wal_senders": "0",
    "max_connections": "60",
    "shared_buffers": "16MB",
    "dynamic_shared_memory_type": "mmap",
}
# The tests log in through the socket; with a password through the port.
ACCESS = "local all all trust\nhost all all 127.0.0.1/32 scram-sha-256\n"
ATTEMPTS = 50
PAUSE_SECONDS = 0.1


class Keeper:
    """A server in a folder."""

    def __init__(self, programs, folder):
        self._programs = Path(programs)
        self._folder = Path(folder)
        self._process = None
        self._port = None
        self._small_disk = None
        # The server refuses the superuser's rights.
        self._user = {}
        if os.getuid() == 0:
            account = _account()
            self._user = {"user": account.pw_uid, "group": account.pw_gid, "extra_groups": []}
            os.chown(folder, account.pw_uid, account.pw_gid)
        self._run("initdb", "-A", "trust", "-U", SUPERUSER, "-E", "UTF8", "--locale=C", "--no-sync")
        (self._folder / "data" / "pg_hba.conf").write_text(ACCESS)

    def start(self):
        """Start the server, on a port that nobody has, and return where it is."""
        for _ in range(ATTEMPTS):
            # The port stays when the server is started again, unless somebody has it by then.
            self._port = self._port or _free_port()
            settings = {
                **SETTINGS,
                "port": self._port,
                "unix_socket_directories": self._folder,
            }
            given = [text for name, value in settings.items() for text in ("-c", f"{name}={value}")]
            self._process = self._popen("postgres", *given)
            if self._is_up():
                return {"folder": str(self._folder), "port": self._port, "user": SUPERUSER}
            self._process.wait()
            # The processes of one that was killed end a moment later than it.
            time.sleep(PAUSE_SECONDS)
            if "could not bind" in (self._folder / "log").read_text():
                self._port = None
        raise RuntimeError((self._folder / "log").read_text())

    def kill(self):
        """Kill the server with all its processes, so that none can do anything any more."""
        own = self._process.pid
        for process in [own, *_children_of(own)]:
            try:
                os.kill(process, signal.SIGKILL)
            except ProcessLookupError:
                continue
        self._process.wait()

    def stop(self):
        """End the server at once, if it runs."""
        if self._process is not None and self._process.poll() is None:
            self._process.send_signal(signal.SIGQUIT)
            self._process.wait()

    def mount_small_disk(self):
        """Mount a file system of two megabytes that is the server's, and say where, if allowed."""
        place = self._folder / "small"
        place.mkdir()
        options = "size=2m,mode=700"
        if self._user:
            options += f",uid={self._user['user']},gid={self._user['group']}"
        mounting = ["mount", "-t", "tmpfs", "-o", options, "tmpfs", place]
        if (
            shutil.which("mount") is None
            or subprocess.run(mounting, capture_output=True).returncode
        ):
            place.rmdir()
            return None
        self._small_disk = place
        return str(place)

    def unmount_small_disk(self):
        """Undo the mounting."""
        if self._small_disk is not None:
            subprocess.run(["umount", self._small_disk], check=True)
            self._small_disk.rmdir()
            self._small_disk = None

    def _is_up(self):
        note = self._folder / "data" / "postmaster.pid"
        while self._process.poll() is None:
            # One that was killed leaves its note behind, which the next one removes.
            try:
                lines = note.read_text().split()
            except FileNotFoundError:
                lines = []
            if lines[:1] == [str(self._process.pid)] and lines[-1] == "ready":
                return True
            time.sleep(PAUSE_SECONDS / 10)
        return False

    def _run(self, program, *arguments):
        status = self._popen(program, *arguments).wait()
        if status != 0:
            raise RuntimeError((self._folder / "log").read_text())

    def _popen(self, program, *arguments):
        with open(self._folder / "log", "w") as log:
            return subprocess.Popen(
                [self._programs / program, "-D", self._folder / "data", *arguments],
                cwd=self._folder,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,
                **self._user,
            )


def _account():
    for name in ("postgres", "nobody"):
        try:
            return pwd.getpwnam(name)
        except KeyError:
            continue
    raise RuntimeError("no user without rights to run a server as")


def _free_port():
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        return taken.getsockname()[1]


def _children_of(parent):
    """The processes that a process has started."""
    found = []
    for path in Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = path.read_text().rpartition(")")[2].split()
        except (FileNotFoundError, ProcessLookupError):
            continue
        if int(fields[1]) == parent:
            found.append(int(path.parent.name))
    return found


def main(programs):
    # Away from the terminal, whose Ctrl-C is for those who use the server.
    os.setsid()
    folder = tempfile.mkdtemp(prefix="qv-pg-")
    keeper = None
    try:
        keeper = Keeper(programs, folder)
        for line in sys.stdin:
            answer = getattr(keeper, json.loads(line))()
            sys.stdout.write(json.dumps(answer) + "\n")
            sys.stdout.flush()
    finally:
        if keeper is not None:
            keeper.stop()
            keeper.unmount_small_disk()
        shutil.rmtree(folder)


if __name__ == "__main__":
    main(sys.argv[1])

"""A tunnel with a busy session in it, of which something is killed."""

import contextlib
import glob
import os
import secrets
import signal
import time

from throwaway import END_S, Child, Clients, Failure, write, write_script

VICTIMS = ("gx-ssh", "carrier", "peer")
WAYS = ("port", "run", "proxy")  # ssh comes from outside; gx-ssh starts it; it starts gx-ssh


def started_with(marker):
    """The processes that have `marker` in their environment."""
    found = []
    for path in glob.glob("/proc/[0-9]*/environ"):
        with contextlib.suppress(OSError), open(path, "rb") as file:  # it may be gone, or another user's
            if marker.encode() in file.read():
                found.append(int(path.split("/")[2]))
    return found


class KillRound:
    def __init__(self, tools, server, way):
        self._way = way
        self._folder = server.folder
        target = f"127.0.0.1:{server.port}"
        # Each writes down the number of the process that it becomes. The carrier stays, and the far side is its child.
        self._script("peer", f'exec "{tools.gx_ssh_peer}" -q --allow {target}')
        self._script("carrier", f'"{self._folder}/peer"\nexit $?')
        run = f'--run "{self._folder}/session"' if way == "run" else ""
        stdio = "-W" if way == "proxy" else ""
        self._script("gx-ssh", f'exec "{tools.gx_ssh}" --target {target} {run} {stdio} -- "{self._folder}/carrier"')
        route = f"ProxyCommand {self._folder}/gx-ssh" if way == "proxy" else "HostName 127.0.0.1"
        config = Clients(server, route).config
        self._script("session", f"exec ssh -F {config} -p ${{GX_SSH_PORT:-22}} far 'cat >/dev/null' </dev/zero")

    def _script(self, name, text):
        write_script(f"{self._folder}/{name}", f'echo $$ >"{self._folder}/{name}.new"\n'
                     f'mv "{self._folder}/{name}.new" "{self._folder}/{name}.pid"\n{text}')
        with contextlib.suppress(FileNotFoundError):
            os.unlink(f"{self._folder}/{name}.pid")

    def _wait_for_pid(self, name):
        while not os.path.exists(f"{self._folder}/{name}.pid"):  # bounded by the alarm of the whole run
            time.sleep(0.001)
        with open(f"{self._folder}/{name}.pid", encoding="ascii") as file:
            return int(file.read())

    def kill(self, victim, delay):
        """Returns how many seconds after the kill everything was over."""
        marker = secrets.token_hex(16)
        env = {**os.environ, "GX_SSH_TEST": marker}
        first = "session" if self._way == "proxy" else "gx-ssh"
        with contextlib.ExitStack() as exits:
            tunnel = exits.enter_context(Child([f"{self._folder}/{first}"], env=env))
            pid = self._wait_for_pid(victim)
            time.sleep(delay / 2)
            port = self._way == "port" and tunnel.out.wait_for(r":(\d+)$", 0)
            if port:
                env["GX_SSH_PORT"] = port.group(1)
                exits.enter_context(Child([f"{self._folder}/session"], env=env))
            time.sleep(delay / 2)
            os.kill(pid, signal.SIGKILL)
            start = time.monotonic()
            status = tunnel.wait()
            while left := started_with(marker):
                if time.monotonic() > start + END_S:
                    raise Failure(f"after the kill of {victim} ({self._way}) these still run: {left}")
                time.sleep(0.01)
            took = time.monotonic() - start
        self._judge(victim, status, tunnel.err.text())
        return took

    def _judge(self, victim, status, words):
        if victim == "gx-ssh":
            expected = (255,) if self._way == "proxy" else (-signal.SIGKILL,)
        else:
            expected = (1, 4) if self._way == "port" else (255,)  # 4: the far side was not ready yet
            if 'carrier "carrier", ' not in words:
                raise Failure(f"after the kill of {victim} ({self._way}) gx-ssh only said: {words}")
        if status not in expected:
            raise Failure(f"after the kill of {victim} ({self._way}) the status was {status}: {words}")

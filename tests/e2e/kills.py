"""A tunnel with a busy session in it, of which something is killed."""

import contextlib
import os
import signal
import time

from throwaway import Child, Clients, Failure, nothing_left, wait_until_gone, write_script

VICTIMS = ("gx-ssh", "carrier", "peer")
WAYS = ("port", "run", "proxy")  # ssh comes from outside; gx-ssh starts it; it starts gx-ssh


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
        with nothing_left(self._folder), contextlib.ExitStack() as exits:
            tunnel = exits.enter_context(Child([f"{self._folder}/{'session' if self._way == 'proxy' else 'gx-ssh'}"]))
            pid = self._wait_for_pid(victim)
            time.sleep(delay / 2)
            port = self._way == "port" and tunnel.out.wait_for(r":(\d+)$", 0)
            if port:
                os.environ["GX_SSH_PORT"] = port.group(1)
                exits.enter_context(Child([f"{self._folder}/session"]))
            time.sleep(delay / 2)
            os.kill(pid, signal.SIGKILL)
            start = time.monotonic()
            status = tunnel.wait()
            wait_until_gone(os.environ["GX_SSH_TEST"])
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

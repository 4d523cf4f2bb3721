"""A tunnel as its user sees it: a program that tells its address, and bytes that go through and come back."""

import os
import signal
import sys
import threading

sys.path.insert(0, f"{os.path.dirname(os.path.realpath(__file__))}/../e2e")

from hosts import ADDRESS, Target, connect, expect_answer  # noqa: E402
from throwaway import Child, expect, read, run, run_to_the_end  # noqa: E402,F401

TARGET = "TARGET"  # in a command line: the address of an echo server


def check_tunnel(*command, by_signal=True):
    """Sends bytes through `command`, whose first line is the tunnel's address; then ends it, or its input."""
    target = Target()
    sent = os.urandom(1 << 20)
    with Child([word.replace(TARGET, target.address) for word in command]) as program:
        with connect(program.expect(program.out, ADDRESS).group(1)) as client:
            sender = threading.Thread(target=client.sendall, args=(sent,), daemon=True)
            sender.start()
            expect_answer(client, sent, "the tunnel")
            sender.join()
        if by_signal:
            program.signal(signal.SIGINT)
        else:
            program.stdin.close()
        program.expect_status(0)

"""Tests that the benchmarks work, with very short runs. The first argument is the build's folder."""

import contextlib
import json
import os
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.realpath(__file__))
sys.path[:0] = [HERE, f"{HERE}/../tests/e2e"]

import results  # noqa: E402
import tunnels  # noqa: E402

BUILD = sys.argv.pop(1)


class Changer:
    """A tunnel for one connection that drops or changes one byte on the way up or down."""

    def __init__(self, target_port, change, upwards):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._target_port, self._change, self._upwards = target_port, change, upwards
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._carry)
        self._thread.start()

    def _carry(self):
        with self._listener, self._listener.accept()[0] as client:
            with socket.create_connection(("127.0.0.1", self._target_port)) as target:
                back = threading.Thread(target=self._pump, args=(target, client, not self._upwards))
                back.start()
                self._pump(client, target, self._upwards)
                back.join()

    def _pump(self, source, sink, changes):
        passed = 0
        with contextlib.suppress(OSError):
            while block := bytearray(source.recv(65536)):
                if changes and passed <= 100_000 < passed + len(block):
                    self._change(block, 100_000 - passed)
                passed += len(block)
                sink.sendall(block)
            sink.shutdown(socket.SHUT_WR)

    def join(self):
        self._thread.join()


def flip(block, at):
    block[at] ^= 1


def drop(block, at):
    del block[at]


def drop_word(block, at):
    del block[at:at + 8]


class Load(unittest.TestCase):
    def test_byte_that_is_not_right_fails_the_run(self):
        for workload, upwards in (("up", True), ("down", False)):
            for change in (flip, drop, drop_word):
                target = tunnels.quiet_port()
                with self.subTest(workload=workload, change=change.__name__):
                    # The target listens before the first connection arrives.
                    changer = Changer(target, change, upwards)
                    done = subprocess.run(
                        [f"{BUILD}/bench/tunnel/tunnel", workload, "--to", f"127.0.0.1:{changer.port}",
                         "--listen-target", str(target), "--seconds", "0.2"],
                        capture_output=True, text=True, timeout=100, check=False)
                    changer.join()
                    self.assertEqual((done.returncode, done.stdout), (1, ""))
                    self.assertRegex(done.stderr, r"wrong bytes at offset \d+\n")


class Compare(unittest.TestCase):
    def test_all_modes_through_a_tunnel_and_without(self):
        wanted = ["up-1", "up-8", "down-1", "down-8", "trip", "trip-up", "trip-down", "connect-1", "connect-8",
                  "idle-100", "nothing"]
        through = ["none", "gx-ssh", "gx-ssh --local", "bare relay", "bare multiplexer"]
        with tempfile.TemporaryDirectory() as folder:
            done = subprocess.run(
                [f"{HERE}/compare", "--build", BUILD, "--tunnels", ",".join(through), "--rounds", "1",
                 "--seconds", "0.1", "--idle-seconds", "0.1", "--modes", ",".join(wanted),
                 "--json", f"{folder}/json", "--svg", f"{folder}/svg"],
                capture_output=True, text=True, timeout=300, check=False)
            self.assertEqual(done.returncode, 0, done.stderr)
            with open(f"{folder}/json", encoding="utf-8") as file:
                runs = json.load(file)["runs"]
            with open(f"{folder}/svg", encoding="utf-8") as file:
                self.assertIn("</svg>", file.read())
        self.assertEqual({(each["mode"], each["tunnel"]) for each in runs if isinstance(each["rounds"][0], dict)},
                         {(mode, name) for mode in wanted for name in through} - {("nothing", "none")})

    def test_keystrokes_over_a_line_in_parts(self):
        with tempfile.TemporaryDirectory() as folder:
            done = subprocess.run(
                [f"{HERE}/compare", "--build", BUILD, "--tunnels", "gx-ssh", "--rounds", "1", "--line", "1M",
                 "--modes", "keystroke,keystroke-down", "--seconds", "3", "--edges", "0,1.5,3",
                 "--json", f"{folder}/json"],
                capture_output=True, text=True, timeout=300, check=False)
            self.assertEqual(done.returncode, 0, done.stderr)
            with open(f"{folder}/json", encoding="utf-8") as file:
                alone, beside = (each["rounds"][0] for each in json.load(file)["runs"])
        self.assertGreaterEqual(alone["p50_ms (0 to 1.5 s)"], 40)
        self.assertGreater(beside["keystrokes (1.5 to 3 s)"], 0)
        self.assertTrue(0 < beside["bulk_mb_per_s (1.5 to 3 s)"] <= 2)


class Results(unittest.TestCase):
    def test_medians_ratios_and_goals(self):
        runs = {("up-1", "gx-ssh"): [{"mb_per_s": 240}, {"mb_per_s": 130}, {"mb_per_s": 100}],
                ("up-1", "ssh -L"): [{"mb_per_s": 100}, {"mb_per_s": 120}, {"mb_per_s": 90}],
                ("up-1", "nginx"): [{"mb_per_s": 900}, "wrong bytes at offset 3", {"mb_per_s": 900}]}
        self.assertIn("| up-1 mb_per_s | 130 (100–240) | 100 (90.0–120) | failed |",
                      results.table(runs, ["gx-ssh", "ssh -L", "nginx"]))
        # One failed run makes the whole figure failed.
        self.assertIn("| up-1 mb_per_s | 1.30 | – |", results.ratios(runs, ["gx-ssh", "ssh -L", "nginx"]))
        self.assertIn("| up-1 mb_per_s, / ssh -L | ≥ 1.5 | 1.30 | NOT reached |", results.goals(runs))
        self.assertIn("| up-1 cpu_s_per_gb, / ssh -L | ≤ 0.5 | – | not measured |", results.goals(runs))
        self.assertEqual(results.failures(runs), ["up-1, nginx: wrong bytes at offset 3"])
        old = f"before\n{results.BEGIN}old\n{results.END}after\n"
        new = results.replace_section(old, "today", runs, ["gx-ssh"])
        self.assertRegex(new, r"(?s)^before\n.*\ntoday\n\n\|.*\| up-1 mb_per_s \| 130 .*\nafter\n$")
        self.assertEqual(results.replace_section(new, "today", runs, ["gx-ssh"]), new)
        runs = {("idle-0", "gx-ssh"): [{"p50_us": 50}], ("idle-900", "gx-ssh"): [{"p50_us": 100}]}
        self.assertIn("| idle-900 p50_us, / gx-ssh idle-0 | ≤ 2.5 | 2.00 | reached |", results.goals(runs))


if __name__ == "__main__":
    unittest.main()

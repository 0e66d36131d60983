"""The real server on the simulated instrument, for the client tests.

VELATOOL and VELASIM name the built binaries (CTest passes them).
"""

import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
CLIENT_DIR = os.path.dirname(HERE)
VELACTL = os.path.join(CLIENT_DIR, "velactl")
sys.path.insert(0, CLIENT_DIR)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def binaries():
    tool, sim = os.environ.get("VELATOOL"), os.environ.get("VELASIM")
    if not (tool and sim and os.access(tool, os.X_OK) and os.access(sim, os.X_OK)):
        raise unittest.SkipTest("VELATOOL and VELASIM must name the built velatool and velasim")
    return tool, sim


class SimServer:
    """velatool -r on a free port under a new simulated board."""

    def __init__(self, scenario="", clock="warp"):
        self.tool, self.sim = binaries()
        self.tmp = tempfile.mkdtemp(prefix="velaclient-")
        self.board = os.path.join(self.tmp, "board")
        os.mkdir(os.path.join(self.tmp, "config"))
        scenario_file = os.path.join(self.tmp, "scenario.ini")
        with open(scenario_file, "w") as f:
            # The client is under test here: the firmware's behavioural model
            # keeps its scans and calibrations quick under the sanitizer (the
            # engine comparison holds the simulated cores to the same samples).
            f.write("[pru]\nengine = model\n" + scenario)
        self.port = free_port()
        env = dict(os.environ, ORVIK_CONFIGPATH=os.path.join(self.tmp, "config"))
        self.log = open(os.path.join(self.tmp, "server.log"), "w")
        self.proc = subprocess.Popen(
            [self.sim, "run", "--dir", self.board, "--scenario", scenario_file, "--clock", clock, "--",
             self.tool, "-r", str(self.port)], stdout=self.log, stderr=subprocess.STDOUT, env=env)
        deadline = time.monotonic() + 30
        while True:
            if self.proc.poll() is not None:
                self.stop()
                raise RuntimeError(f"the server ended at start-up (status {self.proc.returncode})")
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                break
            except OSError:
                if time.monotonic() > deadline:
                    self.stop()
                    raise RuntimeError("the server did not listen within 30 s")
                time.sleep(0.02)

    def ctl(self, *command):
        """velasim ctl COMMAND...: its standard output; raises on failure."""
        result = subprocess.run([self.sim, "ctl", "--dir", self.board, *command], capture_output=True,
                                text=True, timeout=30)
        if result.returncode != 0:
            raise RuntimeError(f"velasim ctl {' '.join(command)}: {result.stderr.strip()}")
        return result.stdout

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.log.close()
        shutil.rmtree(self.tmp, ignore_errors=True)

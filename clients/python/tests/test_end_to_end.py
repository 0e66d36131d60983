"""Scans of the simulated roughness standard through the real server by
velactl (on the library), against the values its sine must give."""

import math
import os
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as ET

import numpy as np

from simserver import VELACTL, SimServer
from velaclient import evaluate

AMPLITUDE_UM = 3.0
PERIOD_MM = 0.08
SCENARIO = f"""
[workpiece]
amplitude_um = {AMPLITUDE_UM}
period_mm = {PERIOD_MM}
"""
RA = 2 * AMPLITUDE_UM / math.pi
RQ = AMPLITUDE_UM / math.sqrt(2)
# The standard's fine texture (a tenth of its amplitude) and the channel's
# noise move the measured values by about 0.2 % at most.
TOLERANCE = 0.01


def client_env(server, **env):
    return dict(os.environ, VELA_PORT=str(server.port), VELA_HOST="127.0.0.1", PYTHONDONTWRITEBYTECODE="1",
                TZ="UTC") | env


def velactl(server, *args, **env):
    return subprocess.run([VELACTL, *args], capture_output=True, text=True, env=client_env(server, **env), timeout=120)


def parameters(stdout):
    """The parameters velactl printed: {"Ra": 1.27, ...}."""
    return {w[0]: float(w[1]) for w in map(str.split, stdout.splitlines()) if len(w) >= 2 and w[0][:1] == "R"}


def read_csv(path):
    """A profile CSV's header block as a dict, and its numbers."""
    with open(path) as f:
        lines = f.read().splitlines()
    header = dict(line[2:].split(": ", 1) for line in lines if line.startswith("# "))
    rows = [line for line in lines[1:] if not line.startswith("#")][1:]
    return header, np.array([[float(v) for v in row.split(",")] for row in rows]).reshape(-1, 3)


class EndToEndTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = SimServer(SCENARIO)
        cls.tmp = tempfile.TemporaryDirectory()

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()
        cls.tmp.cleanup()

    def velactl(self, *args, **env):
        return velactl(self.server, *args, **env)

    def path(self, name):
        return os.path.join(self.tmp.name, name)

    def test_velactl_scan_writes_csv_plot_and_report(self):
        csv_path, svg_path, pdf_path = self.path("p.csv"), self.path("p.svg"), self.path("p.pdf")
        result = self.velactl("scan", "--length", "4.8", "-o", csv_path, "--plot", svg_path, "--report", pdf_path,
                              "--progress")
        self.assertEqual(result.returncode, 0, result.stderr)
        printed = parameters(result.stdout)
        self.assertAlmostEqual(printed["Ra"], RA, delta=TOLERANCE * RA)
        self.assertAlmostEqual(printed["Rq"], RQ, delta=TOLERANCE * RQ)
        self.assertIn("parameters: mean over 5 sampling lengths (ISO 4287/4288)", result.stdout)
        self.assertIn("100%", result.stderr)
        header, data = read_csv(csv_path)
        self.assertEqual(data.shape, (9600, 3))
        np.testing.assert_allclose(data[[0, -1], 0], [0.0, 4.7995])
        self.assertEqual(header["partial"], "no")
        self.assertIn("ISO 4287", header["convention"])
        self.assertEqual((header["speed"], header["length"], header["lambda_s"]), ("0.5 mm/s", "4.8 mm", "not applied"))
        self.assertTrue({"date", "instrument", "software", "w_offset", "w_scale", "x_corr", "cut-off"} <= set(header))
        self.assertAlmostEqual(float(header["Ra (um)"]), printed["Ra"], delta=1e-3)
        ev = evaluate(data[:, 0], data[:, 1])
        self.assertAlmostEqual(ev.parameters["Ra"], printed["Ra"], delta=2e-3)
        # The picture: an SVG with the two diagrams, the sampling lengths marked.
        root = ET.parse(svg_path).getroot()
        ids = {el.get("id") for el in root.iter() if el.get("id")}
        self.assertTrue({"axes_1", "axes_2", "line2d_1"} <= ids, sorted(ids)[:20])
        self.assertEqual(root.tag, "{http://www.w3.org/2000/svg}svg")
        with open(pdf_path, "rb") as f:
            pdf = f.read()
        self.assertTrue(pdf.startswith(b"%PDF"))
        self.assertEqual(pdf.count(b"/Type /Page\n") + pdf.count(b"/Type /Page "), 1)

    def test_a_scan_a_few_samples_short_gives_five_sampling_lengths(self):
        # The instrument rounds the sample count down: a few samples short at
        # 0.4 mm/s (0.5 mm/s is the other scans' speed). The short cut-off
        # keeps the scan short.
        self.addCleanup(self.velactl, "set", "speed=0.5")
        result = self.velactl("scan", "--length", "1.5", "--cutoff", "0.25", "--speed", "0.4",
                              "--convention", "iso21920")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("evaluation length 1.25 mm (5 x 0.25 mm)", result.stdout)
        self.assertIn("over the evaluation length (ISO 21920-2)", result.stdout)
        self.assertAlmostEqual(parameters(result.stdout)["Ra"], RA, delta=TOLERANCE * RA)

    def test_what_arrived_is_kept_when_a_scan_ends_early(self):
        # Samples above the overflow limit end the scan with an error line.
        self.addCleanup(self.velactl, "set", "w_ov_max=65535")
        self.assertEqual(self.velactl("set", "w_ov_max=40000").returncode, 0)
        csv_path = self.path("short.csv")
        result = self.velactl("scan", "--length", "4.8", "-o", csv_path)
        self.assertEqual(result.returncode, 1)
        self.assertIn("OF PLUS", result.stderr)
        header, data = read_csv(csv_path)
        self.assertTrue(header["partial"].startswith("yes, error: OF PLUS"), header["partial"])
        self.assertLess(len(data), 9600)

    def test_a_scan_that_does_not_move_is_not_a_measurement(self):
        self.server.ctl("set", "drive.stuck", "1")
        self.addCleanup(self.server.ctl, "set", "drive.stuck", "0")
        # Short scans: the refusal does not depend on the length or time.
        for args, status in ((("--length", "1.6", "--no-home"), 1), (("--time", "1"), 1),
                             (("--time", "1", "--force"), 0)):
            with self.subTest(args=args):
                result = self.velactl("scan", *args)
                self.assertEqual(result.returncode, status, result.stderr)
                self.assertIn("not a surface", result.stderr)

    def test_velactl_other_commands(self):
        result = self.velactl("get", "batt_state", "speed", "machine")
        self.assertEqual((result.returncode, result.stdout.split()),
                         (0, ["batt_state", "4", "speed", "0.5", "machine", "VELAL"]))
        result = self.velactl("watch", "-i", "100", "-n", "2", "batt_state", "speed")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual([line.split()[1:] for line in result.stdout.splitlines() if "batt_state=" in line],
                         [["batt_state=4", "speed=0.5"]] * 2)
        # Events only: the battery state and level the instrument sends on connect.
        result = self.velactl("watch", "-n", "2")
        self.assertEqual((result.returncode, [line.split(None, 1)[1] for line in result.stdout.splitlines()]),
                         (0, ["event: on battery", "event: battery good"]), result.stderr)

    def test_velactl_errors_are_one_line(self):
        unwritable = os.path.join(self.tmp.name, "no", "such", "p.csv")
        blight = self.velactl("get", "blight").stdout
        for args, env, status, text in (
                (("set", "blight=500"), {}, 1, "set blight=500: value out of range"),
                (("set", "blight=abc"), {}, 2, "blight: 'abc' is not a number"),
                (("set", "nosuch=1"), {}, 1, "set nosuch: unknown channel"),
                (("pstate", "bogus"), {}, 2, "unknown power state 'bogus'"),
                (("pstate", "7"), {}, 2, "unknown power state '7'"),
                (("get", "batt"), {"VELA_PORT": "abc"}, 2, "VELA_PORT"),
                (("--port", "70000", "get", "batt"), {}, 2, "not a TCP port"),
                (("--port", "1", "get", "batt"), {}, 3, "cannot connect"),
                (("scan", "--length", "4.8", "--cutoff", "2.5"), {}, 2, "needs a length of 15 mm"),
                (("scan", "--length", "4.8", "--cutoff", "-1"), {}, 2, "must be positive"),
                (("scan", "--length", "1", "-o", unwritable), {}, 2, "cannot write"),
                (("scan", "--length", "1", "--plot", "p.txt"), {}, 2, ".svg, .png or .pdf")):
            with self.subTest(args=args):
                result = self.velactl(*args, **env)
                self.assertEqual(result.returncode, status, result.stderr)
                self.assertEqual(len(result.stderr.strip().splitlines()), 1, result.stderr)
                self.assertIn(text, result.stderr)
        self.assertEqual(self.velactl("get", "blight").stdout, blight)


class PowerStateTest(unittest.TestCase):
    """Switching off and suspending are successes, told as such."""

    def setUp(self):
        self.server = SimServer()
        self.addCleanup(self.server.stop)

    def test_suspend_then_off(self):
        # The suspend's request is never answered: a short timeout ends it.
        result = velactl(self.server, "--timeout", "1", "pstate", "suspend")
        self.assertEqual((result.returncode, result.stdout.strip()),
                         (0, "the instrument is suspended: press START on the instrument to wake it"), result.stderr)
        result = velactl(self.server, "--timeout", "1", "pstate")
        self.assertEqual((result.returncode, result.stdout.strip()),
                         (0, "suspended (2): press START on the instrument to wake it"), result.stderr)
        self.server.ctl("button", "press")
        self.server.ctl("button", "release")
        result = velactl(self.server, "pstate", "off")
        self.assertEqual((result.returncode, result.stdout.strip()), (0, "the instrument switches off"), result.stderr)
        self.assertEqual(self.server.proc.wait(30), 0)

    def test_calibration(self):
        self.server.ctl("set", "workpiece.profile", "0:50 20:50")
        # --yes takes both points where the probe stands, each from a live
        # reading, even right after entering meas.
        result = velactl(self.server, "calibrate", "--yes", "50", "-50")
        self.assertNotIn("set xref1 first", result.stderr)
        # The operator puts the probe on each reference and presses Enter;
        # here the board's workpiece changes height instead.
        proc = subprocess.Popen([VELACTL, "calibrate", "50", "-50"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, env=client_env(self.server))
        for profile in ("0:50 20:50", "0:-50 20:-50"):
            self.assertIn("press Enter", proc.stderr.readline())
            self.server.ctl("set", "workpiece.profile", profile)
            proc.stdin.write("\n")
            proc.stdin.flush()
        out, err = proc.communicate(timeout=60)
        self.assertEqual(proc.returncode, 0, err)
        # The board's probe: 39830 at height 0, 8.18591e-6 mm per digit.
        self.assertIn("calibrated: w_offset 398", out)
        self.assertIn("w_scale 0.00000818", out)


if __name__ == "__main__":
    unittest.main()

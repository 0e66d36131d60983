"""Scans of the simulated roughness standard through the real server, by
the library and by velactl, against the values its sine must give."""

import math
import os
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as ET

import numpy as np

from simserver import VELACTL, SimServer
from velaclient import Instrument, evaluate

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


class EndToEndTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = SimServer(SCENARIO)
        cls.tmp = tempfile.TemporaryDirectory()

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()
        cls.tmp.cleanup()

    def velactl(self, *args):
        env = dict(os.environ, VELA_PORT=str(self.server.port), VELA_HOST="127.0.0.1",
                   PYTHONDONTWRITEBYTECODE="1", TZ="UTC")
        return subprocess.run([VELACTL, *args], capture_output=True, text=True, env=env, timeout=120)

    def test_library_scan_gives_the_standards_roughness(self):
        with Instrument("127.0.0.1", self.server.port) as inst:
            inst.ensure_meas()
            inst.move_home()
            scan = inst.scan(length_mm=4.8)
            sizes = [len(chunk) for chunk in scan]
            profile = scan.wait()
        self.assertEqual(len(profile), 9600)
        self.assertGreater(len(sizes), 1)
        self.assertTrue(all(n % 2 == 0 for n in sizes))
        ev = evaluate(profile.positions_mm, profile.heights_um)
        self.assertEqual((ev.cutoff_mm, ev.sampling_lengths), (0.8, 5))
        self.assertAlmostEqual(ev.parameters["Ra"], RA, delta=TOLERANCE * RA)
        self.assertAlmostEqual(ev.parameters["Rq"], RQ, delta=TOLERANCE * RQ)
        # The standard's period, from the roughness profile's zero crossings.
        r = ev.roughness_um[ev.evaluated]
        rising = np.flatnonzero((r[:-1] < 0) & (r[1:] >= 0))
        period = np.median(np.diff(rising)) * 0.0005
        self.assertAlmostEqual(period, PERIOD_MM, delta=0.02 * PERIOD_MM)
        # A PNG picture of it.
        from matplotlib.image import imread
        from velaclient.plot import plot_evaluation
        png_path = os.path.join(self.tmp.name, "lib.png")
        plot_evaluation(ev, png_path)
        image = imread(png_path)
        self.assertEqual(image.shape[:2], (600, 1000))
        self.assertGreater(len(np.unique(image.reshape(-1, image.shape[2]), axis=0)), 10)

    def test_velactl_scan_writes_csv_and_plot(self):
        csv_path = os.path.join(self.tmp.name, "p.csv")
        svg_path = os.path.join(self.tmp.name, "p.svg")
        result = self.velactl("scan", "--length", "4.8", "-o", csv_path, "--plot", svg_path, "--progress")
        self.assertEqual(result.returncode, 0, result.stderr)
        printed = dict(line.split()[:2] for line in result.stdout.splitlines() if line[:2] in ("Ra", "Rq", "Rz"))
        self.assertAlmostEqual(float(printed["Ra"]), RA, delta=TOLERANCE * RA)
        self.assertAlmostEqual(float(printed["Rq"]), RQ, delta=TOLERANCE * RQ)
        self.assertIn("100%", result.stderr)
        data = np.loadtxt(csv_path, delimiter=",", skiprows=1)
        self.assertEqual(data.shape, (9600, 3))
        np.testing.assert_allclose(data[[0, -1], 0], [0.0, 4.7995])
        ev = evaluate(data[:, 0], data[:, 1])
        self.assertAlmostEqual(ev.parameters["Ra"], float(printed["Ra"]), delta=2e-3)
        # The picture: an SVG with the two diagrams and the lines in them.
        root = ET.parse(svg_path).getroot()
        ids = {el.get("id") for el in root.iter() if el.get("id")}
        self.assertTrue({"axes_1", "axes_2", "line2d_1"} <= ids, sorted(ids)[:20])
        self.assertEqual(root.tag, "{http://www.w3.org/2000/svg}svg")

    def test_velactl_other_commands(self):
        result = self.velactl("get", "batt_state", "speed", "machine")
        self.assertEqual((result.returncode, result.stdout.split()),
                         (0, ["batt_state", "4", "speed", "0.5", "machine", "VELAL"]))
        result = self.velactl("watch", "-i", "100", "-n", "2", "batt_state", "speed")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual([line.split()[1:] for line in result.stdout.splitlines() if "batt_state=" in line],
                         [["batt_state=4", "speed=0.5"]] * 2)

    def test_velactl_errors_are_one_line(self):
        for args, status, text in ((("set", "blight=500"), 1, "set blight=500: value out of range"),
                                   (("--port", "1", "get", "batt"), 3, "cannot connect"),
                                   (("scan", "--length", "1", "--plot", "p.txt"), 2, ".svg, .png or .pdf")):
            with self.subTest(args=args):
                result = self.velactl(*args)
                self.assertEqual(result.returncode, status)
                self.assertEqual(len(result.stderr.strip().splitlines()), 1, result.stderr)
                self.assertIn(text, result.stderr)


if __name__ == "__main__":
    unittest.main()

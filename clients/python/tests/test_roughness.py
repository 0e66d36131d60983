"""The evaluation against values known from first principles."""

import math
import unittest

import numpy as np

import simserver  # noqa: F401  (puts the library on the path)
from velaclient.roughness import ISO4287, ISO21920, cutoff_for_ra, evaluate, gaussian_mean_line

DX = 0.0005  # mm, the instrument's sample pitch


def positions(length_mm):
    return np.arange(int(round(length_mm / DX))) * DX


class SineTest(unittest.TestCase):
    def test_sine_well_below_the_cutoff_gives_the_textbook_values(self):
        # A tilted, offset sine: form removal and filter must leave the sine alone.
        amplitude, wavelength = 2.5, 0.08
        x = positions(4.8)
        z = amplitude * np.sin(2 * np.pi * x / wavelength + 0.3) + 1.7 * x - 12.0
        for cutoff in (None, 0.8):
            with self.subTest(cutoff=cutoff):
                ev = evaluate(x, z, cutoff)
                p = ev.parameters
                self.assertEqual(ev.cutoff_mm, 0.8)
                self.assertEqual(ev.sampling_lengths, 5)
                self.assertAlmostEqual(ev.evaluation_length_mm, 4.0)
                self.assertAlmostEqual(p["Ra"], 2 * amplitude / math.pi, delta=1e-3 * amplitude)
                self.assertAlmostEqual(p["Rq"], amplitude / math.sqrt(2), delta=1e-3 * amplitude)
                for name, value in (("Rp", amplitude), ("Rv", amplitude), ("Rz", 2 * amplitude),
                                    ("Rt", 2 * amplitude)):
                    self.assertAlmostEqual(p[name], value, delta=2e-3 * amplitude, msg=name)
                self.assertAlmostEqual(p["Rsk"], 0.0, delta=1e-3)
                self.assertAlmostEqual(p["Rku"], 1.5, delta=1e-3)
                self.assertEqual(ev.notes, [])

    def test_filter_transmits_half_at_the_cutoff(self):
        for cutoff in (0.25, 0.8, 2.5):
            dx = cutoff / 400
            x = np.arange(12 * 400) * dx
            inner = slice(len(x) // 4, 3 * len(x) // 4)
            for wavelength, transmission in ((cutoff, 0.5), (cutoff / 5, 0.0), (cutoff * 10, 0.993)):
                with self.subTest(cutoff=cutoff, wavelength=wavelength):
                    mean = gaussian_mean_line(np.sin(2 * np.pi * x / wavelength), dx, cutoff)
                    self.assertAlmostEqual(np.max(np.abs(mean[inner])), transmission, delta=2e-3)


class ConventionTest(unittest.TestCase):
    def test_both_conventions_on_a_skewed_random_profile(self):
        # Sparse deep pits on a fine random texture: strongly skewed, with a
        # different shape in each sampling length.
        rng = np.random.default_rng(7)
        x = positions(4.8)
        z = gaussian_mean_line(rng.normal(0, 0.4, len(x)), DX, 0.01)
        pits = rng.random(len(x)) < 0.002
        z = z - gaussian_mean_line(pits * rng.exponential(80.0, len(x)), DX, 0.02)
        # Independently: the mean line from the library, the parameters here.
        ev = {c: evaluate(x, z, 0.8, convention=c) for c in (ISO4287, ISO21920)}
        r = ev[ISO4287].roughness_um[800:800 + 5 * 1600]  # after the run-in of half a cut-off
        parts = r.reshape(5, 1600)

        def moments(a):
            rq = np.sqrt(np.mean(a ** 2))
            return {"Ra": np.mean(np.abs(a)), "Rq": rq, "Rsk": np.mean(a ** 3) / rq ** 3,
                    "Rku": np.mean(a ** 4) / rq ** 4}

        per_length = [moments(a) for a in parts]
        expected = {ISO4287: {k: np.mean([m[k] for m in per_length]) for k in per_length[0]},
                    ISO21920: moments(r)}
        heights = {"Rp": np.mean(parts.max(axis=1)), "Rv": np.mean(-parts.min(axis=1)),
                   "Rt": r.max() - r.min()}
        heights["Rz"] = heights["Rp"] + heights["Rv"]
        for convention, values in expected.items():
            for name, value in dict(values, **heights).items():
                with self.subTest(convention=convention, parameter=name):
                    self.assertAlmostEqual(ev[convention].parameters[name], value, delta=1e-9 * abs(value) + 1e-12)
        # The conventions really differ on such a surface.
        self.assertGreater(abs(ev[ISO4287].parameters["Rku"] - ev[ISO21920].parameters["Rku"]), 0.05)
        with self.assertRaises(ValueError):
            evaluate(x, z, 0.8, convention="ISO 1302")

    def test_a_few_samples_short_still_gives_five_sampling_lengths(self):
        # 4.8 mm at 0.4 mm/s: the instrument delivers 9598 of 9600 samples.
        x = positions(4.8)[:-2]
        ev = evaluate(x, np.sin(2 * np.pi * x / 0.1))
        self.assertEqual((ev.cutoff_mm, ev.sampling_lengths, ev.notes), (0.8, 5, []))
        self.assertEqual(len(ev.boundaries_mm), 6)
        self.assertAlmostEqual(ev.boundaries_mm[-1] - ev.boundaries_mm[0], 4.0)

    def test_lambda_s_removes_only_the_short_waves(self):
        x = positions(4.8)
        fine = 0.2 * np.sin(2 * np.pi * x / 0.0015)  # 1.5 um, below lambda_s 2.5 um
        z = np.sin(2 * np.pi * x / 0.1) + fine
        plain, filtered = evaluate(x, z, 0.8), evaluate(x, z, 0.8, lambda_s=True)
        self.assertEqual((plain.lambda_s_mm, filtered.lambda_s_mm), (None, 0.0025))
        self.assertAlmostEqual(filtered.parameters["Ra"], 2 / math.pi, delta=5e-3)
        self.assertGreater(plain.parameters["Rz"] - filtered.parameters["Rz"], 0.2)


class CutoffTest(unittest.TestCase):
    def test_iso4288_table(self):
        for ra, cutoff in ((0.01, 0.08), (0.02, 0.08), (0.021, 0.25), (0.1, 0.25), (0.11, 0.8), (2.0, 0.8),
                           (2.1, 2.5), (10.0, 2.5), (11.0, 8.0), (500.0, 8.0)):
            self.assertEqual(cutoff_for_ra(ra), cutoff, ra)

    def test_cutoff_follows_the_measured_ra(self):
        # Ra 0.05 um calls for 0.25 mm, found from the starting 0.8 mm.
        x = positions(1.5)
        ev = evaluate(x, 0.05 * math.pi / 2 * np.sin(2 * np.pi * x / 0.025))
        self.assertEqual((ev.cutoff_mm, ev.sampling_lengths, ev.cutoff_rule), (0.25, 5, "ISO 4288 from Ra"))
        self.assertAlmostEqual(ev.parameters["Ra"], 0.05, delta=1e-4)
        self.assertEqual(ev.evaluated, slice(250, 250 + 5 * 500))

    def test_short_profiles(self):
        x = positions(4.8)
        # Ra 6 um calls for 2.5 mm, which needs 15 mm: kept at 0.8 mm, with a note.
        ev = evaluate(x, 6 * math.pi / 2 * np.sin(2 * np.pi * x / 0.1))
        self.assertEqual(ev.cutoff_mm, 0.8)
        self.assertIn("too short", " ".join(ev.notes))
        # A given cut-off: as many sampling lengths as fit, at least one.
        ev = evaluate(x, np.sin(2 * np.pi * x / 0.1), cutoff_mm=2.0)
        self.assertEqual(ev.sampling_lengths, 1)
        for cutoff, message in ((2.5, "too short"), (-1, "positive")):
            with self.assertRaisesRegex(ValueError, message):
                evaluate(x, np.sin(2 * np.pi * x / 0.1), cutoff_mm=cutoff)


if __name__ == "__main__":
    unittest.main()

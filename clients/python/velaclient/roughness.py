"""Profile evaluation of a roughness tester.

Form removal by a least-squares line, the Gaussian profile filter (ISO
16610-21) for the mean line, and the roughness parameters of ISO 4287 over
the evaluation length, with the cut-off chosen by the rules of ISO 4288.

Heights in micrometres, positions in millimetres. Parameters defined over a
sampling length (Ra, Rq, Rsk, Rku, Rp, Rv, Rz) are the mean of their values
over the sampling lengths of the evaluation length, Rt is taken over the
whole evaluation length (ISO 4288). The filter's run-in and run-out, half a
cut-off at each end, are left out of the evaluation.
"""

import math
from dataclasses import dataclass, field

import numpy as np
from numpy.polynomial import Polynomial
from scipy.ndimage import gaussian_filter1d

# ISO 16610-21: the weighting function exp(-pi (x / (alpha lc))^2) / (alpha lc)
# transmits half of a wavelength lc.
ALPHA = math.sqrt(math.log(2) / math.pi)
# The filter's weights reach this many cut-offs either side; beyond, they are
# below 1e-7 of the total.
KERNEL_HALF_WIDTH = 1.0

# ISO 4288, non-periodic profiles: Ra up to (um) -> cut-off lc (mm).
CUTOFFS = ((0.02, 0.08), (0.1, 0.25), (2.0, 0.8), (10.0, 2.5), (math.inf, 8.0))
MIN_SAMPLES_PER_CUTOFF = 10
# Below this Rq (a picometre: rounding noise) a profile's shape, Rsk and Rku, is undefined.
FLAT_UM = 1e-6
SAMPLING_LENGTHS = 5  # an evaluation length is five sampling lengths
PARAMETERS = ("Ra", "Rq", "Rz", "Rt", "Rp", "Rv", "Rsk", "Rku")


def cutoff_for_ra(ra_um):
    """The cut-off (mm) ISO 4288 prescribes for a measured Ra."""
    for limit, cutoff in CUTOFFS:
        if ra_um <= limit:
            return cutoff
    return CUTOFFS[-1][1]


def remove_form(x_mm, z_um):
    """The profile less its least-squares line, and that line."""
    line = Polynomial.fit(x_mm, z_um, 1)(x_mm)
    return z_um - line, line


def gaussian_mean_line(z_um, dx_mm, cutoff_mm):
    """Mean line of a profile sampled every dx_mm: the Gaussian filter of
    cut-off cutoff_mm. Near the ends the profile is continued with its end
    values; those parts belong to the run-in and run-out."""
    sigma = ALPHA * cutoff_mm / math.sqrt(2 * math.pi) / dx_mm
    return gaussian_filter1d(np.asarray(z_um, dtype=np.float64), sigma, mode="nearest",
                             truncate=KERNEL_HALF_WIDTH * cutoff_mm / dx_mm / sigma)


def _segment_parameters(r):
    rq = math.sqrt(np.mean(r ** 2))
    rp, rv = float(np.max(r)), float(-np.min(r))
    with np.errstate(invalid="ignore", divide="ignore"):
        rsk = np.mean(r ** 3) / rq ** 3 if rq > FLAT_UM else math.nan
        rku = np.mean(r ** 4) / rq ** 4 if rq > FLAT_UM else math.nan
    return {"Ra": float(np.mean(np.abs(r))), "Rq": rq, "Rp": rp, "Rv": rv, "Rz": rp + rv,
            "Rsk": float(rsk), "Rku": float(rku)}


@dataclass
class Evaluation:
    """The result of :func:`evaluate`."""

    cutoff_mm: float
    cutoff_rule: str  # "given" or "ISO 4288 from Ra"
    sampling_lengths: int
    x_mm: np.ndarray
    primary_um: np.ndarray  # the profile less its form
    form_um: np.ndarray  # the least-squares line that was removed
    mean_line_um: np.ndarray
    roughness_um: np.ndarray  # primary less mean line
    evaluated: slice  # the evaluation length's samples
    parameters: dict
    notes: list = field(default_factory=list)

    @property
    def evaluation_length_mm(self):
        return self.sampling_lengths * self.cutoff_mm


def _evaluate_with(x, primary, dx, cutoff):
    """(mean line, roughness, evaluated slice, sampling lengths, parameters)."""
    per_segment = int(round(cutoff / dx))
    if per_segment < MIN_SAMPLES_PER_CUTOFF:
        raise ValueError(f"samples {dx * 1000:g} um apart are too coarse for the cut-off {cutoff:g} mm")
    run_in = int(round(cutoff / 2 / dx))
    segments = min(SAMPLING_LENGTHS, (len(x) - 2 * run_in) // per_segment)
    if segments < 1:
        raise ValueError(f"a profile of {len(x) * dx:.3f} mm is too short for the cut-off "
                         f"{cutoff:g} mm (it needs {2 * cutoff:g} mm)")
    mean = gaussian_mean_line(primary, dx, cutoff)
    r = primary - mean
    evaluated = slice(run_in, run_in + segments * per_segment)
    values = [_segment_parameters(r[run_in + i * per_segment:run_in + (i + 1) * per_segment])
              for i in range(segments)]
    params = {k: float(np.mean([v[k] for v in values])) for k in values[0]}
    part = r[evaluated]
    params["Rt"] = float(np.max(part) - np.min(part))
    return mean, r, evaluated, segments, {k: params[k] for k in PARAMETERS}


def evaluate(x_mm, z_um, cutoff_mm=None):
    """Evaluates a profile (positions equally spaced). Without cutoff_mm the
    cut-off follows from the measured Ra by ISO 4288: starting from 0.8 mm,
    until the Ra measured with a cut-off is in that cut-off's range. A
    profile too short for the prescribed cut-off is evaluated with the
    longest that fits, and a note says so."""
    x = np.asarray(x_mm, dtype=np.float64)
    z = np.asarray(z_um, dtype=np.float64)
    if len(x) < 3 or len(x) != len(z):
        raise ValueError("a profile needs at least three samples with a position each")
    dx = (x[-1] - x[0]) / (len(x) - 1)
    primary, form = remove_form(x, z)
    notes = []
    if cutoff_mm is not None:
        cutoff, rule = float(cutoff_mm), "given"
        result = _evaluate_with(x, primary, dx, cutoff)
    else:
        rule = "ISO 4288 from Ra"
        fits = [c for _, c in CUTOFFS if round(c / dx) >= MIN_SAMPLES_PER_CUTOFF and
                (len(x) - 2 * round(c / 2 / dx)) // round(c / dx) >= 1]
        if not fits:
            raise ValueError(f"a profile of {len(x) * dx:.3f} mm is too short for any cut-off")
        cutoff = 0.8 if 0.8 in fits else fits[-1]
        tried = []
        while True:
            result = _evaluate_with(x, primary, dx, cutoff)
            tried.append(cutoff)
            wanted = cutoff_for_ra(result[4]["Ra"])
            if wanted == cutoff:
                break
            if wanted not in fits:
                notes.append(f"Ra {result[4]['Ra']:.3g} um calls for the cut-off {wanted:g} mm; "
                             f"the profile is too short for it")
                break
            if wanted in tried:  # Ra on the border between two ranges
                cutoff = max(cutoff, wanted)
                result = _evaluate_with(x, primary, dx, cutoff)
                break
            cutoff = wanted
    mean, r, evaluated, segments, params = result
    if segments < SAMPLING_LENGTHS:
        notes.append(f"{segments} sampling length(s) instead of {SAMPLING_LENGTHS}: "
                     f"the profile is shorter than {(SAMPLING_LENGTHS + 1) * cutoff:g} mm")
    return Evaluation(cutoff, rule, segments, x, primary, form, mean, r, evaluated, params, notes)

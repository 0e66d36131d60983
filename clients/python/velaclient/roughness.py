"""Profile evaluation of a roughness tester.

Form removal by a least-squares line, optionally the short-wave filter λs
(ISO 3274), the Gaussian profile filter (ISO 16610-21) for the mean line,
and the roughness parameters over the evaluation length, with the cut-off
chosen by the rules of ISO 4288.

Heights in micrometres, positions in millimetres. Two conventions:

- "ISO 4287" (the default): parameters defined over a sampling length (Ra,
  Rq, Rsk, Rku, Rp, Rv, Rz) are the mean of their values over the sampling
  lengths of the evaluation length; Rt is taken over the whole evaluation
  length (ISO 4288).
- "ISO 21920-2": Ra, Rq, Rsk and Rku over the whole evaluation length; the
  height parameters Rp, Rv and Rz are still the mean over the sections (the
  former sampling lengths), Rt over the evaluation length.

On skewed surfaces the two differ, most in Rsk and Rku. The filter's run-in
and run-out, half a cut-off at each end, are left out of the evaluation.
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
ISO4287 = "ISO 4287"
ISO21920 = "ISO 21920-2"
CONVENTIONS = (ISO4287, ISO21920)
# The instrument rounds a scan's sample count down, so a profile may end a
# few samples short of its length; up to this share of a sampling length is
# taken from the run-out rather than losing a whole sampling length.
SHORTFALL = 0.01
# ISO 3274: the short-wave cut-off λs (mm) that goes with each cut-off λc.
LAMBDA_S = {0.08: 0.0025, 0.25: 0.0025, 0.8: 0.0025, 2.5: 0.008, 8.0: 0.025}


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


def lambda_s_for(cutoff_mm):
    """The short-wave cut-off (mm) ISO 3274 pairs with a cut-off."""
    return LAMBDA_S.get(cutoff_mm, cutoff_mm / 300)


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


# The parameters each convention takes over the whole evaluation length
# rather than as the mean over its sampling lengths.
_OVER_EVALUATION_LENGTH = {ISO4287: ("Rt",), ISO21920: ("Rt", "Ra", "Rq", "Rsk", "Rku")}


@dataclass
class Evaluation:
    """The result of :func:`evaluate`."""

    cutoff_mm: float
    cutoff_rule: str  # "given" or "ISO 4288 from Ra"
    convention: str  # ISO4287 or ISO21920
    lambda_s_mm: float  # the short-wave cut-off applied, None if none
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

    @property
    def boundaries_mm(self):
        """Positions of the sampling-length boundaries, both ends included."""
        per = (self.evaluated.stop - self.evaluated.start) // self.sampling_lengths
        return [self.x_mm[0] + (self.evaluated.start + i * per) * self.dx_mm for i in range(self.sampling_lengths + 1)]

    @property
    def dx_mm(self):
        return (self.x_mm[-1] - self.x_mm[0]) / (len(self.x_mm) - 1)


def _sampling_lengths(n, run_in, per_segment):
    """How many sampling lengths fit n samples after the run-in, the run-out
    allowed to come up short by SHORTFALL of a sampling length."""
    slack = int(SHORTFALL * per_segment)
    return min(SAMPLING_LENGTHS, (n - 2 * run_in + slack) // per_segment)


def _evaluate_with(x, primary, dx, cutoff, convention):
    """(mean line, roughness, evaluated slice, sampling lengths, parameters)."""
    per_segment = int(round(cutoff / dx))
    if per_segment < MIN_SAMPLES_PER_CUTOFF:
        raise ValueError(f"samples {dx * 1000:g} um apart are too coarse for the cut-off {cutoff:g} mm")
    run_in = int(round(cutoff / 2 / dx))
    segments = _sampling_lengths(len(x), run_in, per_segment)
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
    whole = dict(_segment_parameters(part), Rt=float(np.max(part) - np.min(part)))
    for name in _OVER_EVALUATION_LENGTH[convention]:
        params[name] = whole[name]
    return mean, r, evaluated, segments, {k: params[k] for k in PARAMETERS}


def required_length_mm(cutoff_mm):
    """The traverse length a cut-off needs for five sampling lengths."""
    return (SAMPLING_LENGTHS + 1) * cutoff_mm


def evaluate(x_mm, z_um, cutoff_mm=None, convention=ISO4287, lambda_s=False):
    """Evaluates a profile (positions equally spaced). Without cutoff_mm the
    cut-off follows from the measured Ra by ISO 4288: starting from 0.8 mm,
    until the Ra measured with a cut-off is in that cut-off's range. A
    profile too short for the prescribed cut-off is evaluated with the
    longest that fits, and a note says so. convention: ISO4287 or ISO21920
    (see the module's text). lambda_s: first remove wavelengths below the
    λs that ISO 3274 pairs with the cut-off."""
    if convention not in CONVENTIONS:
        raise ValueError(f"convention must be one of {', '.join(CONVENTIONS)}")
    x = np.asarray(x_mm, dtype=np.float64)
    z = np.asarray(z_um, dtype=np.float64)
    if len(x) < 3 or len(x) != len(z):
        raise ValueError("a profile needs at least three samples with a position each")
    if cutoff_mm is not None and not cutoff_mm > 0:
        raise ValueError(f"the cut-off must be positive, not {cutoff_mm:g}")
    dx = (x[-1] - x[0]) / (len(x) - 1)
    primary, form = remove_form(x, z)
    notes = []

    def run(cutoff):
        p = gaussian_mean_line(primary, dx, lambda_s_for(cutoff)) if lambda_s else primary
        return _evaluate_with(x, p, dx, cutoff, convention) + (p,)

    if cutoff_mm is not None:
        cutoff, rule = float(cutoff_mm), "given"
        result = run(cutoff)
    else:
        rule = "ISO 4288 from Ra"
        fits = [c for _, c in CUTOFFS if round(c / dx) >= MIN_SAMPLES_PER_CUTOFF and
                _sampling_lengths(len(x), round(c / 2 / dx), round(c / dx)) >= 1]
        if not fits:
            raise ValueError(f"a profile of {len(x) * dx:.3f} mm is too short for any cut-off")
        cutoff = 0.8 if 0.8 in fits else fits[-1]
        tried = []
        while True:
            result = run(cutoff)
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
                result = run(cutoff)
                break
            cutoff = wanted
    mean, r, evaluated, segments, params, primary = result
    if segments < SAMPLING_LENGTHS:
        notes.append(f"{segments} sampling length(s) instead of {SAMPLING_LENGTHS}: "
                     f"the profile is shorter than {required_length_mm(cutoff):g} mm")
    return Evaluation(cutoff, rule, convention, lambda_s_for(cutoff) if lambda_s else None, segments, x, primary,
                      form, mean, r, evaluated, params, notes)

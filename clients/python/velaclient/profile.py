"""A scan's samples as they stream in, and the finished profile."""

import base64
import binascii
import csv
from dataclasses import dataclass, field

import numpy as np

from .errors import ProtocolError, ScanError

# One sample per 0.5 um of travel, whatever the speed (the sample rate
# follows the speed).
SAMPLE_PITCH_MM = 0.0005


def decode_chunk(text):
    """Samples of one scan data line: base64 of 16-bit little-endian values."""
    try:
        data = base64.b64decode(text, validate=True)
    except (binascii.Error, ValueError):
        raise ProtocolError(f"scan data is not base64: {text[:40]!r}") from None
    if len(data) % 2:
        raise ProtocolError("scan data holds half a sample")
    return np.frombuffer(data, dtype="<u2").astype(np.uint16)


def expected_samples(speed, length_mm=None, time_s=None):
    """How many samples the instrument takes for a scan of this length
    (or time) at this speed."""
    rate = round(speed / SAMPLE_PITCH_MM)
    seconds = length_mm / speed if length_mm is not None else time_s
    return int(rate * seconds)


@dataclass
class Profile:
    """A measured profile.

    raw: the instrument's samples (uint16). positions_mm: travel of each
    sample from the scan's start. heights_um: (raw - w_offset) * w_scale,
    the instrument's calibration at the time of the scan (w_scale in mm per
    digit). A timed scan (time_s) does not move the probe; its positions are
    what the travel would have been at the set speed.
    """

    raw: np.ndarray
    w_offset: int
    w_scale: float
    speed: float
    length_mm: float = None
    time_s: float = None
    duration_s: float = None
    warnings: list = field(default_factory=list)

    @property
    def positions_mm(self):
        return np.arange(len(self.raw)) * SAMPLE_PITCH_MM

    @property
    def heights_um(self):
        return (self.raw.astype(np.float64) - self.w_offset) * self.w_scale * 1000.0

    def __len__(self):
        return len(self.raw)

    def write_csv(self, path):
        """Writes x_mm, z_um, raw: one row per sample after a header row."""
        with open(path, "w", newline="") as f:
            out = csv.writer(f)
            out.writerow(["x_mm", "z_um", "raw"])
            for x, z, r in zip(self.positions_mm, self.heights_um, self.raw):
                out.writerow([f"{x:.4f}", f"{z:.4f}", int(r)])


class Scan:
    """A running scan. Iterating yields each chunk of samples (uint16
    arrays) as it arrives and returns the Profile at the end (so that
    ``profile = yield from scan`` works); :meth:`wait` reads what is left
    and returns the Profile. An error line of the scan raises ScanError
    with the samples received so far."""

    def __init__(self, request, w_offset, w_scale, speed, length_mm=None, time_s=None, timeout=None):
        self.request = request
        self.w_offset = w_offset
        self.w_scale = w_scale
        self.speed = speed
        self.length_mm = length_mm
        self.time_s = time_s
        self.timeout = timeout
        self.expected = expected_samples(speed, length_mm, time_s)
        self.chunks = []
        self.received = 0
        self.profile = None
        self._started = False

    @property
    def id(self):
        return self.request.id

    def __iter__(self):
        if self._started:
            raise RuntimeError("a scan's samples can be read only once")
        self._started = True
        return self._run()

    def _run(self):
        for kind, text in self.request.replies(self.timeout):
            if kind == "data":
                chunk = decode_chunk(text)
                self.chunks.append(chunk)
                self.received += len(chunk)
                yield chunk
        self.profile = self._profile()
        if self.request.reply.errors:
            raise ScanError(self.request.command, self.request.reply.errors, self.id, self.profile)
        return self.profile

    def _profile(self):
        raw = np.concatenate(self.chunks) if self.chunks else np.zeros(0, np.uint16)
        reply = self.request.reply
        return Profile(raw, self.w_offset, self.w_scale, self.speed, self.length_mm, self.time_s,
                       reply.elapsed, list(reply.warnings))

    def wait(self):
        """Reads the rest of the scan and returns its Profile."""
        if not self._started:
            for _ in self:
                pass
        elif self.profile is None:
            raise RuntimeError("the scan is being read by an iterator")
        return self.profile

    def abort(self):
        """Asks the instrument to end the scan; it then ends with ScanError
        ("aborted")."""
        self.request.conn.command(f"abort {self.id}")

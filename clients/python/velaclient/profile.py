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
# A profile whose samples 20 apart (10 um) correlate less than this shows no
# surface: the probe stood still.
STILL_LAG = 20
STILL_CORRELATION = 0.3


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
    # Why the scan ended early (an error line, an abort, a lost connection),
    # None when it ran to its end.
    ended_early: str = None

    @property
    def positions_mm(self):
        return np.arange(len(self.raw)) * SAMPLE_PITCH_MM

    @property
    def heights_um(self):
        return (self.raw.astype(np.float64) - self.w_offset) * self.w_scale * 1000.0

    def __len__(self):
        return len(self.raw)

    @property
    def partial(self):
        return self.ended_early is not None

    def expected(self):
        """The samples a complete scan of this length (or time) delivers."""
        return expected_samples(self.speed, self.length_mm, self.time_s)

    def stands_still(self):
        """True when the samples show no travel over a surface: only noise
        about a line. Moving, neighbouring samples 10 um apart follow the
        surface and agree; standing, they are independent noise."""
        if len(self.raw) < 4 * STILL_LAG:
            return len(self.raw) > 0
        z = self.raw.astype(np.float64)
        x = np.arange(len(z))
        d = z - np.polyval(np.polyfit(x, z, 1), x)
        power = float(np.dot(d, d))
        if power == 0:
            return True
        return float(np.dot(d[:-STILL_LAG], d[STILL_LAG:])) / power < STILL_CORRELATION

    def write_csv(self, path, header=None):
        """Writes x_mm, z_um, raw: one row per sample after a header block
        ("# key: value" lines from header, then whether the profile is
        complete) and the column row."""
        with open(path, "w", newline="") as f:
            for key, value in (header or {}).items():
                f.write(f"# {key}: {value}\n")
            f.write(f"# partial: {'yes, ' + self.ended_early if self.partial else 'no'}\n")
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
        # Whatever ends the scan, the samples received so far stay in
        # self.profile, marked with the reason.
        reason = "the connection ended"
        try:
            for kind, text in self.request.replies(self.timeout):
                if kind == "data":
                    chunk = decode_chunk(text)
                    self.chunks.append(chunk)
                    self.received += len(chunk)
                    yield chunk
            errors = self.request.reply.errors
            reason = f"error: {'; '.join(errors)}" if errors else None
        except GeneratorExit:
            reason = "stopped by the client"
            raise
        except KeyboardInterrupt:
            reason = "interrupted"
            raise
        except Exception as e:
            reason = str(e)
            raise
        finally:
            self.profile = self._profile(reason)
        if reason is not None:
            raise ScanError(self.request.command, self.request.reply.errors, self.id, self.profile)
        return self.profile

    def _profile(self, ended_early=None):
        raw = np.concatenate(self.chunks) if self.chunks else np.zeros(0, np.uint16)
        reply = self.request.reply
        return Profile(raw, self.w_offset, self.w_scale, self.speed, self.length_mm, self.time_s,
                       reply.elapsed, list(reply.warnings), ended_early)

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

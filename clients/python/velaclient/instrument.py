"""Typed calls for the instrument's commands and channels."""

from dataclasses import dataclass, field

from .channels import CHANNELS, Capability, PowerState
from .connection import DEFAULT_PORT, DEFAULT_TIMEOUT, Connection
from .errors import InstrumentError, ProtocolError, RequestTimeout

# The server splits a request into at most 20 words; get takes the rest.
MAX_GET_NAMES = 19
MAX_AUTOINFO_CHANNELS = 16
# A move home may take 15 s before the server gives up on the end switch.
MOVE_TIMEOUT = 20.0


@dataclass
class MachineInfo:
    model: str
    hwrev: str
    serialno: str = ""
    components: dict = field(default_factory=dict)


def _quoted(words):
    """The double-quoted fields of a `machine` data line."""
    parts = words.split('"')
    return [parts[i] for i in range(1, len(parts), 2)]


class AutoInfo:
    """A running autoinfo subscription: iterating yields one dict of
    channel values per report; :meth:`stop` (or leaving a with block) ends
    it. An error report (an unreadable channel) raises InstrumentError."""

    def __init__(self, inst, request, names, timeout):
        self.inst = inst
        self.request = request
        self.names = names
        self.timeout = timeout

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()

    def __iter__(self):
        for kind, text in self.request.replies(self.timeout):
            if kind == "data":
                yield self.inst._decode_values(self.names, text)
            elif kind == "error" and text != "aborted":
                raise InstrumentError(self.request.command, [text], self.request.id)

    def stop(self):
        if self.request.done or self.inst.closed:
            return
        self.inst.command(f"abort {self.request.id}")
        try:
            self.request.wait(check=False)
        except RequestTimeout:
            pass


class Channels:
    """Attribute access to every channel: ``inst.ch.batt_v``,
    ``inst.ch.blight = 40``."""

    def __init__(self, inst):
        object.__setattr__(self, "_inst", inst)

    def __dir__(self):
        return list(CHANNELS)

    def __getattr__(self, name):
        if name not in CHANNELS:
            raise AttributeError(name)
        return self._inst.get(name)

    def __setattr__(self, name, value):
        if name not in CHANNELS:
            raise AttributeError(name)
        self._inst.set(**{name: value})


class Instrument(Connection):
    """The instrument's server: ``with Instrument("localhost") as inst:``.

    Every call waits for its reply and raises InstrumentError with the
    instrument's text when it answers with an error; several threads may
    call at once, and a running scan or autoinfo does not block other calls.
    """

    def __init__(self, host="localhost", port=DEFAULT_PORT, timeout=DEFAULT_TIMEOUT, on_event=None):
        super().__init__(host, port, timeout, on_event)
        self._caps = None
        self.ch = Channels(self)

    # -- channels --
    def capabilities(self, refresh=False):
        """Every channel the server offers: {name: Capability}, in its order."""
        if self._caps is None or refresh:
            reply = self.command("capabilities")
            self._caps = {c.name: c for c in map(Capability.parse, reply.data)}
        return self._caps

    def capability(self, name, command="get"):
        cap = self.capabilities().get(name)
        if cap is None:
            raise InstrumentError(f"{command} {name}", ["unknown channel"])
        return cap

    def _decode_values(self, names, text):
        values = text.split(" ") if text else []
        if len(values) != len(names):
            raise ProtocolError(f"asked for {len(names)} values, got {len(values)}: {text!r}")
        return {n: self.capability(n).decode(v) for n, v in zip(names, values)}

    def get_many(self, *names):
        """{name: value} of the channels, each converted to int, float or
        str by its range."""
        result = {}
        for i in range(0, len(names), MAX_GET_NAMES):
            batch = names[i:i + MAX_GET_NAMES]
            reply = self.command("get " + " ".join(batch))
            if len(reply.data) != 1:
                raise ProtocolError(f"get: expected one data line, got {len(reply.data)}")
            result.update(self._decode_values(batch, reply.data[0]))
        return result

    def get(self, name):
        """The value of one channel."""
        return self.get_many(name)[name]

    def set(self, **values):
        """Sets channels in the order given: ``inst.set(speed=0.5, blight=40)``.
        The instrument stops at the first value it refuses."""
        self.set_many(values)

    def set_many(self, values):
        if not values:
            return
        pairs = [f"{name}={self.capability(name, 'set').encode(value)}" for name, value in dict(values).items()]
        self.command("set " + " ".join(pairs))

    # -- power state and identity --
    def pstate(self):
        return PowerState(self.get("pstate"))

    def set_pstate(self, state):
        """Walks to the state (a PowerState, 1..5 or its name, "meas")."""
        if isinstance(state, str) and state.upper() in PowerState.__members__:
            state = PowerState[state.upper()]
        self.set(pstate=PowerState(int(state)).name.lower())

    def ensure_meas(self):
        """Switches to the meas state unless already there; the previous state."""
        before = self.pstate()
        if before != PowerState.MEAS:
            self.set_pstate(PowerState.MEAS)
        return before

    def wait_live_reading(self, timeout=5.0, poll_s=0.05):
        """Waits until the live probe reading (w) is there: after entering
        meas, and after every scan, the acquisition restarts and w reads 0
        until its first sample. Returns the reading."""
        import time
        deadline = time.monotonic() + timeout
        while True:
            try:
                w = self.get("w")
            except InstrumentError:
                w = 0
            if w:
                return w
            if time.monotonic() > deadline:
                raise RequestTimeout(f"no live probe reading within {timeout:g} s")
            time.sleep(poll_s)

    def machine(self):
        info = MachineInfo("", "")
        for line in self.command("machine").data:
            key, _, rest = line.partition(" ")
            fields = _quoted(rest)
            if key == "machine" and len(fields) >= 2:
                info.model, info.hwrev = fields[0], fields[1]
            elif key == "serialno" and fields:
                info.serialno = fields[0]
            elif key == "component" and len(fields) >= 2:
                info.components[fields[0]] = fields[1]
        return info

    # -- long operations --
    def autoinfo(self, interval_ms, *names, timeout=None):
        """Periodic reports of the channels every interval_ms (at least 50)."""
        if not names:
            raise ValueError("autoinfo needs at least one channel")
        if len(names) > MAX_AUTOINFO_CHANNELS:
            raise ValueError(f"autoinfo takes at most {MAX_AUTOINFO_CHANNELS} channels")
        for n in names:
            self.capability(n)
        request = self.send(f"autoinfo {int(interval_ms)} " + " ".join(names))
        # A refused subscription shows as an error on the first iteration.
        wait = self.timeout + interval_ms / 1000.0 if timeout is None else timeout
        request.next_line(self.timeout)  # the ack
        return AutoInfo(self, request, list(names), wait)

    def abort(self, request_id=None):
        """Ends this client's scan, move or autoinfo (all of them without an id)."""
        self.command("abort" if request_id is None else f"abort {int(request_id)}")

    def move_home(self, timeout=MOVE_TIMEOUT):
        """Drives the probe to its end switch; returns the seconds it took."""
        return self.command("move x=0", timeout).elapsed

    def scan(self, length_mm=None, time_s=None, timeout=None):
        """Starts a scan over length_mm of travel, or a timed scan of time_s
        without travel, and returns the running :class:`Scan` (iterate it
        for the chunks, or call wait() for the Profile). Needs the meas
        state."""
        if (length_mm is None) == (time_s is None):
            raise ValueError("give either length_mm or time_s")
        cal = self.get_many("w_offset", "w_scale", "speed")
        arg = f"x={float(length_mm)!r}" if length_mm is not None else f"time={float(time_s)!r}"
        from .profile import Scan  # NumPy: only for scans
        request = self.send(f"scan {arg}")
        request.next_line()  # the ack: the instrument has the scan request
        return Scan(request, cal["w_offset"], cal["w_scale"], cal["speed"], length_mm, time_s, timeout)

    # -- calibration --
    def calibrate_point1(self, height_um):
        """The probe stands at a known height: the first calibration point."""
        self.set(w_xref1=height_um)

    def calibrate_point2(self, height_um):
        """The probe stands at the second known height: completes the
        calibration and returns the new (w_offset, w_scale)."""
        self.set(w_xref2=height_um)
        cal = self.get_many("w_offset", "w_scale")
        return cal["w_offset"], cal["w_scale"]

    def calibrate(self, height1_um, height2_um, between=None):
        """Two-point calibration. between() is called after the first point,
        to bring the probe to the second height."""
        self.calibrate_point1(height1_um)
        if between is not None:
            between()
        return self.calibrate_point2(height2_um)

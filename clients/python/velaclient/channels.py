"""The instrument's channels: what `capabilities` says about each, and the
conversion of values between Python and the wire by those ranges."""

import enum
import math
from dataclasses import dataclass


class PowerState(enum.IntEnum):
    """The power states as the pstate channel numbers them."""

    OFF = 1
    SUSPEND = 2
    ECO = 3
    READY = 4
    MEAS = 5  # measurement chain powered: needed by scan, move, calibration, w, z


# name: what it is, for help texts and the typed accessors. The server's
# capabilities listing is the authority on access and types.
CHANNELS = {
    "batt": "battery level, %",
    "batt_temp": "battery temperature, degrees C",
    "batt_state": "battery state: 0 unknown, 1 slow USB charging, 2 charging, 3 done, 4 on battery, 5 fault",
    "batt_v": "battery voltage, V",
    "batt_cycles": "battery charge cycles",
    "blight": "display backlight, %",
    "meas_cycles": "measurements made",
    "pstate": "power state: 1 off, 2 suspend, 3 eco, 4 ready, 5 meas",
    "sleep_time": "suspend time limit, s (0: none)",
    "speed": "drive speed, mm/s",
    "uptime": "operating time in ready and meas, s",
    "uptime_eco": "operating time in eco, s",
    "w": "live raw probe reading (meas state only)",
    "z": "live probe height, um (meas state only)",
    "sin_freq": "measured sine-generator frequency, Hz (meas state only)",
    "f": "sine-generator frequency setting, Hz",
    "x_corr": "drive speed correction factor",
    "w_offset": "raw reading at height 0 (calibration)",
    "w_scale": "mm per raw digit (calibration)",
    "w_ov_min": "lower overflow limit of scan samples (raw)",
    "w_ov_max": "upper overflow limit of scan samples (raw)",
    "opto_rs232": "text sent on the opto-isolated serial port",
    "usbhost": "USB host port power, 0 or 1",
    "mass_storage": "USB mass-storage mode, 0 or 1",
    "hwclock": "'w' writes the system time to the hardware clock",
    "tracelevel": "server trace level, 0..5",
    "w_xref1": "first calibration point: the probe's height there, um",
    "w_xref2": "second calibration point: the probe's height there, um",
    "phase": "acquisition phase, 0..31",
    "machine": "machine model",
}


def _number(token):
    try:
        value = float(token)
    except ValueError:
        return None
    return value if math.isfinite(value) else None


@dataclass(frozen=True)
class Capability:
    """One line of the `capabilities` listing: "<name> <access> <range>".

    kind is "int", "float" or "str", taken from the range's step (or its
    "string" form); minimum and maximum are None where the range leaves them
    open ("1 n 1"); symbols are the names a numeric value may also be given
    by, the first standing for the minimum ("(off|suspend|...)").
    """

    name: str
    access: str
    range_text: str = ""
    kind: str = "str"
    minimum: float = None
    maximum: float = None
    step: float = None
    symbols: tuple = ()

    @property
    def readable(self):
        return self.access in ("readwrite", "readonly")

    @property
    def writable(self):
        return self.access in ("readwrite", "writeonly")

    @classmethod
    def parse(cls, line):
        words = line.split(None, 2)
        if len(words) < 2:
            raise ValueError(f"bad capabilities line: {line!r}")
        name, access = words[0], words[1]
        range_text = words[2] if len(words) > 2 else ""
        if not range_text or range_text.startswith("string"):
            return cls(name, access, range_text)
        symbols = ()
        head = range_text
        if "(" in range_text and range_text.endswith(")"):
            head, _, tail = range_text.partition("(")
            symbols = tuple(tail[:-1].split("|"))
        parts = head.split()
        step_text = parts[2] if len(parts) > 2 else "1"
        kind = "int" if _number(step_text) is not None and "." not in step_text and "e" not in step_text.lower() else "float"
        return cls(name, access, range_text, kind,
                   _number(parts[0]) if parts else None,
                   _number(parts[1]) if len(parts) > 1 else None,
                   _number(step_text), symbols)

    def decode(self, text):
        """The Python value of a `get` answer."""
        try:
            if self.kind == "int":
                return int(text)
            if self.kind == "float":
                return float(text)
        except ValueError:
            raise ValueError(f"{self.name}: not a number: {text!r}") from None
        return text

    def encode(self, value):
        """The text to send in `set name=<text>`. The instrument itself
        checks the range (its limits differ from the listed ones in
        places), so only the form is checked here."""
        if self.kind == "str":
            text = str(value)
            if '"' in text or "\n" in text or "\r" in text:
                raise ValueError(f"{self.name}: no quotes or line breaks in a value")
            return f'"{text}"' if " " in text else text
        if isinstance(value, str):
            if value in self.symbols:
                return value
            try:
                value = float(value)
            except ValueError:
                known = f" (or one of {', '.join(self.symbols)})" if self.symbols else ""
                raise ValueError(f"{self.name}: {value!r} is not a number{known}") from None
        if isinstance(value, enum.Enum):
            value = value.value
        value = float(value)
        if not math.isfinite(value):
            raise ValueError(f"{self.name}: {value} is not a finite number")
        if self.kind == "int":
            if value != int(value):
                raise ValueError(f"{self.name}: {value:g} is not a whole number")
            return str(int(value))
        return repr(value)

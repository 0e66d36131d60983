"""Client library of the instrument's remote-control server.

    from velaclient import Instrument, evaluate
    with Instrument("localhost", 7073) as inst:
        inst.ensure_meas()
        profile = inst.scan(length_mm=4.8).wait()
        result = evaluate(profile.positions_mm, profile.heights_um)
        print(result.parameters["Ra"])
"""

from .channels import CHANNELS, Capability, PowerState
from .connection import DEFAULT_PORT, Connection, Event, Reply, Request
from .errors import (ConnectionClosed, InstrumentError, ProtocolError, RequestTimeout, ScanError,
                     VelaError)
from .instrument import AutoInfo, Instrument, MachineInfo

# NumPy and SciPy take a while to load: only when a profile is at hand.
_LAZY = {"SAMPLE_PITCH_MM": "profile", "Profile": "profile", "Scan": "profile",
         "Evaluation": "roughness", "cutoff_for_ra": "roughness", "evaluate": "roughness"}


def __getattr__(name):
    if name in _LAZY:
        import importlib
        return getattr(importlib.import_module(f".{_LAZY[name]}", __name__), name)
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


__all__ = [
    "AutoInfo", "CHANNELS", "Capability", "Connection", "ConnectionClosed", "DEFAULT_PORT", "Evaluation",
    "Event", "Instrument", "InstrumentError", "MachineInfo", "PowerState", "Profile", "ProtocolError", "Reply",
    "Request", "RequestTimeout", "SAMPLE_PITCH_MM", "Scan", "ScanError", "VelaError", "cutoff_for_ra",
    "evaluate",
]

"""velactl: the instrument's service tool on the command line."""

import argparse
import os
import sys
import threading
import time

from .channels import CHANNELS, PowerState
from .connection import DEFAULT_PORT
from .errors import ConnectionClosed, VelaError
from .instrument import Instrument

DESCRIPTION = """\
Service tool for the roughness-measuring instrument: reads and writes its
channels, switches its power state, moves the probe home, calibrates the
probe and measures profiles, over the instrument's network connection
(TCP port 7073).

Typical session:
  velactl machine                       which instrument, which software
  velactl get batt batt_v pstate        battery level, voltage, power state
  velactl scan --length 4.8 -o p.csv --plot p.svg
                                        measure 4.8 mm, save the profile and
                                        its picture, print Ra, Rq, Rz ...
  velactl watch -i 1000 batt z          live values and events until Ctrl-C

Scan, home and calibrate switch the instrument on to its measuring state
(pstate meas) first. The instrument's address can also be set with the
environment variables VELA_HOST and VELA_PORT.
"""

EPILOG = """\
Run 'velactl COMMAND --help' for the options of one command.
Exit status: 0 done, 1 the instrument refused or failed (its message is
printed), 2 bad command line, 3 no connection to the instrument."""


def _out(text=""):
    print(text, flush=True)


def _note(text):
    print(text, file=sys.stderr, flush=True)


def cmd_get(inst, args):
    values = inst.get_many(*args.names)
    width = max(map(len, values))
    for name, value in values.items():
        _out(f"{name:<{width}}  {value}")


def cmd_set(inst, args):
    pairs = {}
    for item in args.pairs:
        name, sep, value = item.partition("=")
        if not sep or not name:
            raise ValueError(f"expected NAME=VALUE, got {item!r}")
        pairs[name] = value
    inst.set_many(pairs)


def cmd_caps(inst, args):
    caps = inst.capabilities()
    width = max(map(len, caps))
    for cap in caps.values():
        _out(f"{cap.name:<{width}}  {cap.access:<9}  {cap.range_text:<28}  {CHANNELS.get(cap.name, '')}".rstrip())


def cmd_machine(inst, args):
    info = inst.machine()
    _out(f"model       {info.model}")
    _out(f"hardware    {info.hwrev}")
    _out(f"serial no.  {info.serialno}")
    for name, version in info.components.items():
        _out(f"{name:<11} {version}")


def cmd_pstate(inst, args):
    if args.state:
        inst.set_pstate(args.state)
    state = inst.pstate()
    _out(f"{state.name.lower()} ({int(state)})")


def _stamp():
    now = time.time()
    return time.strftime("%H:%M:%S", time.localtime(now)) + f".{int(now * 1000) % 1000:03d}"


def cmd_watch(inst, args):
    lock = threading.Lock()

    def show(ev):
        with lock:
            _out(f"{_stamp()}  event: {ev.text}")

    inst.add_event_handler(show)
    reports = 0
    try:
        if args.channels:
            with inst.autoinfo(args.interval, *args.channels) as info:
                for values in info:
                    with lock:
                        _out(f"{_stamp()}  " + "  ".join(f"{k}={v}" for k, v in values.items()))
                    reports += 1
                    if args.count and reports >= args.count:
                        break
        else:
            # Events only: they arrive on their own; wait for the connection's end.
            while not inst.closed:
                time.sleep(0.2)
            raise ConnectionClosed("the instrument closed the connection")
    except KeyboardInterrupt:
        pass


def _meas(inst):
    before = inst.ensure_meas()
    if before != PowerState.MEAS:
        _note(f"power state {before.name.lower()} -> meas")


def cmd_home(inst, args):
    _meas(inst)
    took = inst.move_home()
    _out(f"probe at home ({took:.1f} s)" if took is not None else "probe at home")


def cmd_calibrate(inst, args):
    _meas(inst)

    def wait_for(prompt):
        if not args.yes:
            _note(prompt + " and press Enter")
            if not sys.stdin.readline():
                raise VelaError("calibration cancelled")

    wait_for(f"Put the probe on the first reference (height {args.height1:g} um)")
    inst.calibrate_point1(args.height1)
    wait_for(f"Put the probe on the second reference (height {args.height2:g} um)")
    offset, scale = inst.calibrate_point2(args.height2)
    _out(f"calibrated: w_offset {offset}, w_scale {scale:.9f} mm/digit")


class Progress:
    """A one-line progress bar on standard error."""

    WIDTH = 30

    def __init__(self, total, unit_per_sample, unit):
        self.total = max(total, 1)
        self.per = unit_per_sample
        self.unit = unit
        self.shown = -1

    def update(self, done):
        frac = min(done / self.total, 1.0)
        if int(frac * 200) == self.shown:
            return
        self.shown = int(frac * 200)
        bar = "#" * int(frac * self.WIDTH)
        sys.stderr.write(f"\rscan [{bar:<{self.WIDTH}}] {frac * 100:3.0f}%  "
                         f"{done * self.per:.2f} / {self.total * self.per:.2f} {self.unit}")
        sys.stderr.flush()

    def finish(self):
        sys.stderr.write("\n")
        sys.stderr.flush()


def cmd_scan(inst, args):
    _meas(inst)
    if args.speed is not None:
        inst.set(speed=args.speed)
    if not args.no_home and args.length is not None:
        inst.move_home()
    scan = inst.scan(length_mm=args.length, time_s=args.time)
    show = sys.stderr.isatty() if args.progress is None else args.progress
    bar = Progress(scan.expected, 0.0005, "mm") if args.length is not None else \
        Progress(scan.expected, 1.0 / round(scan.speed / 0.0005), "s")
    try:
        for _ in scan:
            if show:
                bar.update(scan.received)
    except KeyboardInterrupt:
        if show:
            bar.finish()
        _note("aborting the scan")
        scan.abort()
        raise
    if show:
        bar.finish()
    profile = scan.profile
    for w in profile.warnings:
        _note(f"warning from the instrument: {w}")
    _out(f"scan: {len(profile)} samples over {len(profile) * 0.0005:.3f} mm"
         + (f" in {profile.duration_s:.1f} s" if profile.duration_s is not None else ""))
    if args.output:
        profile.write_csv(args.output)
        _out(f"profile written to {args.output}")
    if len(profile) < 3:
        raise VelaError("too few samples to evaluate")
    from .roughness import evaluate  # SciPy: only for scans
    try:
        ev = evaluate(profile.positions_mm, profile.heights_um, args.cutoff)
    except ValueError as e:
        raise VelaError(f"cannot evaluate: {e}") from None
    if args.plot:
        from .plot import plot_evaluation  # matplotlib loads slowly; only when asked
        plot_evaluation(ev, args.plot, title=f"Primary profile, {len(profile) * 0.0005:.3f} mm")
        _out(f"plot written to {args.plot}")
    _out(f"cut-off {ev.cutoff_mm:g} mm ({ev.cutoff_rule}), evaluation length {ev.evaluation_length_mm:g} mm "
         f"({ev.sampling_lengths} x {ev.cutoff_mm:g} mm)")
    for note in ev.notes:
        _out(f"note: {note}")
    for name, value in ev.parameters.items():
        unit = "" if name in ("Rsk", "Rku") else " um"
        _out(f"{name:<4} {value:8.3f}{unit}")


def build_parser():
    p = argparse.ArgumentParser(prog="velactl", description=DESCRIPTION, epilog=EPILOG,
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--host", default=os.environ.get("VELA_HOST", "localhost"),
                   help="the instrument's address (default: %(default)s)")
    p.add_argument("--port", type=int, default=int(os.environ.get("VELA_PORT", DEFAULT_PORT)),
                   help="its TCP port (default: %(default)s)")
    p.add_argument("--timeout", type=float, default=10.0, metavar="SECONDS",
                   help="how long to wait for each answer (default: %(default)s)")
    sub = p.add_subparsers(dest="command", metavar="COMMAND", required=True)

    s = sub.add_parser("get", help="read channels", description="Read channels, e.g. 'velactl get batt batt_v'. "
                       "'velactl caps' lists them.")
    s.add_argument("names", nargs="+", metavar="CHANNEL")
    s.set_defaults(run=cmd_get)

    s = sub.add_parser("set", help="write channels", description="Write channels, e.g. 'velactl set blight=50 "
                       "speed=0.5'. The instrument stops at the first value it refuses.")
    s.add_argument("pairs", nargs="+", metavar="NAME=VALUE")
    s.set_defaults(run=cmd_set)

    s = sub.add_parser("caps", help="list the channels with their access and range",
                       description="List every channel: access, range (minimum maximum step) and meaning.")
    s.set_defaults(run=cmd_caps)

    s = sub.add_parser("machine", help="model, hardware revision, serial number, software versions")
    s.set_defaults(run=cmd_machine)

    s = sub.add_parser("pstate", help="show or change the power state",
                       description="Without STATE: show the power state. With STATE (off, suspend, eco, ready, "
                       "meas or 1..5): switch to it. 'off' switches the instrument off.")
    s.add_argument("state", nargs="?", metavar="STATE")
    s.set_defaults(run=cmd_pstate)

    s = sub.add_parser("watch", help="show channel values periodically and events, until Ctrl-C",
                       description="Show the events of the instrument (battery, START button, calibration) "
                       "and, if channels are named, their values every INTERVAL ms, until Ctrl-C.")
    s.add_argument("channels", nargs="*", metavar="CHANNEL")
    s.add_argument("-i", "--interval", type=int, default=1000, metavar="MS",
                   help="report interval in ms, at least 50 (default: %(default)s)")
    s.add_argument("-n", "--count", type=int, default=0, metavar="N", help="stop after N reports")
    s.set_defaults(run=cmd_watch)

    s = sub.add_parser("home", help="move the probe to its home position (end switch)")
    s.set_defaults(run=cmd_home)

    s = sub.add_parser("calibrate", help="two-point calibration of the probe",
                       description="Two-point calibration: put the probe on a reference of known height "
                       "HEIGHT1 (um), press Enter, put it on the second reference HEIGHT2, press Enter. "
                       "The instrument stores the new calibration if it is plausible.")
    s.add_argument("height1", type=float, metavar="HEIGHT1")
    s.add_argument("height2", type=float, metavar="HEIGHT2")
    s.add_argument("-y", "--yes", action="store_true", help="do not wait for Enter (the probe is already placed)")
    s.set_defaults(run=cmd_calibrate)

    s = sub.add_parser("scan", help="measure a profile and print its roughness",
                       description="Measure a profile: the probe goes home, then traverses LENGTH mm "
                       "(or samples TIME s standing still). Prints Ra, Rq, Rz, Rt, Rp, Rv, Rsk, Rku "
                       "(ISO 4287; cut-off by ISO 4288 unless --cutoff), optionally writes the profile "
                       "as CSV (x_mm, z_um, raw) and a picture (SVG, PNG or PDF by the file name).")
    what = s.add_mutually_exclusive_group(required=True)
    what.add_argument("--length", type=float, metavar="MM", help="traverse length, 0.1..17.5 mm")
    what.add_argument("--time", type=float, metavar="S", help="timed scan without travel, 0.1..40 s")
    s.add_argument("-o", "--output", metavar="FILE.csv", help="write the profile here")
    s.add_argument("--plot", metavar="FILE", help="write a picture of the profile (.svg, .png, .pdf)")
    s.add_argument("--cutoff", type=float, metavar="MM", help="cut-off wavelength in mm (default: by ISO 4288)")
    s.add_argument("--speed", type=float, metavar="MM/S", help="set the drive speed first (0.1..1.0)")
    s.add_argument("--no-home", action="store_true", help="scan from where the probe stands")
    s.add_argument("--progress", action=argparse.BooleanOptionalAction, default=None,
                   help="show a progress bar (default: when standard error is a terminal)")
    s.set_defaults(run=cmd_scan)
    return p


def main(argv=None):
    args = build_parser().parse_args(argv)
    if getattr(args, "plot", None) and os.path.splitext(args.plot)[1].lower() not in (".svg", ".png", ".pdf"):
        _note(f"velactl: the plot file must end in .svg, .png or .pdf: {args.plot}")
        return 2
    try:
        with Instrument(args.host, args.port, timeout=args.timeout) as inst:
            args.run(inst, args)
    except KeyboardInterrupt:
        return 130
    except ConnectionClosed as e:
        hint = "" if e.server_text else " (is the instrument on and its server running?)"
        _note(f"velactl: {e}{hint}")
        return 3
    except (VelaError, ValueError, OSError) as e:
        _note(f"velactl: {e}")
        return 1
    return 0

"""velactl: the instrument's service tool on the command line."""

import argparse
import os
import sys
import threading
import time

from .channels import CHANNELS, PowerState
from .connection import DEFAULT_PORT
from .errors import ConnectionClosed, RequestTimeout, ScanError, VelaError
from .instrument import Instrument

# The ranges the instrument accepts, checked before anything moves.
LENGTH_MM = (0.1, 17.5)
TIME_S = (0.1, 40.0)
SPEED_MM_S = (0.1, 1.0)
PSTATES = ("off", "suspend", "eco", "ready", "meas")
CONVENTION_TEXT = {"ISO 4287": "mean over 5 sampling lengths (ISO 4287/4288)",
                   "ISO 21920-2": "over the evaluation length (ISO 21920-2)"}
CONVENTION_OPTIONS = {"iso4287": "ISO 4287", "iso21920": "ISO 21920-2"}

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
printed), 2 bad command line, 3 no connection to the instrument, 130
interrupted."""


class UsageError(VelaError):
    """A bad command line or value: exit status 2."""


class Parser(argparse.ArgumentParser):
    """argparse with its errors on one line."""

    def error(self, message):
        raise UsageError(message)


def port_number(text):
    try:
        port = int(text)
    except ValueError:
        port = 0
    if not 1 <= port <= 65535:
        raise argparse.ArgumentTypeError(f"not a TCP port (1..65535): {text!r}")
    return port


def _in_range(name, value, limits, unit):
    if value is not None and not limits[0] <= value <= limits[1]:
        raise UsageError(f"{name} must be {limits[0]:g}..{limits[1]:g} {unit}, not {value:g}")


def _out(text=""):
    print(text, flush=True)


def _note(text):
    print(text, file=sys.stderr, flush=True)


def cmd_get(inst, args):
    values = inst.get_many(*args.names)
    width = max(map(len, values))
    for name, value in values.items():
        _out(f"{name:<{width}}  {value}")


def _pairs(items):
    pairs = {}
    for item in items:
        name, sep, value = item.partition("=")
        if not sep or not name:
            raise UsageError(f"expected NAME=VALUE, got {item!r}")
        pairs[name] = value
    return pairs


def cmd_set(inst, args):
    pairs = args.set_pairs
    for name, value in pairs.items():
        try:
            inst.capability(name, "set").encode(value)
        except ValueError as e:
            raise UsageError(f"set {name}={value}: {e}") from None
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


WAKE_HINT = "press START on the instrument to wake it"


def cmd_pstate(inst, args):
    target = args.pstate
    if target in (PowerState.OFF, PowerState.SUSPEND):
        # The instrument halts (closing the connection) or suspends (no
        # answer until woken): either is the request done.
        request = inst.send(f"set pstate={target.name.lower()}")
        try:
            request.wait(min(inst.timeout, 3.0))
        except (ConnectionClosed, RequestTimeout):
            pass
        _out("the instrument switches off" if target == PowerState.OFF else f"the instrument is suspended: {WAKE_HINT}")
        return
    if target is not None:
        inst.set_pstate(target)
    state = inst.pstate()
    _out(f"{state.name.lower()} ({int(state)})")


def _parse_pstate(text):
    if text is None:
        return None
    if text.lower() in PSTATES:
        return PowerState[text.upper()]
    if text.isdigit() and 1 <= int(text) <= 5:
        return PowerState(int(text))
    raise UsageError(f"pstate: unknown power state {text!r} (off, suspend, eco, ready, meas or 1..5)")


def _stamp():
    now = time.time()
    return time.strftime("%H:%M:%S", time.localtime(now)) + f".{int(now * 1000) % 1000:03d}"


def cmd_watch(inst, args):
    lock = threading.Lock()
    shown = threading.Semaphore(0)

    def show(ev):
        with lock:
            _out(f"{_stamp()}  event: {ev.text}")
        shown.release()

    # The events the instrument sent on connect (the battery state and
    # level) arrived before this handler: they are shown first.
    with lock:
        greeting = []
        while not inst.events.empty():
            greeting.append(inst.events.get_nowait())
        inst.add_event_handler(show)
        for ev in greeting:
            _out(f"{_stamp()}  event: {ev.text}")
            shown.release()
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
            # Events only; -n counts them.
            while not (args.count and reports >= args.count):
                if shown.acquire(timeout=0.2):
                    reports += 1
                elif inst.closed:
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

    # Each point needs the live reading of where the probe stands now: after
    # entering meas (and after a scan) the acquisition restarts first.
    wait_for(f"Put the probe on the first reference (height {args.height1:g} um)")
    inst.wait_live_reading()
    inst.calibrate_point1(args.height1)
    wait_for(f"Put the probe on the second reference (height {args.height2:g} um)")
    inst.wait_live_reading()
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


def check_scan(args):
    """Everything about a scan that can be checked before the probe moves."""
    _in_range("--length", args.length, LENGTH_MM, "mm")
    _in_range("--time", args.time, TIME_S, "s")
    _in_range("--speed", args.speed, SPEED_MM_S, "mm/s")
    if args.cutoff is not None:
        from .roughness import required_length_mm
        if not args.cutoff > 0:
            raise UsageError(f"--cutoff must be positive, not {args.cutoff:g}")
        if args.length is not None and args.length < required_length_mm(args.cutoff) - 1e-9:
            raise UsageError(f"--cutoff {args.cutoff:g} needs a length of {required_length_mm(args.cutoff):g} mm "
                             f"(five sampling lengths, run-in and run-out), not {args.length:g}")
    for option, path, endings in (("--output", args.output, None), ("--plot", args.plot, (".svg", ".png", ".pdf")),
                                  ("--report", args.report, (".pdf",))):
        if path is None:
            continue
        if endings and os.path.splitext(path)[1].lower() not in endings:
            raise UsageError(f"{option}: the file must end in {', '.join(endings[:-1])}"
                             f"{' or ' if len(endings) > 1 else ''}{endings[-1]}: {path}")
        folder = os.path.dirname(os.path.abspath(path))
        if not os.path.isdir(folder) or not os.access(folder, os.W_OK) or \
                (os.path.exists(path) and not os.access(path, os.W_OK)):
            raise UsageError(f"{option}: cannot write {path}")


def _metadata(inst, args, scan):
    """What a technician needs to file the measurement with it."""
    info = inst.machine()
    cal = {"w_offset": scan.w_offset, "w_scale": scan.w_scale}
    try:
        cal["x_corr"] = inst.get("x_corr")
    except VelaError:
        pass
    meta = {"date": time.strftime("%Y-%m-%d %H:%M:%S %Z"),
            "instrument": f"{info.model} serial {info.serialno or '-'} hardware {info.hwrev}",
            "software": ", ".join(f"{k} {v}" for k, v in info.components.items()) or "-",
            "speed": f"{scan.speed:g} mm/s"}
    meta["length" if args.length is not None else "time"] = \
        f"{args.length:g} mm" if args.length is not None else f"{args.time:g} s (no travel)"
    meta.update({k: f"{v:.9g}" if isinstance(v, float) else str(v) for k, v in cal.items()})
    return meta


def _evaluation_metadata(ev):
    return {"cut-off": f"{ev.cutoff_mm:g} mm ({ev.cutoff_rule})",
            "filter": "Gaussian, ISO 16610-21",
            "lambda_s": f"{ev.lambda_s_mm * 1000:g} um (ISO 3274)" if ev.lambda_s_mm else "not applied",
            "convention": CONVENTION_TEXT[ev.convention],
            "evaluation length": f"{ev.evaluation_length_mm:g} mm ({ev.sampling_lengths} x {ev.cutoff_mm:g} mm)"}


def cmd_scan(inst, args):
    _meas(inst)
    if args.speed is not None:
        inst.set(speed=args.speed)
    if not args.no_home and args.length is not None:
        inst.move_home()
    scan = inst.scan(length_mm=args.length, time_s=args.time)
    meta = _metadata(inst, args, scan)
    show = sys.stderr.isatty() if args.progress is None else args.progress
    bar = Progress(scan.expected, 0.0005, "mm") if args.length is not None else \
        Progress(scan.expected, 1.0 / round(scan.speed / 0.0005), "s")
    try:
        for _ in scan:
            if show:
                bar.update(scan.received)
    except BaseException as e:
        # Whatever ended the scan early, what arrived is kept.
        if show:
            bar.finish()
        if isinstance(e, KeyboardInterrupt) and not inst.closed:
            _note("aborting the scan")
            try:
                scan.abort()
            except VelaError:
                pass
        if args.output and scan.profile is not None:
            scan.profile.write_csv(args.output, meta)
            _note(f"partial profile ({len(scan.profile)} samples) written to {args.output}")
        raise
    if show:
        bar.finish()
    profile = scan.profile
    for w in profile.warnings:
        _note(f"warning from the instrument: {w}")
    _out(f"scan: {len(profile)} samples over {len(profile) * 0.0005:.3f} mm"
         + (f" in {profile.duration_s:.1f} s" if profile.duration_s is not None else ""))
    if len(profile) < 3:
        if args.output:
            profile.write_csv(args.output, meta)
        raise VelaError("too few samples to evaluate")
    from .roughness import evaluate  # SciPy: only for scans
    try:
        ev = evaluate(profile.positions_mm, profile.heights_um, args.cutoff, args.convention, args.lambda_s)
    except ValueError as e:
        if args.output:
            profile.write_csv(args.output, meta)
        raise VelaError(f"cannot evaluate: {e}") from None
    meta.update(_evaluation_metadata(ev))
    if args.output:
        profile.write_csv(args.output, dict(meta, **{k + ("" if k in ("Rsk", "Rku") else " (um)"): f"{v:.4f}"
                                                      for k, v in ev.parameters.items()}))
        _out(f"profile written to {args.output}")
    if args.plot or args.report:
        from . import plot  # matplotlib loads slowly; only when asked
        title = f"Primary profile, {len(profile) * 0.0005:.3f} mm"
        if args.plot:
            plot.plot_evaluation(ev, args.plot, title=title, caption=plot.caption(meta))
            _out(f"plot written to {args.plot}")
        if args.report:
            plot.write_report(ev, args.report, meta)
            _out(f"report written to {args.report}")
    _out(f"cut-off {ev.cutoff_mm:g} mm ({ev.cutoff_rule}), evaluation length {ev.evaluation_length_mm:g} mm "
         f"({ev.sampling_lengths} x {ev.cutoff_mm:g} mm)")
    _out(f"parameters: {CONVENTION_TEXT[ev.convention]}"
         + (f", lambda_s {ev.lambda_s_mm * 1000:g} um" if ev.lambda_s_mm else ""))
    for note in ev.notes:
        _out(f"note: {note}")
    for name, value in ev.parameters.items():
        unit = "" if name in ("Rsk", "Rku") else " um"
        _out(f"{name:<4} {value:8.3f}{unit}")
    if profile.stands_still():
        why = "a timed scan does not move the probe" if args.time is not None else \
            "the probe did not move over the surface (end of travel?)"
        _note(f"warning: {why}: these values describe the instrument's noise, not a surface")
        if not args.force:
            raise VelaError("no surface measured (--force to accept the values)")


def build_parser():
    p = Parser(prog="velactl", description=DESCRIPTION, epilog=EPILOG,
               formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--host", default=os.environ.get("VELA_HOST", "localhost"),
                   help="the instrument's address (default: %(default)s)")
    p.add_argument("--port", type=port_number, default=None,
                   help=f"its TCP port (default: VELA_PORT or {DEFAULT_PORT})")
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
    s.add_argument("--convention", choices=sorted(CONVENTION_OPTIONS), default="iso4287",
                   help="iso4287: parameters averaged over the five sampling lengths (ISO 4287/4288, the "
                   "default); iso21920: Ra, Rq, Rsk, Rku over the evaluation length (ISO 21920-2)")
    s.add_argument("--lambda-s", action="store_true",
                   help="apply the short-wave filter λs that ISO 3274 pairs with the cut-off")
    s.add_argument("--report", metavar="FILE.pdf", help="write a one-page measurement report (PDF)")
    s.add_argument("--force", action="store_true",
                   help="accept a scan that shows no travel over a surface (exit status 0)")
    s.add_argument("--progress", action=argparse.BooleanOptionalAction, default=None,
                   help="show a progress bar (default: when standard error is a terminal)")
    s.set_defaults(run=cmd_scan)
    return p


def parse_command_line(argv):
    """The parsed arguments, every check that needs no instrument done;
    raises UsageError."""
    args = build_parser().parse_args(argv)
    if args.port is None:
        try:
            args.port = port_number(os.environ.get("VELA_PORT", str(DEFAULT_PORT)))
        except argparse.ArgumentTypeError as e:
            raise UsageError(f"VELA_PORT: {e}") from None
    if args.command == "pstate":
        args.pstate = _parse_pstate(args.state)
    elif args.command == "set":
        args.set_pairs = _pairs(args.pairs)
    elif args.command == "scan":
        check_scan(args)
        args.convention = CONVENTION_OPTIONS[args.convention]
    return args


def main(argv=None):
    try:
        args = parse_command_line(argv)
    except UsageError as e:
        _note(f"velactl: {e}")
        return 2
    try:
        with Instrument(args.host, args.port, timeout=args.timeout) as inst:
            args.run(inst, args)
    except KeyboardInterrupt:
        return 130
    except UsageError as e:
        _note(f"velactl: {e}")
        return 2
    except ConnectionClosed as e:
        if e.silent and args.command == "pstate" and args.pstate is None:
            _out(f"suspended (2): {WAKE_HINT}")
            return 0
        if e.silent:
            hint = f" (suspended? {WAKE_HINT})"
        else:
            hint = "" if e.server_text else " (is the instrument on and its server running?)"
        _note(f"velactl: {e}{hint}")
        return 3
    except (VelaError, ValueError, OSError) as e:
        _note(f"velactl: {e}")
        return 1
    return 0

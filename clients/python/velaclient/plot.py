"""Pictures of an evaluated profile: the primary profile with its mean line
above, the roughness profile below, the sampling lengths marked, and the
measurement's metadata in a caption (SVG, PNG or PDF by the file name); and
a one-page PDF measurement report."""

import os

import matplotlib

matplotlib.use("Agg")  # files only, no display needed
matplotlib.rcParams["svg.hashsalt"] = "velaclient"  # the same SVG for the same profile
import matplotlib.pyplot as plt  # noqa: E402

FORMATS = (".svg", ".png", ".pdf")
# The metadata the caption shows, in this order.
CAPTION_KEYS = ("date", "instrument", "speed", "length", "time", "cut-off", "lambda_s", "convention",
                "w_offset", "w_scale", "x_corr")


def caption(meta):
    """One or two lines of the measurement's metadata."""
    items = [f"{k} {meta[k]}" for k in CAPTION_KEYS if k in meta]
    half = (len(items) + 1) // 2
    return "   ".join(items[:half]) + "\n" + "   ".join(items[half:])


def _draw(ev, top, bottom, title):
    x = ev.x_mm
    top.plot(x, ev.primary_um, lw=0.6, color="tab:blue", label="primary profile (form removed)")
    top.plot(x, ev.mean_line_um, lw=1.5, color="tab:red", label=f"mean line (Gaussian, λc = {ev.cutoff_mm:g} mm)")
    top.set_ylabel("height / µm")
    top.set_title(title or "Primary profile", loc="left", fontsize="medium")
    bottom.plot(x, ev.roughness_um, lw=0.6, color="tab:green", label="roughness profile")
    bounds = ev.boundaries_mm
    for i, edge in enumerate(bounds):
        outer = i in (0, len(bounds) - 1)
        for ax in (top, bottom):
            ax.axvline(edge, color="grey", lw=0.9 if outer else 0.5, ls="--" if outer else ":")
    bottom.axhline(0, color="black", lw=0.5)
    p = ev.parameters
    bottom.set_title(f"Roughness  Ra {p['Ra']:.3f}  Rq {p['Rq']:.3f}  Rz {p['Rz']:.3f}  Rt {p['Rt']:.3f} µm "
                     f"({ev.convention})", loc="left", fontsize="medium")
    bottom.set_xlabel("travel / mm")
    bottom.set_ylabel("height / µm")
    for ax in (top, bottom):
        ax.grid(True, lw=0.3)
        ax.set_xlim(x[0], x[-1])
        # Legends above the plot area, never over the trace.
        ax.legend(loc="lower right", bbox_to_anchor=(1.0, 1.0), fontsize="x-small", ncol=2, frameon=False)


def _save(fig, path):
    ext = os.path.splitext(path)[1].lower()
    # Fixed metadata keep an SVG or PDF the same from run to run.
    metadata = {"Date": None} if ext in (".svg", ".pdf") else {}
    if ext == ".pdf":
        metadata["CreationDate"] = None
        del metadata["Date"]
    fig.savefig(path, dpi=100, metadata=metadata)
    plt.close(fig)


def plot_evaluation(ev, path, title=None, caption=None):
    ext = os.path.splitext(path)[1].lower()
    if ext not in FORMATS:
        raise ValueError(f"plot file must end in {', '.join(FORMATS)}: {path}")
    fig, (top, bottom) = plt.subplots(2, 1, figsize=(10, 6), sharex=True, constrained_layout=True)
    _draw(ev, top, bottom, title)
    if caption:
        fig.supxlabel(caption, fontsize="x-small", color="dimgrey")
    _save(fig, path)


def write_report(ev, path, meta):
    """A one-page A4 report: the profiles, the parameters with their
    convention, and the measurement's metadata."""
    fig = plt.figure(figsize=(8.27, 11.69), constrained_layout=True)
    grid = fig.add_gridspec(4, 1, height_ratios=[2.2, 2.2, 1.6, 2.4])
    top = fig.add_subplot(grid[0])
    bottom = fig.add_subplot(grid[1], sharex=top)
    _draw(ev, top, bottom, "Roughness measurement")
    table = fig.add_subplot(grid[2])
    table.axis("off")
    rows = [[name, f"{value:.3f}", "" if name in ("Rsk", "Rku") else "µm"] for name, value in ev.parameters.items()]
    table.set_title(f"Parameters, {meta.get('convention', ev.convention)} (sampling lengths between the dotted "
                    "lines)", fontsize="small", loc="left")
    table.table(cellText=rows, colLabels=["parameter", "value", "unit"], loc="upper center", cellLoc="left",
                bbox=[0, 0, 1, 1])
    info = fig.add_subplot(grid[3])
    info.axis("off")
    lines = [f"{k}: {v}" for k, v in meta.items()] + [f"note: {n}" for n in ev.notes]
    info.text(0, 1, "\n".join(lines), va="top", family="monospace", fontsize=7.5)
    _save(fig, path)

"""Picture of an evaluated profile: the primary profile with its mean line
above, the roughness profile below. SVG, PNG or PDF by the file name."""

import os

import matplotlib

matplotlib.use("Agg")  # files only, no display needed
matplotlib.rcParams["svg.hashsalt"] = "velaclient"  # the same SVG for the same profile
import matplotlib.pyplot as plt  # noqa: E402

FORMATS = (".svg", ".png", ".pdf")


def plot_evaluation(ev, path, title=None):
    ext = os.path.splitext(path)[1].lower()
    if ext not in FORMATS:
        raise ValueError(f"plot file must end in {', '.join(FORMATS)}: {path}")
    x = ev.x_mm
    ev_x = x[ev.evaluated]
    fig, (top, bottom) = plt.subplots(2, 1, figsize=(10, 6), sharex=True, constrained_layout=True)
    top.plot(x, ev.primary_um, lw=0.6, color="tab:blue", label="primary profile (form removed)")
    top.plot(x, ev.mean_line_um, lw=1.5, color="tab:red", label=f"mean line (Gaussian, λc = {ev.cutoff_mm:g} mm)")
    top.set_ylabel("height / µm")
    top.legend(loc="upper right", fontsize="small")
    top.set_title(title or "Primary profile")
    bottom.plot(x, ev.roughness_um, lw=0.6, color="tab:green", label="roughness profile")
    for edge in (ev_x[0], ev_x[-1]):
        for ax in (top, bottom):
            ax.axvline(edge, color="grey", lw=0.8, ls="--")
    bottom.axhline(0, color="black", lw=0.5)
    p = ev.parameters
    bottom.set_title(f"Roughness profile  Ra {p['Ra']:.3f} µm  Rq {p['Rq']:.3f} µm  "
                     f"Rz {p['Rz']:.3f} µm  Rt {p['Rt']:.3f} µm  "
                     f"(evaluation length {ev.evaluation_length_mm:g} mm between the dashed lines)",
                     fontsize="medium")
    bottom.set_xlabel("travel / mm")
    bottom.set_ylabel("height / µm")
    for ax in (top, bottom):
        ax.grid(True, lw=0.3)
        ax.set_xlim(x[0], x[-1])
    # Fixed metadata keep an SVG the same from run to run.
    metadata = {"Date": None} if ext in (".svg", ".pdf") else {}
    fig.savefig(path, dpi=100, metadata=metadata)
    plt.close(fig)

"""Draws the bench's own output: how long a delivery takes beside its yardsticks and beside what memory asks for.

    ratios.py TABLE.tsv PICTURE.png      TABLE from kovbench --tsv
"""

import csv
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt

FRAME, OPENCV = "4656x3520", "copies and OpenCV"


def main(table: str, picture: str) -> None:
    rows: dict[str, dict[str, float]] = {}
    isa = ""
    with open(table, newline="", encoding="utf-8") as f:
        for isa, frame, operation, ours, floor, by, theirs in csv.reader(f, delimiter="\t"):
            if frame == FRAME and operation.startswith("GetImage "):
                times = rows.setdefault(operation.removeprefix("GetImage "), {})
                times |= {"ours": float(ours), "floor": float(floor), by: float(theirs)}
    if not rows:
        sys.exit(f"{table}: no deliveries of {FRAME}; run kovbench without a filter")
    names = sorted(rows, key=lambda name: rows[name]["ours"], reverse=True)
    bars = [("ours", "KOVCamera2", "#1f77b4"), (OPENCV, "two copies and OpenCV", "#b0b0b0"), ("floor", "memory alone, as memcpy", "#8fd18f")]
    fig, ax = plt.subplots(figsize=(9, 0.62 * len(names) + 1.2), layout="constrained")
    for k, (key, label, colour) in enumerate(bars):
        places = [i + 0.27 * (1 - k) for i, name in enumerate(names) if key in rows[name]]
        values = [rows[name][key] for name in names if key in rows[name]]
        ax.barh(places, values, 0.25, label=label, color=colour)
        for place, value in zip(places, values):
            ax.text(value, place, f" {value:.1f}", va="center", fontsize=7)
    ax.set_yticks(range(len(names)), names)
    ax.set_xlabel("ms a frame, one thread")
    ax.set_title(f"One delivery of {FRAME.replace('x', ' x ')} pixels, {isa}", loc="left")
    ax.legend(loc="upper right", frameon=False)
    ax.spines[["top", "right"]].set_visible(False)
    fig.savefig(picture, dpi=110)


main(*sys.argv[1:])

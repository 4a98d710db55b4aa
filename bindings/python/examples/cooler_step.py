"""Step response of a cooler: switches it on, records temperature and power, and tells how fast and how well it settles.

    cooler_step.py [PICTURE.png]
"""

from __future__ import annotations

import sys
import time

import numpy as np
from numpy.typing import NDArray

import kovcamera2 as kov

Array = NDArray[np.float64]
RATE = 30  # the virtual camera's clock: so many times faster than real time. 1 for a real camera


def record(cam: kov.Camera, target: int, seconds: float, rate: float = 1) -> Array:
    """Rows of seconds, degrees Celsius, percent of power."""
    rows = []
    cam.cooler.target = target
    cam.cooler.on = True
    start = time.monotonic()
    while (now := (time.monotonic() - start) * rate) < seconds:
        rows.append((now, cam.temperature, cam.cooler.power))
        time.sleep(1 / rate)
    cam.cooler.on = False
    return np.array(rows[1:])  # the first reading is older than the step


def describe(course: Array, target: int) -> dict[str, float]:
    """Seconds until it is within half a degree for good, degrees of overshoot, and the scatter of the last quarter."""
    away = np.flatnonzero(np.abs(course[:, 1] - target) > 0.5)
    tail = course[-len(course) // 4:, 1]
    return {"settled": float(course[min(away[-1] + 1, len(course) - 1), 0]), "overshoot": max(0.0, float(target - course[:, 1].min())),
            "scatter": float(tail.std()), "error": float(tail.mean() - target)}


def plot(course: Array, target: int, facts: dict[str, float], path: str) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    figure, (upper, lower) = plt.subplots(2, 1, figsize=(7, 5), sharex=True, constrained_layout=True)
    upper.axhspan(target - 0.5, target + 0.5, color="tab:green", alpha=0.15, label="target and half a degree")
    upper.axvline(facts["settled"], color="0.6", ls=":", label=f"settled after {facts['settled']:.0f} s")
    upper.plot(course[:, 0], course[:, 1], color="tab:blue", label="sensor")
    upper.set(ylabel="temperature, °C", title=f"Step to {target} °C: overshoot {facts['overshoot']:.1f}, scatter {facts['scatter']:.2f} °C")
    upper.legend(loc="upper right")
    lower.plot(course[:, 0], course[:, 2], color="tab:red")
    lower.set(xlabel="seconds", ylabel="cooler power, %", ylim=(0, 105))
    for axes in (upper, lower):
        axes.grid(True, alpha=0.3)
    figure.savefig(path, dpi=120)


def main() -> None:
    target = -5
    with kov.virtual("LapisMono_C", rate=RATE, scene="dark"), kov.Camera() as cam:
        course = record(cam, target, 600, RATE)
    facts = describe(course, target)
    print("settled after {settled:.0f} s, overshoot {overshoot:.1f}, scatter {scatter:.2f}, error {error:+.2f} degrees".format(**facts))
    if len(sys.argv) > 1:
        plot(course, target, facts, sys.argv[1])


if __name__ == "__main__":
    main()

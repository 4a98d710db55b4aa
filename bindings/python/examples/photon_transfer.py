"""Photon-transfer curve: finds a camera's gain and read noise from pairs of flat pictures.

Shot noise is the square root of the electrons. So the variance of a flat grows in proportion to its mean, the slope is
ADU per electron, and what remains in the dark is read noise. Differences of pairs take the fixed pattern out.

    photon_transfer.py [PICTURE.png]
"""

from __future__ import annotations

import sys

import numpy as np
from numpy.typing import NDArray

import kovcamera2 as kov

Array = NDArray[np.float64]
BITS = 12  # of the camera's converter: RAW16 has the sample in the upper bits
FIT_LIMIT = 0.7 * 2**BITS  # ADU; brighter points come near saturation, where noise is cut off


def pair(cam: kov.Camera, seconds: float) -> tuple[float, float]:
    """Mean and variance of a pixel in ADU of the converter, at one exposure."""
    a, b = (cam.snap(seconds).astype(np.float64) / 2 ** (16 - BITS) for _ in range(2))
    return float((a.mean() + b.mean()) / 2), float((a - b).var() / 2)


def measure(cam: kov.Camera, exposures: Array) -> Array:
    """Rows of exposure, mean above black, variance. Black is where the line through the means meets exposure 0: even the
    shortest exposure has some light."""
    curve = np.array([(t, *pair(cam, t)) for t in exposures])
    low = curve[curve[:, 1] < FIT_LIMIT]
    curve[:, 1] -= np.polyfit(low[:, 0], low[:, 1], 1, w=1 / np.sqrt(low[:, 2]))[1]
    return curve


def fit(curve: Array) -> tuple[float, float]:
    """Gain in electrons an ADU and read noise in electrons, from the part well below saturation.

    The converter cuts fractions off, which adds a variance of 1/12 ADU; it is taken out."""
    low = curve[curve[:, 1] < FIT_LIMIT]
    slope, offset = np.polyfit(low[:, 1], low[:, 2] - 1 / 12, 1, w=1 / low[:, 2])
    return 1 / slope, float(np.sqrt(max(offset, 0))) / slope


def plot(curve: Array, gain: float, noise: float, path: str) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    figure, axes = plt.subplots(figsize=(7, 4.5), constrained_layout=True)
    signal = np.geomspace(1, 2**BITS, 200)
    axes.loglog(signal, np.sqrt(signal / gain + (noise / gain) ** 2 + 1 / 12), color="0.6", label="fit")
    axes.loglog(signal, np.sqrt(signal / gain), ":", color="0.6", label="shot noise alone")
    for part, fill, label in ((curve[:, 1] < FIT_LIMIT, "tab:blue", "measured"), (curve[:, 1] >= FIT_LIMIT, "none", "near saturation, not fitted")):
        axes.loglog(curve[part, 1], np.sqrt(curve[part, 2]), "o", ms=5, color="tab:blue", mfc=fill, label=label)
    axes.set(xlabel="signal above black, ADU", ylabel="noise, ADU", xlim=(1, 2**BITS * 1.3), ylim=(0.5, 60),
             title=f"{gain:.3f} electrons an ADU, read noise {noise:.2f} electrons")
    axes.legend(loc="upper left")
    axes.grid(True, which="both", alpha=0.2)
    figure.savefig(path, dpi=120)


def main() -> None:
    # Real cameras need an even light that does not flicker. The virtual one has 3.584 electrons an ADU and 3.2 of read noise.
    with kov.virtual("QuartzMono", scene="flat:40000", hot=0), kov.Camera() as cam:
        cam.roi = (600, 300, 400, 400)
        cam.controls["Gain"].value = 0
        cam.controls["Brightness"].value = 20  # black well above 0, or noise would be cut off
        curve = measure(cam, np.geomspace(0.0002, 0.5, 25))
    gain, noise = fit(curve)
    print(f"gain {gain:.3f} electrons an ADU, read noise {noise:.2f} electrons")
    if len(sys.argv) > 1:
        plot(curve, gain, noise, sys.argv[1])


if __name__ == "__main__":
    main()

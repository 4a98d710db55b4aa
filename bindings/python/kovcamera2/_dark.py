"""Dark frames and hot pixels."""

from __future__ import annotations

import os
import struct
from typing import Any, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray


def save_dark(path: Union[str, os.PathLike[str]], image: ArrayLike) -> None:
    """Writes a dark frame as ``Camera.subtract_dark`` reads it: an 8-bit BMP of the whole sensor.

    ``image`` has the shape (height, width) and holds 8-bit numbers; a mean of several frames is rounded.
    """
    pixels = np.clip(np.rint(np.asarray(image, dtype=np.float64)), 0, 255).astype(np.uint8)
    if pixels.ndim != 2:
        raise ValueError("a dark frame has the shape (height, width)")
    height, width = pixels.shape
    padded = np.zeros((height, (width + 3) // 4 * 4), np.uint8)
    padded[:, :width] = pixels  # the first row of the file is the sensor's first: viewers show the file upside down
    head = 14 + 40 + 1024
    with open(path, "wb") as file:
        file.write(struct.pack("<2sIII", b"BM", head + padded.size, 0, head))
        file.write(struct.pack("<IiiHHIIiiII", 40, width, height, 1, 8, 0, padded.size, 0, 0, 256, 0))
        file.write((np.arange(256, dtype="<u4") * 0x010101).tobytes())
        file.write(padded.tobytes())


def find_hot_pixels(dark: ArrayLike, threshold: float = 8.0) -> NDArray[np.intp]:
    """Pixels of a dark frame that stand out of it by more than ``threshold`` times its scatter: shape (n, 2), row and column.

    The scatter is that of the bulk of the pixels (1.4826 times the median deviation, at least one unit).
    """
    values = np.asarray(dark, dtype=np.float32)
    level = np.median(values)
    scatter = max(1.4826 * float(np.median(np.abs(values - level))), 1.0)
    return np.argwhere(values > level + threshold * scatter)


def repair_hot_pixels(image: NDArray[Any], pixels: ArrayLike, mosaic: bool = False) -> NDArray[Any]:
    """A copy of an image (height, width) with each of ``pixels`` (n, 2) replaced by the median of its four neighbours, with
    ``mosaic`` those of the same colour, two pixels away."""
    step = 2 if mosaic else 1
    rows, columns = np.asarray(pixels, dtype=np.intp).reshape(-1, 2).T
    around = np.pad(image, step, mode="reflect")
    neighbours = [around[rows + step + dy, columns + step + dx] for dy, dx in ((-step, 0), (step, 0), (0, -step), (0, step))]
    repaired = image.copy()
    repaired[rows, columns] = np.median(neighbours, axis=0).astype(image.dtype)
    return repaired

"""Takes a picture and writes it as FITS: fits.py FILE.fits [SECONDS]. Needs astropy."""

from __future__ import annotations

import sys

import numpy as np
from astropy.io import fits

import kovcamera2 as kov


def to_fits(frame: kov.Frame, cam: kov.Camera) -> fits.PrimaryHDU:
    """The picture with the keywords that astronomers' programs look for."""
    roi = cam.roi
    pixels = np.moveaxis(np.asarray(frame), 2, 0) if frame.ndim == 3 else np.asarray(frame)  # colour planes come first
    hdu = fits.PrimaryHDU(pixels)
    head = hdu.header
    head["INSTRUME"] = frame.camera
    head["EXPTIME"] = (frame.exposure, "s")
    if frame.time is not None:
        head["DATE-OBS"] = (frame.time.strftime("%Y-%m-%dT%H:%M:%S.%f")[:-3], "UTC, start of exposure")
    head["GAIN"] = frame.gain
    head["XBINNING"], head["YBINNING"] = roi.bin, roi.bin
    head["XPIXSZ"], head["YPIXSZ"] = cam.info.pixel_size * roi.bin, cam.info.pixel_size * roi.bin
    head["CCD-TEMP"] = (cam.temperature, "degrees Celsius")
    head["ROWORDER"] = "TOP-DOWN"
    if cam.info.color and frame.ndim == 2 and roi.bin == 1:
        head["BAYERPAT"] = cam.info.bayer
        head["XBAYROFF"], head["YBAYROFF"] = roi.x % 2, roi.y % 2
    return hdu


def main() -> None:
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    path, seconds = sys.argv[1], float(sys.argv[2]) if len(sys.argv) > 2 else 1.0
    with kov.Camera() as cam:
        to_fits(cam.snap(seconds), cam).writeto(path, overwrite=True)
    print(path)


if __name__ == "__main__":
    main()

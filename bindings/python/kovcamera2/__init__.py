"""USB cameras for astronomy and guiding.

    >>> import kovcamera2 as kov
    >>> with kov.Camera() as cam:
    ...     cam.controls["Gain"].value = 200
    ...     image = cam.snap(2.0)
    >>> image.shape, image.dtype
    ((1096, 1936), dtype('uint16'))

Without a camera, run the same inside ``with kov.virtual("QuartzCol"):``.
"""

from ._camera import (Camera, CameraInfo, Control, Controls, Cooler, Format, Frame, ROI, cameras)
from ._core import __version__
from ._dark import find_hot_pixels, repair_hot_pixels, save_dark
from ._errors import (BusyError, CameraError, CameraGoneError, CameraNotFoundError, ControlError, DarkFileError, DarkPathError,
                      ExposingError, ExposureCancelled, ExposureError, FormatError, FrameTimeoutError, ImageBufferError, KOVError,
                      NotOpenError, OpenError, RegionError, StartError, VideoActiveError)
from ._virtual import VirtualCameras, virtual

__all__ = [
    "BusyError", "Camera", "CameraError", "CameraGoneError", "CameraInfo", "CameraNotFoundError", "Control", "ControlError",
    "Controls", "Cooler", "DarkFileError", "DarkPathError", "ExposingError", "ExposureCancelled", "ExposureError", "Format",
    "FormatError", "Frame", "FrameTimeoutError", "ImageBufferError", "KOVError", "NotOpenError", "OpenError", "ROI",
    "RegionError", "StartError", "VideoActiveError", "VirtualCameras", "__version__", "cameras", "find_hot_pixels",
    "repair_hot_pixels", "save_dark", "virtual",
]

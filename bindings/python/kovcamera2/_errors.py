"""One exception an error code. All are KOVError; its message says what to do next."""


class KOVError(RuntimeError):
    """A call that failed. ``code`` is the error code of the C interface."""

    code: int = 0
    advice: str = "unknown error"


class CameraNotFoundError(KOVError):
    advice = "there is no camera of that index; cameras() lists them, and 'kovcam doctor' tells what keeps one from being seen"


class CameraGoneError(CameraNotFoundError):
    advice = "the camera is not in the list any more; plug it in, then call cameras() and open it anew"


class ControlError(KOVError):
    advice = "the camera has no such control; see cam.controls"


class NotOpenError(KOVError):
    advice = "the camera is not open, or capture could not start; use it inside 'with Camera(...) as cam:'"


class OpenError(KOVError):
    advice = "the camera could not be opened; another program may hold it, or the rights are missing: 'kovcam doctor' tells"


class DarkPathError(KOVError):
    advice = "the dark file cannot be opened; check its path"


class DarkFileError(KOVError):
    advice = "the dark file is no 8-bit BMP of the full sensor size; save_dark() writes one"


class RegionError(KOVError):
    advice = "the camera refuses this region; widths are multiples of 8, heights are even, both within the sensor"


class StartError(RegionError):
    advice = "the camera refuses this start; x and y are at least 0, and with width and height within the sensor"


class FormatError(KOVError):
    advice = "the camera does not deliver this format; see cam.info.formats"


class FrameTimeoutError(KOVError, TimeoutError):
    advice = "no frame came in time; check the cable and the port, lower the BandWidth control, or run 'kovcam doctor'"


class ImageBufferError(KOVError):
    advice = "the buffer is smaller than one image"


class BusyError(KOVError):
    advice = "another capture runs on this camera; end the video loop or the exposure first"


class VideoActiveError(BusyError):
    advice = "a video runs on this camera; end its loop first"


class ExposingError(BusyError):
    advice = "a single exposure runs on this camera; wait for it or stop it first"


class CameraError(KOVError):
    advice = "the camera refused, or has nothing of the kind"


class ExposureError(KOVError):
    advice = "no frame could be had of the exposure; check the cable and the port, or run 'kovcam doctor'"


class ExposureCancelled(KOVError):
    advice = "the exposure was stopped on request"


_TYPES: dict[int, type[KOVError]] = {
    1: CameraNotFoundError, 2: CameraGoneError, 3: ControlError, 4: NotOpenError, 5: OpenError, 6: DarkPathError, 7: DarkFileError,
    8: RegionError, 9: FormatError, 10: StartError, 11: FrameTimeoutError, 13: ImageBufferError, 14: VideoActiveError,
    15: ExposingError, 16: CameraError,
}


def make(code: int, what: str) -> KOVError:
    """The exception of an error code of the C interface; ``what`` was being done."""
    kind = _TYPES.get(code, KOVError)
    error = kind(f"{what}: {kind.advice} (error {code})")
    error.code = code
    return error

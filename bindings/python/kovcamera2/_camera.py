"""Cameras, their controls, and the pictures that they take."""

from __future__ import annotations

import datetime
import enum
import os
import sys
import threading
import time
import weakref
from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from types import TracebackType
from typing import Any, Generic, NamedTuple, Optional, TypeVar, Union, overload

import numpy as np
from numpy.typing import NDArray

from . import _core
from ._errors import (BusyError, CameraError, CameraNotFoundError, ControlError, ExposureCancelled, ExposureError,
                      FormatError, NotOpenError)

EXPOSURE, TEMPERATURE, COOL_POWER, TARGET_TEMP, COOLER_ON = 1, 8, 15, 16, 17
WORKING, SUCCESS = 1, 2


class Format(str, enum.Enum):
    """How pixels are delivered. A plain string does as well: ``cam.format = "raw16"``."""

    RAW8 = "raw8"    #: the sensor's mosaic, shape (height, width), uint8
    RGB24 = "rgb24"  #: red, green, blue, shape (height, width, 3), uint8
    RAW16 = "raw16"  #: the sensor's mosaic, shape (height, width), uint16, the sample in the upper bits
    Y8 = "y8"        #: luminance, shape (height, width), uint8


_FORMATS = list(Format)  # in the order of the C interface
_LAYOUT: dict[Format, tuple[Any, int]] = {
    Format.RAW8: (np.dtype(np.uint8), 1), Format.RGB24: (np.dtype(np.uint8), 3), Format.RAW16: (np.dtype("<u2"), 1),
    Format.Y8: (np.dtype(np.uint8), 1),
}


class ROI(NamedTuple):
    """A region of the sensor in output pixels, which are sensor pixels divided by ``bin``."""

    x: int
    y: int
    width: int
    height: int
    bin: int = 1


@dataclass(frozen=True)
class CameraInfo:
    """What a camera is."""

    index: int               #: the place in the list of ``cameras()``, from 0
    name: str
    width: int               #: sensor, pixels
    height: int
    color: bool
    bayer: str               #: "RGGB", "BGGR", "GRBG" or "GBRG": the cell at the sensor's corner; "" on a mono camera
    bins: tuple[int, ...]
    formats: tuple[Format, ...]
    pixel_size: float        #: micrometres
    cooled: bool
    usb3_camera: bool
    usb3_host: bool          #: False until the camera has been opened
    electrons_per_adu: float #: 0 where the model tells none


class Frame(np.ndarray[Any, Any]):
    """A picture: a NumPy array that knows how it was taken. It is yours: nothing writes into it later, also when the camera
    is closed. A result of arithmetic or slicing carries the same facts along."""

    time: Optional[datetime.datetime]   #: UTC; of a snap the start of the exposure, of a video frame its arrival
    exposure: float                     #: seconds
    gain: int
    dropped: int                        #: frames lost since the video began
    camera: str

    def __array_finalize__(self, source: Any) -> None:
        self.time = getattr(source, "time", None)
        self.exposure = getattr(source, "exposure", 0.0)
        self.gain = getattr(source, "gain", 0)
        self.dropped = getattr(source, "dropped", 0)
        self.camera = getattr(source, "camera", "")


class Control:
    """A control of an open camera. ``unit`` is "" for plain numbers."""

    _UNITS = {EXPOSURE: "us", 6: "%", 7: "%", TEMPERATURE: "0.1 C", 11: "s", COOL_POWER: "%", TARGET_TEMP: "C"}

    def __init__(self, camera: Camera, caps: tuple[int, str, str, int, int, int, bool, bool]) -> None:
        self._camera = camera
        (self._type, self.name, self.description, self.min, self.max, self.default, self.supports_auto, self.writable) = caps
        self.unit = self._UNITS.get(self._type, "")

    @property
    def value(self) -> int:
        """The present value, in ``unit``. Setting one outside ``min`` to ``max`` is a ValueError, and ends the automatic."""
        return _core.get_control(self._camera._id(), self._type)[0]

    @value.setter
    def value(self, value: int) -> None:
        if not self.writable:
            raise ControlError(f"{self.name} can only be read")
        if not self.min <= value <= self.max:
            raise ValueError(f"{self.name}: {value} is not within {self.min} to {self.max} {self.unit}".rstrip())
        _core.set_control(self._camera._id(), self._type, int(value), False)

    @property
    def auto(self) -> bool:
        """Whether the camera regulates the value by itself, while video runs."""
        return _core.get_control(self._camera._id(), self._type)[1]

    @auto.setter
    def auto(self, on: bool) -> None:
        if on and not self.supports_auto:
            raise ControlError(f"{self.name} has no automatic")
        _core.set_control(self._camera._id(), self._type, self.value, bool(on))

    def reset(self) -> None:
        """Back to the default, without the automatic."""
        self.value = self.default

    def __repr__(self) -> str:
        marks = (", auto" if self.auto else "") + ("" if self.writable else ", read only")
        unit = " " + self.unit if self.unit else ""
        return f"<{self.name} = {self.value}{unit}, {self.min} to {self.max}, default {self.default}{marks}>"


class Controls(Mapping[str, Control]):
    """The controls of a camera by name. Case, blanks, dashes and underscores make no difference: "AutoExpMaxGain" is
    "auto-exp-max-gain" too."""

    def __init__(self, camera: Camera) -> None:
        self._controls = {c.name: c for c in (Control(camera, caps) for caps in _core.controls(camera._id()))}
        self._by_plain = {self._plain(name): name for name in self._controls}

    @staticmethod
    def _plain(name: str) -> str:
        return "".join(c for c in name.lower() if c.isalnum())

    def __getitem__(self, name: str) -> Control:
        try:
            return self._controls[self._by_plain[self._plain(name)]]
        except KeyError:
            raise KeyError(f"{name!r}: this camera has {', '.join(self._controls)}") from None

    def __iter__(self) -> Iterator[str]:
        return iter(self._controls)

    def __len__(self) -> int:
        return len(self._controls)

    def __repr__(self) -> str:
        return "\n".join(repr(c) for c in self.values())


class Cooler:
    """The cooler of a cooled camera."""

    def __init__(self, camera: Camera) -> None:
        self._camera = camera

    @property
    def on(self) -> bool:
        return _core.get_control(self._camera._id(), COOLER_ON)[0] != 0

    @on.setter
    def on(self, on: bool) -> None:
        _core.set_control(self._camera._id(), COOLER_ON, int(on), False)

    @property
    def target(self) -> int:
        """Whole degrees Celsius. Setting it does not switch the cooler on."""
        return _core.get_control(self._camera._id(), TARGET_TEMP)[0]

    @target.setter
    def target(self, celsius: int) -> None:
        _core.set_control(self._camera._id(), TARGET_TEMP, int(round(celsius)), False)

    @property
    def power(self) -> int:
        """Percent."""
        return _core.get_control(self._camera._id(), COOL_POWER)[0]

    @property
    def temperature(self) -> float:
        """Of the sensor, degrees Celsius."""
        return self._camera.temperature

    def __repr__(self) -> str:
        return f"<cooler {'on' if self.on else 'off'}, {self.temperature} C, target {self.target} C, power {self.power} %>"


class _Pool:
    """Buffers for video frames. One is used again when nobody holds a frame in it any more."""

    def __init__(self) -> None:
        self._buffers: list[NDArray[np.uint8]] = []

    def take(self, size: int) -> NDArray[np.uint8]:
        self._buffers = [b for b in self._buffers if b.size == size]
        for i in range(len(self._buffers)):
            if sys.getrefcount(self._buffers[i]) == 2:  # the list's and the call's
                return self._buffers[i]
        self._buffers.append(np.empty(size, np.uint8))
        return self._buffers[-1]


_Given = TypeVar("_Given")
_Taken = TypeVar("_Taken")


class _Setting(Generic[_Given, _Taken]):
    """A property that takes more kinds of values than it gives."""

    def __init__(self, get: Callable[[Any], _Given], set: Callable[[Any, _Taken], None], doc: str) -> None:
        self._get, self._set, self.__doc__ = get, set, doc

    @overload
    def __get__(self, owner: None, kind: type) -> _Setting[_Given, _Taken]: ...

    @overload
    def __get__(self, owner: Camera, kind: type) -> _Given: ...

    def __get__(self, owner: Optional[Camera], kind: type) -> Union[_Given, _Setting[_Given, _Taken]]:
        return self if owner is None else self._get(owner)

    def __set__(self, owner: Camera, value: _Taken) -> None:
        self._set(owner, value)


_open: dict[int, weakref.ref[Camera]] = {}
_open_lock = threading.Lock()


def _info(index: int) -> CameraInfo:
    d = _core.info(index)
    d["bayer"] = ("RGGB", "BGGR", "GRBG", "GBRG")[d["bayer"]] if d["color"] else ""
    d["formats"] = tuple(_FORMATS[f] for f in d["formats"])
    return CameraInfo(**d)


def cameras() -> list[CameraInfo]:
    """Looks for cameras and tells what they are. Models that the library does not know are left out."""
    found = []
    for index in range(_core.count()):
        try:
            found.append(_info(index))
        except NotOpenError:
            pass
    return found


def _choose(which: Union[int, str]) -> int:
    count = _core.count()
    if count == 0:
        raise CameraNotFoundError("no camera found; check plug, cable and power, 'kovcam doctor' tells more")
    if isinstance(which, int):
        if not 0 <= which < count:
            raise CameraNotFoundError(f"there is no camera {which}; {count} found, counted from 0")
        return which
    fits = [info for info in cameras() if which.lower() in info.name.lower()]
    if not fits:
        raise CameraNotFoundError(f"no camera's name has {which!r} in it; cameras() lists them")
    return fits[0].index


class Camera:
    """An open camera. Use it in a ``with`` statement, or call ``close()``.

    ``which`` is an index, or a part of a name. The whole sensor is delivered, in 16 bits where the camera can. One thread may take pictures while others read and set controls; regions and
    formats are set while nothing is being taken. Different cameras are independent.
    """

    def __init__(self, which: Union[int, str] = 0) -> None:
        self._index: Optional[int] = None
        index = _choose(which)
        with _open_lock:
            other = _open.get(index)
            if other is not None and other() is not None:
                raise BusyError("the camera is open already in this program; close the other Camera first")
            _core.open(index)
            _open[index] = weakref.ref(self)
        self._index = index
        self.info = _info(index)  #: what the camera is
        self._pool = _Pool()
        self._capturing = threading.Lock()  # held by whoever takes pictures
        if Format.RAW16 in self.info.formats:
            self.format = Format.RAW16

    def close(self) -> None:
        """Stops what runs and closes the camera. Frames stay valid. Twice does no harm."""
        with _open_lock:
            index, self._index = self._index, None
            if index is not None:
                _core.close(index)
                _open.pop(index, None)

    def __enter__(self) -> Camera:
        return self

    def __exit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]) -> None:
        self.close()

    def __del__(self) -> None:
        index = getattr(self, "_index", None)
        if index is not None and _core is not None:
            _core.close(index)
            _open.pop(index, None)

    def __repr__(self) -> str:
        return f"<Camera {self.info.name}{'' if self._index is not None else ', closed'}>"

    def _id(self) -> int:
        if self._index is None:
            raise NotOpenError("the camera has been closed; open it anew with Camera(...)")
        return self._index

    @property
    def controls(self) -> Controls:
        """The controls: ``cam.controls["Gain"].value = 200``."""
        return Controls(self)

    @property
    def exposure(self) -> float:
        """Seconds."""
        return _core.get_control(self._id(), EXPOSURE)[0] / 1e6

    @exposure.setter
    def exposure(self, seconds: float) -> None:
        self.controls["Exposure"].value = round(seconds * 1e6)

    @property
    def temperature(self) -> float:
        """Of the sensor, degrees Celsius."""
        return _core.get_control(self._id(), TEMPERATURE)[0] / 10

    @property
    def cooler(self) -> Cooler:
        """CameraError on a camera that has none."""
        self._id()
        if not self.info.cooled:
            raise CameraError(f"{self.info.name} has no cooler")
        return Cooler(self)

    # --- region and format

    def _get_roi(self) -> ROI:
        return ROI(*_core.get_format(self._id())[:5])

    def _set_roi(self, roi: Sequence[int]) -> None:
        x, y, width, height, *bin = roi
        self._set_format(ROI(x, y, width, height, bin[0] if bin else self.roi.bin), self.format)

    roi = _Setting[ROI, Sequence[int]](_get_roi, _set_roi, """The region that is delivered. Set it with ``(x, y, width,
        height)``, or with the bin as a fifth number; read it back, since the camera rounds the start. RegionError where the
        camera refuses it.""")

    @property
    def bin(self) -> int:
        """Sensor pixels to a side of one output pixel. Setting it gives the whole sensor."""
        return self.roi.bin

    @bin.setter
    def bin(self, bin: int) -> None:
        width, height = self.info.width // bin // 8 * 8, self.info.height // bin // 2 * 2
        self._set_format(ROI(0, 0, width, height, bin), self.format)

    def _get_format(self) -> Format:
        return _FORMATS[_core.get_format(self._id())[5]]

    def _choose_format(self, format: str) -> None:
        self._set_format(self.roi, Format(format))

    format = _Setting[Format, str](_get_format, _choose_format,
                                   """How pixels are delivered; the region stays. FormatError where the camera has no such
                                   format.""")

    def _set_format(self, roi: ROI, format: Format) -> None:
        if format not in self.info.formats:
            raise FormatError(f"{self.info.name} delivers {', '.join(f.value for f in self.info.formats)}, not {format.value}")
        with self._busy():
            _core.set_format(self._id(), roi.width, roi.height, roi.bin, _FORMATS.index(format))
            _core.set_start(self._id(), roi.x, roi.y)

    # --- pictures

    def snap(self, exposure: Optional[float] = None, *, progress: Optional[Callable[[float], object]] = None,
             cancel: Optional[threading.Event] = None) -> Frame:
        """One exposure, of so many seconds or as the camera is set.

        ``progress`` is called with 0 to 1 now and then; ``cancel``, once set, ends the exposure with ExposureCancelled. Ctrl-C
        works too. ExposureError when no frame could be had.
        """
        if exposure is not None:
            self.exposure = exposure
        with self._busy():
            id = self._id()
            buffer = np.empty(self._size(), np.uint8)
            frame = self._frame(buffer)
            _core.start_exposure(id)
            frame.time = datetime.datetime.now(datetime.timezone.utc)
            try:
                self._await(id, frame.exposure, progress, cancel)
                _core.get_exposed(id, buffer)
            except BaseException:
                if self._index is not None:
                    _core.stop_exposure(id)
                raise
            return frame

    def _await(self, id: int, exposure: float, progress: Optional[Callable[[float], object]],
               cancel: Optional[threading.Event]) -> None:
        start = time.monotonic()
        while (status := _core.status(id)) == WORKING:
            if cancel is not None and cancel.is_set():
                raise ExposureCancelled(ExposureCancelled.advice)
            if progress is not None:
                progress(min((time.monotonic() - start) / max(exposure, 1e-6), 1.0))
            time.sleep(min(0.02, max(exposure / 4, 0.001)))
            self._id()
        if status != SUCCESS:
            raise ExposureError(ExposureError.advice)
        if progress is not None:
            progress(1.0)

    def video(self, frames: Optional[int] = None, *, timeout: Optional[float] = None) -> Iterator[Frame]:
        """Frames as they come, so many or without end; video stops when the loop is left.

        A frame is written once, by the library, into memory that is used again only when you hold the frame no more: keep
        what you like. ``timeout`` is in seconds; without one it is twice the exposure and two seconds more, and
        FrameTimeoutError ends the loop.
        """
        with self._busy():
            id = self._id()
            _core.start_video(id)
            try:
                size = self._size()
                number = 0
                while frames is None or number < frames:
                    buffer = self._pool.take(size)
                    wait = timeout if timeout is not None else 2 * self.exposure + 2
                    _core.get_frame(self._id(), buffer, max(1, round(wait * 1000)))
                    frame = self._frame(buffer)
                    frame.time = datetime.datetime.now(datetime.timezone.utc)
                    frame.dropped = _core.dropped(id)
                    number += 1
                    del buffer
                    yield frame
                    del frame
            finally:
                if self._index is not None:
                    _core.stop_video(id)

    def _busy(self) -> Any:
        return _Exclusive(self._capturing)

    def _size(self) -> int:
        roi, (dtype, planes) = self.roi, _LAYOUT[self.format]
        return int(roi.width * roi.height * planes * dtype.itemsize)

    def _frame(self, buffer: NDArray[np.uint8]) -> Frame:
        """The picture in a buffer, without a copy."""
        x, y, width, height, bin, type = _core.get_format(self._id())
        dtype, planes = _LAYOUT[_FORMATS[type]]
        picture = buffer.view(dtype).reshape((height, width) if planes == 1 else (height, width, planes))
        frame: Frame = (picture if planes == 1 else picture[:, :, ::-1]).view(Frame)  # blue comes first in memory
        frame.exposure = self.exposure
        frame.gain = _core.get_control(self._id(), 0)[0]
        frame.camera = self.info.name
        return frame

    # --- the rest

    def guide(self, pin: int, seconds: float) -> None:
        """Asserts a pin of the guide port, 0 to 3, for so long. The pin is released whatever happens."""
        if pin not in range(4):
            raise ValueError("guide pins are 0 to 3")
        _core.guide_on(self._id(), pin)
        try:
            time.sleep(seconds)
        finally:
            _core.guide_off(self._id(), pin)

    @property
    def dark(self) -> bool:
        """Whether a dark frame is being subtracted from 8-bit pictures."""
        return _core.dark(self._id(), None)

    def subtract_dark(self, path: Union[str, os.PathLike[str], None]) -> None:
        """Subtracts the dark frame of a file (``save_dark`` writes one) from 8-bit pictures; None ends that. DarkPathError,
        DarkFileError."""
        if path is None:
            _core.disable_dark(self._id())
        else:
            _core.dark(self._id(), os.fspath(path))

    @property
    def user_id(self) -> Optional[bytes]:
        """Eight bytes that the camera keeps in its flash; None when there are none. Not while pictures are taken."""
        try:
            return _core.get_id(self._id())
        except CameraError:
            return None

    @user_id.setter
    def user_id(self, value: Union[bytes, str]) -> None:
        raw = value.encode() if isinstance(value, str) else value
        if len(raw) > 8:
            raise ValueError("an ID has at most eight bytes")
        with self._busy():
            _core.set_id(self._id(), raw)


class _Exclusive:
    """A lock that does not wait: two captures on one camera are a mistake."""

    def __init__(self, lock: threading.Lock) -> None:
        self._lock = lock

    def __enter__(self) -> None:
        if not self._lock.acquire(blocking=False):
            raise BusyError(BusyError.advice)

    def __exit__(self, *unused: object) -> None:
        self._lock.release()


def close_all() -> None:
    """Closes every camera that this program has open."""
    with _open_lock:
        cameras = [camera for ref in _open.values() if (camera := ref()) is not None]
    for camera in cameras:
        camera.close()

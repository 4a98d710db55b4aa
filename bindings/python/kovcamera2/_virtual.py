"""Virtual cameras in this process, for tests and for trying things."""

from __future__ import annotations

import ctypes
import os
from types import TracebackType
from typing import Optional, Union

from . import _camera, _core
from ._errors import CameraNotFoundError

_library: Optional[ctypes.CDLL] = None


def _load() -> ctypes.CDLL:
    global _library
    if _library is None:
        here = os.path.dirname(os.path.realpath(_core.path_of_library()))
        places = [os.path.join(here, p, "libkovsim.so") for p in ("kovcamera2", "../virtual")]
        found = [p for p in places if os.path.exists(p)]
        if not found:
            raise RuntimeError("the virtual cameras are not installed; looked for " + ", ".join(places))
        _library = ctypes.CDLL(found[0], mode=ctypes.RTLD_GLOBAL)  # so that the library finds its entry
    return _library


class VirtualCameras:
    """What ``virtual()`` gives: cables to pull. ``index`` counts in the order of the models."""

    def __init__(self, text: str) -> None:
        self._text = text

    def __enter__(self) -> VirtualCameras:
        _camera.close_all()
        error = ctypes.create_string_buffer(4096)
        if _load().KOVSimAttach(self._text.encode(), error, len(error)) != 0:
            raise ValueError(error.value.decode())
        return self

    def __exit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]) -> None:
        _camera.close_all()
        _load().KOVSimDetach()

    def unplug(self, index: int = 0) -> None:
        """Pulls a camera out, also one that is open."""
        self._check(_load().KOVSimUnplug(index), index)

    def replug(self, index: int = 0) -> None:
        """Plugs it in again."""
        self._check(_load().KOVSimReplug(index), index)

    def _check(self, result: int, index: int) -> None:
        if result != 0:
            raise CameraNotFoundError(f"there is no virtual camera {index}")


def virtual(*models: str, usb2: bool = False, **options: Union[str, float, int]) -> VirtualCameras:
    """Virtual cameras in the place of real ones, as a context manager::

        with kov.virtual("QuartzCol", scene="flat:2000", rate=10) as sim, kov.Camera() as cam:
            ...

    ``kovsim models`` lists the models, ``kovsim run --help`` the options: scene, rate (the clock, so many times faster), seed,
    noise, hot, ambient, link, flash, serial, firmware, vanish. Cameras that are open are closed at both ends.
    """
    parts = [",".join(models or ("QuartzCol",))]
    parts += [f"{name}={value:g}" if isinstance(value, float) else f"{name}={value}" for name, value in options.items()]
    if any(";" in part for part in parts):
        raise ValueError("a semicolon is not possible here")
    return VirtualCameras(";".join(parts + (["usb2"] if usb2 else [])))

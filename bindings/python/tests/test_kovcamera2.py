"""What can go wrong: lifetimes, threads, interrupts, errors, shapes."""

import os
import pathlib
import runpy
import signal
import threading
import time

import numpy as np
import pytest

import kovcamera2 as kov
from kovcamera2._errors import make as make_error


@pytest.fixture(autouse=True)
def own_settings(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_CONFIG_HOME", str(tmp_path))


@pytest.fixture
def sim():
    with kov.virtual("QuartzCol", scene="pattern", noise=0, hot=0) as s:
        yield s


@pytest.fixture
def cam(sim):
    with kov.Camera() as camera:
        camera.roi = (64, 32, 320, 240)
        camera.exposure = 0.01
        camera.controls["Gain"].value = 0
        yield camera


def test_list_and_choice():
    with kov.virtual("QuartzCol", "LapisMono_C"):
        lapis, quartz = sorted(kov.cameras(), key=lambda info: info.name)
        assert (lapis.width, lapis.height, lapis.cooled, lapis.bayer) == (1936, 1216, True, "")
        assert (quartz.width, quartz.color, quartz.bayer, quartz.pixel_size) == (1936, True, "RGGB", 3.75)
        with kov.Camera("lapis") as camera:
            assert camera.info.index == lapis.index
            assert camera.info.usb3_host
        with pytest.raises(kov.CameraNotFoundError, match="cameras"):
            kov.Camera("nonsense")
        with pytest.raises(kov.CameraNotFoundError, match="2 found"):
            kov.Camera(2)


@pytest.mark.parametrize("format, shape, dtype", [("raw8", (240, 320), "u1"), ("raw16", (240, 320), "<u2"),
                                                  ("y8", (240, 320), "u1"), ("rgb24", (240, 320, 3), "u1")])
def test_shapes(cam, format, shape, dtype):
    cam.format = format
    assert cam.format == format and cam.roi == (64, 32, 320, 240, 1)
    for frame in (cam.snap(), next(cam.video(1))):
        assert (frame.shape, frame.dtype) == (shape, np.dtype(dtype))
        assert frame.exposure == 0.01 and frame.time is not None


def test_pixels_are_the_scene():
    with kov.virtual("QuartzMono", scene="pattern", noise=0, hot=0), kov.Camera() as camera:
        camera.roi = (64, 32, 320, 240)
        camera.controls["Gain"].value = 0
        y, x = np.mgrid[32:272, 64:384]
        off = (np.asarray(camera.snap(0.01), dtype=int) >> 8) - (7 * x + 13 * y) % 251
        assert np.ptp(np.percentile(off, [1, 99])) <= 3, "another region, or torn rows"


def test_rgb_comes_red_first():
    with kov.virtual("QuartzCol", scene="colour:60000,10000,1000", hot=0), kov.Camera() as camera:
        camera.roi = (0, 0, 320, 240)
        camera.format = "rgb24"
        red, green, blue = camera.snap(0.01).mean(axis=(0, 1))
        assert red > 2 * green > 4 * blue


def test_frames_outlive_the_camera(sim):
    with kov.Camera() as camera:
        camera.roi = (0, 0, 320, 240)
        kept = list(camera.video(4))
        copies = [np.array(f) for f in kept]
        assert len({f.__array_interface__["data"][0] for f in kept}) == 4
        again = camera.video(40)
        addresses = {next(again).__array_interface__["data"][0] for _ in range(20)}
        assert len(addresses) <= 2, "buffers that nobody holds are used again"
        assert addresses.isdisjoint(f.__array_interface__["data"][0] for f in kept)
    assert all(np.array_equal(a, b) for a, b in zip(kept, copies))


def test_closing_ends_what_runs(cam):
    video = cam.video()
    next(video)
    with pytest.raises(kov.BusyError):
        cam.format = "raw8"
    with pytest.raises(kov.BusyError):
        cam.snap()
    cam.close()
    cam.close()
    for use in (lambda: next(video), lambda: cam.exposure, cam.snap):
        with pytest.raises(kov.NotOpenError):
            use()


def test_closing_from_another_thread(cam):
    seen = []

    def watch():
        with pytest.raises(kov.NotOpenError):
            for frame in cam.video():
                seen.append(frame.shape)
        seen.append("left")

    thread = threading.Thread(target=watch)
    thread.start()
    while not seen:
        time.sleep(0.01)
    cam.close()
    thread.join(10)
    assert seen[-1] == "left"


def test_two_cameras_in_two_threads():
    with kov.virtual("QuartzCol", "LapisMono_C"):
        counts = {}

        def run(which):
            with kov.Camera(which) as camera:
                camera.roi = (0, 0, 320, 240)
                camera.exposure = 0.005
                counts[which] = sum(1 for _ in camera.video(30))

        threads = [threading.Thread(target=run, args=(w,)) for w in ("Quartz", "Lapis")]
        for t in threads:
            t.start()
        for t in threads:
            t.join(60)
        assert counts == {"Quartz": 30, "Lapis": 30}


def test_ctrl_c_and_cancel(cam):
    def interrupted(call, after=0.3):
        threading.Timer(after, os.kill, (os.getpid(), signal.SIGINT)).start()
        start = time.monotonic()
        with pytest.raises(KeyboardInterrupt):
            call()
        return time.monotonic() - start

    cam.exposure = 30.0
    assert interrupted(lambda: next(cam.video())) < 8
    assert interrupted(lambda: cam.snap(30.0)) < 5
    cancel = threading.Event()
    threading.Timer(0.3, cancel.set).start()
    with pytest.raises(kov.ExposureCancelled):
        cam.snap(30.0, cancel=cancel)
    steps = []
    assert cam.snap(0.2, progress=steps.append).shape == (240, 320)
    assert steps == sorted(steps) and steps[-1] == 1.0


def test_errors_tell_what_to_do(cam, sim, tmp_path):
    cases = [
        (kov.RegionError, "sensor", lambda: setattr(cam, "roi", (0, 0, 4000, 4000))),
        (kov.DarkPathError, "path", lambda: cam.subtract_dark(tmp_path / "none.bmp")),
        (kov.CameraError, "cooler", lambda: cam.cooler),
        (kov.ControlError, "only be read", lambda: setattr(cam.controls["Temperature"], "value", 3)),
        (ValueError, "0 to 600", lambda: setattr(cam.controls["gain"], "value", 601)),
        (KeyError, "Gain", lambda: cam.controls["nonsense"]),
        (ValueError, "eight", lambda: setattr(cam, "user_id", b"123456789")),
        (kov.BusyError, "open already", kov.Camera),
    ]
    for kind, text, call in cases:
        with pytest.raises(kind, match=text):
            call()
    video = cam.video(timeout=0.5)
    next(video)
    sim.unplug()
    with pytest.raises(TimeoutError, match="kovcam doctor") as caught:
        list(video)
    assert isinstance(caught.value, kov.FrameTimeoutError) and caught.value.code == 11
    with pytest.raises(ValueError, match="QuarzCol"):
        kov.virtual("QuarzCol").__enter__()


def test_every_error_code_has_a_type_and_advice_of_its_own():
    errors = [make_error(code, "doing it") for code in (*range(1, 12), *range(13, 17))]
    assert len({type(e) for e in errors}) == len({e.advice for e in errors}) == 15
    assert all(isinstance(e, kov.KOVError) and e.advice in str(e) for e in errors)


def test_controls(cam):
    gain = cam.controls["gain"]
    gain.value = 123
    assert (gain.value, gain.auto, gain.min, gain.max, gain.default) == (123, False, 0, 600, 200)
    gain.auto = True
    assert gain.auto
    gain.reset()
    assert (gain.value, gain.auto) == (200, False)
    assert cam.controls["exposure"].unit == "us" and 10 < cam.temperature < 40
    cam.guide(2, 0.01)
    assert cam.user_id is None
    cam.user_id = "EAST"
    assert cam.user_id == b"EAST\0\0\0\0"


def test_cooler():
    with kov.virtual("LapisMono_C", rate=40), kov.Camera() as camera:
        camera.cooler.target = 5
        camera.cooler.on = True
        end = time.monotonic() + 20
        while (camera.cooler.power == 0 or camera.temperature > 8) and time.monotonic() < end:
            time.sleep(0.1)
        assert camera.temperature <= 8 and camera.cooler.power > 0 and camera.cooler.on


def test_dark_and_hot_pixels(tmp_path):
    with kov.virtual("QuartzMono", scene="dark", hot=300), kov.Camera() as camera:
        camera.format = "raw8"
        camera.controls["Gain"].value = 200
        camera.exposure = 0.5
        dark = np.mean([np.array(f, float) for f in camera.video(4)], axis=0)
        hot = kov.find_hot_pixels(dark)
        assert 50 < len(hot) < 400
        kov.save_dark(tmp_path / "dark.bmp", dark)
        before = camera.snap()
        camera.subtract_dark(tmp_path / "dark.bmp")
        assert camera.dark
        after = camera.snap()
        camera.subtract_dark(None)
        assert not camera.dark
        at = tuple(hot.T)
        assert after[at].astype(int).mean() < 0.3 * before[at].astype(int).mean()
        assert len(kov.find_hot_pixels(kov.repair_hot_pixels(before, hot))) < 0.1 * len(hot)


@pytest.mark.parametrize("format, planes, pattern", [("raw16", 1, "RGGB"), ("raw8", 1, "RGGB"), ("rgb24", 3, None)])
def test_fits_example(cam, tmp_path, format, planes, pattern):
    astropy = pytest.importorskip("astropy.io.fits")
    path = pathlib.Path(__file__).parents[1] / "examples" / "fits.py"
    to_fits = runpy.run_path(str(path))["to_fits"]
    cam.format = format
    frame = cam.snap(0.01)
    to_fits(frame, cam).writeto(tmp_path / "a.fits")
    with astropy.open(tmp_path / "a.fits") as opened:
        opened.verify("exception")
        head, pixels = opened[0].header, opened[0].data.reshape(planes, 240, 320)
    assert np.array_equal(np.moveaxis(pixels, 0, 2), frame.reshape(240, 320, planes))
    assert (head["EXPTIME"], head["GAIN"], head.get("BAYERPAT")) == (0.01, 0, pattern)
    assert head["DATE-OBS"].startswith(frame.time.strftime("%Y-%m-%dT%H:%M:%S"))

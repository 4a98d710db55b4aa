"""The page in a real Chromium. With KOV_SCREENSHOTS=FOLDER it leaves pictures of itself there."""
import io
import os
import time
import unittest

import numpy as np
from bench import COOLED, WIDTH, Server
from PIL import Image
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.actions import interaction
from selenium.webdriver.common.actions.action_builder import ActionBuilder
from selenium.webdriver.common.actions.pointer_input import PointerInput
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

SCREENSHOTS = os.environ.get("KOV_SCREENSHOTS")


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.s = Server(f"QuartzCol,{COOLED}", "--seed", "3")
        cls.quartz = next(c["index"] for c in cls.s.json("/api/cameras") if "Quartz" in c["name"])
        cls.browser = cls.open_browser(1500, 950)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        cls.s.close()

    @classmethod
    def open_browser(cls, width, height):
        o = Options()
        for a in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", f"--window-size={width},{height}"):
            o.add_argument(a)
        o.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        b = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=o)
        b.get(f"http://127.0.0.1:{cls.s.port}/#camera={cls.quartz}")
        return b

    def js(self, script, browser=None):
        return (browser or self.browser).execute_script(script)

    def picture(self, browser=None):
        png = (browser or self.browser).find_element(By.ID, "stage").screenshot_as_png
        return np.asarray(Image.open(io.BytesIO(png)).convert("L"), float)

    @classmethod
    def shot(cls, name, browser=None):
        if SCREENSHOTS:
            cls.keep(name, cls.screen(browser or cls.browser))

    @staticmethod
    def screen(browser):
        return Image.open(io.BytesIO(browser.get_screenshot_as_png())).convert("RGB")

    @staticmethod
    def keep(name, picture):
        """In 64 steps a colour: the noise of a sky would take a megabyte."""
        picture.point(lambda v: (v & 0xFC) | (v >> 6)).save(f"{SCREENSHOTS}/{name}.png", optimize=True)

    def shot_of_both(self, name, other):
        """Two browsers at the same moment, side by side."""
        if not SCREENSHOTS:
            return
        first, second = self.screen(self.browser), self.screen(other)
        second = second.resize((second.width * first.height // second.height, first.height), Image.LANCZOS)
        both = Image.new("RGB", (first.width + 20 + second.width, first.height), "white")
        both.paste(first, (0, 0))
        both.paste(second, (first.width + 20, 0))
        self.keep(name, both)

    def until(self, script, what, seconds=40, browser=None):
        self.s.wait(lambda: self.js("return " + script, browser), what, seconds)

    def new_frames(self, count):
        """The first may have been asked for before the test's last step; its number tells nothing of that."""
        for _ in range(count):
            self.js("shownBefore = shown")
            self.until("shown !== shownBefore", "a new picture is shown")

    def tap(self, selector, browser=None):
        """A click as a person does it: where the element is on the screen."""
        e = (browser or self.browser).find_element(By.CSS_SELECTOR, selector)
        self.js_on(e, "arguments[0].scrollIntoView({ block: 'center' })", browser)
        e.click()

    def js_on(self, element, script, browser=None):
        return (browser or self.browser).execute_script(script, element)

    def test_a_night(self):
        # A fifth of a second shows more of the sky than the 10 ms that cameras begin with.
        self.until("state && state.controls.length > 0", "the page has the state")
        self.js("put('control', { type: 1, value: 200000, auto: false })")
        self.until("frame.number > 2 && statistics && statistics.starCount > 3", "the page shows stars")
        time.sleep(3)
        self.shot("page")
        # Stars on a dark sky, and the picture moves on.
        p = self.picture()
        self.assertGreater(np.percentile(p, 99.99) - np.median(p), 60)
        self.assertEqual([e for e in self.browser.get_log("browser") if e["level"] == "SEVERE"], [])

        # A slider changes the camera, and the picture gets brighter: the stretch is set by hand for that.
        self.js("$('auto').checked = false; $('black').value = 0; $('middle').value = .02; $('white').value = 1")
        self.new_frames(3)
        before = self.picture().mean()
        self.js("const r = document.querySelector('[data-type=\"1\"] input[type=range]'); r.value = Math.log(1500000); r.dispatchEvent(new Event('input'))")
        self.until("state.controls.find(c => c.type === 1).value > 1400000", "the exposure is set")
        # Some of the old exposure may still be on their way.
        self.s.wait(lambda: self.picture().mean() > 1.5 * before, "the picture is brighter")
        self.shot("slider")
        brighter = self.picture().mean()
        self.js("$('middle').value = .3; $('middle').dispatchEvent(new Event('input'))")
        self.s.wait(lambda: self.picture().mean() < .8 * brighter, "the picture is darker")
        self.js("const r = document.querySelector('[data-type=\"1\"] input[type=range]'); r.value = Math.log(200000); r.dispatchEvent(new Event('input'))")
        self.js("$('auto').click()")

        # What has few values is chosen by words.
        for value in (3, 0):
            self.js(f"const f = document.querySelector('[data-type=\"9\"] select'); f.value = {value}; f.dispatchEvent(new Event('change'))")
            self.until(f"state.controls.find(c => c.type === 9).value === {value}", "the picture is flipped")

        # Zoom by the keyboard, marks, a star that is tapped.
        stage = self.browser.find_element(By.ID, "stage")
        stage.send_keys("1")
        self.until("view.zoom === 1 && shown.w < frame.width", "a part of the picture at 1:1")
        left = self.js("return shown.x")
        stage.send_keys(Keys.ARROW_RIGHT)
        self.until(f"shown.x > {left} + 50", "the part moves right")
        stage.send_keys(Keys.SPACE)
        self.until("state.phase === 'idle'", "the video pauses")
        stage.send_keys(Keys.SPACE)
        self.until("state.phase === 'live'", "and goes on")
        stage.send_keys("c")
        self.js("$('stars').click()")
        self.until("shown.x + shown.w > statistics.stars[0].x", "a star is in sight")
        self.js("""const s = statistics.stars.find(s => s.x > shown.x + 50 && s.x < shown.x + shown.w - 50 && s.y > shown.y + 50 && s.y < shown.y + shown.h - 50);
                   const p = placement(), b = stage.getBoundingClientRect(), at = { pointerId: 1, clientX: b.left + (p.left + s.x * p.zoom) / devicePixelRatio,
                   clientY: b.top + (p.top + s.y * p.zoom) / devicePixelRatio }; stage.setPointerCapture = () => {};
                   for (const e of ['pointerdown', 'pointerup']) stage.dispatchEvent(new PointerEvent(e, at))""")
        self.until("$('starBox').open && $('starTable').querySelectorAll('tr.picked').length === 1", "the table shows the star that was tapped")
        time.sleep(1)
        self.shot("zoom")
        self.js("pick(null); $('starBox').open = false; $('stars').click()")
        stage.send_keys("0", "c")
        self.until("view.zoom === 0 && shown.w === frame.width", "the whole picture again")

        # Two double clicks on a star: at 4:1 it stands in the middle, and a pixel of the camera is four of the screen.
        at = self.js("""const s = [...statistics.stars].sort((a, b) => b.flux - a.flux)[0], p = placement();
                        return [p.left + (s.x + .5) * p.zoom - p.width / 2, p.top + (s.y + .5) * p.zoom - p.height / 2].map(Math.round)""")
        ActionChains(self.browser).move_to_element_with_offset(stage, *at).double_click().perform()
        self.until("view.zoom === 1 && shown.w < frame.width", "a part at 1:1")
        ActionChains(self.browser).move_to_element(stage).double_click().perform()
        self.until("view.zoom === 4 && shown.w * 4 < stageSize().width + 8", "a smaller part at 4:1")
        self.new_frames(2)
        self.shot("zoom4")
        self.js("pick(null); $('starBox').open = false; drawOverlay()")
        p = self.picture()
        y, x = np.unravel_index(np.argmax(p), p.shape)
        self.assertLess(np.hypot(y - p.shape[0] / 2, x - p.shape[1] / 2), 40, "the star is not in the middle")
        steps = np.abs(np.diff(p, axis=1)).sum(0)
        self.assertEqual(sum(steps[i::4].max() > 0 for i in range(4)), 1, "pixels are not four wide")
        stage.send_keys("0")
        self.until("view.zoom === 0 && shown.w === frame.width", "the whole picture once more")

        # A region, drawn.
        self.js("$('region').click()")
        ActionChains(self.browser).move_to_element_with_offset(stage, -120, -90).click_and_hold().move_by_offset(260, 190).perform()
        self.shot("region")
        ActionChains(self.browser).release().perform()
        self.until("state.region.width < 900 && frame.width === state.region.width", "the camera has the region")
        self.js("$('whole').click()")
        self.until("frame.width === 1936", "the whole sensor")

        # An exposure that is aborted, and one that is kept.
        self.until("focusHistory.length > 0", "the focus is measured")
        self.assertGreater(self.js("return Math.min(...focusHistory.map(p => p.hfr))"), .5, "hot pixels are taken for stars")
        self.js("$('seconds').value = 20; $('expose').click()")
        self.until("state.exposure && state.exposure.elapsed > 0", "it exposes")
        self.assertLess(self.js("return state.controls.find(c => c.type === 1).value"), 300000, "the video's exposure is shown as that of the exposure")
        time.sleep(1)
        self.js("$('progressBar').scrollIntoView({ block: 'center' })")
        self.shot("exposure")
        stage.send_keys(Keys.ESCAPE)
        self.until("!state.exposure", "it is aborted", 10)
        self.js("$('seconds').value = 1; $('count').value = 2; $('expose').click()")
        self.until("$('captures').children.length === 2", "two pictures are listed")
        self.assertEqual(sorted(f for f in os.listdir(self.s.folder) if f.endswith(".fits")), ["capture-0001.fits", "capture-0002.fits"])
        self.until("[...document.querySelectorAll('#captures img')].every(i => i.naturalWidth > 100)", "both have thumbnails")

        # A recording, with what it costs.
        self.tap("#record")
        self.until("state.recordedFrames > 3 && /GB free; .* frames, .* MB, .* dropped/.test($('space').textContent)", "it records and tells so")
        self.shot("recording")
        self.tap("#record")
        self.until("!state.recording && /frames of 1936x1096/.test($('captures').firstChild.textContent)", "the recording is listed")

        # A pulse moves the sky: 7.5 arc seconds a second, 4.4 of them a pixel. It may end late. Which star is the brightest may
        # differ between an exposure and the video, where it stands does not.
        self.js("$('guideBox').open = true; $('pulse').value = 4000")
        star = self.js("return [...statistics.stars].sort((a, b) => b.flux - a.flux)[0]")
        there = f"statistics.stars.some(s => Math.abs(s.x - {star['x']}) < 2 && Math.abs(s.y - {star['y'] - 8}) < 4)"
        self.assertFalse(self.js(f"return {there}"), "another star stands where the brightest is to go")
        self.tap("[data-guide='0']")
        self.until(there, "the brightest star has moved")

        # A dark frame: taken, shown, used; its hot pixels kept in the camera and repaired, or not.
        self.js("$('darkBox').open = true")
        self.tap("#takeDark")
        self.until("state.collecting", "it is collected")
        self.until("[...$('darkUse').options].some(o => o.value === 'dark.bmp') && !state.collecting", "it is there", 120)
        self.until("$('captures').querySelector('img').naturalWidth > 100 && /pixels stand out/.test($('captures').firstChild.textContent)", "it is shown")
        self.js("$('darkUse').value = 'dark.bmp'; $('darkUse').dispatchEvent(new Event('change'))")
        self.until("state.dark && $('darkUse').value === 'dark.bmp'", "it is in use")
        self.tap("[data-hot=save]")
        self.until("state.hotPixelsOn && state.hotPixels > 20 && /\\d+ hot pixels are repaired/.test($('hotText').textContent)", "its hot pixels are repaired")
        self.js("$('darkBox').scrollIntoView()")
        self.new_frames(2)
        self.shot("darks")
        self.tap("[data-hot=off]")
        self.until("!state.hotPixelsOn", "they are not any more")
        self.js("$('darkUse').value = ''; $('darkUse').dispatchEvent(new Event('change'))")
        self.until("!state.dark", "the dark frame is not used any more")

        # A second browser, of a phone, at night; what one does the other sees.
        phone = self.open_browser(420, 900)
        try:
            phone.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {"width": 390, "height": 844, "deviceScaleFactor": 2, "mobile": True})
            self.until("frame.number > 0 && state", "the phone shows the picture", browser=phone)
            self.js("document.querySelector('aside').scrollTop = 0")
            self.js("const n = document.querySelector('[data-type=\"0\"] input[type=number]'); n.value = 123; n.dispatchEvent(new Event('change'))", phone)
            self.until("state.controls.find(c => c.type === 0).value === 123", "the first browser sees the new gain", 10)
            self.new_frames(2)
            self.shot_of_both("browsers", phone)
            self.shot("phone", phone)
            self.assertLessEqual(self.js("return document.documentElement.scrollWidth - innerWidth", phone), 0, "the phone's page is too wide")
            self.js("scrollTo(0, 700)", phone)
            self.until("scrollY === 700 && Math.abs(stage.getBoundingClientRect().top) < 1", "the picture stays in sight", 10, phone)
            self.js("scrollTo(0, 0)", phone)
            self.js("$('night').click()", phone)
            time.sleep(1)
            self.shot("night", phone)
            night = np.asarray(self.screen(phone))
            self.assertEqual(night[:, :, 1:].max(), 0, "not only red at night")
            # A region, drawn with the finger.
            self.js("$('region').click()", phone)
            finger = ActionBuilder(phone, mouse=PointerInput(interaction.POINTER_TOUCH, "finger"))
            finger.pointer_action.move_to(phone.find_element(By.ID, "stage"), -80, -60).pointer_down().move_to(phone.find_element(By.ID, "stage"), 100, 70).pointer_up()
            finger.perform()
            self.until("frame.width < 1000 && frame.width === state.region.width", "the region of the finger", browser=phone)
            self.js("$('whole').click()", phone)
            self.until("frame.width === 1936", "the whole sensor", browser=phone)
        finally:
            phone.quit()

        # The other camera, cooled.
        self.js(f"choose({1 - self.quartz})")
        self.until(f"state && frame.number > 1 && frame.width === {WIDTH}", "the second camera's picture")
        self.js("put('control', { type: 1, value: 500000, auto: false })")
        self.js("$('coolerBox').open = true; $('target').value = 5; $('target').dispatchEvent(new Event('change')); $('coolerOn').click()")
        self.until("state.coolerPower > 0 && cooling.some(p => p[3] > 0)", "it cools, and the plot has it")
        self.assertGreater(self.js("return Math.min(...cooling.map(p => p[1]))"), 4, "a temperature that was never measured")
        time.sleep(6)
        self.js("$('coolerBox').scrollIntoView()")
        self.shot("cooler")
        self.js("$('doctorBox').open = true")
        self.until("$('doctor').children.length > 0", "the doctor has spoken")


class UnplugTest(unittest.TestCase):
    def test_a_camera_that_goes_and_comes_back(self):
        s = Server("QuartzMono", "--vanish", "60", "--rate", "0.25")  # a slow clock: it is away for six seconds
        PageTest.s, PageTest.quartz = s, 0
        b = PageTest.open_browser(1500, 950)
        try:
            s.wait(lambda: b.execute_script("return state && state.phase === 'absent' && /not connected/.test($('problem').textContent)"), "the page tells that it has gone", 90)
            PageTest.shot("unplugged", b)
            number = b.execute_script("return frame.number")
            s.wait(lambda: b.execute_script(f"return state.phase === 'live' && frame.number > {number} + 3 && $('problem').hidden"), "the picture goes on", 90)
        finally:
            b.quit()
            s.close()


if __name__ == "__main__":
    unittest.main()

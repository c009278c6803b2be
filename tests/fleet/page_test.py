"""Looks at a hub's page in Chromium, on a desktop and a phone, light and dark, and at its metrics as
Prometheus reads them.

PROGRAMS is the folder with page_check, CHROMEDRIVER that program. PICTURES, if set, is a folder for pictures of the page.
"""

import os
import pathlib
import tempfile
import time
import unittest
import urllib.request

from prometheus_client import parser
from selenium import webdriver
from selenium.webdriver.chrome import service
from selenium.webdriver.common.by import By
from selenium.webdriver.support import ui

import programs

DESKTOP = (1440, 900)
PHONE = (390, 844)
PICTURES = os.environ.get("PICTURES")


class Server:
    """A hub's web server whose state is invented."""

    def __init__(self, test):
        self.program = programs.Test.start(test, "page_check")
        test.addCleanup(self.end)
        self.address = f"http://127.0.0.1:{int(self.program.stdout.readline())}/"

    def change(self, *lines):
        for line in lines:
            self.program.stdin.write(line + "\n")
            self.program.stdin.flush()
            assert self.program.stdout.readline() == "done\n"

    def end(self):
        with self.program:
            self.program.stdin.close()


class Test(programs.Test):
    def setUp(self):
        super().setUp()
        self.server = Server(self)


class PageTest(Test):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        profile = tempfile.TemporaryDirectory()
        cls.addClassCleanup(profile.cleanup)
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu",
                         "--disable-dev-shm-usage", "--disable-background-networking",
                         f"--user-data-dir={profile.name}"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = webdriver.Chrome(options=options,
                                       service=service.Service(os.environ["CHROMEDRIVER"]))
        cls.addClassCleanup(cls.browser.quit)

    def tearDown(self):
        self.assertEqual(self.browser.get_log("browser"), [])

    def open(self, size=DESKTOP, scheme="light"):
        width, height = size
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": size == PHONE})
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        self.browser.get(self.server.address)
        self.wait_for(lambda: self.tiles())

    def wait_for(self, condition):
        ui.WebDriverWait(self.browser, 20, 0.05).until(lambda _: condition())

    def run_script(self, script):
        return self.browser.execute_script("return " + script)

    def texts(self, selector):
        """As they are shown, without what style sheets add."""
        return self.run_script(f"[...document.querySelectorAll('{selector}')]"
                               ".map(found => found.textContent)")

    def tiles(self):
        return dict(zip(self.texts("dt"), self.texts("dd")))

    def state(self):
        return self.texts("#state")[0], self.run_script("document.getElementById('state').className")

    def picture(self, name):
        if PICTURES:
            self.browser.save_screenshot(str(pathlib.Path(PICTURES) / f"{name}.png"))

    def assert_fits(self, size):
        """Nothing is wider than the window, and no text goes out of its box."""
        self.assertEqual(self.run_script("innerWidth"), size[0])
        self.assertEqual(*self.run_script("[document.documentElement.scrollWidth,"
                                          " document.documentElement.clientWidth]"))
        self.assertEqual(self.run_script(
            "[...document.querySelectorAll('body *:not(script)')].filter(one =>"
            " one.getBoundingClientRect().right > innerWidth || one.getBoundingClientRect().left < 0"
            " || (one.scrollWidth > one.clientWidth && one.clientWidth > 0))"
            ".map(one => one.outerHTML)"), [])

    def test_state_is_shown_on_every_screen(self):
        self.server.change("samples", "devices 30", "trouble", "overflow 12345")
        for name, size in (("desktop", DESKTOP), ("phone", PHONE)):
            for scheme in ("light", "dark"):
                with self.subTest(name=name, scheme=scheme):
                    self.open(size, scheme)
                    self.assert_fits(size)
                    self.assert_all_is_shown()
                    self.assert_can_be_read(scheme)
                    self.picture(f"{name}-{scheme}")

    def assert_all_is_shown(self):
        self.assertEqual(self.run_script("document.title"), "Fleet hub-1")
        self.assertEqual(self.state(), ("storing", "good"))
        self.assertEqual(self.tiles(), {
            "Rows per second": "1,200", "Devices": "30", "Furthest behind": "2 d 4 h",
            "Rows stored": "46,500", "Refused devices": "1", "Sets in quarantine": "2",
            "Commits lost": "3", "Settings waiting": "4", "Messages let go": "12,345"})
        self.assertEqual(self.texts("#trouble li"), [
            "device-1 refused: <b>sets are missing</b> before commit 1001 of a device whose name is"
            " long",
            "device-2 in quarantine: 2, table 'reading', insert: there is a row with this key here"])
        rows = self.texts("tbody tr")
        self.assertEqual(len(rows), 30)
        self.assertRegex(rows[0], r"^device-1[1-9] s1001,001000$")
        self.assertRegex(rows[1], r"^device-22 d 4 h2001,002324$")
        self.assertRegex(rows[2], r"^device-303\d s3,0001,030000$")
        self.assertEqual(rows[-1], "device-3nothing stored3001,003000")
        self.assertEqual(self.texts("#chart text"), ["1,000", "2,000", "5 min ago", "now"])
        points = self.run_script("document.querySelector('.rate').points.numberOfItems")
        self.assertIn(points, (299, 300))

    def assert_can_be_read(self, scheme):
        """Every text stands out from its ground."""
        ground = self.run_script("getComputedStyle(document.body).backgroundColor")
        self.assertEqual(ground, {"light": "rgb(244, 245, 247)", "dark": "rgb(17, 20, 24)"}[scheme])
        colours = self.run_script(
            "[...document.querySelectorAll('h1, h2, dt, dd, li, li span, th, td, #state')]"
            ".map(one => getComputedStyle(one).color)")
        for colour in set(colours):
            self.assertGreaterEqual(contrast(colour, ground), 4.5, colour)

    def test_page_follows_the_state(self):
        self.open()
        self.assertEqual(self.tiles()["Devices"], "0")
        self.assertEqual(self.texts("#trouble li"), ["none"])
        self.assertEqual(self.texts("#chart text"), ["0.5", "1", "5 min ago", "now"])
        self.server.change("away")
        self.wait_for(lambda: self.state()[1] == "bad")
        self.assertEqual(self.state()[0], "the centre does not store: connection to server failed:"
                                          " Connection refused")
        self.server.change("back", "devices 1")
        self.wait_for(lambda: self.state() == ("storing", "good"))
        self.assertEqual(self.texts("tbody td:first-child"), ["device-1"])

    def test_devices_are_found_among_many(self):
        self.server.change("devices 100000")
        for name, size in (("desktop", DESKTOP), ("phone", PHONE)):
            self.open(size)
            self.assertEqual(self.tiles()["Rows stored"], "500B")
            self.assertEqual(self.texts("#found"), ["200 of 100,000: those with trouble and those "
                                                    "furthest behind"])
            self.assertEqual(self.texts("tbody td:first-child")[0], "device-100000")
            self.browser.find_element(By.ID, "find").send_keys("9999")
            self.wait_for(lambda: len(self.texts("tbody tr")) == 19)
            self.assertEqual(self.texts("#found"), [""])
            self.assert_fits(size)

    def test_rate_under_the_pointer_is_told(self):
        self.server.change("samples")
        self.open()
        chart = self.browser.find_element(By.ID, "chart")
        webdriver.ActionChains(self.browser).move_to_element(chart).perform()
        self.assertRegex(self.texts("#reading")[0], r"^[\d,]+ rows per second, 2 min (29|3\d) s ago$")
        self.assertEqual(len(self.texts(".mark")), 1)
        shown = self.texts("#reading")[0]
        self.wait_for(lambda: self.texts("#reading")[0] != shown) # goes on while the pointer stays
        webdriver.ActionChains(self.browser).move_by_offset(0, 300).perform()
        self.assertEqual((self.texts("#reading"), self.texts(".mark")), ([""], []))

    def test_hub_that_has_ended_is_told(self):
        self.open()
        self.server.end()
        self.wait_for(lambda: self.state() == ("the hub does not answer", "bad"))
        for entry in self.browser.get_log("browser"):
            self.assertRegex(entry["message"], r"status\.json\?find=\d* - Failed to load resource")
        self.browser.get("about:blank")
        self.browser.get_log("browser")


def contrast(*colours):
    """As the guidelines for accessible pages have it."""
    lights = sorted(luminance(colour) for colour in colours)
    return (lights[1] + 0.05) / (lights[0] + 0.05)


def luminance(colour):
    parts = [int(part) / 255 for part in colour[len("rgb("):-1].split(",")]
    red, green, blue = (part / 12.92 if part <= 0.03928 else ((part + 0.055) / 1.055) ** 2.4
                        for part in parts)
    return 0.2126 * red + 0.7152 * green + 0.0722 * blue


class MetricsTest(Test):
    def families(self):
        with urllib.request.urlopen(self.server.address + "metrics") as response:
            self.assertEqual(response.headers["Content-Type"], "text/plain; version=0.0.4")
            text = response.read().decode("utf-8")
        return {family.name: family for family in parser.text_string_to_metric_families(text)}

    def test_prometheus_reads_them(self):
        before = self.families()
        self.assertEqual(len(before), 13)
        self.server.change("devices 100000", "trouble", "overflow 7")
        families = self.families()
        self.assertEqual(len(families), 21)
        for name, family in families.items():
            self.assertTrue(family.documentation.endswith("."), name)
            self.assertIn(family.type, ("counter", "gauge", "histogram"), name)
        self.assertEqual([sample.value for sample in families["fleet_devices"].samples], [100000])
        overflowed = families["fleet_hub_messages_overflowed"]
        self.assertEqual([(sample.name, sample.value) for sample in overflowed.samples],
                         [("fleet_hub_messages_overflowed_total", 7)])
        buckets = [sample.labels["le"] for sample in families["fleet_hub_batch_seconds"].samples
                   if sample.name.endswith("_bucket")]
        self.assertEqual(sorted(buckets, key=float), buckets)
        self.assertEqual(buckets[-1], "+Inf")


if __name__ == "__main__":
    unittest.main()

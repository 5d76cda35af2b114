"""A headless Chromium that looks at the page of kavstat."""
import contextlib
import json
import os
import shutil
import sys
import tempfile
from decimal import ROUND_HALF_UP, Decimal

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from servers import BIN, Servers, output_of, wait_until

OPTIONS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
           "--disable-background-networking", "--disable-component-update", "--disable-sync", "--hide-scrollbars"]


def rounded(value, digits):
    """As toFixed() of JavaScript, which rounds halves up."""
    return str(Decimal(value).quantize(Decimal(1).scaleb(-digits), ROUND_HALF_UP))


def size_text(count):
    """As kavstat shows sizes."""
    if abs(count) < 1000:
        return f"{rounded(count, 0)} B"
    value = count / 1024
    for ending in ["KiB", "MiB", "GiB", "TiB"]:
        if abs(value) < 999.95:
            return f"{rounded(value, 1)} {ending}"
        value /= 1024
    raise ValueError(count)


class PageServers(Servers):
    def page_engine(self, segment, peers=6, seed=None):
        """An engine whose figures stand still. Names mean harm: those of the first five peers, all of them with a seed."""
        words = [os.path.join(BIN, "page_engine"), str(peers)] + ([] if seed is None else [str(seed)])
        program = self.start(words, segment, stdout=-1)
        if program.stdout.readline() != "ready\n":
            raise RuntimeError("page_engine is not ready")
        return program


def kavstat(segment, *words):
    return output_of([os.path.join(BIN, "kavstat"), *words], env=dict(os.environ) | {"KAV_STAT_SEGMENT": segment})


def statistics(segment, *words):
    return json.loads(kavstat(segment, "json", *words))


class Browser:
    """Closes with close()."""

    def __init__(self, width=1440, height=900):
        self.folder = tempfile.mkdtemp(prefix="kav_browser.")
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for option in [*OPTIONS, f"--user-data-dir={self.folder}"]:
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.resize(width, height)

    def close(self):
        self.driver.quit()
        shutil.rmtree(self.folder, ignore_errors=True)

    def resize(self, width, height):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 500})

    def darken(self, is_dark):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if is_dark else "light"}]})

    def open(self, address):
        self.driver.get("about:blank")
        self.driver.get(address)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def text(self, selector):
        """The text of the first such element, also of one that is not in sight; empty when there is none."""
        return self.driver.execute_script(
            "return document.querySelector(arguments[0])?.textContent ?? ''", selector)

    def texts(self, selector):
        return self.driver.execute_script(
            "return [...document.querySelectorAll(arguments[0])].map((each) => each.textContent)", selector)

    def wait(self, is_so, seconds=60):
        """Waits for something to be so, and returns whether it is."""
        return wait_until(is_so, seconds, 0.1)

    def wait_for_text(self, selector, part, seconds=60):
        return self.wait(lambda: part in self.text(selector), seconds)

    def column(self, table, title):
        """The texts of a column of a table."""
        titles = self.texts(f"#table-{table} thead th")
        place = [each.strip() for each in titles].index(title) + 1
        return self.texts(f"#table-{table} tbody tr > :nth-child({place})")

    def width(self):
        return self.driver.execute_script("return document.documentElement.scrollWidth")

    def complaints(self):
        """What the console says since the last time. An engine that is gone makes answers of 503, which is no fault."""
        return [entry["message"] for entry in self.driver.get_log("browser") if " 503 " not in entry["message"]]

    def requests(self):
        """The addresses that the page has asked."""
        return self.driver.execute_script("return performance.getEntriesByType('resource').map((each) => each.name)")

    def processor_times(self):
        """Seconds of processor time that each process of the browser has used."""
        times = {}
        found = [str(self.driver.service.process.pid)]
        for process in found:
            with contextlib.suppress(OSError):
                with open(f"/proc/{process}/stat", encoding="utf-8") as file:
                    fields = file.read().rsplit(")", 1)[1].split()
                times[process] = (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
                with open(f"/proc/{process}/task/{process}/children", encoding="utf-8") as file:
                    found += file.read().split()
        return times

    def milliseconds_since(self, before):
        """Processor time since then, of all processes of the browser together."""
        return 1000 * sum(time - before.get(process, 0) for process, time in self.processor_times().items())

    def picture(self, path, height=None):
        """A screenshot; of so much of the page when a height is given."""
        if height is not None:
            width = self.driver.execute_script("return innerWidth")
            self.resize(width, height)
        self.driver.save_screenshot(path)

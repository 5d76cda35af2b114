"""The page in a browser. With KAV_SCREENSHOTS, a folder, pictures of it go there."""
import contextlib
import os
import sqlite3
import sys
import time
import unittest

from selenium.webdriver.common.action_chains import ActionChains

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from browser import Browser, PageServers, kavstat, size_text, statistics


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)

    def setUp(self):
        self.servers = PageServers().__enter__()
        self.addCleanup(self.servers.close)
        # Runs before that: a page whose server has gone would complain in the next test.
        self.addCleanup(self.browser.driver.get, "about:blank")
        self.segment = self.servers.segment()
        self.browser.resize(1440, 900)
        self.browser.darken(False)
        self.browser.complaints()

    def serve(self):
        self.page = f"http://127.0.0.1:{self.servers.exporter(self.segment)}/"
        return self.page

    def shoot(self, name):
        folder = os.environ.get("KAV_SCREENSHOTS")
        if folder:
            self.browser.picture(os.path.join(folder, name + ".png"))

    def expect_text(self, selector, part):
        self.assertTrue(self.browser.wait_for_text(selector, part), f"{selector}: {self.browser.text(selector)}")

    def expect_no_complaint(self):
        self.assertEqual(self.browser.complaints(), [])
        for address in self.browser.requests():
            self.assertTrue(address.startswith(self.page), address)

    def test_says_what_is_wrong_first(self):
        self.servers.engine(self.segment, "--rate", "2", "--keep-open", "8", "--ill", "slow-disk,cache-failed")
        self.browser.open(self.serve())
        self.expect_text("#verdict", "problem")
        self.expect_text("#engine", "Critical" if "critical" in self.browser.text("#verdict") else "Warning")
        self.assertTrue(self.browser.wait(lambda: any("cache" in text for text in self.browser.texts(".finding"))))
        remedies = self.browser.texts(".finding .remedy")
        self.assertTrue(remedies and all(remedies))
        # It is above everything else in the view.
        top = self.browser.driver.execute_script(
            "return document.querySelector('main section').getAttribute('aria-label')")
        self.assertEqual(top, "Health")
        self.assertTrue(self.browser.wait(lambda: self.browser.text("#figure-before") not in ["", "–"]))
        self.shoot("ill")
        self.expect_no_complaint()

    def test_figures_are_those_of_kavstat_json(self):
        self.servers.page_engine(self.segment)
        document = statistics(self.segment)
        self.browser.open(self.serve())
        self.assertTrue(self.browser.wait(lambda: self.browser.text("#figure-connections") == "6"))
        totals = document["global"]["connection_counters"]
        notes = self.browser.texts(".strip .note")
        self.assertEqual(notes[0], size_text(totals["encode_in_bytes"] + totals["decode_out_bytes"]) + " in all")
        self.assertEqual(notes[1], size_text(totals["encode_out_bytes"] + totals["decode_in_bytes"]) + " in all")

        self.browser.open(self.page + "#/peers")
        self.assertTrue(self.browser.wait(lambda: len(self.browser.texts("#table-peers tbody tr")) == 6))
        peers = {str(peer["number"]): peer for peer in document["peers"]}
        columns = {"Encode in": "encode_in_bytes", "Encode out": "encode_out_bytes", "Decode in": "decode_in_bytes",
                   "Decode out": "decode_out_bytes"}
        numbers = self.browser.column("peers", "Peer")
        for title, key in columns.items():
            expected = [size_text(peers[number]["connection_counters"][key]) for number in numbers]
            self.assertEqual(self.browser.column("peers", title), expected, title)
        self.expect_no_complaint()

    def test_tables_are_sorted_and_searched_and_open_a_peer(self):
        self.servers.page_engine(self.segment)
        self.browser.open(self.serve() + "#/peers")
        self.assertTrue(self.browser.wait(lambda: len(self.browser.texts("#table-peers tbody tr")) == 6))
        # The document's own order is marked, too.
        self.assertEqual(self.browser.texts("#table-peers th[aria-sort=descending]"), ["Before"])
        button = self.browser.all("#table-peers button[data-key=encode_in]")[0]
        button.click()
        self.assertTrue(self.browser.wait(lambda: self.browser.column("peers", "Peer") == ["6", "5", "4", "3", "2", "1"]))
        self.assertEqual(self.browser.texts("#table-peers th[aria-sort]"), ["Encode in"])
        mark = "return getComputedStyle(arguments[0], '::after').content"
        self.assertEqual(self.browser.driver.execute_script(mark, button), '" ↓"')
        button.click()
        self.assertTrue(self.browser.wait(lambda: self.browser.column("peers", "Peer") == ["1", "2", "3", "4", "5", "6"]))

        self.browser.all("#search-peers")[0].send_keys("BRANCH")
        self.assertTrue(self.browser.wait(lambda: self.browser.column("peers", "Peer") == ["6"]))
        self.browser.all("#table-peers tbody a")[0].click()
        self.expect_text("main h2", "Peer 6, branch-6.example.net")
        self.assertEqual(len(self.browser.all(".chart")), 10)
        self.browser.driver.back()
        self.assertTrue(self.browser.wait(lambda: self.browser.all("#table-peers")))
        self.expect_no_complaint()

    def test_charts_are_zoomed_together(self):
        self.servers.engine(self.segment, "--rate", "2")
        self.browser.open(self.serve())
        labels = lambda chart: self.browser.texts(f"#chart-{chart} .dygraph-axis-label-x")
        self.assertTrue(self.browser.wait(lambda: labels("traffic") and labels("connections")))
        whole = labels("traffic")
        canvas = self.browser.all("#chart-traffic .canvas")[0]
        self.browser.driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", canvas)
        ActionChains(self.browser.driver).move_to_element_with_offset(canvas, 20, 0).click_and_hold() \
            .move_by_offset(100, 0).release().perform()
        self.assertTrue(self.browser.wait(lambda: self.browser.all("button.reset")[0].is_displayed()))
        self.assertNotEqual(labels("traffic"), whole)
        self.assertEqual(labels("traffic"), labels("connections"))
        reset = self.browser.all("button.reset")[0]
        reset.click()
        self.assertFalse(reset.is_displayed())
        ActionChains(self.browser.driver).move_to_element_with_offset(canvas, 20, 0).click_and_hold() \
            .move_by_offset(100, 0).release().perform()
        self.assertTrue(self.browser.wait(reset.is_displayed))
        ActionChains(self.browser.driver).double_click(canvas).perform()
        self.assertFalse(reset.is_displayed())

        # The same values as a table.
        self.browser.all("#chart-traffic summary")[0].click()
        self.assertTrue(self.browser.wait(lambda: len(self.browser.texts("#chart-traffic tbody tr")) >= 2))
        self.expect_no_complaint()

    def test_follows_an_engine_that_stops_and_starts(self):
        engine = self.servers.engine(self.segment, "--rate", "1")
        self.browser.open(self.serve())
        self.assertTrue(self.browser.wait(lambda: self.browser.text("#figure-before") not in ["", "–"]))
        alert = self.browser.all("#alert")[0]
        self.assertFalse(alert.is_displayed())
        last = self.browser.text("#figure-before")
        self.servers.stop(engine)
        self.assertTrue(self.browser.wait(alert.is_displayed))
        self.assertRegex(alert.text, r"^No engine is running\. Figures are those of \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.$")
        self.assertNotEqual(self.browser.text("#figure-before"), "–", last)
        self.assertIn("old", self.browser.driver.execute_script("return document.documentElement.className"))
        # The server still has the last minutes for a view that is opened now.
        self.browser.all("a[data-view=peers]")[0].click()
        self.browser.all("a[data-view=overview]")[0].click()
        self.assertTrue(self.browser.wait(lambda: self.browser.text("#figure-before") not in ["", "–"]))
        self.assertRegex(self.browser.text(".when"), r"^The engine's last figures, of \d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")
        self.shoot("stopped")
        self.servers.engine(self.segment, "--rate", "1")
        self.assertTrue(self.browser.wait(lambda: not alert.is_displayed()))
        self.expect_no_complaint()

    def test_harmful_names_stay_names(self):
        self.servers.page_engine(self.segment)
        self.browser.open(self.serve() + "#/peers")
        self.assertTrue(self.browser.wait(lambda: len(self.browser.texts("#table-peers tbody tr")) == 6))
        names = self.browser.column("peers", "Host")
        self.assertIn("<img src=x onerror=alert(1)>", names)
        self.assertIn("</script><script>alert(2)</script>", names)
        self.assertIn("\ufffd\ufffd[31m\ufffd\ufffd\"'&", names)
        self.assertIn("\ufffdgnp.exe", names)
        self.expect_nothing_harmful(scripts=2)
        self.expect_no_complaint()

        report = self.servers.path("report.html")
        kavstat(self.segment, "report", "-o", report)
        self.page = "file://" + report
        self.browser.open(self.page + "#/peers")
        self.assertEqual(sorted(self.browser.column("peers", "Host")), sorted(names))
        self.expect_nothing_harmful(scripts=3)
        self.expect_no_complaint()

    def expect_nothing_harmful(self, scripts):
        count = lambda tag: self.browser.driver.execute_script("return document.getElementsByTagName(arguments[0]).length", tag)
        self.assertEqual(count("img"), 0)
        self.assertEqual(count("script"), scripts)

    def test_shows_a_thousand_peers_some_at_a_time(self):
        self.servers.page_engine(self.segment, 1000)
        self.browser.open(self.serve() + "#/peers")
        self.expect_text(".table-head p", "1000 in all, 100 shown")
        self.browser.all("main > section > button")[0].click()
        self.expect_text(".table-head p", "1000 in all, 500 shown")
        self.assertEqual(len(self.browser.texts("#table-peers tbody tr")), 500)
        self.browser.all("#search-peers")[0].send_keys("branch-6")
        self.expect_text(".table-head p", "166 of 1000 found")
        self.expect_no_complaint()

    def test_shows_a_recorded_past(self):
        engine = self.servers.page_engine(self.segment)
        history = self.servers.path("history.db")
        for _ in range(3):
            kavstat(self.segment, "record", "--once", history)
            time.sleep(1)
        _, port = self.servers.exporter_program(self.segment, "--history", history)
        self.page = f"http://127.0.0.1:{port}/"
        self.browser.open(self.page)
        self.assertTrue(self.browser.wait(lambda: self.browser.all("#range-choice option[value='86400']")))
        self.browser.all("#range-choice option[value='86400']")[0].click()
        self.browser.all("#chart-connections summary")[0].click()
        # The server's own samples show the same figures, at other times.
        with contextlib.closing(sqlite3.connect(history)) as database:
            times = [time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(moment))
                     for moment, in database.execute("SELECT time FROM sample ORDER BY id DESC")]
        moments = "#chart-connections tbody tr th"
        self.assertTrue(self.browser.wait(lambda: self.browser.texts(moments) == times), self.browser.texts(moments))
        rows = "#chart-connections tbody tr td"
        self.assertEqual(self.browser.texts(rows), ["6", "6", "6"])
        self.expect_text(".when", "Figures recorded at " + times[0])

        # The past can be read without an engine.
        self.servers.stop(engine)
        self.browser.all("a[data-view=peers]")[0].click()
        self.expect_text(".when", "Recorded at ")
        self.assertEqual(len(self.browser.texts("#table-peers tbody tr")), 6)
        self.assertFalse(self.browser.all("#alert")[0].is_displayed())
        self.browser.all("a[data-view=overview]")[0].click()
        self.assertTrue(self.browser.wait(lambda: self.browser.text("#figure-connections") == "6"))
        self.browser.all("#range-choice option[value='0']")[0].click()
        self.assertTrue(self.browser.wait(self.browser.all("#alert")[0].is_displayed))
        self.expect_no_complaint()

        report = self.servers.path("report.html")
        kavstat(self.segment, "report", history, "-o", report)
        self.page = "file://" + report
        self.browser.open(self.page)
        self.browser.all("#chart-connections summary")[0].click()
        self.assertTrue(self.browser.wait(lambda: self.browser.texts(rows) == ["6", "6", "6"]), self.browser.texts(rows))
        self.expect_no_complaint()

    def test_fits_every_screen(self):
        self.servers.page_engine(self.segment)
        self.serve()
        for width in [390, 1920]:
            for is_dark in [False, True]:
                self.browser.resize(width, 1000)
                self.browser.darken(is_dark)
                for view in ["overview", "peers", "connections", "configuration"]:
                    self.browser.open(self.page + "#/" + view)
                    self.assertTrue(self.browser.wait(lambda: self.browser.text("#foot")))
                    self.assertTrue(self.browser.wait(lambda: self.browser.all("main section")))
                    self.assertLessEqual(self.browser.width(), width, view)
                    self.shoot(f"{view}-{width}-{'dark' if is_dark else 'light'}")
                ground = self.browser.driver.execute_script("return getComputedStyle(document.body).backgroundColor")
                self.assertEqual(ground, "rgb(18, 23, 29)" if is_dark else "rgb(246, 247, 249)")
        self.expect_no_complaint()


if __name__ == "__main__":
    unittest.main()

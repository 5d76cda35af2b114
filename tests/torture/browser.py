#!/usr/bin/env python3
"""Looks at the page of kavstat in a browser, at length, and prints one row as kav_torture does. Fails when anything is lost.

    browser.py [--percent N] [--seed N] [--pictures FOLDER] [PART...]
"""
import argparse
import contextlib
import http.server
import json
import os
import random
import signal
import socket
import sys
import threading
import time
import urllib.error
import urllib.parse
from statistics import median

from selenium.common.exceptions import StaleElementReferenceException, WebDriverException
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "browser"))
from browser import BIN, Browser, PageServers, kavstat, output_of, rounded, size_text, statistics
from expected_rows import count_text, is_in_order, visible_rows
from inspection import AXIS, CONTRAST, MARK_FIRST_CHART, OVERFLOW, READ_FROM_ELSEWHERE, TIME_TO_CHARTS
from recorded_day import day_of_history
from servers import Tally, get

TABLES = ["peers", "applications", "connections", "nacks", "bypass", "configuration"]
SAMPLE_INTERVAL = 5  # seconds between two samples of the server

# Illnesses of a demo engine, the rules that must name them, and whether they end after a while.
ILLNESSES = [
    ("low-memory,peer-outdated,peer-low-buffer,peer-disconnected",
     ["low_memory_errors", "peer_outdated", "peer_low_on_buffers", "peer_disconnected"]),
    ("cache-failed", ["cache_temporarily_failed"]),
    ("cache-lost", ["cache_failed"]),
    ("slow-disk", ["cache_reads_slow"]),
    ("peer-far", ["peer_slow"]),
    ("nacks", ["nacks_frequent"]),
    ("wait-queue,bypass-table-full", ["wait_queue_stays", "bypass_table_nearly_full"]),
    ("peer-disconnected@0s+25s", ["peer_disconnected"]),
]


class Campaign:
    def __init__(self, options):
        self.choice = random.Random(options.seed)
        self.percent = options.percent
        self.pictures = options.pictures
        self.tally = Tally()
        self.used = []    # milliseconds of processor time, each for a day of history
        self.passed = []  # the same of a clock
        self.browser = Browser()

    def times(self, count):
        return range(max(1, count * self.percent // 100))

    def add(self, is_kept, what):
        self.tally.add(bool(is_kept), what)

    def add_when(self, is_so, what, seconds=60):
        """Elements may be replaced while they are looked at."""
        def settled():
            try:
                return is_so()
            except StaleElementReferenceException:
                return False
        self.tally.add_when(settled, what, seconds)

    def script(self, text, *arguments):
        return self.browser.driver.execute_script(text, *arguments)

    def picture(self, name, height=None):
        if self.pictures:
            width, seen = self.script("return [innerWidth, innerHeight]")
            self.browser.picture(os.path.join(self.pictures, name + ".png"), height)
            self.browser.resize(width, seen)

    def open(self, fragment="#/overview"):
        self.browser.open(self.page + fragment)
        self.add_when(lambda: self.updates() > 0, f"{fragment} is not shown")

    def go(self, fragment):
        before = self.updates()
        self.script("location.hash = arguments[0]", fragment)
        self.add_when(lambda: self.updates() > before, f"{fragment} is not shown")

    def updates(self):
        return int(self.script("return document.documentElement.dataset.updates ?? 0"))

    def wait_for_updates(self, count=2):
        before = self.updates()
        self.add_when(lambda: self.updates() >= before + count, "the page is not updated")

    def api(self, table, **parameters):
        return json.loads(get(self.port, f"/api/v1/{table}?" + urllib.parse.urlencode(parameters)))

    def rows(self, table):
        return self.script("return [...document.querySelectorAll(arguments[0])].map((row) => "
                           "[...row.cells].map((cell) => cell.textContent))", f"#table-{table} tbody tr")

    def quiet(self, what):
        """No error in the console, and no request to elsewhere."""
        complaints = self.browser.complaints()
        self.add(not complaints, f"{what}: the console says {complaints}")
        strange = [address for address in self.browser.requests() if not address.startswith(self.page)]
        self.add(not strange, f"{what}: requests to {strange}")

    @contextlib.contextmanager
    def servers(self):
        with PageServers() as servers:
            self.browser.resize(1440, 900)
            self.browser.darken(False)
            yield servers
            # A page whose server has gone would complain in the next part.
            self.browser.driver.get("about:blank")
            self.browser.complaints()

    def serve(self, servers, segment, *options):
        server, self.port = servers.exporter_program(segment, *options)
        self.page = f"http://127.0.0.1:{self.port}/"
        return server

    @contextlib.contextmanager
    def still(self, engine):
        """The engine stands still, and the server has seen its last figures."""
        engine.send_signal(signal.SIGSTOP)
        try:
            time.sleep(2 * SAMPLE_INTERVAL + 1)
            yield
        finally:
            engine.send_signal(signal.SIGCONT)

    # ---- The parts of the campaign.

    def illnesses(self):
        """Each illness is on the page with its remedy, above everything else, and gone after its end."""
        with self.servers() as servers:
            pages = []
            for illness, rules in ILLNESSES:
                segment = servers.segment()
                servers.engine(segment, "--rate", "2", "--peers", "2", "--keep-open", "4", "--ill", illness)
                pages.append((illness, rules, servers.exporter(segment)))
            for number, (illness, rules, port) in enumerate(pages):
                self.port, self.page = port, f"http://127.0.0.1:{port}/"
                self.browser.open(self.page)
                shown = lambda: self.script("return [...document.querySelectorAll('.finding details')].map((each) => "
                                            "each.dataset.rule)")
                for rule in rules:
                    if "@" not in illness:
                        self.add_when(lambda: rule in shown(), f"{illness}: {rule} is not on the page")
                if "@" in illness:
                    self.add_when(lambda: not set(rules) & set(shown()), f"{illness}: still on the page after its end", 90)
                self.add(all(self.browser.texts(".finding .remedy")), f"{illness}: no remedy")
                first = self.script("return document.querySelector('main section').getAttribute('aria-label')")
                self.add(first == "Health", f"{illness}: {first} comes before the health")
                self.picture(f"ill-{number}", 1400)
                self.quiet(illness)

    def figures(self):
        """Every figure is that of kavstat json at the same moment; every table is sorted by every column and searched."""
        with self.servers() as servers:
            segment = servers.segment()
            engine = servers.engine(segment, "--variety", "--rate", "5", "--keep-open", "12", "--peers", "5", "--slots", "200")
            self.serve(servers, segment)
            self.open()
            for trial in self.times(4):
                with self.still(engine):
                    self.compare_figures(segment, trial)
                    if trial == 0:
                        self.sort_every_table()
                        self.search_every_table()
                        self.open_entities(segment)
            self.quiet("figures")

    def compare_figures(self, segment, trial):
        document = statistics(segment)
        totals = document["global"]["connection_counters"]
        self.go("#/overview")
        before = totals["encode_in_bytes"] + totals["decode_out_bytes"]
        after = totals["encode_out_bytes"] + totals["decode_in_bytes"]
        saved = (before - after) * 100 / before if 0 < after < before else 0
        notes = [f"{size_text(before)} in all", f"{size_text(after)} in all", f"{rounded(saved, 1)}% in all", "",
                 f"{count_text(totals['num_total_nack_msgs'])} in all",
                 f"{count_text(document['global']['counters']['num_total_conns'])} in all",
                 f"of {size_text(document['global']['counters']['total_cache_size'] * 1048576)}"]
        self.add(self.browser.texts(".strip .note") == notes, f"notes {self.browser.texts('.strip .note')}, not {notes}")
        open_now = str(document["global"]["active_connections"])
        self.add(self.browser.text("#figure-connections") == open_now, "open connections")

        own = ["encode_in", "encode_out", "decode_in", "decode_out"]
        expected = {
            "peers": {str(each["number"]): [each["connection_counters"][f"{key}_bytes"] for key in own]
                      for each in document["peers"]},
            "applications": {f'{each["kav_peer_id"]}/{self.application(each)}':
                             [each["counters"][f"{key}_kbytes"] * 1024 for key in own] for each in document["apps"]},
            "connections": {str(each["id"]): [each["counters"][f"{key}_bytes"] for key in own]
                            for each in document["connections"]},
        }
        names = {"peers": "peer", "applications": "key", "connections": "connection"}
        for table in TABLES:
            self.go(f"#/{table}")
            while self.script("return document.querySelector('main > section > button')?.checkVisibility()"):
                shown = len(self.rows(table))
                self.browser.all("main > section > button")[0].click()
                self.add_when(lambda: len(self.rows(table)) > shown, f"{table}: no more rows", 10)
            # Rates of connections are those since the request before.
            self.add_when(lambda: self.rows(table) == visible_rows(self.api(table, top=5000)),
                          f"{table}, trial {trial}: not the rows of the document", 15)
            answer = self.api(table, top=5000)
            if table not in expected:
                continue
            places = {column["key"]: at for at, column in enumerate(answer["columns"])}
            found = {str(row[places[names[table]]]): [row[places[key]] for key in own] for row in answer["rows"]}
            self.add(found == expected[table], f"{table}, trial {trial}: not the figures of kavstat json")
        counts = {"nacks": len(document["nacks"]), "configuration": len(document["config"] or {})}
        for table, count in counts.items():
            self.add(self.api(table)["total"] == count, f"{table}: not {count}")

    @staticmethod
    def application(each):
        label = str(each["port"]) + ("-source" if each["is_source_port"] else "")
        handle = each["policy_engine_handler"]
        return label + (f"-handle{handle}" if handle else "")

    def sort_every_table(self):
        mark = "return document.querySelector(`button[data-key=${arguments[0]}]`).closest('th').getAttribute('aria-sort')"
        for table in TABLES:
            self.go(f"#/{table}")
            for key in self.script("return [...document.querySelectorAll('thead button')].map((each) => each.dataset.key)"):
                for press in range(2):
                    sign = self.script(mark, key)
                    self.script("document.querySelector(`button[data-key=${arguments[0]}]`).click()", key)
                    self.add_when(lambda: self.script(mark, key) not in [None, sign], f"{table} by {key}: no mark", 10)
                    self.add(len(self.browser.all("th[aria-sort]")) == 1, f"{table} by {key}: other marks")
                    is_reverse = self.is_reverse(table, key)
                    answer = self.api(table, sort=key, reverse=int(is_reverse))
                    at = [column["key"] for column in answer["columns"]].index(key)
                    self.add(is_in_order([row[at] for row in answer["rows"]], is_reverse), f"{table} by {key}: out of order")
                    self.add_when(lambda: self.rows(table) == visible_rows(self.api(table, sort=key, reverse=int(is_reverse))),
                                  f"{table} by {key}, press {press}: not the rows of the document", 10)

    def is_reverse(self, table, key):
        rising = self.script("return document.querySelector('th[aria-sort]').getAttribute('aria-sort')") == "ascending"
        unit = next(column["unit"] for column in self.api(table, top=1)["columns"] if column["key"] == key)
        return rising != (unit in ["text", "health", "value"])

    def search_every_table(self):
        for table in TABLES:
            answer = self.api(table, top=5000)
            texts = [at for at, column in enumerate(answer["columns"]) if column["unit"] in ["text", "number", "key"]]
            for _ in self.times(6):
                if not answer["rows"]:
                    break
                cell = str(self.choice.choice(answer["rows"])[self.choice.choice(texts)])
                begin = self.choice.randrange(len(cell) or 1)
                word = cell[begin:begin + self.choice.randint(1, 5)].strip() or cell
                count = sum(any(word.lower() in str(row[at]).lower() for at in texts) for row in answer["rows"])
                self.go("#/overview")
                self.go(f"#/{table}")
                self.browser.all(f"#search-{table}")[0].send_keys(word.upper())
                wanted = f"{count} of {len(answer['rows'])} found" if count < len(answer["rows"]) else f"{count} in all"
                self.add_when(lambda: self.browser.text(".table-head p").startswith(wanted),
                              f"{table}, {word}: {self.browser.text('.table-head p')}, not {wanted}", 10)
                self.add_when(lambda: len(self.rows(table)) == min(count, 100), f"{table}, {word}: {count} rows", 10)

    def open_entities(self, segment):
        """The view of each peer and each application shows that one."""
        document = statistics(segment, "--scope", "peers,apps")
        for peer in document["peers"]:
            self.go("#/peer/" + urllib.parse.quote(peer["kav_peer_id"], safe=""))
            heading = f"Peer {peer['number']}" + (f", {peer['host_name']}" if peer["host_name"] else "")
            self.add_when(lambda: heading in self.browser.texts("main h2"), f"no heading {heading}", 10)
            counters = peer["connection_counters"]
            note = size_text(counters["encode_in_bytes"] + counters["decode_out_bytes"]) + " in all"
            self.add_when(lambda: self.browser.texts(".strip .note")[0] == note, f"{heading}: not {note}", 10)
            self.add(len(self.browser.all(".chart")) == 10, f"{heading}: charts")
        for each in document["apps"]:
            name = self.application(each)
            self.go("#/application/" + urllib.parse.quote(f"{each['kav_peer_id']}/{name}", safe=""))
            self.add_when(lambda: f"Application {name}" in self.browser.texts("main h2"), f"no application {name}", 10)
            counters = each["counters"]
            note = size_text((counters["encode_in_kbytes"] + counters["decode_out_kbytes"]) * 1024) + " in all"
            self.add_when(lambda: self.browser.texts(".strip .note")[0] == note, f"application {name}: not {note}", 10)

    def charts(self):
        """Zoom and pan move all charts; each has a table with the same values."""
        with self.servers() as servers:
            segment = servers.segment()
            servers.engine(segment, "--variety", "--rate", "5")
            self.serve(servers, segment)
            self.open()
            drawn = lambda: self.script("return [...document.querySelectorAll('.chart')].filter((each) => "
                                        "each.querySelector('.dygraph-axis-label-x')).map((each) => each.id)")
            self.add_when(lambda: len(drawn()) >= 8, "charts are not drawn")
            axis = lambda chart: self.script(AXIS, chart)
            reset = self.browser.all("button.reset")[0]
            for trial in self.times(12):
                chart = self.choice.choice(drawn())
                canvas = self.browser.all(f"#{chart} .canvas")[0]
                self.script("arguments[0].scrollIntoView({block: 'center'})", canvas)
                whole = axis(chart)
                ActionChains(self.browser.driver).move_to_element_with_offset(canvas, self.choice.randint(20, 60), 0) \
                    .click_and_hold().move_by_offset(self.choice.randint(60, 120), 0).release().perform()
                self.add_when(reset.is_displayed, f"{chart}: no zoom, trial {trial}", 5)
                zoomed = axis(chart)
                self.add(zoomed != whole, f"{chart}: zoomed to the same time")
                self.add(all(axis(other) == zoomed for other in drawn()), f"{chart}: others were not zoomed")
                ActionChains(self.browser.driver).move_to_element(canvas).key_down(Keys.SHIFT).click_and_hold() \
                    .move_by_offset(self.choice.choice([-80, 80]), 0).release().key_up(Keys.SHIFT).perform()
                self.add_when(lambda: axis(chart) != zoomed, f"{chart}: not moved", 5)
                moved = axis(chart)
                self.add(all(axis(other) == moved for other in drawn()), f"{chart}: others were not moved")
                if trial % 2:
                    ActionChains(self.browser.driver).double_click(canvas).perform()
                else:
                    reset.click()
                self.add_when(lambda: not reset.is_displayed(), f"{chart}: still zoomed", 5)
            for chart in self.script("return [...document.querySelectorAll('.chart')].map((each) => each.id)"):
                self.compare_chart_table(chart)
            self.quiet("charts")

    def compare_chart_table(self, chart):
        summary = self.browser.all(f"#{chart} summary")[0]
        self.script("arguments[0].scrollIntoView({block: 'center'})", summary)
        summary.click()
        rows = lambda: self.script("return [...document.querySelectorAll(arguments[0])].map((row) => [...row.cells].map("
                                   "(cell) => cell.textContent))", f"#{chart} tbody tr")
        self.add_when(lambda: len(rows()) >= 3, f"{chart}: no table", 10)
        head, first, figures = self.script(
            "const root = document.getElementById(arguments[0]); const texts = (selector) => [...root.querySelectorAll("
            "selector)].map((each) => each.textContent); return [texts('thead th'), texts('tbody tr:first-child > *'), "
            "texts('.legend .figure')]", chart)
        self.add(head[0] == "Time" and len(head) == len(figures) + 1, f"{chart}: columns {head}")
        self.add(first[1:] == figures, f"{chart}: table {first}, legend {figures}")
        name = self.script("const root = document.getElementById(arguments[0]); return document.getElementById("
                           "root.getAttribute('aria-labelledby')).textContent", chart)
        self.add(name, f"{chart}: no name")

    def restarts(self):
        """The page says when its figures are old, shows them further, and follows the next engine."""
        with self.servers() as servers:
            segment = servers.segment()
            engine = servers.engine(segment, "--rate", "1")
            self.serve(servers, segment)
            self.open()
            alert = lambda: self.script("return !document.getElementById('alert').hidden")
            shown = lambda: self.browser.text("#figure-before")
            for trial in self.times(6):
                self.add_when(lambda: shown() not in ["", "–"] and not alert(), f"start {trial}: no figures")
                if trial % 2:
                    engine.kill()
                    engine.wait()
                else:
                    servers.stop(engine)
                for path in ["/api/v1/peers", "/api/v1/applications", "/api/v1/connections"]:
                    with contextlib.suppress(urllib.error.HTTPError):
                        get(self.port, path)
                        self.add(False, f"{path} answers after the engine's end")
                self.add_when(alert, f"end {trial}: the page does not say so", 10)
                text = self.browser.text("#alert")
                reason = "The engine is no longer running" if trial % 2 else "No engine is running"
                self.add(text.startswith(f"{reason}. Figures are those of 20"), f"end {trial}: {text}")
                self.add(shown() not in ["", "–"], f"end {trial}: figures have gone")
                self.add("old" in self.script("return document.documentElement.className"), f"end {trial}: not marked as old")
                for view in ["peers", "connections", "overview"]:
                    self.go(f"#/{view}")
                    self.add(alert(), f"end {trial}, {view}: no alert")
                self.add(shown() not in ["", "–"], f"end {trial}: the overview, opened again, has no figures")
                if trial == 0:
                    self.picture("stopped", 1400)
                engine = servers.engine(segment, "--rate", "1")
                self.add_when(lambda: not alert(), f"start {trial + 1}: the page does not see it", 20)
            self.quiet("restarts")

    def day(self):
        """A day of samples opens within a second, again and again, and its end has tables."""
        with self.servers() as servers:
            segment = servers.segment()
            engine = servers.page_engine(segment)
            history = servers.path("day.db")
            day_of_history(history, segment)
            self.serve(servers, segment, "--history", history)
            self.open()
            self.add_when(lambda: self.browser.all("#range-choice option[value='86400']"), "no range can be chosen")
            for trial in self.times(10):
                self.browser.driver.execute_async_script(TIME_TO_CHARTS, "0")
                before = self.browser.processor_times()
                passed = self.browser.driver.execute_async_script(TIME_TO_CHARTS, "86400")
                self.judge_time(f"day {trial}", before, passed)
                self.add(len(self.browser.all(".dygraph-axis-label-x")) > 20, f"day {trial}: no charts")
            self.browser.driver.execute_async_script(TIME_TO_CHARTS, "86400")
            self.picture("day", 1400)
            servers.stop(engine)
            for table in ["peers", "applications"]:
                self.go(f"#/{table}")
                self.add_when(lambda: self.browser.text(".when").startswith("Recorded at"), f"no past {table}")
                answer = self.api(table, at=int(time.time()))
                self.add(self.rows(table) == visible_rows(answer), f"{table} of the past: not the rows of the document")
                self.picture(f"past-{table}")
            expected = statistics_of_history(history)
            found = {row[1]: row[-4] for row in self.api("peers", at=int(time.time()))["rows"]}
            self.add(found == expected, f"peers of the past: {found}, not {expected}")
            self.quiet("day")
            report = servers.path("report.html")
            self.open_report(segment, report, history, "day")

    def judge_time(self, what, before, passed):
        """A busy machine makes a browser wait, so that its processor time is judged. passed: also what it waited."""
        used = self.browser.milliseconds_since(before)
        self.used.append(used)
        self.passed.append(passed)
        self.add(used < 1000, f"{what}: {used:.0f} ms of processor time, {passed:.0f} ms passed")

    def open_report(self, segment, path, *sources):
        """A report opens without a network, and asks nothing of one."""
        *files, name = sources
        output_of([os.path.join(BIN, "kavstat"), "report", *files, "-o", path],
                  env=dict(os.environ) | {"KAV_STAT_SEGMENT": segment})
        driver = self.browser.driver
        driver.execute_cdp_cmd("Network.enable", {})
        offline = {"offline": True, "latency": 0, "downloadThroughput": -1, "uploadThroughput": -1}
        driver.execute_cdp_cmd("Network.emulateNetworkConditions", offline)
        mark = driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": MARK_FIRST_CHART})
        self.page = "file://" + urllib.parse.quote(os.fsencode(path))
        try:
            for trial in self.times(5 if name == "day" else 1):
                before = self.browser.processor_times()
                self.browser.open(self.page)
                self.add_when(lambda: self.updates() > 0, f"the report {name} is not shown")
                if name == "day":
                    self.add_when(lambda: self.script("return window.drawnAt"), "a report has no charts")
                    self.judge_time(f"report of a day, {trial}", before, self.script("return window.drawnAt"))
            self.picture(f"report-{name}", 1400)
            for table in TABLES:
                self.go(f"#/{table}")
                self.add(self.browser.all(f"#table-{table}"), f"the report {name} has no {table}")
            self.add(self.browser.requests() == [], f"the report {name} asks {self.browser.requests()}")
            self.quiet(f"report {name}")
        finally:
            driver.execute_cdp_cmd("Page.removeScriptToEvaluateOnNewDocument", mark)
            driver.execute_cdp_cmd("Network.emulateNetworkConditions", offline | {"offline": False})

    def thousand(self):
        """A thousand peers are sorted, searched, and shown some at a time."""
        with self.servers() as servers:
            segment = servers.segment()
            servers.page_engine(segment, 1000)
            self.serve(servers, segment)
            self.open("#/peers")
            self.add_when(lambda: self.browser.text(".table-head p") == "1000 in all, 100 shown", "not 100 of 1000 peers")
            for shown in ["1000 in all, 500 shown", "1000 in all"]:
                self.browser.all("main > section > button")[0].click()
                self.add_when(lambda: self.browser.text(".table-head p") == shown, f"not {shown}")
            started = time.monotonic()
            self.wait_for_updates(3)
            self.add(time.monotonic() - started < 30, "a thousand rows hold the page up")
            self.browser.all("button[data-key=encode_in]")[0].click()
            self.add_when(lambda: self.browser.column("peers", "Peer")[0] == "1000", "not sorted")
            self.add(self.browser.column("peers", "Peer") == [str(1000 - at) for at in range(1000)], "out of order")
            for _ in self.times(10):
                number = self.choice.randint(1, 1000)
                self.go("#/overview")
                self.go("#/peers")
                self.browser.all("#search-peers")[0].send_keys(self.api("peers", top=5000, sort="peer", reverse=1)
                                                               ["rows"][number - 1][3])
                self.add_when(lambda: str(number) in self.browser.column("peers", "Peer"), f"peer {number} is not found", 10)
            self.picture("thousand")
            self.quiet("thousand peers")

    def surfaces(self):
        """Everything fits a phone, a small window and a large one, light and dark, with enough contrast."""
        with self.servers() as servers:
            segment = servers.segment()
            servers.engine(segment, "--variety", "--rate", "5", "--keep-open", "12", "--peers", "4",
                           "--ill", "slow-disk,peer-disconnected,low-memory")
            self.serve(servers, segment)
            time.sleep(4 * SAMPLE_INTERVAL)
            document = statistics(segment, "--scope", "peers,apps")
            peer = document["peers"][0]["kav_peer_id"]
            entities = [f"peer/{urllib.parse.quote(peer, safe='')}"] + [
                "application/" + urllib.parse.quote(f"{each['kav_peer_id']}/{self.application(each)}", safe="")
                for each in document["apps"][:1]]
            for width in [390, 1000, 1920]:
                for is_dark in [False, True]:
                    self.browser.resize(width, 1000)
                    self.browser.darken(is_dark)
                    self.open()
                    for view in ["overview", *TABLES, *entities]:
                        self.go(f"#/{view}")
                        where = f"{view.split('/')[0]}-{width}-{'dark' if is_dark else 'light'}"
                        wide, pale = self.script(OVERFLOW), self.script(CONTRAST)
                        self.add(wide == [], f"{where}: too wide: {wide}")
                        self.add(pale == [], f"{where}: contrast: {pale}")
                        self.picture(where, 1400 if view == "overview" or "/" in view else None)
            self.quiet("surfaces")

    def names(self):
        """Names of any bytes stay texts: of peers, in addresses of views, and of files."""
        for seed in self.times(12):
            with self.servers() as servers:
                segment = servers.segment()
                servers.page_engine(segment, 60, seed + 1)
                self.serve(servers, segment)
                self.open("#/peers")
                self.add_when(lambda: len(self.rows("peers")) == 60, f"seed {seed}: not 60 peers")
                names = sorted(row[2] for row in self.api("peers", top=5000)["rows"])
                self.add(sorted(self.browser.column("peers", "Host")) == names, f"seed {seed}: other names")
                self.harmless(f"peers of seed {seed}", 2)
                for number in range(3):
                    self.browser.all("#table-peers tbody a")[number].click()
                    self.add_when(lambda: self.browser.text("main div > h2").startswith("Peer"), f"seed {seed}: no peer")
                    self.harmless(f"a peer of seed {seed}", 2)
                    self.go("#/peers")
                self.open_report(segment, servers.path("names.html"), "names")
                self.go("#/peers")
                self.add(sorted(self.browser.column("peers", "Host")) == names, f"report of seed {seed}: other names")
                self.harmless(f"report of seed {seed}", 3)
        with self.servers() as servers:
            segment = servers.segment()
            servers.page_engine(segment)
            self.serve(servers, segment)
            self.open()
            for fragment in ["#/peer/%3Cimg%20src%3Dx%20onerror%3Dalert(1)%3E", "#/peer/<script>alert(1)</script>",
                             "#/application/%", "#/application/%3Csvg/onload=alert(1)%3E/80", "#/peer/%FF%C0%BC",
                             "#/javascript:alert(1)", "#/constructor", "#/__proto__/x", "#/peer/__proto__", "#//", "#"]:
                self.go(fragment)
                self.harmless(fragment, 2)
            self.quiet("addresses of views")
        for name in [b"<img src=x onerror=alert(1)>.db", b"</script><script>alert(2)</script>".replace(b"/", b"\xe2\x88\x95"),
                     b"\x01\x1b[31m\xff\xfe\"'&.db", "\u202egnp\u2028<b>.db".encode(), b"--><!--%3Cb%3E#?.db"]:
            self.file_name(name)

    def file_name(self, name):
        with self.servers() as servers:
            segment = servers.segment()
            servers.page_engine(segment)
            history = os.fsdecode(os.path.join(os.fsencode(servers.folder), name))
            for _ in range(2):
                kavstat(segment, "record", "--once", history)
            self.serve(servers, segment, "--history", history)
            self.open("#/peers")
            self.add_when(lambda: self.browser.all("#range-choice option[value='86400']"), f"{name}: no past")
            self.browser.all("#range-choice option[value='86400']")[0].click()
            self.add_when(lambda: len(self.rows("peers")) == 6, f"{name}: no rows")
            self.harmless(f"history {name}", 2)
            self.quiet(f"history {name}")
            self.open_report(segment, os.path.join(servers.folder, os.fsdecode(name + b".html")), history, "file")
            self.add("page_engine" not in self.browser.text("#facts") and self.browser.text("#facts"), f"{name}: no source")
            self.harmless(f"report {name}", 3)

    def harmless(self, what, scripts):
        """Nothing but the page's own elements. A dialogue fails the next command of the driver."""
        counts = self.script("return ['script', 'img', 'iframe', 'object', 'style'].map((tag) => "
                             "document.getElementsByTagName(tag).length)")
        self.add(counts[0] == scripts and counts[1:4] == [0, 0, 0] and counts[4] <= 1, f"{what}: elements {counts}")
        strange = self.script("return [...document.querySelectorAll('main *')].filter((each) => [...each.attributes].some("
                              "(one) => one.name.startsWith('on') || one.name === 'style' && !each.closest('.canvas'))).length")
        self.add(strange == 0, f"{what}: {strange} elements with handlers or styles")
        targets = self.script("return [...document.querySelectorAll('a')].map((each) => each.getAttribute('href'))")
        self.add(all(target.startswith("#") for target in targets), f"{what}: links to {targets}")

    def keyboard(self):
        """Everything is reached and used by keys, and shows that it has the focus."""
        with self.servers() as servers:
            segment = servers.segment()
            servers.page_engine(segment)
            history = servers.path("history.db")
            for _ in range(3):
                kavstat(segment, "record", "--once", history)
                time.sleep(1)
            self.serve(servers, segment, "--history", history)
            for view in ["overview", "peers", "configuration"]:
                self.open(f"#/{view}")
                self.wait_for_updates(1)
                self.walk(view)
            self.open("#/overview")
            self.press(Keys.TAB)
            self.add(self.script("return document.activeElement.className") == "skip", "the first stop is not the skip link")
            self.press(Keys.ENTER)
            self.add(self.script("return document.activeElement.id") == "main", "the skip link does not lead to the figures")
            self.focus("a[data-view=peers]")
            self.press(Keys.ENTER)
            self.add_when(lambda: len(self.rows("peers")) == 6, "peers are not opened by Enter")
            self.focus("button[data-key=encode_in]")
            self.press(Keys.ENTER)
            self.add_when(lambda: self.browser.column("peers", "Peer") == ["6", "5", "4", "3", "2", "1"], "not sorted by Enter")
            self.press(Keys.SPACE)
            self.add_when(lambda: self.browser.column("peers", "Peer") == ["1", "2", "3", "4", "5", "6"], "not sorted by Space")
            self.wait_for_updates(2)
            self.add(self.script("return document.activeElement.dataset.key") == "encode_in", "an update moves the focus")
            self.focus("#search-peers")
            self.press("branch-6")
            self.add_when(lambda: self.browser.column("peers", "Peer") == ["6"], "not searched by keys")
            self.focus("#table-peers tbody a")
            self.press(Keys.ENTER)
            self.add_when(lambda: "Peer 6, branch-6.example.net" in self.browser.texts("main h2"), "no peer by Enter")
            self.focus(".chart summary")
            self.press(Keys.ENTER)
            self.add_when(lambda: self.script("return document.querySelector('.chart details').open"), "no table by Enter")
            self.focus("#range-choice")
            self.press(Keys.ARROW_DOWN, Keys.ENTER)
            self.add_when(lambda: self.browser.text(".when").startswith("Figures recorded at"), "no past by keys")
            self.quiet("keyboard")

    def press(self, *keys):
        for key in keys:
            ActionChains(self.browser.driver).send_keys(key).perform()

    def focus(self, selector):
        """By Tab alone."""
        for _ in range(200):
            if self.script("return document.activeElement.matches(arguments[0])", selector):
                self.add(True, selector)
                return
            self.press(Keys.TAB)
        self.add(False, f"{selector} is not reached by Tab")

    def walk(self, view):
        """Tab stops at everything that can be used, shows where it is, and comes to the end."""
        wanted = self.script("return [...document.querySelectorAll('a[href], button, input, select, summary')].filter("
                             "(each) => each.checkVisibility()).length")
        self.script("document.activeElement.blur(); window.stops = new Set()")
        for _ in range(wanted + 60):
            self.press(Keys.TAB)
            state = self.script(
                "const each = document.activeElement; if (each === document.body) return null; const isNew = !stops.has(each);"
                "stops.add(each); const style = getComputedStyle(each); const box = each.getBoundingClientRect();"
                "return [isNew, style.outlineStyle !== 'none' && parseFloat(style.outlineWidth) >= 2, box.width > 0, "
                "each.outerHTML.slice(0, 80)]")
            if state is None or not state[0]:
                break
            self.add(state[1] and state[2], f"{view}: no focus is seen at {state[3]}")
        stops = self.script("return [...stops].filter((each) => each.matches('a[href], button, input, select, summary')).length")
        self.add(stops == wanted, f"{view}: {stops} of {wanted} reached by Tab")

    def foreign(self):
        """Pages of other sites read nothing, embed nothing, and a name that is not the machine's is refused."""
        with self.servers() as servers:
            segment = servers.segment()
            servers.page_engine(segment)
            self.serve(servers, segment)
            self.open()
            for host in ["evil.example", f"evil.example:{self.port}", "127.0.0.1.evil.example", "169.254.169.254", ""]:
                for path in ["/", "/api/v1/peers", "/page.js", "/metrics"]:
                    status = status_for(self.port, host, path)
                    self.add(status in [400, 403], f"Host {host}, {path}: {status}")
            for host in [f"localhost:{self.port}", f"127.0.0.1:{self.port}", f"[::1]:{self.port}"]:
                self.add(status_for(self.port, host, "/") == 200, f"Host {host} is refused")
            with foreign_site() as port:
                for origin in [f"http://127.0.0.1:{port}/", f"http://localhost:{port}/"]:
                    self.browser.open(origin)
                    for path in ["", "page.js", "api/v1/peers", "api/v1/statistics", "metrics"]:
                        for how in ["cors", "no-cors", "script", "image", "frame", "style"]:
                            got = self.browser.driver.execute_async_script(READ_FROM_ELSEWHERE, self.page + path, how)
                            self.add(got == "refused", f"{origin} {how} /{path}: {got}")
            self.browser.complaints() # those of the other site

    PARTS = [illnesses, figures, charts, restarts, day, thousand, surfaces, names, keyboard, foreign]

    def run(self, names):
        for part in self.PARTS:
            if names and part.__name__ not in names:
                continue
            started = time.monotonic()
            before = self.tally.tried
            try:
                part(self)
            except (WebDriverException, RuntimeError, OSError) as error:
                self.add(False, f"{part.__name__}: {type(error).__name__}: {str(error).splitlines()[0]}")
            print(f"{part.__name__}: {self.tally.tried - before} checks, {time.monotonic() - started:.0f} s", file=sys.stderr)


@contextlib.contextmanager
def foreign_site():
    class Site(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_response(200)
            self.send_header("Content-Type", "text/html")
            self.end_headers()
            self.wfile.write(b"<!doctype html><title>elsewhere</title><link rel=icon href=data:,><p>elsewhere")

        def log_message(self, *_):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Site)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    try:
        yield server.server_address[1]
    finally:
        server.shutdown()


def status_for(port, host, path):
    with socket.create_connection(("127.0.0.1", port), timeout=10) as connection:
        connection.sendall(f"GET {path} HTTP/1.1\r\nHost: {host}\r\nConnection: close\r\n\r\n".encode())
        return int(connection.recv(64).split()[1])


def statistics_of_history(path):
    """Bytes that encoding took in, of each peer, by its number."""
    document = json.loads(output_of([os.path.join(BIN, "kavstat"), "json", "--history", path, "--scope", "peers"]))
    return {peer["number"]: peer["connection_counters"]["encode_in_bytes"] for peer in document["peers"]}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--percent", type=int, default=100, help="of the default number of trials")
    parser.add_argument("--seed", type=int, default=1, help="for all random choices")
    parser.add_argument("--pictures", help="the folder for pictures of what was looked at")
    parser.add_argument("parts", metavar="PART", nargs="*", choices=[[], *(part.__name__ for part in Campaign.PARTS)],
                        help="only these parts")
    options = parser.parse_args()
    if options.pictures:
        os.makedirs(options.pictures, exist_ok=True)
    campaign = Campaign(options)
    try:
        campaign.run(options.parts)
    finally:
        campaign.browser.close()
    tally = campaign.tally
    day = f"a day of history: {max(campaign.used):.0f} ms of processor time at most, drawn after {median(campaign.passed):.0f} ms" \
        if campaign.used else ""
    print(f"{'page in a browser, as people use it':<52} {tally.tried:>9} {tally.lost:>6}  {day}")
    sys.exit(tally.lost > 0)


if __name__ == "__main__":
    main()

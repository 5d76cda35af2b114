"""The dashboards and consoles, over demo engines and a real Prometheus."""
import json
import math
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from servers import KIT, Servers, get, scrape_configuration, wait_until

NAMES = ["kav-fleet", "kav-appliance"]


def dashboard(name):
    with open(os.path.join(KIT, "grafana", name + ".json"), encoding="utf-8") as file:
        return json.load(file)


def panels(name):
    return [panel for panel in dashboard(name)["panels"] if panel["type"] != "row"]


class Dashboards(unittest.TestCase):
    def test_have_panels_side_by_side(self):
        for name in NAMES:
            taken = set()
            for panel in dashboard(name)["panels"]:
                place = panel["gridPos"]
                self.assertLessEqual(place["x"] + place["w"], 24)
                cells = {(column, row) for column in range(place["x"], place["x"] + place["w"])
                         for row in range(place["y"], place["y"] + place["h"])}
                self.assertFalse(taken & cells, panel["title"])
                taken |= cells

    def test_have_variables_for_what_their_queries_ask_for(self):
        for name in NAMES:
            variables = {each["name"] for each in dashboard(name)["templating"]["list"]}
            self.assertIn("datasource", variables)
            text = json.dumps(panels(name))
            for variable in ["instance", "peer"]:
                self.assertEqual(f"${variable}\\" in text, variable in variables)

    def test_tell_units_and_meanings(self):
        for name in NAMES:
            for panel in panels(name):
                self.assertTrue(panel["description"].endswith("."), panel["title"])
                self.assertIn(panel["fieldConfig"]["defaults"]["unit"],
                              ["bytes", "binBps", "s", "percentunit", "cps", "short"])


    # The hit ratio is a share of them. Most chunks of these messages end with the message.
    def test_count_no_more_matched_anchors_than_anchors(self):
        with Servers() as servers:
            segment = servers.segment()
            traffic = servers.write("traffic", "".join(f"{number * number} " for number in range(100_000)))
            engine = servers.engine(segment, "--once", "--repeat", "20", "--message-size", "3000", traffic)
            self.assertEqual(engine.stdout.readline(), "idle\n")
            text = get(servers.exporter(segment), "/metrics")
            totals = dict(line.split(" ") for line in text.splitlines() if line.startswith(("kav_anchors", "kav_matched_anchors")))
            self.assertGreater(int(totals["kav_matched_anchors_total"]), 1000)
            self.assertLessEqual(int(totals["kav_matched_anchors_total"]), int(totals["kav_anchors_total"]))


class DashboardsOverEngines(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.servers = cls.enterClassContext(Servers())
        segments = [cls.servers.segment(), cls.servers.segment()]
        cls.servers.engine(segments[0], "--rate", "2", "--peers", "2")
        cls.servers.engine(segments[1], "--rate", "2", "--peers", "2", "--ill", "bypass")
        rules = [os.path.join(KIT, "prometheus", name)
                 for name in ["kav_alerts.rules.yml", "kav_recording.rules.yml", "kav_scrape.rules.yml"]]
        cls.ports = [cls.servers.exporter(segment) for segment in segments]
        configuration = scrape_configuration(cls.ports, rules)
        folder = os.path.join(KIT, "consoles")
        cls.prometheus = cls.servers.prometheus(cls.servers.write("prometheus.yml", configuration),
                                                f"--web.console.templates={folder}", f"--web.console.libraries={folder}")

    def answer(self, expression):
        for name, value in [("$__rate_interval", "10s"), ("$instance", ".+"), ("$peer", ".+")]:
            expression = expression.replace(name, value)
        return [value for _, value in self.prometheus.answer(expression) if math.isfinite(value)]

    def test_every_panel_has_data(self):
        for name in NAMES:
            for panel in panels(name):
                for target in panel["targets"]:
                    self.assertTrue(wait_until(lambda query=target["expr"]: self.answer(query), 90),
                                    f'{panel["title"]}: {target["expr"]}')

    def console(self, name, choice=""):
        """The console's panels as a browser shows them."""
        return subprocess.run(
            ["chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--virtual-time-budget=20000", "--dump-dom",
             f"--user-data-dir={self.servers.path('browser')}",
             f"http://127.0.0.1:{self.prometheus.port}/consoles/{name}.html{choice}"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, timeout=120, check=True
        ).stdout.split("</header>")[1].split("<script>")[0]

    def test_consoles_draw_every_panel(self):
        for name in NAMES:
            self.assertNotIn("{{", get(self.prometheus.port, f"/consoles/{name}.html"))
            graphs = sum(panel["type"] == "timeseries" for panel in panels(name))
            # Recorded series take some seconds to come.
            self.assertTrue(wait_until(lambda: self.console(name).count("<svg") == graphs, 90), self.console(name))
            page = self.console(name)
            self.assertEqual(page.count('class="figure"'), len(panels(name)) - graphs)
            self.assertNotIn('class="none', page)
            self.assertNotIn(">–<", page)

    def test_consoles_show_the_chosen_appliance_and_peer(self):
        peer = f"127.0.0.1:{self.ports[1]}: 2 branch-2"
        self.assertTrue(wait_until(lambda: peer in self.console("kav-appliance"), 90))
        page = self.console("kav-appliance", f"?instance=127.0.0.1:{self.ports[0]}&peer=2")
        self.assertIn(">2 branch-2", page)
        self.assertNotIn(">1 branch-1", page)
        self.assertNotIn(str(self.ports[1]), page)


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""The rule files for Prometheus, as promtool checks and evaluates them over the series of *.test.yml."""
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from servers import KIT, PROMTOOL

RULES = sorted(glob.glob(os.path.join(KIT, "prometheus", "*.rules.yml")))
HERE = os.path.dirname(os.path.abspath(__file__))


class RuleFiles(unittest.TestCase):
    def promtool(self, *words):
        result = subprocess.run([PROMTOOL, *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stdout)

    def run_tests(self, name):
        with tempfile.TemporaryDirectory() as folder:
            for file in [*RULES, os.path.join(HERE, name)]:
                shutil.copy(file, folder)
            self.promtool("test", "rules", os.path.join(folder, name))

    def test_are_valid(self):
        self.assertEqual([os.path.basename(file) for file in RULES],
                         ["kav_alerts.rules.yml", "kav_recording.rules.yml", "kav_scrape.rules.yml"])
        self.promtool("check", "rules", *RULES)

    def test_record_the_figures_of_each_day(self):
        self.run_tests("recording.test.yml")

    def test_alert_as_they_should_through_a_week(self):
        self.run_tests("week.test.yml")

    def test_have_a_result_in_the_tests_for_each_recorded_name(self):
        with open(os.path.join(HERE, "recording.test.yml"), encoding="utf-8") as file:
            tests = file.read()
        with open(os.path.join(KIT, "prometheus", "kav_recording.rules.yml"), encoding="utf-8") as file:
            names = [line.split()[-1] for line in file if line.lstrip().startswith("- record: ")]
        self.assertGreater(len(names), 20)
        for name in names:
            self.assertIn(name, tests)


if __name__ == "__main__":
    unittest.main(verbosity=2)

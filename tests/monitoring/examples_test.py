"""The example configurations of a fleet, as promtool and amtool check them. script/torture runs them (campaign fleet)."""
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from servers import KIT, PROMTOOL, SOURCE

FLEET = os.path.join(SOURCE, "examples", "fleet")
INSTALLED_RULES = "/usr/share/kavstat/prometheus/"


class Examples(unittest.TestCase):
    def accepts(self, *words):
        result = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stdout)
        return result.stdout

    def test_are_valid_with_the_rules_of_the_kit(self):
        names = sorted(set(map(os.path.basename, glob.glob(FLEET + "/*.yml"))) - {"alertmanager.yml"})
        self.assertEqual(names, ["global.yml", "prometheus.yml", "remote-write.yml", "shard-0.yml", "shard-1.yml"])
        with tempfile.TemporaryDirectory() as folder:
            shutil.copytree(FLEET, folder, dirs_exist_ok=True)
            for name in names:
                path = os.path.join(folder, name)
                with open(path, encoding="utf-8") as file:
                    text = file.read()
                with open(path, "w", encoding="utf-8") as file:
                    file.write(text.replace(INSTALLED_RULES, KIT + "/prometheus/"))
                self.assertEqual("3 rule files found" in self.accepts(PROMTOOL, "check", "config", path),
                                 INSTALLED_RULES in text, name)

    def test_of_alertmanager_is_valid(self):
        self.accepts("/usr/bin/amtool", "check-config", FLEET + "/alertmanager.yml")

    def test_shards_differ_in_their_number_alone(self):
        texts = []
        for name in ["shard-0.yml", "shard-1.yml"]:
            with open(os.path.join(FLEET, name), encoding="utf-8") as file:
                texts.append(file.read())
        zero = texts[0].replace("Server 0", "Server 1").replace("'0'", "'1'").replace("remainder 0", "remainder 1")
        self.assertEqual(zero, texts[1])


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""Parses a file as strict OpenMetrics, and prints each sample on a line: family, type, unit, sample name, value."""
import sys

from prometheus_client.openmetrics.parser import text_string_to_metric_families

with open(sys.argv[1], encoding="utf-8", newline="") as file:
    text = file.read()
for family in text_string_to_metric_families(text):
    for sample in family.samples:
        print(family.name, family.type, family.unit or "-", sample.name, sample.value)

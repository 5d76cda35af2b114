"""The queries of the first day in docs/kavstat.md: over two appliances with known figures, and over two demo engines."""
import json
import math
import os
import re
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from servers import KIT, PROMTOOL, SOURCE, Servers, scrape_configuration, wait_until

# Half an hour of two appliances, a value each minute. A total that grows by 60 a minute has the rate 1.
SERIES = """
kav_up{instance="paris"} 1x30
kav_up{instance="lyon"} 1x30
kav_engine_start_timestamp_seconds{instance="paris"} 1000x30
kav_engine_start_timestamp_seconds{instance="lyon"} 300x19 1200x10
kav_connections_input_bytes_total{instance="paris",direction="encode"} 0+7680x30
kav_connections_output_bytes_total{instance="paris",direction="encode"} 0+1920x30
kav_connections_input_bytes_total{instance="paris",direction="decode"} 0+3840x30
kav_connections_output_bytes_total{instance="paris",direction="decode"} 0+7680x30
kav_connections_input_bytes_total{instance="lyon",direction="encode"} 0+3840x30
kav_connections_output_bytes_total{instance="lyon",direction="encode"} 0+3840x30
kav_connections_input_bytes_total{instance="lyon",direction="decode"} 0+960x30
kav_connections_output_bytes_total{instance="lyon",direction="decode"} 0+3840x30
kav_peer_connections_input_bytes_total{instance="paris",peer="1",direction="encode"} 0+7680x30
kav_peer_connections_output_bytes_total{instance="paris",peer="1",direction="encode"} 0+1920x30
kav_peer_connections_input_bytes_total{instance="lyon",peer="1",direction="encode"} 0+3840x30
kav_peer_connections_output_bytes_total{instance="lyon",peer="1",direction="encode"} 0+3840x30
kav_application_input_bytes_total{instance="paris",port="445",handle="2",classifier="server_port",peer="1",direction="encode"} 0+1920x30
kav_application_input_bytes_total{instance="paris",port="445",handle="2",classifier="server_port",peer="2",direction="encode"} 0+960x30
kav_application_input_bytes_total{instance="lyon",port="80",handle="0",classifier="client_port",peer="1",direction="encode"} 0+3840x30
kav_connections_bypass_bytes_total{instance="paris",direction="encode",cause="low_compression"} 0+960x30
kav_connections_bypass_bytes_total{instance="lyon",direction="encode",cause="cache_not_ready"} 0+3840x30
kav_connections_encode_bypass_all_causes_messages_total{instance="paris"} 0+120x30
kav_connections_encode_bypass_all_causes_messages_total{instance="lyon"} 0+240x30
kav_connections_messages_total{instance="paris",direction="encode"} 0+480x30
kav_connections_messages_total{instance="paris",direction="decode"} 0+240x30
kav_connections_messages_total{instance="lyon",direction="encode"} 0+480x30
kav_connections_messages_total{instance="lyon",direction="decode"} 0+240x30
kav_anchors_total{instance="paris"} 0+7680x30
kav_matched_anchors_total{instance="paris"} 0+1920x30
kav_anchors_total{instance="lyon"} 0+3840x30
kav_matched_anchors_total{instance="lyon"} 0+2880x30
kav_cache_used_bytes{instance="paris"} 512x30
kav_cache_size_bytes{instance="paris"} 1024x30
kav_cache_used_bytes{instance="lyon"} 768x30
kav_cache_size_bytes{instance="lyon"} 1024x30
kav_cache_oldest_data_timestamp_seconds{instance="paris",store="sigblock"} 600x30
kav_cache_oldest_data_timestamp_seconds{instance="paris",store="data_unit"} 800x30
kav_cache_oldest_data_timestamp_seconds{instance="lyon",store="sigblock"} 0x30
kav_cache_oldest_data_timestamp_seconds{instance="lyon",store="data_unit"} 1500x30
kav_peer_connections_nacks_total{instance="paris",peer="1",reason="chunk_missed"} 0+30x30
kav_peer_connections_nacks_total{instance="paris",peer="1",reason="cache_not_ready"} 0+30x30
kav_peer_connections_nacks_total{instance="lyon",peer="1",reason="chunk_missed"} 7x30
kav_peer_connections_messages_total{instance="paris",peer="1",direction="decode"} 0+240x30
kav_peer_connections_messages_total{instance="lyon",peer="1",direction="decode"} 0+240x30
kav_connections_processing_seconds_total{instance="paris",direction="encode"} 0+30x30
kav_connections_processing_seconds_total{instance="paris",direction="decode"} 0+30x30
kav_connections_processing_seconds_total{instance="lyon",direction="encode"} 0+15x30
kav_connections_processing_seconds_total{instance="lyon",direction="decode"} 0+15x30
kav_peer_ack_round_trip_avg_seconds{instance="paris",peer="1"} 0.125x30
kav_peer_ack_round_trip_avg_seconds{instance="lyon",peer="1"} 0.25x30
kav_connections_message_size_bytes_bucket{instance="paris",direction="encode",le="1024.0"} 0x30
kav_connections_message_size_bytes_bucket{instance="paris",direction="encode",le="5120.0"} 0+540x30
kav_connections_message_size_bytes_bucket{instance="paris",direction="encode",le="15360.0"} 0+600x30
kav_connections_message_size_bytes_bucket{instance="paris",direction="encode",le="25600.0"} 0+600x30
kav_connections_message_size_bytes_bucket{instance="paris",direction="encode",le="40960.0"} 0+600x30
kav_connections_message_size_bytes_bucket{instance="paris",direction="encode",le="+Inf"} 0+600x30
kav_connections_message_size_bytes_bucket{instance="lyon",direction="encode",le="1024.0"} 0x30
kav_connections_message_size_bytes_bucket{instance="lyon",direction="encode",le="5120.0"} 0x30
kav_connections_message_size_bytes_bucket{instance="lyon",direction="encode",le="15360.0"} 0x30
kav_connections_message_size_bytes_bucket{instance="lyon",direction="encode",le="25600.0"} 0x30
kav_connections_message_size_bytes_bucket{instance="lyon",direction="encode",le="40960.0"} 0+60x30
kav_connections_message_size_bytes_bucket{instance="lyon",direction="encode",le="+Inf"} 0+600x30
kav_low_memory_errors_total{instance="paris",operation="allocate"} 0+30x30
kav_low_memory_errors_total{instance="lyon",operation="allocate"} 5x30
kav_peer_bypass_ratio{instance="paris",peer="1"} 0.5x30
kav_peer_bypass_ratio{instance="lyon",peer="1"} 0.25x30
kav_peer_info{instance="paris",peer="1",host_name="branch-1"} 1x30
kav_peer_info{instance="lyon",peer="1",host_name="hub"} 1x30
ALERTS{instance="paris",alertname="KavNacksFrequent",alertstate="firing",severity="warning",peer="1"} 1x30
ALERTS{instance="paris",alertname="KavNoEngine",alertstate="pending",severity="critical"} 1x30
ALERTS{instance="lyon",alertname="KavCacheFailed",alertstate="firing",severity="critical"} 1x30
ALERTS{instance="lyon",alertname="SomethingElse",alertstate="firing",severity="critical"} 1x30
"""

# What each query answers after half an hour, 1800 seconds.
EXPECTED = {
    "Which engines run.": {'kav_up{instance="paris"}': 1, 'kav_up{instance="lyon"}': 1},
    "What is wrong: alerts that fire.": {
        '{instance="paris",alertname="KavNacksFrequent",severity="warning"}': 1,
        '{instance="lyon",alertname="KavCacheFailed",severity="critical"}': 1},
    # 1800 - 1000, 1800 - 1200.
    "For how long each engine has run.": {'{instance="paris"}': 800, '{instance="lyon"}': 600},
    "How often each engine was restarted since yesterday.": {'{instance="paris"}': 0, '{instance="lyon"}': 1},
    # 1 - 32/128, 1 - 64/64.
    "How much encoding saves.": {'{instance="paris"}': 0.75, '{instance="lyon"}': 0},
    # 1 - (32 + 64)/(128 + 128), 1 - (64 + 16)/(64 + 64).
    "How much both directions save together.": {'{instance="paris"}': 0.625, '{instance="lyon"}': 0.375},
    "What crosses the WAN, in bytes per second.": {'{instance="paris"}': 96, '{instance="lyon"}': 80},
    "The peers with which encoding saves least.": {'{instance="paris",peer="1"}': 0.75, '{instance="lyon",peer="1"}': 0},
    # 32 + 16 with two peers.
    "The applications with most data.": {
        '{instance="paris",port="445",handle="2",classifier="server_port"}': 48,
        '{instance="lyon",port="80",handle="0",classifier="client_port"}': 64},
    "How much data bypasses encoding, by cause.": {
        '{instance="paris",cause="low_compression"}': 16, '{instance="lyon",cause="cache_not_ready"}': 64},
    # 2 of 8 messages a second, 4 of 8.
    "The share of messages that bypass encoding.": {'{instance="paris"}': 0.25, '{instance="lyon"}': 0.5},
    # 32/128, 48/64.
    "The share of data found in the cache.": {'{instance="paris"}': 0.25, '{instance="lyon"}': 0.75},
    "How full the cache is.": {'{instance="paris"}': 0.5, '{instance="lyon"}': 0.75},
    # 1800 - 600, 1800 - 1500.
    "The age of the oldest data in the cache, in seconds.": {'{instance="paris"}': 1200, '{instance="lyon"}': 300},
    # (0.5 + 0.5)/4, 0/4.
    "NACKs per message.": {'{instance="paris",peer="1"}': 0.25, '{instance="lyon",peer="1"}': 0},
    # 0.5/8, 0.5/4, 0.25/8, 0.25/4.
    "Time that a message spends in the engine.": {
        '{instance="paris",direction="encode"}': 0.0625, '{instance="paris",direction="decode"}': 0.125,
        '{instance="lyon",direction="encode"}': 0.03125, '{instance="lyon",direction="decode"}': 0.0625},
    "The peers that acknowledge most slowly.": {
        'kav_peer_ack_round_trip_avg_seconds{instance="paris",peer="1"}': 0.125,
        'kav_peer_ack_round_trip_avg_seconds{instance="lyon",peer="1"}': 0.25},
    # Nine of ten are not larger than 5120. Of what is in the last bucket, only its lower bound is known.
    "The size that nine of ten messages do not exceed.": {
        '{instance="paris",direction="encode"}': 5120, '{instance="lyon",direction="encode"}': 40960},
    "Operations that failed for lack of memory, per second.": {
        '{instance="paris",operation="allocate"}': 0.5, '{instance="lyon",operation="allocate"}': 0},
    "Who a peer is. Peer numbers are an appliance's own, so joins name the instance.": {
        '{instance="paris",peer="1",host_name="branch-1"}': 0.5, '{instance="lyon",peer="1",host_name="hub"}': 0.25},
}


def documented_queries():
    """The queries by the comments above them."""
    with open(os.path.join(SOURCE, "docs", "kavstat.md"), encoding="utf-8") as file:
        block = file.read().split("The queries of the first day")[1].split("```")[1]
    queries = {}
    for line in block.strip().splitlines():
        if line.startswith("# "):
            title = line[2:]
            queries[title] = ""
        else:
            queries[title] += line.strip() + " "
    return queries


class QueriesOfTheFirstDay(unittest.TestCase):
    def test_answer_known_figures_of_two_appliances(self):
        queries = documented_queries()
        self.assertEqual(queries.keys(), EXPECTED.keys())
        series = [dict(zip(["series", "values"], re.fullmatch(r"(.*}) (.*)", line).groups()))
                  for line in SERIES.strip().splitlines()]
        tests = [{"expr": queries[title], "eval_time": "30m",
                  "exp_samples": [{"labels": labels, "value": value} for labels, value in samples.items()]}
                 for title, samples in EXPECTED.items()]
        with tempfile.NamedTemporaryFile("w", suffix=".yml") as file:
            # JSON is YAML, too.
            json.dump({"tests": [{"interval": "1m", "input_series": series, "promql_expr_test": tests}]}, file)
            file.flush()
            result = subprocess.run([PROMTOOL, "test", "rules", file.name], stdout=subprocess.PIPE,
                                    stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stdout)

    def test_answer_for_two_demo_engines(self):
        with Servers() as servers:
            ports = []
            for _ in range(2):
                segment = servers.segment()
                servers.engine(segment, "--rate", "2", "--peers", "1")
                ports.append(servers.exporter(segment))
            # Each engine was started a moment ago, which is an alert.
            rules = os.path.join(KIT, "prometheus", "kav_alerts.rules.yml")
            prometheus = servers.prometheus(servers.write("prometheus.yml", scrape_configuration(ports, [rules])))
            wanted = {f"127.0.0.1:{port}" for port in ports}

            def who_answers(query):
                return {labels["instance"] for labels, value in prometheus.answer(query) if math.isfinite(value)}

            for title, query in documented_queries().items():
                self.assertTrue(wait_until(lambda query=query: who_answers(query) == wanted, 60), title)


if __name__ == "__main__":
    unittest.main(verbosity=2)

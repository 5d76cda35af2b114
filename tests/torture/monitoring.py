#!/usr/bin/env python3
"""Campaigns with real servers around the exporter. Each prints one row as kav_torture does and fails when anything is lost.

    monitoring.py alertmanager | fleet
"""
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from servers import BIN, KIT, SOURCE, Servers, Tally, free_port, output_of, scrape_configuration, wait_until

FLEET = os.path.join(SOURCE, "examples", "fleet")


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


# An illness, the alert that says so, and its severity.
ILLNESSES = [
    ("cache-failed", "KavCacheTemporarilyFailed", "warning"),
    ("low-memory", "KavLowMemoryErrors", "critical"),
    ("peer-disconnected", "KavPeerDisconnected", "critical"),
    ("peer-outdated", "KavPeerOutdated", "warning"),
    ("slow-disk", "KavCacheReadsSlow", "warning"),
]


def alertmanager(servers, tally):
    """Demo engines that fall ill for some seconds, and the messages that reach a webhook by Alertmanager."""
    # The times are short ones; everything else is as it is shipped.
    settings = servers.write("rules.toml", 'window = "6s"\n' + "".join(
        f"[{rule}]\nfor = 2\n" for rule in
        ["cache_temporarily_failed", "low_memory_errors", "peer_disconnected", "peer_outdated", "cache_reads_slow"]))
    rules = servers.write("alerts.rules.yml",
                          output_of([os.path.join(BIN, "kavstat"), "rules", "--rules", settings]))
    port, alerts = servers.webhook()
    text = read(os.path.join(FLEET, "alertmanager.yml")).replace("127.0.0.1:9999", f"127.0.0.1:{port}")
    text = re.sub(r"(group_wait|group_interval): \w+", r"\1: 1s", text)
    alertmanager_port = servers.alertmanager(servers.write("alertmanager.yml", text))
    instances = []
    for illness, _, _ in ILLNESSES:
        segment = servers.segment()
        servers.engine(segment, "--rate", "1", "--peers", "1", "--ill", f"{illness}@8s+12s")
        instances.append(f"127.0.0.1:{servers.exporter(segment)}")
    ports = [instance.split(":")[1] for instance in instances]
    servers.prometheus(servers.write("prometheus.yml", scrape_configuration(ports, [rules], alertmanager_port)))

    for state in ["firing", "resolved"]:
        for instance, (illness, name, severity) in zip(instances, ILLNESSES):
            wanted = {"alertname": name, "instance": instance, "severity": severity}
            tally.add_when(lambda: any(alert["status"] == state and wanted.items() <= alert["labels"].items()
                                       and alert["annotations"].keys() >= {"summary", "description", "remedy"}
                                       for alert in alerts), f"{illness}: {name} {state}")


def adapted(servers, name, replacements):
    """An example with the addresses of this machine, and short intervals."""
    text = read(os.path.join(FLEET, name))
    for old, new in replacements.items():
        if old not in text:
            raise RuntimeError(f"{name} has no {old}")
        text = text.replace(old, new)
    text = re.sub(r"(scrape_interval|evaluation_interval): \w+", r"\1: 1s", text)
    return servers.write(name, text)


def fleet(servers, tally):
    """File discovery with sites, sharding, and federation of the examples, over nine exporters, one of them new."""
    os.mkdir(servers.path("targets"))
    ports = []
    for _ in range(9):
        segment = servers.segment()
        servers.engine(segment, "--rate", "0.5", "--peers", "1")
        ports.append(servers.exporter(segment))
    sites = {"paris": ports[:5], "lyon": ports[5:8]}
    for site, own in sites.items():
        servers.write(f"targets/{site}.yml", f"- targets: {[f'127.0.0.1:{port}' for port in own]}\n")
    # Nobody listens for alerts.
    rules = {"/usr/share/kavstat/prometheus/": KIT + "/prometheus/",
             "alertmanager.example.net:9093": f"127.0.0.1:{free_port()}"}
    single = servers.prometheus(adapted(servers, "prometheus.yml", rules))
    shards = [servers.prometheus(adapted(servers, f"shard-{number}.yml", rules)) for number in (0, 1)]
    everything = servers.prometheus(adapted(servers, "global.yml", {
        f"shard-{number}.example.net:9090": f"127.0.0.1:{shard.port}" for number, shard in enumerate(shards)}))

    def by_site(server, expression):
        return {labels["site"]: value for labels, value in server.answer(expression)}

    def instances(server):
        return {labels["instance"] for labels, _ in server.answer("kav_up == 1")}

    tally.add_when(lambda: by_site(single, "count by (site) (kav_up == 1)") == {"paris": 5, "lyon": 3}, "sites of one server")
    wanted = {f"127.0.0.1:{port}" for port in ports[:8]}
    tally.add(single.answer('count({__name__=~".*_created"})') == [], "no series of when totals began")
    tally.add_when(lambda: instances(shards[0]) | instances(shards[1]) == wanted, "all appliances by two shards")
    tally.add(not instances(shards[0]) & instances(shards[1]), "no appliance by both shards")
    tally.add_when(lambda: by_site(everything, "sum by (site) (job:kav_up:sum)") == {"paris": 5, "lyon": 3},
                   "sites of the federating server")
    tally.add_when(lambda: len(everything.answer("instance:kav_connections_saved_per_original_bytes:ratio_rate5m > 0")) == 8,
                   "savings of each appliance on the federating server")
    tally.add_when(lambda: everything.value("count(ALERTS{alertname='KavEngineRestarted'})") == 8, "alerts are federated")
    tally.add(everything.answer("kav_up") == [] and everything.answer('{__name__=~"instance_peer:.*"}') == [],
              "nothing else is federated")

    # A new appliance is seen without a restart, by one of the shards.
    servers.write("targets/rome.yml", f"- targets: ['127.0.0.1:{ports[8]}']\n")
    tally.add_when(lambda: by_site(single, "count by (site) (kav_up == 1)").get("rome") == 1, "a new site")
    tally.add_when(lambda: by_site(everything, "sum by (site) (job:kav_up:sum)").get("rome") == 1,
                   "a new site on the federating server")
    # One that is removed is gone.
    os.remove(servers.path("targets/lyon.yml"))
    tally.add_when(lambda: "lyon" not in by_site(single, "count by (site) (kav_up)"), "a site that is removed")


CAMPAIGNS = {
    "alertmanager": (alertmanager, "alerts of ill engines, received from Alertmanager"),
    "fleet": (fleet, "fleet by files, sites, shards and federation"),
}


def main():
    if len(sys.argv) != 2 or sys.argv[1] not in CAMPAIGNS:
        sys.exit(__doc__)
    run, promise = CAMPAIGNS[sys.argv[1]]
    tally = Tally()
    with Servers() as servers:
        run(servers, tally)
    print(f"{promise:<52} {tally.tried:>9} {tally.lost:>6}  ")
    sys.exit(tally.lost > 0)


if __name__ == "__main__":
    main()

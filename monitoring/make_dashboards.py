#!/usr/bin/env python3
"""Makes Grafana dashboards and Prometheus consoles of the same panels.

    make_dashboards.py FOLDER

Reads panels.toml beside this file and writes FOLDER/grafana/NAME.json and FOLDER/consoles/NAME.html.
"""
import json
import os
import re
import sys
import tomllib

HERE = os.path.dirname(os.path.abspath(__file__))
ALL_COLUMNS = 24
GRAFANA_UNITS = {"bytes": "bytes", "bytes_per_second": "binBps", "seconds": "s", "ratio": "percentunit",
                 "per_second": "cps", "count": "short", "up": "short"}
# Height in Grafana's rows of 30 pixels.
HEIGHTS = {"stat": 4, "graph": 8, "stacked": 8}
DATASOURCE = {"type": "prometheus", "uid": "${datasource}"}
VARIABLES = {
    "instance": "label_values(kav_up, instance)",
    "peer": 'label_values(kav_peer_info{instance=~"$instance"}, peer)',
}


def read_dashboards():
    with open(os.path.join(HERE, "panels.toml"), "rb") as file:
        return tomllib.load(file)["dashboard"]


def field_settings(panel):
    settings = {"unit": GRAFANA_UNITS[panel["unit"]]}
    if panel["unit"] == "up":
        settings["mappings"] = [{"type": "value", "options": {
            "0": {"text": "down", "color": "red"}, "1": {"text": "up", "color": "green"}}}]
    if panel["kind"] != "stat":
        settings["min"] = 0
        settings["custom"] = {"fillOpacity": 10, "showPoints": "never", "lineWidth": 1}
        if panel["unit"] == "ratio":
            del settings["min"]  # negative when traffic grows
        if panel["kind"] == "stacked":
            settings["custom"] |= {"fillOpacity": 40, "stacking": {"mode": "normal"}}
    return settings


def grafana_panel(panel, number, place):
    b_stat = panel["kind"] == "stat"
    options = ({"reduceOptions": {"calcs": ["lastNotNull"]}, "graphMode": "area", "colorMode": "value"} if b_stat else
               {"legend": {"displayMode": "table", "placement": "bottom", "calcs": ["mean", "max", "lastNotNull"]},
                "tooltip": {"mode": "multi", "sort": "desc"}})
    return {
        "id": number,
        "type": "stat" if b_stat else "timeseries",
        "title": panel["title"],
        "description": panel["explanation"],
        "datasource": DATASOURCE,
        "gridPos": place,
        "fieldConfig": {"defaults": field_settings(panel), "overrides": []},
        "options": options,
        "targets": [{"refId": chr(ord("A") + at), "datasource": DATASOURCE, "expr": expression, "range": True,
                     "legendFormat": re.sub(r"\[\[(\w+)\]\]", r"{{\1}}", legend) or "__auto"}
                    for at, (expression, legend) in enumerate(panel["queries"])],
    }


def grafana_dashboard(dashboard):
    panels = []
    top = 0
    for row in dashboard["row"]:
        panels.append({"id": len(panels) + 1, "type": "row", "title": row["title"], "collapsed": False, "panels": [],
                       "gridPos": {"x": 0, "y": top, "w": ALL_COLUMNS, "h": 1}})
        top += 1
        left = height = 0
        for panel in row["panel"]:
            width = panel.get("width", 8)
            if left + width > ALL_COLUMNS:
                left = 0
                top += height
            height = HEIGHTS[panel["kind"]]
            panels.append(grafana_panel(panel, len(panels) + 1, {"x": left, "y": top, "w": width, "h": height}))
            left += width
        top += height
    variables = [{"name": "datasource", "label": "Data source", "type": "datasource", "query": "prometheus"}]
    for name in dashboard["variables"]:
        variables.append({"name": name, "label": name.capitalize(), "type": "query", "datasource": DATASOURCE,
                          "query": {"query": VARIABLES[name], "refId": name}, "refresh": 2, "sort": 3, "multi": True,
                          "includeAll": True, "allValue": ".*", "current": {"text": "All", "value": "$__all"}})
    return {
        "uid": dashboard["name"], "title": dashboard["title"], "description": dashboard["explanation"],
        "tags": ["kav"], "schemaVersion": 37, "version": 1, "editable": True, "timezone": "",
        "time": {"from": "now-1h", "to": "now"}, "refresh": "30s", "graphTooltip": 1,
        "templating": {"list": variables}, "panels": panels,
        "links": [{"type": "dashboards", "title": "KAV", "tags": ["kav"], "keepTime": True}],
    }


def console(dashboard, all_dashboards):
    with open(os.path.join(HERE, "console.html"), encoding="utf-8") as file:
        page = file.read()
    content = json.dumps(dashboard)
    # Two braces would begin an action of the template, "</" would end the script.
    if "{{" in content or "</" in content:
        sys.exit(dashboard["name"] + ": a text that cannot be in a console")
    links = json.dumps([[each["name"], each["title"]] for each in all_dashboards])
    page = page.replace("@TITLE@", dashboard["title"])
    return page.replace("@DASHBOARD@", content).replace("@LINKS@", links)


def write(folder, name, text):
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
        file.write(text)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    folder = sys.argv[1]
    dashboards = read_dashboards()
    for dashboard in dashboards:
        text = json.dumps(grafana_dashboard(dashboard), indent=2) + "\n"
        write(os.path.join(folder, "grafana"), dashboard["name"] + ".json", text)
        write(os.path.join(folder, "consoles"), dashboard["name"] + ".html", console(dashboard, dashboards))


if __name__ == "__main__":
    main()

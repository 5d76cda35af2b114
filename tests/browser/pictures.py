"""pictures.py FOLDER: pictures of the page, live and of the past, of the report and of the live view, for the documents.
Takes three minutes."""
import os
import sys
import time
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from browser import BIN, Browser, PageServers, kavstat, statistics
from terminal_picture import terminal_picture


def main(folder):
    browser = Browser()
    with PageServers() as servers:
        segment = servers.segment()
        servers.engine(segment, "--variety", "--rate", "5", "--keep-open", "24", "--peers", "6",
                       "--ill", "slow-disk@30s+40s")
        history = servers.path("history.db")
        recorder = servers.start([os.path.join(BIN, "kavstat"), "record", "--interval", "1", history], segment)
        page = f"http://127.0.0.1:{servers.exporter(segment)}/"
        time.sleep(65)
        browser.open(page)
        browser.wait_for_text("#figure-before", "/s")
        browser.picture(os.path.join(folder, "page-light.png"), 1400)
        time.sleep(30)

        browser.resize(1440, 900)
        browser.darken(True)
        key = urllib.parse.quote(statistics(segment, "--scope", "peers")["peers"][0]["kav_peer_id"], safe="")
        browser.open(f"{page}#/peer/{key}")
        browser.wait_for_text("#figure-before", "/s")
        browser.picture(os.path.join(folder, "peer-dark.png"), 1200)

        browser.resize(390, 844)
        browser.darken(False)
        browser.open(page)
        browser.wait_for_text("#figure-before", "/s")
        browser.picture(os.path.join(folder, "page-phone.png"))

        report = servers.path("report.html")
        kavstat(segment, "report", "-o", report)
        browser.resize(1440, 700)
        browser.open(f"file://{report}#/peers")
        browser.wait_for_text("#table-peers", "203.0.113.1")
        browser.picture(os.path.join(folder, "report-peers.png"))

        servers.stop(recorder)
        browser.resize(1440, 900)
        browser.darken(True)
        browser.open(f"http://127.0.0.1:{servers.exporter_program(segment, '--history', history)[1]}/")
        browser.wait(lambda: browser.all("#range-choice option[value='-1']"))
        browser.all("#range-choice option[value='-1']")[0].click()
        browser.wait_for_text(".when", "Figures recorded at")
        browser.picture(os.path.join(folder, "history-dark.png"), 1400)

        terminal_picture(segment, [], os.path.join(folder, "watch.svg"))
    browser.close()


if __name__ == "__main__":
    main(sys.argv[1])

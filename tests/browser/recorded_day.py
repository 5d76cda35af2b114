"""A recorded day, for tests of the page."""
import math
import sqlite3
import time

from browser import kavstat


def day_of_history(path, segment):
    """A history with a day of samples, ten seconds apart, in which traffic has a day's shape."""
    kavstat(segment, "record", "--once", path)
    database = sqlite3.connect(path)
    samples = 8640
    now = int(time.time())
    first = database.execute("SELECT min(id) FROM sample").fetchone()[0]
    database.execute("UPDATE sample SET time = ?", (now - samples * 10,))

    def columns_of(table):
        return [row[1] for row in database.execute(f"PRAGMA table_info({table})")]

    def expressions(table, own):
        for name in columns_of(table):
            grows = name.startswith(("conn_", "tot_")) or name.endswith("_kbytes")
            yield own.get(name) or (f'"{name}" + {own["grown"]} * {len(name) % 7 + 1}' if grows else f'"{name}"')

    grown = 0
    for number in range(1, samples):
        grown += 20000 + int(15000 * math.sin(number * 2 * math.pi / samples)) + number % 97 * 20
        sample = first + number
        own = {"id": str(sample), "sample": str(sample), "base": str(sample), "time": f"time + {10 * number}",
               "elapsed": "10", "grown": str(grown)}
        for table, identity in [("sample", "id"), ("engine_figures", "sample"), ("peer_figures", "sample"),
                                ("application_figures", "sample")]:
            database.execute(f"INSERT INTO {table} SELECT {', '.join(expressions(table, own))} FROM {table} "
                             f"WHERE {identity} = ?", (first,))
    database.commit()
    database.close()

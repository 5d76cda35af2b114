"""A table's rows as the page has to show them, made from the document of the table."""
import math
import time

from browser import rounded, size_text


def count_text(count):
    if abs(count) >= 1e7:
        mantissa, exponent = f"{count:.2e}".split("e")
        return f"{mantissa}e+{int(exponent)}"
    return rounded(count, 1 if abs(count) < 100 and count != math.floor(count) else 0)


def seconds_text(value):
    return f"{rounded(value * 1000, 3)} ms" if value < 1 else f"{rounded(value, 2)} s"


TEXTS = {
    "bytes": size_text,
    "bytes_per_second": lambda value: size_text(value) + "/s",
    "kilobytes": lambda value: size_text(value * 1024),
    "megabytes": lambda value: size_text(value * 1048576),
    "count": count_text,
    "count_per_second": lambda value: count_text(value) + "/s",
    "percent": lambda value: rounded(value, 1) + "%",
    "seconds": seconds_text,
    "time": lambda value: time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(value)),
}


def cell_text(value, unit):
    if isinstance(value, str):
        return value
    return "–" if value is None else TEXTS.get(unit, str)(value)


def visible_rows(document):
    """A table's rows as the page has to show them."""
    columns = document["columns"]
    keys = [column["key"] for column in columns]
    rows = []
    for row in document["rows"]:
        by_key = dict(zip(keys, row))
        cells = []
        for column in columns:
            if column["unit"] == "key" or column["key"] == "unit":
                continue
            unit = by_key["unit"] if column["unit"] == "value" else column["unit"]
            value = by_key[column["key"]]
            cells.append("–" if column["key"] == "peer" and value < 0 else cell_text(value, unit))
        rows.append(cells)
    return rows


def is_in_order(values, is_reverse):
    known = [value for value in values if value is not None]
    if values[:len(known)] != known:
        return False
    if is_reverse:
        known.reverse()
    numbers = [value for value in known if not isinstance(value, str)]
    texts = [value for value in known if isinstance(value, str)]
    return known == sorted(numbers, reverse=True) + sorted(texts)

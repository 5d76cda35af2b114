"""A screen of kavstat's live view as an SVG picture, taken from a real terminal in tmux."""
import html
import os
import re
import subprocess
import time

from servers import BIN

COLUMNS, LINES = 100, 30
CELL_WIDTH, CELL_HEIGHT = 8.4, 18  # pixels, of a font of 14 pixels
COLOURS = ["#1e1e1e", "#e06c75", "#98c379", "#e5c07b", "#61afef", "#c678dd", "#56b6c2", "#d4d4d4"]
INK, PAPER = "#d4d4d4", "#1e1e1e"


def captured(segment, keys):
    """The screen as text with escape sequences, after the keys."""
    tmux = ["tmux", "-L", segment, "-f", "/dev/null"]
    command = f"env KAV_STAT_SEGMENT={segment} LC_ALL=C.UTF-8 {os.path.join(BIN, 'kavstat')} watch"
    subprocess.run([*tmux, "-u", "new-session", "-d", "-x", str(COLUMNS), "-y", str(LINES), command], check=True)
    try:
        time.sleep(30)  # for the sparklines
        for key in keys:
            subprocess.run([*tmux, "send-keys", key], check=True)
        time.sleep(2)
        return subprocess.run([*tmux, "capture-pane", "-e", "-p", "-N"], check=True, capture_output=True,
                              encoding="utf-8").stdout
    finally:
        subprocess.run([*tmux, "kill-server"], check=False)


class Style:
    """The colours and weight that escape sequences have set."""

    def __init__(self):
        self.set(["0"])

    def set(self, codes):
        for code in (int(text or 0) for text in codes):
            if code == 0:
                self.ink, self.paper, self.is_bold, self.is_reverse = INK, PAPER, False, False
            elif code == 1:
                self.is_bold = True
            elif code == 7:
                self.is_reverse = True
            elif 30 <= code <= 37:
                self.ink = COLOURS[code - 30]
            elif code == 39:
                self.ink = INK
            elif 40 <= code <= 47:
                self.paper = COLOURS[code - 40]
            elif code == 49:
                self.paper = PAPER

    def svg(self, text, column, line):
        ink, paper = (self.paper, self.ink) if self.is_reverse else (self.ink, self.paper)
        left, top, width = column * CELL_WIDTH + 8, line * CELL_HEIGHT + 8, len(text) * CELL_WIDTH
        shapes = ""
        if paper != PAPER:
            shapes += f'<rect x="{left:.1f}" y="{top}" width="{width:.1f}" height="{CELL_HEIGHT}" fill="{paper}"/>'
        if text.strip():
            weight = ' font-weight="bold"' if self.is_bold else ""
            shapes += (f'<text x="{left:.1f}" y="{top + 14}" fill="{ink}"{weight} textLength="{width:.1f}" '
                       f'xml:space="preserve">{html.escape(text)}</text>\n')
        return shapes


def svg_of(screen):
    width, height = COLUMNS * CELL_WIDTH + 16, LINES * CELL_HEIGHT + 16
    style, shapes = Style(), []
    for number, line in enumerate(screen.splitlines()):
        column = 0
        for part in re.split(r"(\x1b\[[0-9;]*m)", line):
            if part.startswith("\x1b"):
                style.set(part[2:-1].split(";"))
            elif part:
                shapes.append(style.svg(part, column, number))
                column += len(part)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" '
            'font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="14">\n'
            f'<rect width="100%" height="100%" rx="6" fill="{PAPER}"/>\n{"".join(shapes)}</svg>\n')


def terminal_picture(segment, keys, path):
    with open(path, "w", encoding="utf-8") as file:
        file.write(svg_of(captured(segment, keys)))

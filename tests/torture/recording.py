#!/usr/bin/env python3
"""Attacks kavstat record, and prints one row as kav_torture does. Fails when anything is lost.

    recording.py [KILLS [SEED]]     200 kills of the recorder unless told otherwise
"""
import os
import random
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from servers import Tally

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BIN = os.environ.get("KAV_BIN", os.path.join(SOURCE, "build", "release", "bin"))
KAVSTAT = os.path.join(BIN, "kavstat")
INTERVAL = 0.1


def ask(path, query):
    database = sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=10)
    try:
        return database.execute(query).fetchone()[0]
    finally:
        database.close()


def wait_until(is_so, seconds=30):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            if is_so():
                return True
        except sqlite3.Error:
            pass
        time.sleep(0.02)
    return False


class Recorder:
    def __init__(self, path, *arguments, **options):
        self.path = path
        self.program = subprocess.Popen([KAVSTAT, "record", "--interval", str(INTERVAL), *arguments, path],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, **options)

    def samples(self):
        return ask(self.path, "SELECT count(*) FROM sample")

    def end(self, number=signal.SIGTERM):
        self.program.send_signal(number)
        return self.program.communicate(timeout=60)[1]


def start_engine(*arguments):
    engine = subprocess.Popen([os.path.join(BIN, "kav_demo_engine"), "--variety", "--rate", "5", "--repeat", "1000000",
                               *arguments], stdout=subprocess.PIPE, text=True)
    for line in engine.stdout:
        if line.strip() == "ready":
            break
    return engine


def stop_engine(engine):
    engine.terminate()
    engine.stdout.close()
    engine.wait()


def is_intact(path):
    return ask(path, "PRAGMA integrity_check") == "ok"


def kill_at_any_moment(folder, tally, kills, choice):
    """What was committed before the kill is there, whole, and the next recorder goes on."""
    path = os.path.join(folder, "killed.db")
    last = 0
    for kill in range(kills):
        recorder = Recorder(path, "--connections", "--keep", "2s:all,1h:1s")
        if kill == 0:
            wait_until(lambda: recorder.samples() > 0)
        began = time.monotonic()
        time.sleep(choice.uniform(0, 0.5))
        seen = 0
        try:
            seen = ask(path, "SELECT coalesce(max(id), 0) FROM sample")
        except sqlite3.Error:
            pass
        recorder.end(signal.SIGKILL)
        passed = time.monotonic() - began
        now = ask(path, "SELECT max(id) FROM sample")
        figures = ask(path, "SELECT count(*) FROM sample WHERE id NOT IN (SELECT sample FROM engine_figures)")
        tally.add(is_intact(path) and now >= max(seen, last) and figures == 0,
                  f"kill {kill} after {passed:.3f} s: samples {last}, {seen} seen, now {now}, {figures} without figures")
        last = now
    tally.add(subprocess.run([KAVSTAT, "json", "--history", path], stdout=subprocess.DEVNULL, check=False).returncode == 0,
              "the last sample is not read after the kills")


def second_recorder(folder, tally):
    path = os.path.join(folder, "second.db")
    recorder = Recorder(path)
    wait_until(lambda: recorder.samples() > 0)
    for _ in range(10):
        second = subprocess.run([KAVSTAT, "record", "--once", path], capture_output=True, text=True, check=False)
        tally.add(second.returncode == 1 and second.stderr == f"kavstat: {path}: another recorder is writing it\n",
                  f"second recorder: {second.returncode} {second.stderr}")
    recorder.end()
    # Before anything else is read: a reader makes these files, too.
    tally.add(not os.path.exists(path + "-wal") and is_intact(path), "the log is left after the recorder's end")


def engine_comes_and_goes(folder, tally, engine):
    """Each start of an engine is a row; the recorder says each trouble once."""
    path = os.path.join(folder, "starts.db")
    recorder = Recorder(path)
    wait_until(lambda: recorder.samples() > 0)
    for start in range(2, 6):
        stop_engine(engine)
        time.sleep(1.1)
        engine = start_engine()
        tally.add(wait_until(lambda: ask(path, "SELECT count(*) FROM engine_start") == start), f"start {start}")
    count = recorder.samples()
    tally.add(wait_until(lambda: recorder.samples() > count + 2), "no samples after the starts")
    said = recorder.end()
    gone = said.count("recording goes on when there is one")
    tally.add(4 <= gone <= 8 and said.count("recording again") == 4, f"said: {said}")
    crossing = ask(path, "SELECT count(*) FROM sample a JOIN sample b ON b.id = a.id + 1 "
                         "WHERE a.engine_start <> b.engine_start AND b.elapsed IS NOT NULL")
    tally.add(crossing == 0 and is_intact(path), "a sample knows the time since one of another start")
    return engine


def full_disk(folder, tally, size):
    """It is said once, nothing is spoiled, and recording goes on when there is room. On a disk of 3 MB, the write-ahead
    log would fill all of it before it is written to the file."""
    place = os.path.join(folder, "disk" + size)
    os.mkdir(place)
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=" + size, "tmpfs", place], check=False).returncode != 0:
        print("full disk: skipped, as nothing can be mounted", file=sys.stderr)
        return
    try:
        path = os.path.join(place, "full.db")
        recorder = Recorder(path, "--connections")
        wait_until(lambda: recorder.samples() > (20 if size == "3m" else 2))
        for _ in range(5):
            filler = os.path.join(place, "filler")
            try:
                with open(filler, "wb") as file:
                    while True:
                        file.write(b"x" * 4096)
                        file.flush()
            except OSError:
                pass
            time.sleep(1.5)
            during = recorder.samples()
            tally.add(is_intact(path), "spoiled while the disk was full")
            os.remove(filler)
            if not wait_until(lambda: recorder.samples() > during, 10):
                tally.add(False, f"does not go on: {during} samples, {os.listdir(place)}")
                break
        said = recorder.end()
        tally.add("samples are lost until this is solved" in said and said.count("\n") <= 20, f"said: {said}")
        tally.add(is_intact(path), "spoiled after the disk was full")
    finally:
        subprocess.run(["umount", "-l", place], check=False)


def other_versions(folder, tally):
    path = os.path.join(folder, "versions.db")
    subprocess.run([KAVSTAT, "record", "--once", path], check=True)
    database = sqlite3.connect(path)
    database.execute("PRAGMA user_version = 2")
    database.close()
    with open(path, "rb") as file:
        before = file.read()
    for command in (["record", "--once", path], ["json", "--history", path], ["export", "--table", "peer", path]):
        ended = subprocess.run([KAVSTAT, *command], capture_output=True, text=True, check=False)
        tally.add(ended.returncode in (1, 3) and "newer than this program's" in ended.stderr, f"{command}: {ended}")
    with open(path, "rb") as file:
        tally.add(file.read() == before, "a newer database was changed")
    database = sqlite3.connect(path)
    database.executescript("PRAGMA user_version = 1; DROP VIEW peer; ALTER TABLE peer_figures DROP COLUMN num_nacks")
    database.close()
    ended = subprocess.run([KAVSTAT, "record", "--once", path], capture_output=True, text=True, check=False)
    tally.add(ended.returncode == 0 and is_intact(path) and ask(path, "SELECT count(num_nacks) >= 0 FROM peer") == 1,
              f"an older database: {ended}")


def main():
    kills = int(sys.argv[1]) if len(sys.argv) > 1 else 200
    choice = random.Random(int(sys.argv[2]) if len(sys.argv) > 2 else 1)
    os.environ["KAV_STAT_SEGMENT"] = f"kav_recording_{os.getpid()}"
    tally = Tally()
    folder = tempfile.mkdtemp(prefix="kav_recording.")
    engine = start_engine()
    try:
        kill_at_any_moment(folder, tally, kills, choice)
        second_recorder(folder, tally)
        other_versions(folder, tally)
        full_disk(folder, tally, "16m")
        full_disk(folder, tally, "3m")
        engine = engine_comes_and_goes(folder, tally, engine)
    finally:
        stop_engine(engine)
        shutil.rmtree(folder, ignore_errors=True)
    print(f"{'recorder killed, disk full, engines come and go':<52} {tally.tried:>9} {tally.lost:>6}  ")
    sys.exit(tally.lost > 0)


if __name__ == "__main__":
    main()

"""Servers for tests of what is installed beside kavstat: engines, exporters, Prometheus, Alertmanager, a webhook receiver.

Everything listens on free ports of the loopback address and ends with its Servers object.
"""
import contextlib
import ctypes
import http.server
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
import urllib.request

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BIN = os.environ.get("KAV_BIN_DIR", os.path.join(SOURCE, "build", "release", "bin"))
# The kit as it is installed: rules, dashboards, consoles.
KIT = os.environ.get("KAV_MONITORING_DIR", os.path.join(os.path.dirname(BIN), "monitoring"))
PROMETHEUS = "/usr/bin/prometheus"
PROMTOOL = "/usr/bin/promtool"
ALERTMANAGER = "/usr/bin/prometheus-alertmanager"


LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1


def end_with_parent():
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def output_of(words, **options):
    """Standard output of a program that has to succeed."""
    result = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    if result.returncode != 0:
        raise RuntimeError(f"{words} ended with {result.returncode}:\n{result.stdout}")
    return result.stdout


def get(port, path, timeout=30):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=timeout) as answer:
        return answer.read().decode()


def wait_until(is_so, seconds=60, pause=0.2):
    """Waits for something to be so, and returns whether it is. Servers that do not listen yet are waited for, too."""
    deadline = time.monotonic() + seconds
    while True:
        with contextlib.suppress(OSError):
            if is_so():
                return True
        if time.monotonic() > deadline:
            return False
        time.sleep(pause)


class Tally:
    """What a campaign has tried and lost."""

    def __init__(self):
        self.tried = 0
        self.lost = 0

    def add(self, b_kept, what):
        self.tried += 1
        if not b_kept:
            self.lost += 1
            print("lost:", what, file=sys.stderr)

    def add_when(self, is_so, what, seconds=60):
        self.add(wait_until(is_so, seconds), what)


class Prometheus:
    def __init__(self, port, program):
        self.port = port
        self.program = program

    def answer(self, expression, at=None):
        """The result of an instant query: a list of pairs of labels and value."""
        question = {"query": expression} | ({} if at is None else {"time": at})
        document = json.loads(get(self.port, "/api/v1/query?" + urllib.parse.urlencode(question)))
        return [(each["metric"], float(each["value"][1])) for each in document["data"]["result"]]

    def value(self, expression):
        """The value of an answer with one series, or nothing."""
        answer = self.answer(expression)
        return answer[0][1] if len(answer) == 1 else None


class Servers(contextlib.ExitStack):
    """Starts servers, and ends all of them and removes their folder at its end."""

    def __init__(self, place="/dev/shm"):
        super().__init__()
        self.place = place

    def __enter__(self):
        self.folder = tempfile.mkdtemp(prefix="kav_servers.", dir=self.place)
        self.callback(shutil.rmtree, self.folder, ignore_errors=True)
        self._names = 0
        return self

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text):
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)
        return self.path(name)

    def start(self, words, segment=None, **options):
        environment = dict(os.environ) | ({} if segment is None else {"KAV_STAT_SEGMENT": segment})
        program = subprocess.Popen(words, env=environment, stdin=subprocess.DEVNULL, text=True,
                                   preexec_fn=end_with_parent, **options)
        self.callback(self.stop, program)
        return program

    @staticmethod
    def stop(program):
        program.terminate()
        try:
            program.wait(20)
        except subprocess.TimeoutExpired:
            program.kill()
            program.wait()
        if program.stdout is not None:
            program.stdout.close()

    def segment(self):
        """The name of an engine that nobody else has."""
        self._names += 1
        return f"kav_monitoring_{os.getpid()}_{self._names}"

    def engine(self, segment, *arguments):
        """A demo engine, ready to be read."""
        words = [os.path.join(BIN, "kav_demo_engine"), *arguments]
        program = self.start(words, segment, stdout=subprocess.PIPE)
        line = program.stdout.readline()
        if line != "ready\n":
            raise RuntimeError(f"the demo engine says: {line}")
        return program

    def exporter(self, segment):
        """The port of an exporter of an engine's metrics."""
        return self.exporter_program(segment)[1]

    def exporter_program(self, segment, *options):
        """An exporter and its port."""
        words = [os.path.join(BIN, "kavstat"), "serve", "--listen", "127.0.0.1:0", *options]
        program = self.start(words, segment, stdout=subprocess.PIPE)
        line = program.stdout.readline()
        if not line.startswith("serving http://127.0.0.1:"):
            raise RuntimeError(f"kavstat serve says: {line}")
        return program, int(line.rsplit(":", 1)[1])

    def prometheus(self, configuration, *options):
        """A server with this configuration, a path, that answers queries."""
        port = free_port()
        self._names += 1
        program = self.start([PROMETHEUS, f"--config.file={configuration}", f"--web.listen-address=127.0.0.1:{port}",
                              f"--storage.tsdb.path={self.path(f'prometheus{self._names}')}", "--log.level=error", *options])
        if not wait_until(lambda: get(port, "/-/ready")):
            raise RuntimeError("Prometheus is not ready")
        return Prometheus(port, program)

    def alertmanager(self, configuration):
        """The port of an Alertmanager with this configuration, a path."""
        port = free_port()
        self.start([ALERTMANAGER, f"--config.file={configuration}", f"--web.listen-address=127.0.0.1:{port}",
                    f"--storage.path={self.path('alertmanager')}", "--cluster.listen-address=", "--log.level=error"])
        if not wait_until(lambda: get(port, "/-/ready")):
            raise RuntimeError("Alertmanager is not ready")
        return port

    def webhook(self):
        """A receiver of an Alertmanager's messages: its port, and the list of the alerts that it got."""
        alerts = []

        class Receiver(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                size = int(self.headers["Content-Length"])
                alerts.extend(json.loads(self.rfile.read(size))["alerts"])
                self.send_response(200)
                self.end_headers()

            def log_message(self, *_):
                pass

        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Receiver)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.callback(server.shutdown)
        return server.server_address[1], alerts


def scrape_configuration(ports, rule_files=(), alertmanager=None, seconds=1, parameters=None):
    """A configuration that scrapes exporters on these ports. parameters: of the scrapes' addresses, by their names."""
    targets = ", ".join(f"'127.0.0.1:{port}'" for port in ports)
    files = ", ".join(f"'{file}'" for file in rule_files)
    alerting = "" if alertmanager is None else (
        f"alerting: {{alertmanagers: [{{static_configs: [{{targets: ['127.0.0.1:{alertmanager}']}}]}}]}}\n")
    return (f"global: {{scrape_interval: {seconds}s, scrape_timeout: {seconds}s, evaluation_interval: {seconds}s}}\n"
            f"rule_files: [{files}]\n{alerting}"
            f"scrape_configs: [{{job_name: kav, params: {json.dumps(parameters or {})}, "
            f"static_configs: [{{targets: [{targets}]}}]}}]\n")

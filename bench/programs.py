"""The programs of the bench: starting them, asking them, looking at their processes."""

import contextlib
import json
import os
import resource
import socket
import subprocess
import time

PATIENCE_S = 120  # longer than the programs wait for a reply


class Fault(Exception):
    """The figures of this run are worth nothing."""


class Tally:
    """Wrong and lost replies over everything that was asked."""

    def __init__(self):
        self.wrong = 0
        self.lost = 0

    def note(self, answer, where):
        wrong, lost = answer.get("wrong", 0), answer.get("lost", 0)
        if wrong or lost:
            print(f"{where}: {wrong} wrong and {lost} lost replies", flush=True)
        self.wrong += wrong
        self.lost += lost


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def allow_many_descriptors():
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


class Process:
    """A program under way: lines in, lines of JSON out. Its input's end ends it."""

    def __init__(self, program, *args):
        self.name = f"{program.name} {args[0]}"
        self._process = subprocess.Popen(
            [program.path, *map(str, args)], text=True, bufsize=1,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, env={**os.environ, **program.env})
        self.pid = self._process.pid

    def say(self, line):
        self._process.stdin.write(f"{line}\n")
        self._process.stdin.flush()

    def answer(self):
        """The next line, or None at the end."""
        line = self._process.stdout.readline()
        return json.loads(line) if line else None

    def expect(self):
        answer = self.answer()
        if answer is None:
            raise Fault(f"{self.name}: ended with {self._process.wait(PATIENCE_S)}")
        return answer

    def end(self):
        self._process.stdin.close()
        try:
            code = self._process.wait(PATIENCE_S)
        except subprocess.TimeoutExpired:
            self.kill()
            raise Fault(f"{self.name}: does not end") from None
        if code != 0:
            raise Fault(f"{self.name}: ended with {code}")

    def kill(self):
        self._process.kill()
        self._process.wait()

    # --- what the system knows of the process ---

    def cpu_s(self):
        return time.clock_gettime((~self.pid << 3) | 2)  # CPU clock of that process, all threads

    def resident_bytes(self):
        with open(f"/proc/{self.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def mapping_count(self):
        with open(f"/proc/{self.pid}/maps", encoding="ascii") as file:
            return len(file.readlines())

    def thread_count(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def descriptor_count(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))


class Program:
    def __init__(self, name, path, tally, library=None):
        self.name = name
        self.path = path
        self.env = {"NRPC_BENCH_LIBRARY": library} if library else {}
        self._tally = tally

    @contextlib.contextmanager
    def process(self, *args):
        process = Process(self, *args)
        try:
            yield process
            process.end()
        except BaseException:
            process.kill()
            raise

    @contextlib.contextmanager
    def server(self):
        """A server that listens; its port is the field `port`."""
        port = free_port()
        with self.process("server", port) as server:
            server.expect()
            server.port = port
            yield server

    def ask(self, command, *args):
        """Runs a client to its end; its counts go into the tally."""
        with self.process(command, *args) as client:
            answer = client.expect()
        self._tally.note(answer, f"{self.name} {command}")
        return answer

    def note(self, answer, where):
        self._tally.note(answer, f"{self.name} {where}")

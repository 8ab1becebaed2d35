#!/usr/bin/env python3
"""peer_test.py <nrpc-host>: the library talks with a client and a server that are not its own.

One line per check, PASS or FAIL with the reason; fails when one has failed.
"""
import contextlib
import functools
import os
import pathlib
import re
import socket
import subprocess
import sys
import threading

from peer import CANCEL, CLOSE_NOTICE, OWN_IDS, WAIT_S, Client, Server, wire_bytes

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "protocol.md"

WHOLE_TEST_S = 280

CALL_KINDS = (), ("--async",)

g_Program = None
g_Children = []         # processes that we started
g_Checks = []


class Failed(Exception):
    pass


def expect(condition, what):
    if not condition:
        raise Failed(what)


def expect_equal(found, wanted, what):
    if found != wanted:
        raise Failed(f"{what}: {shown(found)} instead of {shown(wanted)}")


def shown(value):
    text = repr(value)
    return text if len(text) <= 120 else f"{text[:100]}... ({len(value)} long)"


def check(title):
    def add(function):
        g_Checks.append((title, function))
        return function
    return add


# --- the programs on the other side ---

class LibraryServer:
    """nrpc-host serve, with its lines and its console."""

    def __init__(self, *options):
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        self._process = subprocess.Popen(
            [g_Program, "serve", "--port", str(self.port), "--seconds", str(WHOLE_TEST_S), *options],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        g_Children.append(self._process)
        self._lines = []
        self._more = threading.Condition()
        threading.Thread(target=self._read_lines, daemon=True).start()
        self.line("listening")

    def line(self, pattern):
        """Waits for a line that the pattern is found in; returns the match."""
        def found():
            return next(filter(None, map(functools.partial(re.search, pattern), self._lines)), None)
        with self._more:
            expect(self._more.wait_for(found, WAIT_S), f"serve printed no '{pattern}'")
            return found()

    def type(self, command):
        self._process.stdin.write(command + "\n")

    def handle_of(self, client):
        """The server's handle of a client, found by a request that names it."""
        name = os.urandom(8).hex()
        ask(client, name.encode())
        return self.line(rf'handle (\d+).*"{name}"')[1]

    def _read_lines(self):
        for line in self._process.stdout:
            with self._more:
                self._lines.append(line)
                self._more.notify_all()


@functools.cache
def library_server():
    return LibraryServer()


@contextlib.contextmanager
def library_client():
    """A client of ours at the library's server."""
    client = Client(library_server().port)
    with contextlib.closing(client):
        yield client


@contextlib.contextmanager
def python_server(handler):
    server = Server(handler)
    with contextlib.closing(server):
        yield server


def call(server, *arguments):
    """nrpc-host call to a server of ours; returns the finished process and the session."""
    before = len(server.sessions)
    process = subprocess.Popen([g_Program, "call", f"127.0.0.1:{server.port}", *map(str, arguments)],
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    g_Children.append(process)
    process.output = process.communicate(timeout=2 * WAIT_S)[0]
    return process, server.sessions[before]


def call_succeeds(server, reply, *arguments):
    process, session = call(server, *arguments)
    expect_equal(process.returncode, 0, f"exit status of call, which printed {process.output!r}")
    expect(reply in process.output, f"call printed {process.output!r}")
    return session


def echo(session, record):
    session.send(*record)


def ask(client, payload):
    expect_equal(client.ask(payload), payload, "the reply")


def expect_whole_replies(client):
    """What came is one message after the other, each in the packets that it must have."""
    expect(client.received == b"".join(wire_bytes(*record) for record in client.records),
           "the bytes received are not the messages' packets, one message after the other")


# --- our client, the library's server ---

@check("server: replies of all sizes, byte for byte on the wire")
def _():
    # 8169 bytes fill the first packet.
    with library_client() as client:
        for size in (1, 5, 8168, 8169, 8170, 8172, 8173, 20000, 1 << 20):
            ask(client, os.urandom(size))
        expect_whole_replies(client)


@check("server: its own messages, numbered for each client")
def _():
    with library_client() as client, library_client() as other:
        handle = library_server().handle_of(client)
        for msg_id in (*OWN_IDS, OWN_IDS[0]):
            library_server().type(f"push {handle} news {msg_id}")
            expect_equal(client.receive(), (msg_id, b"news %d" % msg_id), "the message")
        expect_whole_replies(client)
        library_server().type(f"push {library_server().handle_of(other)} news")
        expect_equal(other.receive(), (OWN_IDS[0], b"news"), "the message to the other client")


@check("server: a kick is 20 bytes and the end")
def _():
    with library_client() as client, library_client() as other:
        handle = library_server().handle_of(client)
        received = bytes(client.received)
        library_server().type(f"kick {handle}")
        expect_equal(client.receive(), None, "the end")
        expect_equal(bytes(client.received), received + b"<Msg0000>0</Msg0000>", "the bytes received")
        ask(other, b"still there")


# --- the library's client, our server ---

@check("client: text, 20000 bytes and 1 MiB, byte for byte on the wire")
def _():
    with python_server(echo) as server:
        for kind in CALL_KINDS:
            session = call_succeeds(server, "5 bytes  hello", *kind, "hello")
            expect_equal(bytes(session.received), wire_bytes(11, b"hello"), "the request")
            for size in 1, 8169, 8170, 20000, 1 << 20:
                session = call_succeeds(server, f"{size} byte", *kind, "--bytes", size, "--repeat", 2)
                expect_equal([record.msg_id for record in session.records], [11, 12], "the ids")
                expect(session.received == b"".join(wire_bytes(*record) for record in session.records),
                       "the requests are not cut into packets as they must be")


@check("client: a server that answers too late sees the cancel and nothing else")
def _():
    with python_server(lambda session, record: None) as server:
        process, session = call(server, "--timeout", 300, "hello")
        expect_equal(process.returncode, 1, "exit status")
        expect(session.ended.wait(WAIT_S), "the client did not close")
        expect_equal(bytes(session.received), wire_bytes(11, b"hello") + wire_bytes(CANCEL, b"0011"),
                     "the bytes received")


# --- the page ---

def dump_line(data, offset):
    """A line of a dump as the page has them, of 16 bytes or what there is."""
    row = data[offset:offset + 16]
    digits = [f"{byte:02x}" for byte in row]
    text = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in row)
    return f"{offset:08x}  {' '.join(digits[:8])}  {' '.join(digits[8:])}".ljust(60) + f"|{text}|"


def dumps_of(page):
    """The dumps in the page's code blocks, each as a list of lines."""
    dumps = []
    for block in re.findall(r"^```\n(.*?)^```$", page, re.MULTILINE | re.DOTALL):
        for part in re.split(r"^.* → .*\n", block, flags=re.MULTILINE):
            if re.match("[0-9a-f]{8}  ", part):
                dumps.append(part.splitlines())
    return dumps


def compare_dump(lines, data):
    """`...` stands for lines left out, or for the rest of a line."""
    for line in lines:
        if line != "...":
            whole = dump_line(data, int(line[:8], 16))
            wanted = whole[:len(line) - 3] + "..." if line.endswith(" ...") else whole
            expect_equal(line, wanted, "a line of the page")
    if not any(line.endswith("...") for line in lines):
        expect_equal(len(lines), -(-len(data) // 16), "lines of a dump in the page")


def exchanged_bytes():
    """What the page shows, from real exchanges, in the order of the page."""
    def shout(session, record):
        session.send(record.msg_id, record.payload.upper())
    with python_server(shout) as server:
        request = call_succeeds(server, "5 bytes  HELLO", "hello").received
    with library_client() as client:
        ask(client, b"HELLO")
        reply = client.received
    with python_server(echo) as server:
        session = call_succeeds(server, "20000 bytes, equal", "--bytes", 20000, "--repeat", 2)
        long_request = session.received[len(session.received) // 2:]
    with python_server(lambda session, record: None) as server:
        _, session = call(server, "--timeout", 100, "hello")
        expect(session.ended.wait(WAIT_S), "the client did not close")
        cancel = session.received[len(request):]
    return [request, reply, long_request, cancel, wire_bytes(CLOSE_NOTICE, b"")]


@check("page: every dump is what goes over the wire")
def _():
    dumps = dumps_of(PAGE.read_text(encoding="utf-8"))
    exchanged = exchanged_bytes()
    expect_equal(len(dumps), len(exchanged), "dumps in the page")
    for lines, data in zip(dumps, exchanged):
        compare_dump(lines, bytes(data))


# --- the run ---

def end_children():
    for child in g_Children:
        if child.poll() is None:
            child.kill()
            child.wait()


def give_up():
    print(f"FAIL the test as a whole: not done after {WHOLE_TEST_S} s", flush=True)
    end_children()
    os._exit(1)


def run(title, function):
    try:
        function()
    except (Failed, OSError, TimeoutError, subprocess.TimeoutExpired) as fault:
        print(f"FAIL {title}: {fault}", flush=True)
        return False
    print(f"PASS {title}", flush=True)
    return True


def main():
    global g_Program
    g_Program = sys.argv[1]
    watchdog = threading.Timer(WHOLE_TEST_S, give_up)
    watchdog.daemon = True
    watchdog.start()
    try:
        results = [run(title, function) for title, function in g_Checks]
    finally:
        end_children()
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())

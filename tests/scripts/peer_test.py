#!/usr/bin/env python3
"""peer_test.py <nrpc-host> [seed]: the library talks with a client and a server that are not its own.

One line per check, PASS or FAIL with the reason; fails when one has failed.
"""
import contextlib
import functools
import os
import pathlib
import random
import re
import socket
import subprocess
import sys
import threading
import time

from peer import CANCEL, CLOSE_NOTICE, HALF_MESSAGE_S, Client, Server, record_bytes, wire_bytes

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "protocol.md"

ANSWER_S = 30           # for whatever should come at once; generous, for slow builds
QUIET_S = 0.5           # after it, what has not come is not going to
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
            expect(self._more.wait_for(found, ANSWER_S), f"serve printed no '{pattern}'")
            return found()

    def type(self, command):
        self._process.stdin.write(command + "\n")

    def handle_of(self, client):
        """The server's handle of a client, found by a request that names it."""
        name = os.urandom(8).hex()
        expect_equal(client.reply(client.request(name.encode()), ANSWER_S), name.encode(), "the reply")
        return self.line(rf'handle (\d+).*"{name}"')[1]

    def stop(self):
        self.type("stop")
        return self._process.wait(ANSWER_S)

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
    """A client of ours at the library's server. In the end nothing unexpected may have come."""
    client = Client(library_server().port)
    with contextlib.closing(client):
        yield client
        expect_equal(client.strays, [], "replies that nobody waits for")


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
    process.output = process.communicate(timeout=2 * ANSWER_S)[0]
    return process, server.sessions[before]


def call_succeeds(server, reply, *arguments):
    process, session = call(server, *arguments)
    expect_equal(process.returncode, 0, f"exit status of call, which printed {process.output!r}")
    expect(reply in process.output, f"call printed {process.output!r}")
    return session


def echo(session, record):
    session.reply(*record)


def ask(client, payload, **pacing):
    expect_equal(client.reply(client.request(payload, **pacing), ANSWER_S), payload, "the reply")


def receive_to_end(client):
    while client.receive(ANSWER_S) is not None:
        pass


def expect_whole_replies(client):
    """What came is one message after the other, each in the packets that it must have."""
    expect(client.received == b"".join(wire_bytes(*record) for record in client.records),
           "the bytes received are not the messages' packets, one message after the other")


# --- our client, the library's server ---

@check("server: replies of all sizes, byte for byte on the wire")
def _(rng):
    # 8169 bytes fill the first packet.
    with library_client() as client:
        for size in (1, 5, 8168, 8169, 8170, 8172, 8173, 20000, 1 << 20):
            ask(client, rng.randbytes(size))
        expect_whole_replies(client)


@check("server: many requests in flight, ids 9999 and 0010 too")
def _(rng):
    with library_client() as client:
        while client.new_id() < 9980:
            pass
        requests = {client.request(payload): payload
                    for payload in (rng.randbytes(rng.randint(1, 20000)) for _ in range(30))}
        expect(9999 in requests and 10 in requests, "the ids do not wrap")
        for msg_id, payload in requests.items():
            expect_equal(client.reply(msg_id, ANSWER_S), payload, f"the reply {msg_id}")
        expect_whole_replies(client)


@check("server: after a cancel, replies to the latest request only")
def _(_):
    with contextlib.closing(Client(library_server().port)) as client:
        ask(client, b"before")
        client.write(wire_bytes(21, b"given up") + wire_bytes(CANCEL, b"0021"))
        time.sleep(QUIET_S)
        client.write(wire_bytes(22, b"early") + wire_bytes(23, b"latest"))
        client.receive_until(lambda: (23, b"latest") in client.records, ANSWER_S)
        ask(client, b"after")
        time.sleep(QUIET_S)
        ask(client, b"end")
        # Those before the latest may come or not; nothing else may, and nothing answers the cancel.
        allowed = [(11, b"before"), (21, b"given up"), (22, b"early"), (23, b"latest"),
                   (12, b"after"), (13, b"end")]
        expect_equal([record for record in allowed if record in client.records], client.records,
                     "the replies")


@check("server: its own messages, numbered for each client")
def _(_):
    with library_client() as client, library_client() as other:
        handle = library_server().handle_of(client)
        wanted = [(msg_id, b"news %d" % count) for count, msg_id in enumerate((6, 7, 8, 9, 5, 6))]
        for count, (_, text) in enumerate(wanted, 1):
            library_server().type(f"push {handle} {text.decode()}")
            client.receive_until(lambda count=count: len(client.own) == count, ANSWER_S)
        expect_equal(client.own, wanted, "the messages")
        expect_whole_replies(client)
        library_server().type(f"push {library_server().handle_of(other)} news 0")
        other.receive_until(lambda: other.own, ANSWER_S)
        expect_equal(other.own, wanted[:1], "the messages of the other client")


@check("server: a kick is 20 bytes and the end")
def _(_):
    with library_client() as client, library_client() as other:
        handle = library_server().handle_of(client)
        received = bytes(client.received)
        library_server().type(f"kick {handle}")
        receive_to_end(client)
        expect_equal(bytes(client.received), received + b"<Msg0000>0</Msg0000>", "the bytes received")
        ask(other, b"still there")


# --- the library's client, our server ---

@check("client: text, 20000 bytes and 1 MiB, byte for byte on the wire")
def _(_):
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
def _(_):
    with python_server(lambda session, record: None) as server:
        process, session = call(server, "--timeout", 300, "hello")
        expect_equal(process.returncode, 1, "exit status")
        expect(session.ended.wait(ANSWER_S), "the client did not close")
        expect_equal(bytes(session.received), wire_bytes(11, b"hello") + wire_bytes(CANCEL, b"0011"),
                     "the bytes received")


@check("client: the reply in tiny pieces")
def _(_):
    def in_pieces(session, record):
        session.reply(*record, sizes=[1] * 60 + [13] * 5000, pause=0.0001)
    with python_server(in_pieces) as server:
        for kind in CALL_KINDS:
            call_succeeds(server, "hello", *kind, "hello")
            call_succeeds(server, "20000 bytes, equal", *kind, "--bytes", 20000)


@check("client: a server that closes in the middle, or says what is no packet")
def _(_):
    def closing(last_bytes):
        def answer(session, record):
            session.write(last_bytes(wire_bytes(*record)))
            session.hang_up()
        return answer
    endings = [closing(lambda reply: b""), closing(lambda reply: reply[:10]),
               closing(lambda reply: reply[:9000]), closing(lambda reply: reply[:-1]),
               lambda session, record: session.kick(),
               lambda session, record: session.write(wire_bytes(12, b"other") + b"x" * 30)]
    for kind in CALL_KINDS:
        for ending in endings:
            with python_server(ending) as server:
                started = time.monotonic()
                process, _ = call(server, *kind, "--timeout", 500, "--bytes", 20000)
                expect_equal(process.returncode, 1, "exit status")
                expect(time.monotonic() - started < HALF_MESSAGE_S - 5, "it waited for the rest")


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
        session.reply(record.msg_id, record.payload.upper())
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
        expect(session.ended.wait(ANSWER_S), "the client did not close")
        cancel = session.received[len(request):]
    return [request, reply, long_request, cancel, wire_bytes(CLOSE_NOTICE, b"")]


@check("page: every dump is what goes over the wire")
def _(_):
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


def run(title, function, seed):
    try:
        function(random.Random(f"{seed} {title}"))
    except (Failed, OSError, TimeoutError, subprocess.TimeoutExpired) as fault:
        print(f"FAIL {title}: {fault}", flush=True)
        return False
    print(f"PASS {title}", flush=True)
    return True


def main():
    global g_Program
    g_Program = sys.argv[1]
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else random.randrange(1 << 32)
    print(f"seed {seed}", flush=True)
    watchdog = threading.Timer(WHOLE_TEST_S, give_up)
    watchdog.daemon = True
    watchdog.start()
    try:
        results = [run(title, function, seed) for title, function in g_Checks]
    finally:
        end_children()
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())

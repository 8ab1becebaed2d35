#!/usr/bin/env python3
"""peer_test.py <nrpc-host>: the library talks with a client and a server that are not its own."""
import contextlib
import os
import pathlib
import re
import socket
import subprocess
import sys
import threading
import unittest

from peer import CANCEL, CLOSE_NOTICE, OWN_IDS, WAIT_S, Client, Server, wire_bytes

PROGRAM = sys.argv.pop(1)
ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "docs" / "protocol.md"
CALL_KINDS = (), ("--async",)
KICK = b"<Msg0000>0</Msg0000>"


def all_bytes(records):
    return b"".join(wire_bytes(*record) for record in records)


def echo(session, record):
    session.send(*record)


def dump_line(data, offset):
    """A line of a dump as the page has them, of 16 bytes or what there is."""
    row = data[offset:offset + 16]
    digits = [f"{byte:02x}" for byte in row]
    text = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in row)
    return f"{offset:08x}  {' '.join(digits[:8])}  {' '.join(digits[8:])}".ljust(60) + f"|{text}|"


def dumps_of(page):
    """The dumps in the page's code blocks, each as a list of lines."""
    for block in re.findall(r"^```\n(.*?)^```$", page, re.MULTILINE | re.DOTALL):
        for part in re.split(r"^.* → .*\n", block, flags=re.MULTILINE):
            if re.match("[0-9a-f]{8}  ", part):
                yield part.splitlines()


class OwnClient(unittest.TestCase):
    """Our client at the library's server: nrpc-host serve, with its console."""

    def setUp(self):
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        self.process = subprocess.Popen([PROGRAM, "serve", "--port", str(self.port)], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=1)
        watchdog = threading.Timer(3 * WAIT_S, self.process.kill)
        watchdog.start()
        self.addCleanup(self.process.communicate)
        self.addCleanup(watchdog.cancel)
        self.addCleanup(self.process.terminate)
        self.line("listening")

    def line(self, pattern):
        """The match in the next line that the pattern is found in."""
        for line in self.process.stdout:
            if match := re.search(pattern, line):
                return match
        self.fail(f"serve printed no '{pattern}'")

    def type(self, command):
        self.process.stdin.write(command + "\n")

    def connect(self):
        client = Client(self.port)
        self.addCleanup(client.close)
        return client

    def ask(self, client, payload):
        self.assertEqual(client.ask(payload), payload)

    def handle_of(self, client):
        """The server's handle of a client, found by a request that names it."""
        name = os.urandom(8).hex()
        self.ask(client, name.encode())
        return self.line(rf'handle (\d+).*"{name}"')[1]

    def test_replies_of_all_sizes_byte_for_byte(self):
        client = self.connect()
        for size in (1, 5, 8168, 8169, 8170, 8172, 8173, 20000, 1 << 20):  # 8169 fill a packet
            self.ask(client, os.urandom(size))
        self.assertTrue(client.received == all_bytes(client.records))

    def test_own_messages_are_numbered_for_each_client(self):
        client, other = self.connect(), self.connect()
        handle = self.handle_of(client)
        for msg_id in (*OWN_IDS, OWN_IDS[0]):
            self.type(f"push {handle} news {msg_id}")
            self.assertEqual(client.receive(), (msg_id, b"news %d" % msg_id))
        self.assertTrue(client.received == all_bytes(client.records))
        self.type(f"push {self.handle_of(other)} news")
        self.assertEqual(other.receive(), (OWN_IDS[0], b"news"))

    def test_a_kick_is_20_bytes_and_the_end(self):
        client, other = self.connect(), self.connect()
        self.type(f"kick {self.handle_of(client)}")
        self.assertEqual(client.receive(), None)
        self.assertEqual(bytes(client.received), all_bytes(client.records) + KICK)
        self.ask(other, b"still there")

    def test_the_example_as_a_program(self):
        command = [sys.executable, ROOT / "examples" / "peer.py", str(self.port), "你好吗"]
        process = subprocess.run(command, capture_output=True, encoding="utf-8", timeout=WAIT_S)
        self.assertEqual(process.stdout, "你好吗\n", process)


class OwnServer(unittest.TestCase):
    """The library's client, nrpc-host call, at our server."""

    def call(self, handler, status, line, *arguments):
        """Returns the session once it has ended."""
        with contextlib.closing(Server(handler)) as server:
            process = subprocess.run(
                [PROGRAM, "call", f"127.0.0.1:{server.port}", *map(str, arguments)],
                capture_output=True, text=True, timeout=2 * WAIT_S)
            self.assertEqual((process.returncode, line in process.stdout), (status, True), process)
            self.assertTrue(server.sessions[0].ended.wait(WAIT_S), "the client did not close")
            return server.sessions[0]

    def test_requests_of_all_sizes_byte_for_byte(self):
        for kind in CALL_KINDS:
            session = self.call(echo, 0, "5 bytes  hello", *kind, "hello")
            self.assertEqual(bytes(session.received), wire_bytes(11, b"hello"))
            for size in 1, 8169, 8170, 20000, 1 << 20:
                session = self.call(echo, 0, f"{size} byte", *kind, "--bytes", size, "--repeat", 2)
                self.assertEqual([record.msg_id for record in session.records], [11, 12])
                self.assertTrue(session.received == all_bytes(session.records))

    def test_every_dump_of_the_page_is_what_goes_over_the_wire(self):
        upper = self.call(lambda session, record: session.send(11, record.payload.upper()), 0,
                          "5 bytes  HELLO", "hello")
        long = self.call(echo, 0, "20000 bytes, equal", "--bytes", 20000, "--repeat", 2)
        late = self.call(lambda session, record: None, 1, "", "--timeout", 100, "hello")
        self.assertEqual(late.records, [(11, b"hello"), (CANCEL, b"0011")])
        self.assertEqual(bytes(late.received), all_bytes(late.records))
        exchanged = [upper.received, wire_bytes(11, b"HELLO"), all_bytes(long.records[1:]),
                     all_bytes(late.records[1:]), wire_bytes(CLOSE_NOTICE, b"")]
        dumps = list(dumps_of(PAGE.read_text(encoding="utf-8")))
        self.assertEqual(len(dumps), len(exchanged))
        for lines, data in zip(dumps, exchanged):
            for line in lines:  # `...` stands for lines left out, or for the rest of a line
                if line != "...":
                    whole = dump_line(data, int(line[:8], 16))
                    wanted = whole[:len(line) - 3] + "..." if line.endswith(" ...") else whole
                    self.assertEqual(line, wanted)
            if not any(line.endswith("...") for line in lines):
                self.assertEqual(len(lines), -(-len(data) // 16))


if __name__ == "__main__":
    unittest.main(verbosity=2)

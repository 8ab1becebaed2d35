#!/usr/bin/env python3
"""dissector_test.py <nrpc-host> <nrpc.lua>: what Wireshark shows of real exchanges, field by field.

A client and a server of the product talk through a relay here, which makes a capture of what they
say; a connection written by hand adds what they never send. Exits with 77 where tshark is missing.
"""
import io
import pathlib
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

import peer

SEGMENT_LEN = 1000  # cuts heads and chunks anywhere
PORT = 27123        # of the server, in the capture
UP, DOWN = 0, 1     # client to server, and back
CLOSE, CANCEL, OWN, REQUEST, REPLY, KICK = "012345"
FIELDS = ("msgid total_len chunk_index chunk_len message.len message.packets message.first_in kind "
          "record.id record.count payload text request_in reply_in cancel_in time").split()
NOTES = "no_packet bad_record overflow gap abandoned cancel close late stray".split()


class Capture:
    """Bytes of connections, as TCP segments in the order in which they were added."""

    def __init__(self):
        self.frames = []  # microseconds, connection, direction, bytes sent before, bytes
        self._lock = threading.Lock()

    def add(self, connection, direction, data):
        """Returns the number of the last frame."""
        with self._lock:
            now, done = time.time_ns() // 1000, len(self.sent(connection, direction))
            for at in range(0, len(data), SEGMENT_LEN):
                part = data[at:at + SEGMENT_LEN]
                self.frames.append((now, connection, direction, done + at, part))
            return len(self.frames)

    def sent(self, *way):
        return b"".join(frame[4] for frame in self.frames if frame[1:3] == way)

    def frame(self, connection, direction, end):
        """The number of the frame with the last of the first `end` bytes."""
        return 1 + next(i for i, (_, *way, done, data) in enumerate(self.frames)
                        if way == [connection, direction] and done + len(data) >= end)

    def seconds(self, first, last):
        return (self.frames[last - 1][0] - self.frames[first - 1][0]) / 1e6

    def write(self, path):
        acknowledged = {}
        with open(path, "wb") as out:
            out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))  # raw IPv4
            for now, connection, direction, done, data in self.frames:
                ports = (40000 + connection, PORT)[::1 if direction == UP else -1]
                acknowledged[connection, direction] = 1 + done + len(data)
                out.write(struct.pack("<IIII", *divmod(now, 10**6), *[40 + len(data)] * 2))
                out.write(struct.pack(">BBHHHBBHII", 0x45, 0, 40 + len(data), 0, 0, 64, 6, 0, 1, 1))
                out.write(struct.pack(">HHIIBBHHH", *ports, 1 + done, acknowledged.get(
                    (connection, UP + DOWN - direction), 1), 0x50, 0x18, 9999, 0, 0) + data)


def call_through_relay(capture, host, port, connection, *args, hold=0):
    """A call of the product; what the server says reaches it after `hold` seconds."""
    def pump(source, target, direction, pause):
        try:
            while data := source.recv(1 << 16):
                time.sleep(pause)
                capture.add(connection, direction, data)
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # one side has gone
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(30)
        address = "127.0.0.1:%d" % listener.getsockname()[1]
        call = subprocess.Popen([host, "call", address, *args], stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
        client, server = listener.accept()[0], socket.create_connection(("127.0.0.1", port))
        down = threading.Thread(target=pump, args=(server, client, DOWN, hold))
        down.start()
        pump(client, server, UP, 0)
        down.join()
        call.wait(30)


def shown(script, path, *options):
    """What tshark shows: by frame number, the fields that are there."""
    names = ["nrpc." + name for name in FIELDS] + ["nrpc.expert." + name for name in NOTES]
    output = subprocess.run(
        ["tshark", "-n", "-2", "-X", "lua_script:" + script, *options, "-r", path, "-Y", "nrpc",
         "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=|", "-e", "frame.number",
         *(word for name in names for word in ("-e", name))],
        check=True, capture_output=True, encoding="utf-8", timeout=60)
    assert "Lua" not in output.stderr, output.stderr
    rows = {}
    for line in output.stdout.splitlines():
        number, *values = line.split("\t")
        rows[int(number)] = {name[5:]: value for name, value in zip(names, values) if value}
    return rows


def check(rows, frame, notes="", **want):
    """The frame shows these fields with these values, and of the notes these alone."""
    row = rows.pop(frame, {})
    want = {name.replace("__", "."): str(value) for name, value in want.items()}
    found = {name: row.get(name, "") for name in want}
    marked = [name for name in NOTES if "expert." + name in row]
    assert (found, marked) == (want, notes.split()), f"frame {frame}: {row}\nwanted: {want} {notes}"


def real_exchanges(capture, host):
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]
    server = subprocess.Popen([host, "serve", "--port", str(port)], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE)
    try:
        assert b"listening" in server.stdout.readline()
        call_through_relay(capture, host, port, 0, "hello")
        call_through_relay(capture, host, port, 1, "--bytes", "20000", "--repeat", "2")
        call_through_relay(capture, host, port, 2, "--timeout", "200", "late", hold=0.6)
    finally:
        server.terminate()
        server.wait(30)


def check_real_exchanges(capture, rows):
    request, reply = (capture.frame(0, way, 45) for way in (UP, DOWN))
    assert capture.sent(0, UP) == peer.wire_bytes(11, b"hello")
    check(rows, request, msgid="0011", total_len=25, chunk_index=0, chunk_len=25, message__len=25,
          message__packets=1, message__first_in=request, kind=REQUEST, record__id="0011",
          record__count=5, payload=b"hello".hex(), text="hello", request_in="", reply_in=reply,
          cancel_in="", time="")
    check(rows, reply, msgid="0011", kind=REPLY, text="hello", request_in=request, reply_in="",
          time="%.9f" % capture.seconds(request, reply))

    records = list(peer.messages_of(io.BytesIO(capture.sent(1, UP)).read))
    for number, message in enumerate(records):
        ends = [number * 20084 + end for end in (8212, 16424, 20084)]  # of the three packets
        up, down = ([capture.frame(1, way, end) for end in ends] for way in (UP, DOWN))
        for frames, kind, link in ((up, REQUEST, {"reply_in": down[2]}),
                                   (down, REPLY, {"request_in": up[2]})):
            want = {"msgid": "%04d" % (11 + number), "total_len": 20024}
            for index in (0, 1):
                check(rows, frames[index], **want, chunk_index=index, chunk_len=8192, kind="")
            check(rows, frames[2], **want, chunk_index=2, chunk_len=3640, message__len=20024,
                  message__packets=3, message__first_in=frames[0], kind=kind,
                  record__count=20000, payload=message[24:].hex(), **link)
    assert len(records) == 2

    request, late = (capture.frame(2, way, 44) for way in (UP, DOWN))
    cancel = capture.frame(2, UP, 44 + 44)
    check(rows, request, kind=REQUEST, text="late", reply_in=late, cancel_in=cancel)
    check(rows, cancel, "cancel", kind=CANCEL, record__id="0001", text="0011", request_in=request)
    check(rows, late, "late", kind=REPLY, request_in=request)


def odd_connection(capture):
    """What is seldom or never sent: direction, bytes, and what is shown of them."""
    half = peer.message_bytes(13, peer.record_bytes(13, bytes(9000)))[:20 + 8192]
    record = peer.record_bytes(15, b"gap")
    table = [
        (UP, peer.wire_bytes(12, b"a") + peer.wire_bytes(11, b"b"), "",
         {"kind": "3|3", "payload": "61|62"}),
        (DOWN, peer.wire_bytes(6, "新闻".encode("gbk")), "", {"kind": OWN, "text": "新闻"}),
        (DOWN, peer.wire_bytes(10, b"?"), "stray", {"kind": REPLY, "request_in": ""}),
        (DOWN, peer.message_bytes(12, peer.record_bytes(12, b"x") + peer.record_bytes(11, b"y")),
         "", {"msgid": "0012", "record.id": "0012|0011", "payload": "78|79"}),
        (UP, half, "", {"msgid": "0013", "kind": ""}),
        (UP, peer.wire_bytes(14, b"\x00\xff"), "abandoned",
         {"kind": REQUEST, "payload": "00ff", "text": ""}),
        (UP, peer.packet_bytes(15, b"x", 0, 2), "", {"kind": ""}),
        (UP, peer.packet_bytes(15, b"y", 0, 2), "abandoned", {"kind": ""}),
        (UP, peer.packet_bytes(15, record, 3), "gap abandoned", {"kind": REQUEST}),
        (UP, peer.packet_bytes(16, b"x" * 50, 0, 49), "overflow", {"chunk_len": 50, "kind": ""}),
        (UP, peer.packet_bytes(17, b""), "", {"total_len": 0, "kind": ""}),
        (UP, peer.message_bytes(18, b"<Msg0018>5x</Msg0018>hello"), "bad_record", {"kind": ""}),
        (UP, peer.message_bytes(18, b"<Msg0018>6</Msg0018>hello"), "bad_record", {"kind": ""}),
        (DOWN, peer.wire_bytes(0, b""), "close", {"kind": CLOSE, "payload": ""}),
        (DOWN, peer.record_bytes(0, b""), "close", {"kind": KICK, "msgid": ""}),
        (UP, peer.wire_bytes(19, b"ok") + b"NMSH" + bytes(40), "no_packet",
         {"msgid": "0019", "kind": REQUEST}),
        (UP, peer.HEAD.pack(b"NMSG", b"0020", 0, 0, -1), "no_packet", {"msgid": ""}),
        (UP, peer.HEAD.pack(b"NMSG", b"0020", 30, 0, 0), "no_packet", {"msgid": ""}),
    ]
    return [(capture.add(3, way, data), notes, fields) for way, data, notes, fields in table]


def main():
    if shutil.which("tshark") is None:
        print("tshark is not installed")
        return 77
    host, script = sys.argv[1:]
    capture = Capture()
    real_exchanges(capture, host)
    odd = odd_connection(capture)
    with tempfile.TemporaryDirectory() as place:
        path = str(pathlib.Path(place, "capture.pcap"))
        capture.write(path)
        rows = shown(script, path)
        check_real_exchanges(capture, rows)
        for frame, notes, fields in odd:
            check(rows, frame, notes, **fields)
        assert not rows, f"nothing was expected of {rows}"

        capture = Capture()  # from the middle of a connection: the port tells who is who
        frame = capture.add(0, DOWN, peer.wire_bytes(11, b"x"))
        capture.write(path)
        check(shown(script, path), frame, kind=REQUEST)
        check(shown(script, path, "-o", f"nrpc.port:{PORT}"), frame, "stray", kind=REPLY)
    print("every field as expected")
    return 0


sys.exit(main())

#!/usr/bin/env python3
"""dissector_test.py <nrpc.lua>: what Wireshark shows of the protocol, field by field.

The capture is made here, of the bytes that peer.py gives: they are those of the product, as
peer_test.py sees to. Exits with 77 where tshark is missing.
"""
import collections
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile

import peer

SEGMENT_LEN = 1000  # cuts heads and chunks anywhere
PORT = 27123        # of the server, in the capture
UP, DOWN = 0, 1     # client to server, and back
CLOSE, CANCEL, OWN, REQUEST, REPLY, KICK = "012345"
FIELDS = ("msgid total_len chunk_index chunk_len message.len message.packets message.first_in kind "
          "record.id record.count payload text request_in reply_in cancel_in time").split()
NOTES = "no_packet bad_record overflow gap abandoned cancel close late stray".split()


class Capture:
    """TCP segments of connections, a millisecond apart."""

    def __init__(self):
        self._frames = []  # connection, direction, bytes sent before, bytes
        self._sent = collections.Counter()

    def add(self, connection, direction, data, *ends):
        """Returns the numbers of the frames with the last of the first `ends` bytes, or of all."""
        first, way = len(self._frames), (connection, direction)
        for at in range(0, len(data), SEGMENT_LEN):
            self._frames.append((*way, self._sent[way], data[at:at + SEGMENT_LEN]))
            self._sent[way] += len(self._frames[-1][-1])
        return [1 + first + (end - 1) // SEGMENT_LEN for end in ends or [len(data)]]

    def write(self, path):
        acknowledged = {}
        with open(path, "wb") as out:
            out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))  # raw IPv4
            for number, (connection, direction, done, data) in enumerate(self._frames):
                ports = (40000 + connection, PORT)[::1 if direction == UP else -1]
                acknowledged[connection, direction] = 1 + done + len(data)
                out.write(struct.pack("<IIII", 0, 1000 * number, *[40 + len(data)] * 2))
                out.write(struct.pack(">BBHHHBBHII", 0x45, 0, 40 + len(data), 0, 0, 64, 6, 0, 1, 1))
                out.write(struct.pack(">HHIIBBHHH", *ports, 1 + done, acknowledged.get(
                    (connection, UP + DOWN - direction), 1), 0x50, 0x18, 9999, 0, 0) + data)


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


def check(rows, frame, notes, want):
    """The frame shows these fields with these values, and of the notes these alone."""
    row = rows.pop(frame, {})
    want = {name: str(value) for name, value in want.items()}
    found = {name: row.get(name, "") for name in want}
    marked = [name for name in NOTES if "expert." + name in row]
    assert (found, marked) == (want, notes.split()), f"frame {frame}: {row}\nwanted: {want} {notes}"


def usual_connections(capture):
    """Exchanges as they are every day: frame, notes, and what is shown of it."""
    hello = peer.wire_bytes(11, b"hello")
    request, reply = (capture.add(0, way, hello)[0] for way in (UP, DOWN))
    yield request, "", {
        "msgid": "0011", "total_len": 25, "chunk_index": 0, "chunk_len": 25, "message.len": 25,
        "message.packets": 1, "message.first_in": request, "kind": REQUEST, "record.id": "0011",
        "record.count": 5, "payload": b"hello".hex(), "text": "hello", "request_in": "",
        "reply_in": reply, "cancel_in": "", "time": ""}
    yield reply, "", {"msgid": "0011", "kind": REPLY, "text": "hello", "request_in": request,
                      "reply_in": "", "time": "0.001000000"}

    for msg_id in 11, 12:  # of three packets
        payload = bytes(number * msg_id % 251 for number in range(20000))
        wire = peer.wire_bytes(msg_id, payload)
        up, down = (capture.add(1, way, wire, 8212, 16424, 20084) for way in (UP, DOWN))
        for frames, kind, link in ((up, REQUEST, {"reply_in": down[2]}),
                                   (down, REPLY, {"request_in": up[2]})):
            want = {"msgid": "%04d" % msg_id, "total_len": 20024}
            for index in 0, 1:
                yield frames[index], "", {**want, "chunk_index": index, "chunk_len": 8192,
                                          "kind": ""}
            yield frames[2], "", {
                **want, "chunk_index": 2, "chunk_len": 3640, "message.len": 20024,
                "message.packets": 3, "message.first_in": frames[0], "kind": kind,
                "record.count": 20000, "payload": payload.hex(), **link}

    late = peer.wire_bytes(11, b"late")
    [request], [cancel], [reply] = (capture.add(2, way, wire) for way, wire in (
        (UP, late), (UP, peer.wire_bytes(peer.CANCEL, b"0011")), (DOWN, late)))
    yield request, "", {"kind": REQUEST, "text": "late", "reply_in": reply, "cancel_in": cancel}
    yield cancel, "cancel", {"kind": CANCEL, "record.id": "0001", "text": "0011",
                             "request_in": request}
    yield reply, "late", {"kind": REPLY, "request_in": request}


def odd_connection(capture):
    """What is seldom or never sent."""
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
    for way, data, notes, fields in table:
        yield capture.add(3, way, data)[0], notes, fields


def main():
    if shutil.which("tshark") is None:
        print("tshark is not installed")
        return 77
    script, = sys.argv[1:]
    capture = Capture()
    wanted = [*usual_connections(capture), *odd_connection(capture)]
    with tempfile.TemporaryDirectory() as place:
        path = str(pathlib.Path(place, "capture.pcap"))
        capture.write(path)
        rows = shown(script, path)
        for row in wanted:
            check(rows, *row)
        assert not rows, f"nothing was expected of {rows}"

        capture = Capture()  # from the middle of a connection: the port tells who is who
        frame, = capture.add(0, DOWN, peer.wire_bytes(11, b"x"))
        capture.write(path)
        check(shown(script, path), frame, "", {"kind": REQUEST})
        check(shown(script, path, "-o", f"nrpc.port:{PORT}"), frame, "stray", {"kind": REPLY})
    print("every field as expected")
    return 0


sys.exit(main())

"""peer.py: a client and a server of the protocol in docs/protocol.md, written from that page alone.

It shares nothing with the library, so that a fault of one side cannot hide behind the same fault
of the other. Message ids are ints here, payloads are bytes. Sockets give up after WAIT_S.
"""
import collections
import itertools
import socket
import struct
import threading

HEAD = struct.Struct("<4s4siii")  # Magic, MsgID, TotalLen, ChunkIndex, ChunkLen
MAGIC = b"NMSG"
CHUNK_LEN = 8192                  # of every chunk we send but the last
MAX_CHUNK_LEN = 1 << 20           # that we take
MAX_MESSAGE_LEN = 256 << 20
MAX_CHUNKS = 65536
MIN_RECORD_LEN = 20
WAIT_S = 30

CLOSE_NOTICE = 0
CANCEL = 1
OWN_IDS = 6, 7, 8, 9, 5           # the server's own messages, in the order of their use
REQUEST_IDS = *range(11, 10000), 10
NO_ID = -1                        # what is not four digits

Record = collections.namedtuple("Record", "msg_id payload")


# --- messages to bytes ---

def record_bytes(msg_id, payload):
    return b"<Msg%04d>%d</Msg%04d>" % (msg_id, len(payload), msg_id) + payload


def packet_bytes(msg_id, chunk, index=0, total_len=None):
    """One packet; without more, one that is a whole message."""
    total_len = len(chunk) if total_len is None else total_len
    return HEAD.pack(MAGIC, b"%04d" % msg_id, total_len, index, len(chunk)) + chunk


def message_bytes(msg_id, message, chunk_len=CHUNK_LEN):
    """The packets of a message, one after the other."""
    return b"".join(packet_bytes(msg_id, message[at:at + chunk_len], at // chunk_len, len(message))
                    for at in range(0, len(message), chunk_len))


def wire_bytes(msg_id, payload):
    """All that a message with one record is on the wire."""
    return message_bytes(msg_id, record_bytes(msg_id, payload))


# --- bytes to messages ---

def records_of(message):
    """The records at the front of a message. One with COUNT 0 is the last."""
    records = []
    while len(message) >= MIN_RECORD_LEN and message.startswith(b"<Msg"):
        digits = message[9:].partition(b"<")[0]
        if digits and not digits.isdigit():
            break
        count = int(digits or b"0")
        start = 9 + len(digits) + 10
        if count > len(message) - start:
            break
        msg_id = int(message[4:8]) if message[4:8].isdigit() else NO_ID
        records.append(Record(msg_id, message[start:start + count]))
        message = message[start + count:] if count > 0 else b""
    return records


class Assembly:
    """Puts the packets of one connection together, read by read."""

    def __init__(self):
        self.broken = False             # the connection is to be closed
        self._held = bytearray()
        self._chunks = []               # of the message being assembled
        self._expected = None           # MsgID and ChunkIndex that continue it

    def take(self, data):
        """Adds what one read gave; returns the messages completed by it."""
        self._held += data
        messages = []
        first = True
        try:
            while packet := self._take_packet():
                messages += self._add(*packet)
                first = False
        except ValueError:
            self._discard()
            self.broken = not first
        return messages

    def _take_packet(self):
        """The fields of the packet at the front of what is held, None while it is not whole."""
        if len(self._held) < HEAD.size:
            return None
        magic, msg_id, total_len, index, chunk_len = HEAD.unpack_from(self._held)
        if (magic != MAGIC or not 0 <= total_len <= MAX_MESSAGE_LEN
                or not 0 <= chunk_len <= MAX_CHUNK_LEN or (chunk_len == 0 and total_len != 0)):
            raise ValueError("not a packet")
        end = HEAD.size + chunk_len
        if len(self._held) < end:
            return None
        chunk = bytes(self._held[HEAD.size:end])
        del self._held[:end]
        return msg_id, total_len, index, chunk

    def _add(self, msg_id, total_len, index, chunk):
        """Appends a packet; returns [the message] if that completes it, else []."""
        if (msg_id, index) != self._expected:
            self._chunks.clear()
        self._expected = msg_id, index + 1
        self._chunks.append(chunk)
        have = sum(map(len, self._chunks))
        message = [b"".join(self._chunks)] if have == total_len else []
        if have >= total_len or len(self._chunks) == MAX_CHUNKS:
            self._expected = None
        return message

    def _discard(self):
        self._held.clear()
        self._expected = None


# --- the ends of a connection ---

class Connection:
    """A socket and what came out of it."""

    def __init__(self, sock):
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        sock.settimeout(WAIT_S)
        self.received = bytearray()     # every byte that ever came ...
        self.records = []               # ... and every record
        self._sock = sock
        self._taken = 0                 # how many of them `receive` has given away
        self._assembly = Assembly()

    def write(self, data):
        self._sock.sendall(data)

    def send(self, msg_id, payload):
        self.write(wire_bytes(msg_id, payload))

    def receive(self):
        """The next record, or None at the end of the stream; raises TimeoutError."""
        while self._taken == len(self.records):
            try:
                data = self._sock.recv(1 << 16)
            except ConnectionResetError:
                data = b""
            if not data or self._assembly.broken:
                return None
            self.received += data
            for message in self._assembly.take(data):
                self.records += records_of(message)
        self._taken += 1
        return self.records[self._taken - 1]

    def hang_up(self):
        """Ends the connection; what the other side sent meanwhile can still be received."""
        self._sock.shutdown(socket.SHUT_WR)

    def close(self):
        self._sock.close()


class Client(Connection):
    def __init__(self, port):
        super().__init__(socket.create_connection(("127.0.0.1", port), WAIT_S))
        self._ids = itertools.cycle(REQUEST_IDS)

    def ask(self, payload):
        """The reply to a request, whatever comes before it; None if the server closes instead."""
        msg_id = next(self._ids)
        self.send(msg_id, payload)
        while (record := self.receive()) and record.msg_id != msg_id:
            pass
        return record and record.payload


class Session(Connection):
    """A client, as the server sees it."""

    def __init__(self, sock):
        super().__init__(sock)
        self.ended = threading.Event()  # nothing more comes from the client

    def serve(self, handler):
        """Calls handler(session, record) for each request until the client is gone or silent."""
        try:
            while (record := self.receive()) is not None:
                if record.msg_id >= min(REQUEST_IDS):
                    handler(self, record)
        except OSError:
            pass                        # silent, or gone while the handler was at work
        self.ended.set()


class Server:
    """Serves on a free port of the loopback, each client in a thread of its own, until close()."""

    def __init__(self, handler):
        self.sessions = []
        self._handler = handler
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    def _accept(self):
        try:
            while True:
                session = Session(self._listener.accept()[0])
                self.sessions.append(session)
                threading.Thread(target=session.serve, args=(self._handler,), daemon=True).start()
        except OSError:
            pass                        # close() was called

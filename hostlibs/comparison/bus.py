"""A raw client of the bus: messages byte by byte, so that a case decides them and no library stands between."""

import contextlib
import socket
import struct
import threading

STATUS, DATA, LOOKUP, INVOKE, ADD_OBJECT, NOTIFY = 1, 2, 4, 5, 6, 10
A_STATUS, A_OBJPATH, A_OBJID, A_METHOD, A_SIGNATURE, A_DATA, A_ACTIVE, A_NO_REPLY = 1, 2, 3, 4, 6, 7, 9, 10
T_ARRAY, T_TABLE, T_STRING, T_INT64, T_INT32, T_INT16, T_INT8, T_DOUBLE = range(1, 9)


def padded(data):
    return data + bytes(-len(data) % 4)


def attribute(number, data, extended=False):
    return padded(struct.pack(">I", extended << 31 | number << 24 | len(data) + 4) + data)


def number(identity, value):
    return attribute(identity, struct.pack(">I", value))


def string(identity, value):
    return attribute(identity, value.encode("latin-1") + b"\0")


def member(kind, name, data):
    """A named value: an element of a table, or with the empty name of an array."""
    name = name.encode("latin-1")
    return attribute(kind, padded(struct.pack(">H", len(name)) + name + b"\0") + data, extended=True)


def attributes(data):
    """{id: bytes} of what a message holds."""
    found, at = {}, 0
    while at + 4 <= len(data):
        word = struct.unpack_from(">I", data, at)[0]
        length = word & 0xFFFFFF
        if length < 4:
            break
        found[word >> 24 & 0x7F] = data[at + 4: at + length]
        at += length + -length % 4
    return found


class Service:
    """Owns one object. A method of its `replies` is answered with those bytes and that status; "notify" tells the
    subscribers the request's arguments under the name that stands in `notification`."""

    def __init__(self, path, name, signature, replies):
        self.replies = replies
        self.object = None
        self.notification = "news"
        self.subscribed = threading.Event()
        self.ready = threading.Event()
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(str(path))
        self.lock = threading.Lock()
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()
        self.send(ADD_OBJECT, 1, 0, string(A_OBJPATH, name) + attribute(A_SIGNATURE, signature))
        self.ready.wait(5)

    def close(self):
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.socket.close()

    def send(self, kind, sequence, peer, content):
        with self.lock, contextlib.suppress(OSError):
            self.socket.sendall(struct.pack(">BBHI", 0, kind, sequence, peer) + attribute(0, content))

    def lookup(self, path):
        """Asks for a path and takes no note of the answer: a mark for who monitors."""
        self.send(LOOKUP, 7, 0, string(A_OBJPATH, path))

    def event(self, name):
        """Sends an event through the bus's own object 1."""
        content = member(T_STRING, "id", name.encode() + b"\0") + member(T_TABLE, "data", b"")
        self.send(INVOKE, 8, 1, number(A_OBJID, 1) + string(A_METHOD, "send") + attribute(A_DATA, content))

    def notify(self, name, data=b""):
        content = number(A_OBJID, self.object) + string(A_METHOD, name) + attribute(A_DATA, data)
        self.send(NOTIFY, 9, self.object, attribute(A_NO_REPLY, b"\1") + content)

    def _read(self, size):
        data = b""
        while len(data) < size:
            more = self.socket.recv(size - len(data))
            if not more:
                raise EOFError
            data += more
        return data

    def _serve(self):
        with contextlib.suppress(OSError, EOFError):
            while True:
                _, kind, sequence, peer, word = struct.unpack(">BBHII", self._read(12))
                length = word & 0xFFFFFF
                self._take(kind, sequence, peer, attributes(self._read(length + -length % 4 - 4)))

    def _take(self, kind, sequence, peer, content):
        if kind == DATA and self.object is None:
            self.object = struct.unpack(">I", content[A_OBJID])[0]
            self.ready.set()
        elif kind == NOTIFY and content.get(A_ACTIVE) == b"\1":
            self.subscribed.set()
        elif kind == INVOKE:
            self._answer(sequence, peer, content)

    def _answer(self, sequence, peer, content):
        method = content[A_METHOD].rstrip(b"\0").decode("latin-1")
        identity = number(A_OBJID, self.object)
        reply, status = self.replies.get(method, (None, 3))
        if method == "notify":
            self.notify(self.notification, content.get(A_DATA, b""))
        if reply is not None:
            self.send(DATA, sequence, peer, identity + attribute(A_DATA, reply))
        self.send(STATUS, sequence, peer, number(A_STATUS, status) + identity)

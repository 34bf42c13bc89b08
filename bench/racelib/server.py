#!/usr/bin/env python3
"""The web server of the race: static files, counted and at the speed of a line.

    server.py ROOT

Serves ROOT on 127.0.0.1, on a port that the system chooses, and takes orders from standard input, one a line; it answers
each with one line of JSON:

    rate N       send at most N bytes a second, over all connections together; 0: as fast as it goes
    reset        begin to count anew
    counts       once no request is being answered: {"body", "head", "requested", "requests", "connections"}

"body" and "head" are the bytes of answers, "requested" those of requests; what TCP and IP add is in none of them. It
ends with its standard input. HTTP/1.1: connections are kept, one or several ranges of a file can be asked for.
"""

import json
import os
import re
import socket
import sys
import threading
import time
from urllib.parse import unquote

SLICE_SECONDS = 0.004  # How long a line is busy with what is sent in one go.
CREDIT_SECONDS = 0.01  # What sleeping too long may be made up for.
BOUNDARY = "race-of-ranges"


class Line:
    """A line of a given speed that all connections share."""

    def __init__(self):
        self._lock = threading.Lock()
        self._free_at = 0.0
        self.bytes_per_second = 0

    def slice_bytes(self):
        if not self.bytes_per_second:
            return 1 << 30
        return max(1460, min(65536, int(self.bytes_per_second * SLICE_SECONDS)))

    def wait(self, size_bytes):
        """Returns when the line has carried the next size_bytes."""
        rate = self.bytes_per_second
        if not rate:
            return
        with self._lock:
            self._free_at = max(self._free_at, time.monotonic() - CREDIT_SECONDS) + size_bytes / rate
            until = self._free_at
        pause = until - time.monotonic()
        if pause > 0:
            time.sleep(pause)


class Counts:
    """What went over the line; "counts" waits until no request is being answered."""

    NAMES = ("body", "head", "requested", "requests", "connections")

    def __init__(self):
        self._changed = threading.Condition()
        self._busy = 0
        self._numbers = dict.fromkeys(self.NAMES, 0)

    def add(self, **numbers):
        with self._changed:
            for name, number in numbers.items():
                self._numbers[name] += number

    def begin(self, requested):
        with self._changed:
            self._busy += 1
            self._numbers["requests"] += 1
            self._numbers["requested"] += requested

    def end(self):
        with self._changed:
            self._busy -= 1
            self._changed.notify_all()

    def reset(self):
        with self._changed:
            self._numbers = dict.fromkeys(self.NAMES, 0)

    def settled(self):
        with self._changed:
            if not self._changed.wait_for(lambda: self._busy == 0, timeout=30):
                raise RuntimeError("a request is still being answered after 30 s")
            return dict(self._numbers)


def ranges_of(header, size):
    """The (begin, end) pairs that a Range header asks of a file of that size; None: the whole file; []: none that it has."""
    match = re.fullmatch(r"bytes=([0-9,\s-]+)", header or "")
    if not match:
        return None
    found = []
    for part in match.group(1).split(","):
        first, dash, last = part.strip().partition("-")
        if not dash or not (first or last):
            return None
        if first:
            begin, end = int(first), min(int(last) + 1 if last else size, size)
        else:
            begin, end = max(0, size - int(last)), size
        if begin < end:
            found.append((begin, end))
    return found


class Connection:
    def __init__(self, connection, root, line, counts):
        self._socket = connection
        self._root = root
        self._line = line
        self._counts = counts
        self._rest = b""

    def serve(self):
        self._counts.add(connections=1)
        with self._socket:
            try:
                while self._answer_next():
                    pass
            except (ConnectionError, TimeoutError):
                pass  # The other side has gone.

    def _answer_next(self):
        while b"\r\n\r\n" not in self._rest:
            more = self._socket.recv(65536)
            if not more or len(self._rest) > 1 << 20:
                return False
            self._rest += more
        text, _, self._rest = self._rest.partition(b"\r\n\r\n")
        self._counts.begin(len(text) + 4)
        try:
            return self._answer(text.decode("latin-1").split("\r\n"))
        finally:
            self._counts.end()

    def _answer(self, lines):
        words = lines[0].split(" ")
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers[name.strip().lower()] = value.strip()
        kept = "close" if words[-1] == "HTTP/1.0" else "keep-alive"
        keep = headers.get("connection", kept).lower() != "close"
        if len(words) != 3 or words[0] not in ("GET", "HEAD"):
            self._send_head("400 Bad Request", ["Content-Length: 0"])
            return False
        path = os.path.normpath(unquote(words[1].split("?")[0]).lstrip("/"))
        if path.startswith("..") or not os.path.isfile(os.path.join(self._root, path)):
            self._send_head("404 Not Found", ["Content-Length: 0"])
            return keep
        with open(os.path.join(self._root, path), "rb") as file:
            self._send_file(file, headers.get("range"), words[0] == "HEAD")
        return keep

    def _send_file(self, file, wanted, only_head):
        size = os.fstat(file.fileno()).st_size
        ranges = ranges_of(wanted, size)
        if ranges is None:
            self._send_head("200 OK", [f"Content-Length: {size}", "Accept-Ranges: bytes"])
            pieces = [(b"", 0, size)]
        elif not ranges:
            self._send_head("416 Range Not Satisfiable", [f"Content-Range: bytes */{size}", "Content-Length: 0"])
            return
        elif len(ranges) == 1:
            begin, end = ranges[0]
            self._send_head("206 Partial Content",
                            [f"Content-Length: {end - begin}", f"Content-Range: bytes {begin}-{end - 1}/{size}"])
            pieces = [(b"", begin, end)]
        else:
            pieces = [(f"\r\n--{BOUNDARY}\r\nContent-Type: application/octet-stream\r\n"
                       f"Content-Range: bytes {begin}-{end - 1}/{size}\r\n\r\n".encode(), begin, end)
                      for begin, end in ranges] + [(f"\r\n--{BOUNDARY}--\r\n".encode(), 0, 0)]
            length = sum(len(head) + end - begin for head, begin, end in pieces)
            self._send_head("206 Partial Content", [f"Content-Type: multipart/byteranges; boundary={BOUNDARY}",
                                                    f"Content-Length: {length}"])
        if not only_head:
            for head, begin, end in pieces:
                self._send(head, "body")
                self._send_part(file, begin, end)

    def _send_head(self, status, headers):
        self._send("\r\n".join([f"HTTP/1.1 {status}", *headers, "", ""]).encode(), "head")

    def _send(self, data, kind):
        self._line.wait(len(data))
        self._counts.add(**{kind: len(data)})
        self._socket.sendall(data)

    def _send_part(self, file, begin, end):
        while begin < end:
            size = min(self._line.slice_bytes(), end - begin)
            self._line.wait(size)
            sent = os.sendfile(self._socket.fileno(), file.fileno(), begin, size)
            if sent == 0:
                raise ConnectionError("the file has become shorter")
            self._counts.add(body=sent)
            begin += sent


def accept(listener, root, line, counts):
    while True:
        connection, _ = listener.accept()
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        threading.Thread(target=Connection(connection, root, line, counts).serve, daemon=True).start()


def obey(order, line, counts):
    words = order.split()
    if words[:1] == ["rate"] and len(words) == 2:
        line.bytes_per_second = int(words[1])
        return {}
    if words == ["reset"]:
        counts.settled()
        counts.reset()
        return {}
    if words == ["counts"]:
        return counts.settled()
    return {"error": f"unknown order: {order.strip()}"}


def main():
    line, counts = Line(), Counts()
    listener = socket.create_server(("127.0.0.1", 0), backlog=128)
    threading.Thread(target=accept, args=(listener, os.path.abspath(sys.argv[1]), line, counts), daemon=True).start()
    print(json.dumps({"port": listener.getsockname()[1]}), flush=True)
    for order in sys.stdin:
        print(json.dumps(obey(order, line, counts)), flush=True)


if __name__ == "__main__":
    main()

"""The server that the device asks: honest, or as hostile as it is told to be."""

import os
import random
import socket
import socketserver
import threading
import time

FOR_DESCRIPTIONS = ["replay", "strip", "alter", "status", "html", "cut", "silent-cut", "flip", "endless",
                    "loop", "decoy", "file", "reset", "garbage", "silent", "empty"]
FOR_PACKAGES = ["other", "status", "html", "cut", "silent-cut", "flip", "endless", "loop", "decoy", "file",
                "good-redirect", "wrong-range", "lying-range", "reset", "garbage", "silent", "empty"]
SILENCE_SECONDS = 2
ENDLESS_BYTES = 32 << 20


class Server:
    """Serves a directory on loopback. What it does is set by `begin_hostility` and `be_honest`."""

    def __init__(self, root, decoy):
        self.root = root
        self.decoy_port = decoy.port if decoy else 0
        self.lock = threading.Lock()
        self.random = None
        self.ways = ()
        self.share = 0.0
        self.identifier = ""
        self.replayed = b""
        self.old_descriptions = []
        self.done = {}
        self.requests = 0
        server = self

        class Handler(socketserver.StreamRequestHandler):
            def handle(self):
                server.answer(self)

        class Listener(socketserver.ThreadingTCPServer):
            allow_reuse_address = True
            daemon_threads = True

            def handle_error(self, request, client_address):
                pass  # whoever asked has gone away

        self.listener = Listener(("127.0.0.1", 0), Handler)
        self.port = self.listener.server_address[1]
        threading.Thread(target=self.listener.serve_forever, args=(0.05,), daemon=True).start()

    def be_honest(self):
        with self.lock:
            self.random, self.ways, self.replayed = None, (), b""

    def begin_hostility(self, seed, ways, share, replayed=b""):
        """From now on a share of the answers is given in one of these ways, by chance."""
        with self.lock:
            self.random, self.ways, self.share = random.Random(seed), ways, share
            self.replayed = replayed
            self.done = {}

    def answer(self, handler):
        handler.connection.settimeout(10)
        request = handler.rfile.readline(65536).decode("latin-1").split(" ")
        head = {}
        while True:
            line = handler.rfile.readline(65536).decode("latin-1").strip()
            if not line:
                break
            key, _, value = line.partition(":")
            head[key.lower()] = value.strip()
        if len(request) < 2:
            return
        path, _, query = request[1].partition("?")
        for pair in query.split("&"):
            if pair.startswith("dlid="):
                self.identifier = pair[5:]
        is_description = path.startswith("/database_info/")
        with self.lock:
            self.requests += 1
            way = None
            if self.random is not None and self.random.random() < self.share:
                kinds = [one for one in (FOR_DESCRIPTIONS if is_description else FOR_PACKAGES)
                         if one in self.ways]
                way = self.random.choice(kinds) if kinds else None
                chance = random.Random(self.random.random())
            if way:
                self.done[way] = self.done.get(way, 0) + 1
        try:
            body = self.body(path)
            if way:
                self.be_hostile(way, handler, path, body, head, chance)
            else:
                self.be_good(handler, body, head)
        except (OSError, socket.timeout):
            pass

    def body(self, path):
        whole = os.path.normpath(os.path.join(self.root, path.lstrip("/")))
        if not whole.startswith(self.root + "/"):
            return None
        try:
            with open(whole, "rb") as file:
                return file.read()
        except OSError:
            return None

    @staticmethod
    def send(handler, status, body, *heads, length=None):
        lines = ["HTTP/1.1 " + status, "Connection: close"] + list(heads)
        if length is not None:
            lines.append("Content-Length: %d" % length)
        handler.wfile.write(("\r\n".join(lines) + "\r\n\r\n").encode("latin-1") + body)

    def be_good(self, handler, body, head):
        if body is None:
            return self.send(handler, "404 Not Found", b"", length=0)
        asked = head.get("range", "")
        if asked.startswith("bytes=") and asked.endswith("-") and asked[6:-1].isdigit():
            begin = int(asked[6:-1])
            if begin >= len(body):
                return self.send(handler, "416 Range Not Satisfiable", b"",
                                 "Content-Range: bytes */%d" % len(body), length=0)
            rest = body[begin:]
            return self.send(handler, "206 Partial Content", rest, "Content-Range: bytes %d-%d/%d" %
                             (begin, len(body) - 1, len(body)), length=len(rest))
        return self.send(handler, "200 OK", body, "Accept-Ranges: bytes", length=len(body))

    def be_hostile(self, way, handler, path, body, head, chance):
        body = body or b"nothing is here"
        wrong = self.other_bytes(way, path, body, chance)
        if wrong is not None:
            self.send(handler, "200 OK", wrong, length=len(wrong))
        elif way == "status":
            self.send(handler, chance.choice(["404 Not Found", "500 Oops", "503 Later", "204 No Content",
                                              "999 Strange", "403 No"]), b"", length=0)
        elif way == "html":
            page = b"<html><body>Please log in</body></html>"
            self.send(handler, "200 OK", page, "Content-Type: text/html", length=len(page))
        elif way == "cut":
            self.send(handler, "200 OK", body[:chance.randrange(len(body))], length=len(body))
        elif way == "silent-cut":
            self.send(handler, "200 OK", body[:chance.randrange(len(body))])
        elif way == "endless":
            self.send(handler, "200 OK", body)
            block = bytes(chance.randrange(256) for _ in range(4096)) * 16
            for _ in range(ENDLESS_BYTES // len(block)):
                handler.wfile.write(block)
        elif way in ("loop", "good-redirect", "decoy", "file"):
            self.redirect(way, handler, path, body, head)
        elif way == "wrong-range":
            self.send_range(handler, chance.randrange(len(body)), body, body)
        elif way == "lying-range":
            begin = head.get("range", "bytes=0-")[6:-1]
            begin = min(int(begin) if begin.isdigit() else 0, len(body) - 1)
            self.send_range(handler, begin, body, bytes(len(body)))
        elif way == "silent":
            self.send(handler, "200 OK", body[:10], length=len(body))
            until = time.monotonic() + SILENCE_SECONDS
            while time.monotonic() < until and self.ways:
                time.sleep(0.05)
        # "reset": nothing at all

    def other_bytes(self, way, path, body, chance):
        """What stands in place of the body, as a whole answer; None for ways that are none."""
        if way == "flip":
            at = chance.randrange(len(body))
            return body[:at] + bytes([body[at] ^ (1 << chance.randrange(8))]) + body[at + 1:]
        if way == "alter":
            return body.replace(b'\\"version\\":1', b'\\"version\\":2', 1)
        if way == "strip":
            return body.replace(b'"signature"', b'"signaturf"', 1).replace(b'"signed"', b'"signee"', 1)
        if way == "replay":
            return self.replayed or body
        if way == "other":
            return self.another(path, chance) or body
        if way == "garbage":
            return chance.randbytes(chance.randrange(1, 5000))
        return b"" if way == "empty" else None

    def redirect(self, way, handler, path, body, head):
        if way == "good-redirect" and ("again" in head.get("x", "") or path.endswith("?again")):
            self.be_good(handler, body, head)
            return
        target = {"loop": path, "good-redirect": "http://127.0.0.1:%d%s" % (self.port, path),
                  "decoy": "http://127.0.0.1:%d/secret" % self.decoy_port, "file": "file:///etc/passwd"}[way]
        self.send(handler, "302 Found", b"", "Location: " + target, length=0)

    def send_range(self, handler, begin, body, sent):
        """From there to the end, called a part of the body, of other bytes as long."""
        self.send(handler, "206 Partial Content", sent[begin:], "Content-Range: bytes %d-%d/%d" %
                  (begin, len(body) - 1, len(body)), length=len(body) - begin)

    def another(self, path, chance):
        """Another package in its place, of another version or of another database."""
        others = []
        for where, _, names in os.walk(self.root):
            others += [os.path.join(where, name) for name in names if "_v" in name or "_d" in name]
        others = sorted(one for one in others if not one.endswith(path))
        if not others:
            return None
        with open(chance.choice(others), "rb") as file:
            return file.read()

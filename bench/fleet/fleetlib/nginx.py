"""nginx as an ordinary process on loopback, set up by the example of packaging/server."""

import re
import shutil
import socket
import subprocess
import time

from fleetlib.simulate import PROJECT, Failed


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


class Nginx:
    """Serves a repository's public directory; with a certificate by https, as the example does, otherwise by http. Its log
    has a line for each request: second, status, bytes of the body, path; `log` is where, without `logged` there is none."""

    def __init__(self, directory, public, port, certificate=None, key=None, logged=True):
        if not shutil.which("nginx"):
            raise Failed("nginx is not installed (apt-get install nginx-light)")
        self.directory, self.port = directory, port
        directory.mkdir()
        self.log = directory / "access.log"
        text = (PROJECT / "packaging/server/nginx.conf").read_text()
        for pattern, new in (
                (r"    listen 443 ssl;\n", f"    listen 127.0.0.1:{port}{' ssl' if certificate else ''};\n"),
                (r"    listen \[::\]:443 ssl;\n", ""),
                (r"    ssl_certificate .*\n", f"    ssl_certificate {certificate};\n" if certificate else ""),
                (r"    ssl_certificate_key .*\n", f"    ssl_certificate_key {key};\n" if certificate else ""),
                (r"root /srv/databases/public;", f"root {public};")):
            text, count = re.subn(pattern, new, text)
            if count != 1:
                raise Failed(f"packaging/server/nginx.conf has no {pattern}")
        places = "".join(f"{name}_temp_path {directory}/{name};\n" for name in
                         ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        log = f"log_format seen '$msec $status $body_bytes_sent $request_uri';\naccess_log {self.log} seen;"
        self.config = directory / "nginx.conf"
        self.config.write_text(
            f"user root;\nworker_processes 2;\npid {directory}/pid;\nerror_log {directory}/error.log;\ndaemon off;\n"
            f"events {{ worker_connections 4096; }}\nhttp {{\n{places}{log if logged else 'access_log off;'}\n{text}}}\n")
        self.process = None

    def start(self):
        self.process = subprocess.Popen(["nginx", "-e", self.directory / "error.log", "-c", self.config],
                                        stderr=subprocess.DEVNULL)
        for _ in range(200):
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return
            except OSError:
                time.sleep(0.05)
        raise Failed(f"nginx does not listen: {(self.directory / 'error.log').read_text()[-300:]}")

    def stop(self):
        if self.process:
            self.process.terminate()
            self.process.wait(30)
            self.process = None

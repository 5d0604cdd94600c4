#!/usr/bin/env python3
"""Serves the files of a folder on 127.0.0.1, in parts, as well or as badly as wished:

    file_server.py [--delay MS] [--rate MB] FOLDER

--delay is added to each request, --rate limits each connection (megabytes a second). The first line
of output is the port: http://127.0.0.1:PORT/WAY/FILE, where WAY is how the file is served (below;
"plain" is as it should be). To each line of input it says what it has served since the last one:
requests, most of them at once, connections, bytes. Ends when its standard input does.
"""
import argparse
import collections
import http.server
import os
import re
import sys
import threading
import time

lock = threading.Lock()
stats = collections.Counter()
seen = collections.Counter()  # requests, by address and range
connections = set()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def log_message(self, *_):
        pass

    # Before the last bytes are sent: a client that has them may ask at once, on another connection too.
    def count_as_served(self):
        with lock:
            stats["now"] -= self.waiting
            self.waiting = 0

    def answer(self, status, body=b"", **headers):
        self.count_as_served()
        self.send_response(status)
        for name, value in {"Content-Length": len(body), **headers}.items():
            self.send_header(name.replace("_", "-"), value)
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        with lock:
            self.waiting = 1
            connections.add(self.client_address)
            stats["requests"] += 1
            stats["now"] += 1
            stats["at_once"] = max(stats["at_once"], stats["now"])
            seen[self.path] += 1
            seen[self.path, str(self.headers["Range"]).split("-")[-1]] += 1
        try:
            time.sleep(options.delay / 1000)
            self.serve()
        except ConnectionError:
            self.close_connection = True
        finally:
            self.count_as_served()

    def serve(self):
        _, way, name = self.path.split("?")[0].split("/", 2)
        times = seen[self.path]  # that this address was asked for
        first_try = seen[self.path, str(self.headers["Range"]).split("-")[-1]] == 1
        if way == "missing":
            return self.answer(404, b"no such file")
        if way == "down" or (way == "busy" and first_try):
            return self.answer(503, b"later", Retry_After=0)
        if way == "moved":
            return self.answer(302, Location=f"/plain/{name}")
        if way == "to-ticket":
            return self.answer(302, Location=f"/ticket/{name}?{times}")
        if way == "ticket" and times > 3:
            return self.answer(403, b"used up")
        if way == "loop":
            return self.answer(302, Location=self.path)
        if way == "to-file":
            return self.answer(302, Location=f"file://{os.path.abspath(options.folder)}/{name}")
        if way == "guarded" and self.headers["Authorization"] != "Basic dXNlcjpzZWNyZXQ=":  # user:secret
            return self.answer(401)

        with open(os.path.join(options.folder, name), "rb") as file:
            size = os.fstat(file.fileno()).st_size
            asked = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers["Range"] or "")
            if asked and int(asked[1]) >= size:
                return self.answer(416, Content_Range=f"bytes */{size}")
            begin, end = int(asked[1]) if asked else 0, size
            if asked and asked[2]:
                end = min(int(asked[2]) + 1, size)
            if way == "whole-only":
                asked, begin, end = None, 0, size
            self.send_response(206 if asked else 200)
            self.send_header("Content-Length", end - begin)
            if asked:
                shift = 1 if way == "shifted" else 0
                total = size + 1 if way == "grown" and times > 1 else size
                self.send_header("Content-Range", f"bytes {begin + shift}-{end - 1 + shift}/{total}")
            self.send_header("ETag", '"new"' if way == "replaced" and times > 1 else '"old"')
            self.end_headers()
            if first_try and way == "stalled":
                self.rfile.read(1)  # until the client has had enough
            elif first_try and way == "cut":
                self.send(file, begin, begin + (end - begin) // 2)
                self.close_connection = True
            else:
                self.send(file, begin, end)

    def send(self, file, begin, end):
        start, first = time.monotonic(), begin
        while begin < end:
            size = min(end - begin, 64 * 1024)
            with lock:
                stats["bytes"] += size
            if begin + size == end:
                self.count_as_served()
            begin += self.connection.sendfile(file, begin, size)
            if options.rate:
                time.sleep(max(0, start + (begin - first) / (options.rate * 1e6) - time.monotonic()))


parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("folder")
parser.add_argument("--delay", type=float, default=0, metavar="MS")
parser.add_argument("--rate", type=float, default=0, metavar="MB")
options = parser.parse_args()
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
server.handle_error = lambda *_: None  # a client that is gone
print(server.server_port, flush=True)
threading.Thread(target=server.serve_forever, daemon=True).start()
for _ in sys.stdin:
    with lock:
        print(stats["requests"], stats["at_once"], len(connections), stats["bytes"], flush=True)
        stats.clear()
        connections.clear()

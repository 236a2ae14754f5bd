"""A loopback HTTP server serving one folder read-only, for the tests.

Run with Debian's interpreter (/usr/bin/python3; standard library only):

    http_server.py --root DIR [--lifetime SECONDS]

It binds 127.0.0.1 on a free port, prints "PORT <n>" on standard output once
it accepts connections, and exits by itself when standard input reaches its
end (the parent closed the pipe or went away) or when the lifetime is over.
It answers GET and HEAD over HTTP/1.1 with keep-alive, honours a single byte
range ("Range: bytes=a-b", "a-", "-n"; 206, or 416 past the end), answers 404
for what is not there, and "/redirect/<path>" with 302 to "/<path>".
"""

import argparse
import functools
import http.server
import os
import sys
import threading


class Handler(http.server.SimpleHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def send_head(self):
        if self.path.startswith("/redirect/"):
            self.send_response(302)
            self.send_header("Location", self.path[len("/redirect"):])
            self.send_header("Content-Length", "0")
            self.end_headers()
            return None
        path = self.translate_path(self.path)
        if not os.path.isfile(path):
            self.send_error(404, "File not found")
            return None
        handle = open(path, "rb")
        size = os.fstat(handle.fileno()).st_size
        first, last = 0, size - 1
        status = 200
        wanted = self.headers.get("Range")
        if wanted and wanted.startswith("bytes=") and "," not in wanted:
            start, _, end = wanted[len("bytes="):].strip().partition("-")
            try:
                if start == "":
                    first = max(0, size - int(end))
                else:
                    first = int(start)
                    if end != "":
                        last = min(last, int(end))
            except ValueError:
                first, last = 0, size - 1
            else:
                if first >= size or first > last:
                    handle.close()
                    self.send_response(416)
                    self.send_header("Content-Range", "bytes */%d" % size)
                    self.send_header("Content-Length", "0")
                    self.end_headers()
                    return None
                status = 206
        self.send_response(status)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Accept-Ranges", "bytes")
        if status == 206:
            self.send_header("Content-Range", "bytes %d-%d/%d" % (first, last, size))
        self.send_header("Content-Length", str(max(0, last - first + 1)))
        self.end_headers()
        handle.seek(first)
        self._left = max(0, last - first + 1)
        return handle

    def copyfile(self, source, outputfile):
        left = self._left
        while left > 0:
            chunk = source.read(min(left, 1 << 20))
            if not chunk:
                break
            outputfile.write(chunk)
            left -= len(chunk)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True


def main():
    parser = argparse.ArgumentParser(description="loopback HTTP server for the tests")
    parser.add_argument("--root", required=True)
    parser.add_argument("--lifetime", type=float, default=0)
    options = parser.parse_args()
    server = Server(("127.0.0.1", 0), functools.partial(Handler, directory=os.path.abspath(options.root)))

    def watch_stdin():
        while sys.stdin.buffer.read1(4096):
            pass
        os._exit(0)

    threading.Thread(target=watch_stdin, daemon=True).start()
    if options.lifetime > 0:
        threading.Timer(options.lifetime, lambda: os._exit(0)).start()
    sys.stdout.write("PORT %d\n" % server.server_address[1])
    sys.stdout.flush()
    server.serve_forever()


if __name__ == "__main__":
    main()

"""A loopback FTP server for the tests and benchmarks, with optional faults.

Run with Debian's interpreter (/usr/bin/python3), which has pyftpdlib:

    ftp_server.py --root DIR --user U --password P [--fault MODE] [--lifetime S]

It binds 127.0.0.1 on a free port, prints "PORT <n>" on standard output once
it accepts connections, and exits by itself when standard input reaches its
end (the parent closed the pipe or went away) or when the lifetime is over.

Fault modes (one per server):
  greet421   answers every connection with 421 and closes it
  login530   refuses every login with 530
  retr550    refuses every download with 550
  stor552    refuses every upload with 552
  retrdrop   sends half of a download, then drops the data connection (426)
  retrshort  sends half of a download and reports success (226)
  retrstall  sends half of a download, then stops answering altogether
  stordrop   takes 256 KiB of an upload, then drops the data connection (426)
  storstall  takes 256 KiB of an upload, then stops answering altogether
  silent     accepts connections and never says anything
  slow       sends every download at 64 KiB/s
"""

import argparse
import os
import socket
import sys
import threading
import time

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler, ThrottledDTPHandler
from pyftpdlib.servers import FTPServer

STALL_SECONDS = 3600
SLOW_BYTES_PER_SECOND = 64 * 1024


class _HalfReader(object):
    """File wrapper that ends, fails or stalls after half of the file."""

    def __init__(self, fd, mode):
        self._fd = fd
        self._mode = mode
        fd.seek(0, os.SEEK_END)
        self._limit = max(1, fd.tell() // 2)
        fd.seek(0)
        self.closed = False
        self.name = fd.name

    def read(self, n):
        left = self._limit - self._fd.tell()
        if left > 0:
            return self._fd.read(min(n, left))
        if self._mode == "retrdrop":
            # Let the client take what was sent, then drop the connection
            # (closing a socket with unsent data may reset it at once).
            time.sleep(0.3)
            raise OSError(5, "dropped by the fault server")
        if self._mode == "retrstall":
            time.sleep(STALL_SECONDS)
        return b""

    def seek(self, *args):
        return self._fd.seek(*args)

    def tell(self):
        return self._fd.tell()

    def close(self):
        self.closed = True
        self._fd.close()


class _LimitedWriter(object):
    """File wrapper that fails or stalls after 256 KiB of an upload."""

    LIMIT = 256 * 1024

    def __init__(self, fd, mode):
        self._fd = fd
        self._mode = mode
        self.closed = False
        self.name = fd.name

    def write(self, data):
        if self._fd.tell() + len(data) > self.LIMIT:
            if self._mode == "storstall":
                time.sleep(STALL_SECONDS)
            raise OSError(28, "dropped by the fault server")
        return self._fd.write(data)

    def close(self):
        self.closed = True
        self._fd.close()


def make_handler(fault):
    class Handler(FTPHandler):
        auth_failed_timeout = 0
        use_sendfile = fault is None
        permit_foreign_addresses = True

        def handle(self):
            if fault == "greet421":
                self.respond("421 Service not available, closing control connection.")
                self.close_when_done()
                return
            FTPHandler.handle(self)

        def ftp_PASS(self, line):
            if fault == "login530":
                self.respond("530 Login incorrect.")
                return
            return FTPHandler.ftp_PASS(self, line)

        def ftp_RETR(self, file):
            if fault == "retr550":
                self.respond("550 Refused by the fault server.")
                return
            if fault in ("retrdrop", "retrshort", "retrstall"):
                try:
                    fd = open(file, "rb")
                except OSError as err:
                    self.respond("550 %s." % err.strerror)
                    return
                from pyftpdlib.handlers import FileProducer
                producer = FileProducer(_HalfReader(fd, fault), "i")
                self.push_dtp_data(producer, isproducer=True, file=producer.file, cmd="RETR")
                return file
            return FTPHandler.ftp_RETR(self, file)

        def ftp_STOR(self, file, mode="w"):
            if fault == "stor552":
                self.respond("552 Exceeded storage allocation.")
                return
            result = FTPHandler.ftp_STOR(self, file, mode)
            if fault in ("stordrop", "storstall") and result:
                if self.data_channel is not None:
                    self.data_channel.file_obj = _LimitedWriter(self.data_channel.file_obj, fault)
                elif self._in_dtp_queue:
                    fd, cmd = self._in_dtp_queue
                    self._in_dtp_queue = (_LimitedWriter(fd, fault), cmd)
            return result

    if fault == "slow":
        class SlowDTPHandler(ThrottledDTPHandler):
            write_limit = SLOW_BYTES_PER_SECOND

        Handler.dtp_handler = SlowDTPHandler
    return Handler


def watch_parent(lifetime):
    """Ends the process when the parent closes our standard input."""

    def wait_stdin():
        try:
            while sys.stdin.buffer.read(4096):
                pass
        finally:
            os._exit(0)

    def wait_lifetime():
        time.sleep(lifetime)
        os._exit(0)

    threading.Thread(target=wait_stdin, daemon=True).start()
    threading.Thread(target=wait_lifetime, daemon=True).start()


def serve_silent():
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.bind(("127.0.0.1", 0))
    listener.listen(16)
    print("PORT %d" % listener.getsockname()[1], flush=True)
    held = []
    while True:
        conn, _ = listener.accept()
        held.append(conn)  # never answered, never closed


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", required=True)
    parser.add_argument("--user", default="qlt")
    parser.add_argument("--password", default="secret")
    parser.add_argument("--fault", default=None)
    parser.add_argument("--lifetime", type=float, default=600.0)
    args = parser.parse_args()

    watch_parent(args.lifetime)
    if args.fault == "silent":
        serve_silent()
        return

    import logging
    logging.basicConfig(level=logging.CRITICAL)

    authorizer = DummyAuthorizer()
    authorizer.add_user(args.user, args.password, args.root, perm="elradfmwMT")
    handler = make_handler(args.fault)
    handler.authorizer = authorizer
    handler.passive_ports = None
    server = FTPServer(("127.0.0.1", 0), handler)
    server.max_cons = 64
    print("PORT %d" % server.socket.getsockname()[1], flush=True)
    server.serve_forever(handle_exit=False)


if __name__ == "__main__":
    main()

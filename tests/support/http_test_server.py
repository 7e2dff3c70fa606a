#!/usr/bin/env python3
"""Serves a folder over HTTP on the loopback address for tests.

Prints the port it listens on as the first line of standard output. Each request is
appended to the log file (when given) as "PATH<TAB>value of the version header". Requests
whose path starts with /hang/ are never answered, for timeout tests.
"""
import functools
import http.server
import sys
import threading

stopping = threading.Event()


class Handler(http.server.SimpleHTTPRequestHandler):
    log_path = None

    def do_GET(self):
        if self.log_path:
            with open(self.log_path, "a", encoding="utf-8") as log:
                log.write(f"{self.path}\t{self.headers.get('version', '')}\n")
        if self.path.startswith("/hang/"):
            stopping.wait()
            return
        super().do_GET()

    def log_message(self, format, *args):
        pass


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: http_test_server.py FOLDER [LOG_FILE]")
    Handler.log_path = sys.argv[2] if len(sys.argv) == 3 else None
    handler = functools.partial(Handler, directory=sys.argv[1])
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    server.daemon_threads = True
    print(server.server_address[1], flush=True)
    try:
        server.serve_forever()
    finally:
        stopping.set()


if __name__ == "__main__":
    main()

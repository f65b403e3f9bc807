#!/usr/bin/env python3
"""An HTTPS server for tests, on loopback with a certificate the test made.

GET /files/NAME   answers 200 with the bytes of ROOT/NAME (404 when there is none)
GET /status/N     answers status N with a small JSON body
GET /silent       reads the request and never answers
The chosen port is written to --port-file once the server listens.
"""
import argparse
import http.server
import os
import ssl
import threading
import time


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        if self.path == "/silent":
            time.sleep(3600)
            return
        if self.path.startswith("/status/"):
            self.answer(int(self.path[len("/status/"):]), b'{"version":"99.0","url":"https://x/"}')
            return
        if self.path.startswith("/files/"):
            name = os.path.basename(self.path[len("/files/"):])
            try:
                with open(os.path.join(self.server.root, name), "rb") as f:
                    body = f.read()
            except OSError:
                self.answer(404, b"")
                return
            self.answer(200, body)
            return
        self.answer(404, b"")

    def answer(self, status, body):
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args):
        pass


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--root", required=True)
    parser.add_argument("--port-file", required=True)
    arguments = parser.parse_args()

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    server.root = arguments.root
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(arguments.cert, arguments.key)
    server.socket = context.wrap_socket(server.socket, server_side=True)
    temporary = arguments.port_file + ".part"
    with open(temporary, "w") as f:
        f.write(str(server.server_address[1]))
    os.rename(temporary, arguments.port_file)
    server.serve_forever()


if __name__ == "__main__":
    main()

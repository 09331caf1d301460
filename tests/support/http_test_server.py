#!/usr/bin/env python3
"""Loopback HTTP and HTTPS server for orv's tests and benchmarks.

Standard library only. Started by the C++ fixture (tests/support/http_test_server.h):

    http_test_server.py --cert-dir DIR [--host-name NAME] [--mismatch-name NAME]
                        [--pinned-port 443]

It listens on 127.0.0.1 with plain HTTP and HTTPS on ports the system picks, and,
when asked, with HTTPS on a fixed port (443, for address pinning). Once listening
it prints one line and flushes it:

    READY http=<port> https=<port> pinned=<port or -1>

It ends when its standard input reaches end of file (the fixture closes it, or the
test process died) or on SIGTERM.

Certificates are made at start with the openssl command line: one for --host-name
(with 127.0.0.1 as an address name too), and one for an unrelated name that is
served to clients asking (by SNI) for --mismatch-name, so that a client checking
host names must refuse it.

Endpoints (every request except /_stats is counted by path):
  /echo                 JSON of the request: method, path, query, headers (list of
                        [name, value] in received order), header_lines ("Name: value"),
                        body (text), body_length, host, sni, tls
  /status/<code>        that status; body = ?body= (default empty)
  /body                 200 with body ?text= exactly (may be empty); or, with ?n=N,
                        N bytes of "abcdefghijklmnopqrstuvwxyz" repeated, written in
                        pieces of ?chunk= bytes (default 16384) with a flush after each
  /headers              200; each ?h= value is written as a raw header line
  /slow                 status ?status= (200); sends ?first= at once, then waits ?delay=
                        seconds (default 30) before sending ?rest= ("done")
  /fault/reset          reads the request, then resets the connection (RST, no answer)
  /fault/garbage        answers ?text= (default: non-HTTP bytes) instead of HTTP, closes
  /fault/stall          reads the request and sends nothing for ?delay= seconds (30)
  /fault/drip           200 with ?n= bytes (20) of body, one byte every ?interval= s (0.05)
  /fault/huge_headers   200 with ?count= extra header lines (100) of ?size= bytes (40)
                        each, named X-Big-<i>, then the body "big"
  /fault/truncate       200 announcing ?length= bytes (1000), sends ?sent= (100), closes
  /_stats               plain text: "requests N", then "path <path> <count>" and
                        "sni <name>" lines

New endpoints are functions taking (handler, query) added to ROUTES (exact paths) or
PREFIX_ROUTES; read_body() already understands chunked request bodies. Planned:
a client-credentials token endpoint counting its fetches, a chunked-upload sink
reporting total bytes, chunk count and a digest, a streaming source sending N chunks
at an interval (with a stall), a duplex endpoint, chosen final statuses.
"""

import argparse
import json
import os
import socket
import struct
import ssl
import subprocess
import sys
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit

UNRELATED_NAME = "unrelated.orv-test.example"


class State:
    def __init__(self):
        self.lock = threading.Lock()
        self.counts = {}
        self.total = 0
        self.sni = []
        self.sni_by_connection = {}
        self.stop = threading.Event()

    def count(self, path):
        with self.lock:
            self.total += 1
            self.counts[path] = self.counts.get(path, 0) + 1

    def add_sni(self, connection, name):
        with self.lock:
            self.sni.append(name)
            self.sni_by_connection[id(connection)] = name

    def connection_sni(self, connection, forget=False):
        with self.lock:
            if forget:
                return self.sni_by_connection.pop(id(connection), "")
            return self.sni_by_connection.get(id(connection), "")

    def report(self):
        with self.lock:
            lines = ["requests %d" % self.total]
            lines += ["path %s %d" % (p, n) for p, n in sorted(self.counts.items())]
            lines += ["sni %s" % name for name in self.sni]
        return "\n".join(lines) + "\n"


STATE = State()


def param(query, name, default=""):
    values = query.get(name)
    return values[0] if values else default


def send_bytes(handler, status, body, content_type="text/plain", extra=()):
    handler.send_response(status)
    handler.send_header("Content-Type", content_type)
    handler.send_header("Content-Length", str(len(body)))
    for line in extra:
        handler._headers_buffer.append(line.encode("latin-1") + b"\r\n")
    handler.end_headers()
    if body:
        handler.wfile.write(body)
    handler.wfile.flush()


def read_body(handler):
    """The request body, from Content-Length or chunked transfer encoding."""
    if "chunked" in handler.headers.get("Transfer-Encoding", "").lower():
        data = bytearray()
        while True:
            size_line = handler.rfile.readline()
            size = int(size_line.split(b";")[0].strip() or b"0", 16)
            if size == 0:
                while handler.rfile.readline() not in (b"\r\n", b"\n", b""):
                    pass
                return bytes(data)
            data += handler.rfile.read(size)
            handler.rfile.readline()
    length = int(handler.headers.get("Content-Length", "0") or "0")
    return handler.rfile.read(length) if length > 0 else b""


def route_echo(handler, query):
    body = read_body(handler)
    headers = [[k, v] for k, v in handler.headers.items()]
    answer = {
        "method": handler.command,
        "path": urlsplit(handler.path).path,
        "query": urlsplit(handler.path).query,
        "headers": headers,
        "header_lines": ["%s: %s" % (k, v) for k, v in headers],
        "body": body.decode("latin-1"),
        "body_length": len(body),
        "host": handler.headers.get("Host", ""),
        "sni": STATE.connection_sni(handler.connection),
        "tls": isinstance(handler.connection, ssl.SSLSocket),
    }
    text = json.dumps(answer, sort_keys=True, separators=(",", ":"))
    send_bytes(handler, 200, text.encode("latin-1"), "application/json")


def route_status(handler, query):
    read_body(handler)
    code = int(urlsplit(handler.path).path.rsplit("/", 1)[1])
    send_bytes(handler, code, param(query, "body").encode("latin-1"))


def route_body(handler, query):
    read_body(handler)
    if "n" not in query:
        send_bytes(handler, 200, param(query, "text").encode("latin-1"))
        return
    n = int(param(query, "n"))
    chunk = max(1, int(param(query, "chunk", "16384")))
    pattern = b"abcdefghijklmnopqrstuvwxyz"
    data = (pattern * (n // len(pattern) + 1))[:n]
    handler.send_response(200)
    handler.send_header("Content-Type", "application/octet-stream")
    handler.send_header("Content-Length", str(n))
    handler.end_headers()
    for start in range(0, n, chunk):
        handler.wfile.write(data[start:start + chunk])
        handler.wfile.flush()


def route_headers(handler, query):
    read_body(handler)
    send_bytes(handler, 200, b"headers", extra=query.get("h", []))


def route_slow(handler, query):
    read_body(handler)
    first = param(query, "first").encode("latin-1")
    rest = param(query, "rest", "done").encode("latin-1")
    delay = float(param(query, "delay", "30"))
    handler.send_response(int(param(query, "status", "200")))
    handler.send_header("Content-Length", str(len(first) + len(rest)))
    handler.end_headers()
    handler.wfile.write(first)
    handler.wfile.flush()
    STATE.stop.wait(delay)
    handler.wfile.write(rest)
    handler.wfile.flush()


def route_fault_reset(handler, query):
    read_body(handler)
    # SO_LINGER with a zero time-out makes close() send RST instead of FIN.
    handler.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    handler.close_connection = True
    handler.connection.close()


def route_fault_garbage(handler, query):
    read_body(handler)
    text = param(query, "text", "\x00\x01garbage, not HTTP at all\r\n\r\n")
    handler.wfile.write(text.encode("latin-1"))
    handler.wfile.flush()
    handler.close_connection = True


def route_fault_stall(handler, query):
    read_body(handler)
    STATE.stop.wait(float(param(query, "delay", "30")))
    handler.close_connection = True


def route_fault_drip(handler, query):
    read_body(handler)
    n = int(param(query, "n", "20"))
    interval = float(param(query, "interval", "0.05"))
    handler.send_response(200)
    handler.send_header("Content-Length", str(n))
    handler.end_headers()
    handler.wfile.flush()
    for i in range(n):
        if STATE.stop.wait(interval):
            break
        handler.wfile.write(bytes([ord("a") + i % 26]))
        handler.wfile.flush()


def route_fault_huge_headers(handler, query):
    count = int(param(query, "count", "100"))
    size = int(param(query, "size", "40"))
    lines = ["X-Big-%d: %s" % (i, "v" * size) for i in range(count)]
    read_body(handler)
    send_bytes(handler, 200, b"big", extra=lines)


def route_fault_truncate(handler, query):
    read_body(handler)
    length = int(param(query, "length", "1000"))
    sent = int(param(query, "sent", "100"))
    handler.send_response(200)
    handler.send_header("Content-Length", str(length))
    handler.end_headers()
    handler.wfile.write(b"t" * sent)
    handler.wfile.flush()
    handler.close_connection = True


def route_stats(handler, query):
    read_body(handler)
    send_bytes(handler, 200, STATE.report().encode("latin-1"))


ROUTES = {
    "/echo": route_echo,
    "/body": route_body,
    "/headers": route_headers,
    "/slow": route_slow,
    "/_stats": route_stats,
    "/fault/reset": route_fault_reset,
    "/fault/garbage": route_fault_garbage,
    "/fault/stall": route_fault_stall,
    "/fault/drip": route_fault_drip,
    "/fault/huge_headers": route_fault_huge_headers,
    "/fault/truncate": route_fault_truncate,
}
PREFIX_ROUTES = {
    "/status/": route_status,
}


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "orv-test"
    sys_version = ""

    def log_message(self, format, *args):
        pass

    def dispatch(self):
        parts = urlsplit(self.path)
        query = parse_qs(parts.query, keep_blank_values=True)
        route = ROUTES.get(parts.path)
        if route is None:
            for prefix, candidate in PREFIX_ROUTES.items():
                if parts.path.startswith(prefix):
                    route = candidate
        if parts.path != "/_stats":
            STATE.count(parts.path)
        if route is None:
            read_body(self)
            send_bytes(self, 404, b"no such endpoint")
            return
        try:
            route(self, query)
        except (BrokenPipeError, ConnectionResetError, ssl.SSLError):
            self.close_connection = True

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = dispatch


class PlainServer(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True


class TlsServer(PlainServer):
    """Wraps each connection in its own thread, so a slow or failing handshake
    never holds up the accepting thread."""

    def __init__(self, address, context):
        self.context = context
        super().__init__(address, Handler)

    def finish_request(self, request, client_address):
        try:
            tls = self.context.wrap_socket(request, server_side=True)
        except (ssl.SSLError, OSError):
            return
        try:
            self.RequestHandlerClass(tls, client_address, self)
        except (ssl.SSLError, OSError):
            pass
        finally:
            STATE.connection_sni(tls, forget=True)
            try:
                tls.close()
            except OSError:
                pass


def make_certificate(directory, stem, name):
    cert = os.path.join(directory, stem + ".crt")
    key = os.path.join(directory, stem + ".key")
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
         "-nodes", "-keyout", key, "-out", cert, "-days", "2", "-subj", "/CN=" + name,
         "-addext", "subjectAltName=DNS:%s,IP:127.0.0.1" % name],
        check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return cert, key


def tls_contexts(args):
    cert, key = make_certificate(args.cert_dir, "server", args.host_name)
    main = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    main.load_cert_chain(cert, key)
    other_cert, other_key = make_certificate(args.cert_dir, "unrelated", UNRELATED_NAME)
    other = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    other.load_cert_chain(other_cert, other_key)
    return main, other


def serve(server):
    thread = threading.Thread(target=server.serve_forever, daemon=True)
    thread.start()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert-dir", required=True)
    parser.add_argument("--host-name", default="speech.orv-pinned.example")
    parser.add_argument("--mismatch-name", default="mismatch.orv-pinned.example")
    parser.add_argument("--pinned-port", type=int, default=0)
    args = parser.parse_args()

    main_ctx, other_ctx = tls_contexts(args)
    servers = []

    def sni_callback(tls, name, context):
        if name:
            STATE.add_sni(tls, name)
        if name == args.mismatch_name:
            tls.context = other_ctx
        return None

    main_ctx.sni_callback = sni_callback

    http = PlainServer(("127.0.0.1", 0), Handler)
    https = TlsServer(("127.0.0.1", 0), main_ctx)
    servers += [http, https]
    pinned_port = -1
    if args.pinned_port > 0:
        try:
            pinned = TlsServer(("127.0.0.1", args.pinned_port), main_ctx)
            servers.append(pinned)
            pinned_port = args.pinned_port
        except OSError as error:
            sys.stderr.write("cannot listen on port %d: %s\n" % (args.pinned_port, error))
    for server in servers:
        serve(server)

    sys.stdout.write("READY http=%d https=%d pinned=%d\n"
                     % (http.server_address[1], https.server_address[1], pinned_port))
    sys.stdout.flush()

    # Ends with the parent: its end of our standard input closes.
    try:
        while sys.stdin.buffer.read(4096):
            pass
    except (OSError, KeyboardInterrupt):
        pass
    STATE.stop.set()
    os._exit(0)


if __name__ == "__main__":
    main()

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
  /redirect             reads the body, then answers ?status= (302) with Location ?to=
  /body                 200 with body ?text= exactly (may be empty); or, with ?n=N,
                        N bytes of "abcdefghijklmnopqrstuvwxyz" repeated, written in
                        pieces of ?chunk= bytes (default 16384) with a flush after each
  /headers              200; each ?h= value is written as a raw header line
  /slow                 status ?status= (200); sends ?first= at once, then waits ?delay=
                        seconds (default 30) before sending ?rest= ("done")
  /_stats               plain text: "requests N", then "path <path> <count>",
                        "sni <name>" and "token_held <n>" lines
  /oauth/2.0/token      client-credentials token endpoint (POST form body; grant_type
                        must be client_credentials, else 400 unsupported_grant_type;
                        with ?client_id= / ?client_secret= the form must match, else
                        401 invalid_client). Every request is a fetch (counted by path).
                        ?answer=token (default): {"access_token": ?token= or
                        "orv-token-<fetch number>", "expires_in": 2592000};
                        ?answer=client: {"access_token": "tok-<client_id>-<client_secret>-
                        <fetch number>"}, to tell which keys a token was fetched with;
                        ?answer=error: status ?status= (401), {"error": "invalid_client",
                        "error_description": ?description=}; ?answer=raw: status
                        ?status= (200), body ?body= exactly (may be empty).
                        ?delay= seconds before answering; ?hold=1 waits (at most 60 s)
                        for /_token/release, and counts as held meanwhile
  /_token/release       releases every held token request
  /_token/last          the form body of the last token request
  /upload               a sink for (chunked) request bodies, recorded under ?id=: the
                        total bytes, the number of non-empty chunks, the SHA-256 of the
                        bytes, the Content-Encoding and Transfer-Encoding headers, and
                        whether the body ended ("done") or the client went away
                        ("aborted"). Answers status ?status= (200) with the record.
  /upload_result        plain text record of upload ?id=: "bytes N chunks N sha256 HEX
                        state running|done|aborted te <..> ce <..>", or "none"
  /stream               status ?status= (200), then ?n= chunks (chunked encoding) of
                        ?size= bytes, ?interval= ms apart; before chunk ?stall_after= it
                        stalls ?stall= ms. The bytes are stream_pattern(n * size).
  /duplex               reads a chunked body and writes each chunk back as a response
                        chunk as soon as it arrived, while the upload goes on; status
                        ?status= (200); the bytes echoed are recorded as an upload
                        under ?id= (once written back)
  /fault/reset          reads the request, then resets the connection (RST, no answer)
  /fault/garbage        answers ?text= (default: non-HTTP bytes) instead of HTTP, closes
  /fault/stall          reads the request and sends nothing for ?delay= seconds (30)
  /fault/drip           200 with ?n= bytes (20) of body, one byte every ?interval= s (0.05)
  /fault/huge_headers   200 with ?count= extra header lines (100) of ?size= bytes (40)
                        each, named X-Big-<i>, then the body "big"
  /fault/truncate       200 announcing ?length= bytes (1000), sends ?sent= (100), closes
  /fault/die            reads ?after= bytes (65536) of the request body (chunked or
                        not), then resets the connection: a server dying mid-upload

New endpoints are functions taking (handler, query) added to ROUTES (exact paths) or
PREFIX_ROUTES; read_body() already understands chunked request bodies,
read_chunks() yields them one by one.
"""

import argparse
import hashlib
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
        self.token_cond = threading.Condition(self.lock)
        self.token_fetches = 0
        self.token_releases = 0
        self.token_held = 0
        self.token_last_form = b""
        self.uploads = {}

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

    def upload_update(self, rid, **fields):
        with self.lock:
            self.uploads.setdefault(rid, {}).update(fields)

    def upload_record(self, rid):
        with self.lock:
            record = self.uploads.get(rid)
            if record is None:
                return "none\n"
            return ("bytes %d chunks %d sha256 %s state %s te %s ce %s\n"
                    % (record["bytes"], record["chunks"], record["sha256"], record["state"],
                       record["te"] or "-", record["ce"] or "-"))

    def report(self):
        with self.lock:
            lines = ["requests %d" % self.total]
            lines += ["path %s %d" % (p, n) for p, n in sorted(self.counts.items())]
            lines += ["sni %s" % name for name in self.sni]
            lines.append("token_held %d" % self.token_held)
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


def route_redirect(handler, query):
    read_body(handler)
    send_bytes(handler, int(param(query, "status", "302")), b"",
               extra=["Location: " + param(query, "to", "/echo")])


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


def read_chunks(handler):
    """Yields the chunks of a chunked request body as they arrive; raises EOFError
    when the client goes away before the last chunk."""
    while True:
        size_line = handler.rfile.readline()
        if not size_line:
            raise EOFError()
        size = int(size_line.split(b";")[0].strip() or b"0", 16)
        if size == 0:
            while True:
                line = handler.rfile.readline()
                if not line:
                    raise EOFError()
                if line in (b"\r\n", b"\n"):
                    return
        data = handler.rfile.read(size)
        if len(data) < size:
            raise EOFError()
        handler.rfile.readline()
        yield data


def stream_pattern(total):
    """The bytes /stream sends; tests compute the same (zero bytes included)."""
    return bytes(((i * 31 + 7 + (i >> 8)) & 0xFF) for i in range(total))


def route_upload(handler, query):
    rid = param(query, "id", "default")
    digest = hashlib.sha256()
    total = chunks = 0
    STATE.upload_update(rid, bytes=0, chunks=0, sha256=digest.hexdigest(), state="running",
                        te=handler.headers.get("Transfer-Encoding", ""),
                        ce=handler.headers.get("Content-Encoding", ""))
    if "chunked" in handler.headers.get("Transfer-Encoding", "").lower():
        try:
            for data in read_chunks(handler):
                digest.update(data)
                total += len(data)
                chunks += 1
                STATE.upload_update(rid, bytes=total, chunks=chunks, sha256=digest.hexdigest())
        except (EOFError, OSError, ssl.SSLError):
            STATE.upload_update(rid, state="aborted")
            handler.close_connection = True
            return
    else:
        data = read_body(handler)
        digest.update(data)
        total = len(data)
        chunks = 1 if data else 0
        STATE.upload_update(rid, bytes=total, chunks=chunks, sha256=digest.hexdigest())
    STATE.upload_update(rid, state="done")
    status = int(param(query, "status", "200"))
    answer = b"" if status in (204, 304) else STATE.upload_record(rid).encode("latin-1")
    send_bytes(handler, status, answer)


def route_upload_result(handler, query):
    read_body(handler)
    send_bytes(handler, 200, STATE.upload_record(param(query, "id", "default")).encode("latin-1"))


def write_chunk(handler, data):
    handler.wfile.write(b"%x\r\n" % len(data) + data + b"\r\n")
    handler.wfile.flush()


def route_stream(handler, query):
    read_body(handler)
    n = int(param(query, "n", "4"))
    size = max(1, int(param(query, "size", "1000")))
    interval = float(param(query, "interval", "0")) / 1000.0
    stall_after = int(param(query, "stall_after", "-1"))
    stall = float(param(query, "stall", "0")) / 1000.0
    data = stream_pattern(n * size)
    handler.send_response(int(param(query, "status", "200")))
    handler.send_header("Content-Type", "application/octet-stream")
    handler.send_header("Transfer-Encoding", "chunked")
    handler.end_headers()
    handler.wfile.flush()
    for i in range(n):
        if i == stall_after and STATE.stop.wait(stall):
            return
        write_chunk(handler, data[i * size:(i + 1) * size])
        if interval > 0 and STATE.stop.wait(interval):
            return
    handler.wfile.write(b"0\r\n\r\n")
    handler.wfile.flush()


def route_duplex(handler, query):
    rid = param(query, "id", "duplex")
    total = chunks = 0
    digest = hashlib.sha256()
    STATE.upload_update(rid, bytes=0, chunks=0, sha256=digest.hexdigest(), state="running",
                        te=handler.headers.get("Transfer-Encoding", ""),
                        ce=handler.headers.get("Content-Encoding", ""))
    handler.send_response(int(param(query, "status", "200")))
    handler.send_header("Content-Type", "application/octet-stream")
    handler.send_header("Transfer-Encoding", "chunked")
    handler.end_headers()
    handler.wfile.flush()
    try:
        for data in read_chunks(handler):
            write_chunk(handler, data)
            digest.update(data)
            total += len(data)
            chunks += 1
            STATE.upload_update(rid, bytes=total, chunks=chunks, sha256=digest.hexdigest())
    except EOFError:
        STATE.upload_update(rid, state="aborted")
        handler.close_connection = True
        return
    STATE.upload_update(rid, state="done")
    handler.wfile.write(b"0\r\n\r\n")
    handler.wfile.flush()
def route_fault_reset(handler, query):
    read_body(handler)
    reset_connection(handler)


def reset_connection(handler):
    # SO_LINGER with a zero time-out makes close() send RST instead of FIN.
    handler.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    handler.close_connection = True
    handler.connection.close()


def route_fault_die(handler, query):
    after = int(param(query, "after", "65536"))
    try:
        if "chunked" in handler.headers.get("Transfer-Encoding", "").lower():
            got = 0
            for data in read_chunks(handler):
                got += len(data)
                if got >= after:
                    break
        else:
            length = int(handler.headers.get("Content-Length", "0") or "0")
            handler.rfile.read(min(after, length))
    except (EOFError, OSError, ssl.SSLError):
        pass  # the client went first; reset all the same
    reset_connection(handler)


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


def token_json(handler, status, answer):
    send_bytes(handler, status, json.dumps(answer).encode("utf-8"), "application/json")


def route_token(handler, query):
    form_bytes = read_body(handler)
    form = parse_qs(form_bytes.decode("latin-1"), keep_blank_values=True)
    with STATE.lock:
        STATE.token_fetches += 1
        fetch = STATE.token_fetches
        STATE.token_last_form = form_bytes
        generation = STATE.token_releases
    if param(query, "hold") == "1":
        with STATE.token_cond:
            STATE.token_held += 1
            STATE.token_cond.wait_for(
                lambda: STATE.token_releases > generation or STATE.stop.is_set(), 60)
            STATE.token_held -= 1
    delay = float(param(query, "delay", "0"))
    if delay > 0:
        STATE.stop.wait(delay)
    if param(form, "grant_type") != "client_credentials":
        token_json(handler, 400, {"error": "unsupported_grant_type",
                                  "error_description": "grant_type must be client_credentials"})
        return
    for name in ("client_id", "client_secret"):
        if name in query and param(form, name) != param(query, name):
            token_json(handler, 401, {"error": "invalid_client",
                                      "error_description": "unknown client"})
            return
    answer = param(query, "answer", "token")
    if answer == "error":
        token_json(handler, int(param(query, "status", "401")),
                   {"error": "invalid_client", "error_description": param(query, "description")})
    elif answer == "raw":
        send_bytes(handler, int(param(query, "status", "200")),
                   param(query, "body").encode("utf-8"), "application/json")
    elif answer == "client":
        token = "tok-%s-%s-%d" % (param(form, "client_id"), param(form, "client_secret"), fetch)
        token_json(handler, 200, {"access_token": token, "expires_in": 2592000})
    else:
        token_json(handler, 200, {"access_token": param(query, "token", "orv-token-%d" % fetch),
                                  "expires_in": 2592000})


def route_token_release(handler, query):
    read_body(handler)
    with STATE.token_cond:
        STATE.token_releases += 1
        STATE.token_cond.notify_all()
    send_bytes(handler, 200, b"released")


def route_token_last(handler, query):
    read_body(handler)
    with STATE.lock:
        form = STATE.token_last_form
    send_bytes(handler, 200, form, "application/x-www-form-urlencoded")


ROUTES = {
    "/oauth/2.0/token": route_token,
    "/_token/release": route_token_release,
    "/_token/last": route_token_last,
    "/echo": route_echo,
    "/body": route_body,
    "/redirect": route_redirect,
    "/headers": route_headers,
    "/slow": route_slow,
    "/upload": route_upload,
    "/upload_result": route_upload_result,
    "/stream": route_stream,
    "/duplex": route_duplex,
    "/_stats": route_stats,
    "/fault/reset": route_fault_reset,
    "/fault/garbage": route_fault_garbage,
    "/fault/stall": route_fault_stall,
    "/fault/drip": route_fault_drip,
    "/fault/huge_headers": route_fault_huge_headers,
    "/fault/truncate": route_fault_truncate,
    "/fault/die": route_fault_die,
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
        if parts.path not in ("/_stats", "/upload_result"):
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

    def handle_error(self, request, client_address):
        # Clients that go away (cancelled transfers) are part of the tests.
        if not isinstance(sys.exc_info()[1], (ConnectionError, ssl.SSLError)):
            super().handle_error(request, client_address)


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

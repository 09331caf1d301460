#!/usr/bin/env python3
"""Loopback HTTP and HTTPS server for orv's tests and benchmarks; standard library only."""
# http_test_server.py --cert-dir DIR [--pinned-port 443] [--ready-file PATH]
#
# Listens on 127.0.0.1 with plain HTTP and HTTPS on ports the system picks and,
# when it can, HTTPS on --pinned-port (for address pinning). Once listening it
# prints "READY http=<port> https=<port> pinned=<port or -1>" (also into
# --ready-file, written whole at once) and ends when its standard input closes.
#
# The certificate is made at start for HOST_NAME and 127.0.0.1.

import argparse, functools, hashlib, json, os, socket, ssl, struct, subprocess, sys, threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit

# ---- The server: listeners, certificates, READY line, end at end of input ----

HOST_NAME = "speech.orv-pinned.example"
STOP = threading.Event()
SNI = {}  # id of a TLS connection -> the name it asked for


def make_context(directory, name):
    cert, key = os.path.join(directory, name + ".crt"), os.path.join(directory, name + ".key")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                    "-nodes", "-keyout", key, "-out", cert, "-days", "2", "-subj", "/CN=" + name, "-addext",
                    "subjectAltName=DNS:%s,IP:127.0.0.1" % name], check=True, capture_output=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert, key)
    return context


class Server(ThreadingHTTPServer):
    daemon_threads = allow_reuse_address = True
    request_queue_size = 128  # many clients connect at once
    context = None

    # The TLS handshake runs on the connection's own thread, so a slow or
    # failing one never holds up the accepting thread.
    def finish_request(self, request, address):
        try:
            if self.context:
                request = self.context.wrap_socket(request, server_side=True)
            self.RequestHandlerClass(request, address, self)
        except (OSError, EOFError):
            pass  # clients that go away are part of the tests
        finally:
            SNI.pop(id(request), None)
            request.close()


def serve(handler):
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert-dir", required=True)
    parser.add_argument("--pinned-port", type=int, default=0)
    parser.add_argument("--ready-file")
    args = parser.parse_args()
    context = make_context(args.cert_dir, HOST_NAME)
    context.sni_callback = lambda tls, name, _: SNI.__setitem__(id(tls), name or "")
    servers = [Server(("127.0.0.1", 0), handler), Server(("127.0.0.1", 0), handler)]
    try:
        servers += [Server(("127.0.0.1", args.pinned_port), handler)] if args.pinned_port > 0 else []
    except OSError as error:
        sys.stderr.write("cannot listen on port %d: %s\n" % (args.pinned_port, error))
    for server in servers:
        server.context = context if server is not servers[0] else None
        threading.Thread(target=server.serve_forever, daemon=True).start()
    ready = "READY http=%d https=%d pinned=%d\n" % (servers[0].server_address[1], servers[1].server_address[1],
                                                    args.pinned_port if len(servers) > 2 else -1)
    print(ready, end="", flush=True)
    if args.ready_file:
        with open(args.ready_file + ".part", "w") as out:
            out.write(ready)
        os.rename(args.ready_file + ".part", args.ready_file)
    sys.stdin.buffer.read()  # until the parent closes it, or dies
    STOP.set()
    os._exit(0)


# ---- Test-only routes --------------------------------------------------------
#
# Every request is counted by path ("count <path>" in /_stats). Query
# parameters shape the answers:
#   /echo            JSON of the request: method, path (with query), headers as
#                    "Name: value" lines in received order, body, host, sni, tls
#   /body            status ?status= (200) with the body ?body=, or with the
#                    first ?n= bytes of pattern(); ?h= adds raw header lines;
#                    ?length= announces another length and closes (truncation)
#   /stream          status ?status= (200), then ?n= chunks of ?size= bytes of
#                    pattern(), ?interval= ms apart, stalling ?stall= ms before
#                    chunk ?stall_after=
#   /upload          records the body under ?id= (bytes, chunks, SHA-256, whether
#                    it ended or the client went first, the Transfer- and
#                    Content-Encoding headers, whether it is pattern()); answers
#                    ?status=
#   /duplex          sends each chunk of the body back as it arrives, recorded
#                    as an upload
#   /upload_result   the record of upload ?id= as a line of text, or "none"
#   /oauth/2.0/token a client-credentials endpoint: {"access_token": ?token= or
#                    "orv-token-<fetch number>", or with ?answer=client
#                    "tok-<client_id>-<client_secret>-<fetch number>"}, or the
#                    body ?body= with status ?status=. ?delay= s first; ?hold=1
#                    waits (at most 60 s) for /_release, counted in "held"
#   /fault/<name>    the FAULTS below; the connection is closed afterwards

LOCK = threading.Condition()
STATS = {"held": 0, "releases": 0}
UPLOADS = {}


def bump(key):
    with LOCK:
        STATS[key] = STATS.get(key, 0) + 1
        return STATS[key]


def arg(query, name, default=""):
    return query.get(name, [default])[0]


@functools.lru_cache(maxsize=64)
def pattern(n, start=0):
    return bytes(((i * 31 + 7 + (i >> 8)) & 0xFF) for i in range(start, start + n))


def pieces(h):
    """The request body piece by piece as it arrives; EOFError when the client goes first."""
    chunked = "chunked" in h.headers.get("Transfer-Encoding", "")
    left = int(h.headers.get("Content-Length") or 0)
    while chunked or left > 0:
        size = int(h.rfile.readline() or b"-1", 16) if chunked else min(left, 65536)
        if size == 0:
            while h.rfile.readline() not in (b"\r\n", b"\n", b""):
                pass
            return
        data = h.rfile.read(max(size, 0))
        if chunked:
            h.rfile.readline()
        if size < 0 or len(data) < size:
            raise EOFError
        left -= size
        yield data


def reply(h, status, data=b"", lines=(), length=None):
    h.send_response(status)
    h.send_header("Content-Length", str(len(data) if length is None else length))
    h._headers_buffer += [line.encode("latin-1") + b"\r\n" for line in lines]
    h.end_headers()
    h.wfile.write(data)
    h.close_connection = h.close_connection or length is not None


def chunk(h, data, status=None):
    # With a status, the head of a chunked answer; else one chunk, the last one if empty.
    if status:
        h.send_response(status)
        h.send_header("Transfer-Encoding", "chunked")
        return h.end_headers()
    h.wfile.write(b"%x\r\n%s\r\n" % (len(data), data))


def route_echo(h, query):
    data = b"".join(pieces(h))
    answer = {"method": h.command, "path": h.path, "body": data.decode("latin-1"),
              "headers": ["%s: %s" % item for item in h.headers.items()],
              "host": h.headers.get("Host", ""), "sni": SNI.get(id(h.connection), ""),
              "tls": isinstance(h.connection, ssl.SSLSocket)}
    reply(h, 200, json.dumps(answer, sort_keys=True, separators=(",", ":")).encode("latin-1"))


def route_body(h, query):
    n = int(arg(query, "n", "-1"))
    data = pattern(n) if n >= 0 else arg(query, "body").encode("latin-1")
    reply(h, int(arg(query, "status", "200")), data, query.get("h", []), arg(query, "length") or None)


def route_stream(h, query):
    n, size = int(arg(query, "n", "4")), int(arg(query, "size", "1000"))
    chunk(h, b"", int(arg(query, "status", "200")))
    for i in range(n):
        if i == int(arg(query, "stall_after", "-1")) and STOP.wait(float(arg(query, "stall", "0")) / 1000):
            return
        chunk(h, pattern(n * size)[i * size:(i + 1) * size])
        if STOP.wait(float(arg(query, "interval", "0")) / 1000):
            return
    chunk(h, b"")


def route_upload(h, query, echo=False):
    record = UPLOADS[arg(query, "id", "-")] = {
        "bytes": 0, "chunks": 0, "sha": hashlib.sha256(), "pattern": "yes", "state": "running",
        "te": h.headers.get("Transfer-Encoding", "-"), "ce": h.headers.get("Content-Encoding", "-")}
    if echo:
        chunk(h, b"", int(arg(query, "status", "200")))
    try:
        for data in pieces(h):
            if echo:
                chunk(h, data)
            with LOCK:
                if data != pattern(len(data), record["bytes"]):
                    record["pattern"] = "no"
                record["bytes"] += len(data)
                record["chunks"] += 1
                record["sha"].update(data)
    except (EOFError, OSError):
        record["state"], h.close_connection = "aborted", True
        return
    record["state"] = "done"
    chunk(h, b"") if echo else reply(h, int(arg(query, "status", "200")))


def route_upload_result(h, query):
    with LOCK:
        r = UPLOADS.get(arg(query, "id", "-"))
        text = "bytes %d chunks %d sha256 %s state %s te %s ce %s pattern %s" % (
            r["bytes"], r["chunks"], r["sha"].hexdigest(), r["state"], r["te"], r["ce"], r["pattern"]) if r else "none"
    reply(h, 200, text.encode("latin-1"))


def route_token(h, query):
    form = parse_qs(b"".join(pieces(h)).decode("latin-1"), keep_blank_values=True)
    with LOCK:
        generation = STATS["releases"]
        STATS["held"] += bool(arg(query, "hold"))
        LOCK.wait_for(lambda: not arg(query, "hold") or STATS["releases"] > generation or STOP.is_set(), 60)
        STATS["held"] -= bool(arg(query, "hold"))
    STOP.wait(float(arg(query, "delay", "0")))
    keys = (arg(form, "client_id"), arg(form, "client_secret"), h.number)
    token = arg(query, "token") or ("tok-%s-%s-%d" % keys if arg(query, "answer") == "client" else "orv-token-%d" % keys[2])
    answer = json.dumps({"access_token": token, "expires_in": 2592000})
    reply(h, int(arg(query, "status", "200")), arg(query, "body", answer).encode("utf-8"))


def route_stats(h, query, release=False):
    with LOCK:
        STATS["releases"] += release
        LOCK.notify_all()
        reply(h, 200, "".join("\n%s %d" % item for item in STATS.items()).encode("latin-1") + b"\n")


def reset(h, query):
    # Reads the body, or its first ?after= bytes (a server dying mid-upload),
    # then resets: SO_LINGER with a zero time-out makes close() send RST.
    got = 0
    for data in pieces(h):
        got += len(data)
        if got >= int(arg(query, "after", "-1")) >= 0:
            break
    h.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    h.connection.close()


FAULTS = {
    "reset": reset,
    "garbage": lambda h, query: h.wfile.write(b"\x00\x01garbage, not HTTP\r\n\r\n"),
    "stall": lambda h, query: STOP.wait(float(arg(query, "delay", "30"))),
    "huge": lambda h, query: reply(h, 200, b"big", ["X-Big-%d: %s" % (i, "v" * int(arg(query, "size", "40")))
                                                    for i in range(int(arg(query, "count", "100")))]),
}
ROUTES = {"/echo": route_echo, "/body": route_body, "/stream": route_stream, "/upload": route_upload,
          "/duplex": lambda h, query: route_upload(h, query, True), "/upload_result": route_upload_result,
          "/oauth/2.0/token": route_token, "/_stats": route_stats,
          "/_release": lambda h, query: route_stats(h, query, True)}
READS_BODY = ("/echo", "/upload", "/duplex", "/oauth/2.0/token", "/fault/reset")


class Handler(BaseHTTPRequestHandler):
    protocol_version, server_version, sys_version = "HTTP/1.1", "orv-test", ""

    def log_message(self, *args):
        pass

    def route(self):
        url = urlsplit(self.path)
        self.number = bump("count " + url.path)
        query = parse_qs(url.query, keep_blank_values=True)
        if url.path not in READS_BODY:
            b"".join(pieces(self))
        self.close_connection = url.path.startswith("/fault/")
        route = FAULTS.get(url.path[7:]) if self.close_connection else ROUTES.get(url.path)
        (route or (lambda h, query: reply(h, 404)))(self, query)

    do_GET = do_POST = do_PUT = route


if __name__ == "__main__":
    serve(Handler)

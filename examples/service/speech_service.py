#!/usr/bin/python3
"""The embedded speech service: orv's loopback stand-in of the speech service.

Python 3 standard library, plus Debian's python3-pocketsphinx for recognition.

    speech_service.py --cert-dir DIR [--client-id ID] [--client-secret SECRET]
                      [--host-name NAME --pinned-port PORT]

It listens on 127.0.0.1 with plain HTTP and HTTPS (a self-signed certificate for
127.0.0.1, and for NAME when given, made at start with the openssl command, in
DIR) on ports the system picks, prints one line and flushes it:

    READY http=<port> https=<port> pinned=<PORT, or -1>

With --pinned-port it also serves HTTPS on that port, if it can bind it: 443
for clients that pin NAME to 127.0.0.1 instead of looking it up.

and ends when its standard input reaches end of file (the host closed it, or
died) or on SIGTERM.

Endpoints:
  /oauth/2.0/token   OAuth 2.0 client-credentials grant (POST form: grant_type,
                     client_id, client_secret). The client must be the one given
                     on the command line (default demo-api-key / demo-secret-key),
                     else 401 {"error": "invalid_client", "error_description":
                     "unknown client"}. Answers {"access_token": "orv-token-<n>",
                     "expires_in": 2592000}.
  /v1/recognize      streaming recognition. POST with "Authorization: Bearer
                     <token>" (a token this service issued, else 401
                     {"error": "invalid_token", ...}) and a chunked body of
                     16 kHz 16-bit little-endian mono PCM (?rate= must be 16000,
                     else 400). The body's Content-Encoding is not applied: the
                     bytes are taken as they come. The answer is a chunked
                     stream of JSON lines, sent while the audio still goes up:
                       {"type": "partial", "text": "...", "audio_ms": N}
                           whenever the best hypothesis changes;
                       {"type": "final", "text": "...", "audio_ms": N,
                        "reason": "end_of_speech" | "end_of_audio"}
                           once, when the speech has ended (voice activity
                           detection) or the body ended, whichever is first.
                     After the final line the rest of the body is read and
                     dropped, then the answer ends.
  /upload            a sink for (chunked) request bodies, recorded under ?id=:
                     bytes, non-empty chunks, SHA-256, and whether the body
                     ended ("done") or the client went away ("aborted").
  /upload_result     the record of upload ?id=: "bytes N chunks N sha256 HEX
                     state running|done|aborted", or "none".

Recognition uses a small command grammar (GRAMMAR below) with PocketSphinx's
en-us model.

Extending: import this file and call main(extra_routes={path: function}); a
route is a function (handler, query) where query is parse_qs of the URL's
query. read_body() and read_chunks() read request bodies; send_bytes() and
send_json() answer.
"""

import argparse
import hashlib
import json
import os
import ssl
import subprocess
import sys
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit

MODEL_DIR = "/usr/share/pocketsphinx/model/en-us"

# What the assistant understands; every phrase here is recognised word for word.
GRAMMAR = """#JSGF V1.0;
grammar commands;
public <command> = turn (on | off) the <room> light | what time is it | play music | stop music;
<room> = kitchen | bedroom | living room | bathroom;
"""

# The voice activity detector's hangover: speech counts as ended after this
# many 10 ms frames of silence.
VAD_POSTSPEECH_FRAMES = 10


class State:
    def __init__(self):
        self.lock = threading.Lock()
        self.client_id = "demo-api-key"
        self.client_secret = "demo-secret-key"
        self.tokens = set()
        self.token_count = 0
        self.uploads = {}

    def issue_token(self):
        with self.lock:
            self.token_count += 1
            token = "orv-token-%d" % self.token_count
            self.tokens.add(token)
            return token

    def token_valid(self, token):
        with self.lock:
            return token in self.tokens

    def upload_update(self, rid, **fields):
        with self.lock:
            self.uploads.setdefault(rid, {}).update(fields)

    def upload_record(self, rid):
        with self.lock:
            record = self.uploads.get(rid)
            if record is None:
                return "none\n"
            return "bytes %d chunks %d sha256 %s state %s\n" % (
                record["bytes"], record["chunks"], record["sha256"], record["state"])


STATE = State()


def param(query, name, default=""):
    values = query.get(name)
    return values[0] if values else default


def send_bytes(handler, status, body, content_type="text/plain"):
    handler.send_response(status)
    handler.send_header("Content-Type", content_type)
    handler.send_header("Content-Length", str(len(body)))
    handler.end_headers()
    if body:
        handler.wfile.write(body)
    handler.wfile.flush()


def send_json(handler, status, answer):
    send_bytes(handler, status, json.dumps(answer).encode("utf-8"), "application/json")


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


def read_body(handler):
    """The whole request body, from Content-Length or chunked encoding."""
    if "chunked" in handler.headers.get("Transfer-Encoding", "").lower():
        return b"".join(read_chunks(handler))
    length = int(handler.headers.get("Content-Length", "0") or "0")
    return handler.rfile.read(length) if length > 0 else b""


def drain(handler):
    """Reads what is left of a chunked body (the client may still be sending)."""
    try:
        for _ in read_chunks(handler):
            pass
    except (EOFError, OSError, ValueError):
        handler.close_connection = True


def write_chunk(handler, data):
    handler.wfile.write(b"%x\r\n" % len(data) + data + b"\r\n")
    handler.wfile.flush()


def route_token(handler, query):
    form = parse_qs(read_body(handler).decode("latin-1"), keep_blank_values=True)
    if param(form, "grant_type") != "client_credentials":
        send_json(handler, 400, {"error": "unsupported_grant_type",
                                 "error_description": "grant_type must be client_credentials"})
    elif (param(form, "client_id") != STATE.client_id
          or param(form, "client_secret") != STATE.client_secret):
        send_json(handler, 401, {"error": "invalid_client", "error_description": "unknown client"})
    else:
        send_json(handler, 200, {"access_token": STATE.issue_token(), "expires_in": 2592000})


def new_decoder():
    from pocketsphinx.pocketsphinx import Decoder
    config = Decoder.default_config()
    config.set_string("-hmm", os.path.join(MODEL_DIR, "en-us"))
    config.set_string("-dict", os.path.join(MODEL_DIR, "cmudict-en-us.dict"))
    config.set_string("-logfn", os.devnull)
    config.set_int("-vad_postspeech", VAD_POSTSPEECH_FRAMES)
    decoder = Decoder(config)
    decoder.set_jsgf_string("commands", GRAMMAR)
    decoder.set_search("commands")
    return decoder


def refuse_request(handler, status, error, description):
    """Answers at once, then reads the body the client is still sending, so that
    closing the connection does not reset it before the client read the answer."""
    send_json(handler, status, {"error": error, "error_description": description})
    if "chunked" in handler.headers.get("Transfer-Encoding", "").lower():
        drain(handler)
    handler.close_connection = True


def route_recognize(handler, query):
    auth = handler.headers.get("Authorization", "")
    if not auth.startswith("Bearer ") or not STATE.token_valid(auth[len("Bearer "):].strip()):
        refuse_request(handler, 401, "invalid_token", "missing or unknown bearer token")
        return
    if param(query, "rate", "16000") != "16000":
        refuse_request(handler, 400, "invalid_request", "only 16000 Hz audio is supported")
        return
    if "chunked" not in handler.headers.get("Transfer-Encoding", "").lower():
        refuse_request(handler, 400, "invalid_request", "the audio must come as a chunked body")
        return
    decoder = new_decoder()
    handler.send_response(200)
    handler.send_header("Content-Type", "application/x-ndjson")
    handler.send_header("Transfer-Encoding", "chunked")
    handler.end_headers()
    handler.wfile.flush()

    def line(answer):
        write_chunk(handler, json.dumps(answer).encode("utf-8") + b"\n")

    decoder.start_utt()
    audio_bytes = 0
    spoke = False
    last_text = ""
    reason = "end_of_audio"
    pending = b""
    try:
        for data in read_chunks(handler):
            pending += data
            usable = len(pending) & ~1  # whole samples only
            if usable == 0:
                continue
            decoder.process_raw(pending[:usable], False, False)
            pending = pending[usable:]
            audio_bytes += usable
            hyp = decoder.hyp()
            text = hyp.hypstr if hyp else ""
            if text and text != last_text:
                last_text = text
                line({"type": "partial", "text": text, "audio_ms": audio_bytes // 32})
            in_speech = decoder.get_in_speech()
            if in_speech:
                spoke = True
            elif spoke:
                reason = "end_of_speech"
                break
    except (EOFError, OSError, ValueError):
        decoder.end_utt()
        handler.close_connection = True
        return
    decoder.end_utt()
    hyp = decoder.hyp()
    line({"type": "final", "text": hyp.hypstr if hyp else "", "audio_ms": audio_bytes // 32,
          "reason": reason})
    if reason == "end_of_speech":
        drain(handler)
    handler.wfile.write(b"0\r\n\r\n")
    handler.wfile.flush()


def route_upload(handler, query):
    rid = param(query, "id", "default")
    digest = hashlib.sha256()
    total = chunks = 0
    STATE.upload_update(rid, bytes=0, chunks=0, sha256=digest.hexdigest(), state="running")
    if "chunked" in handler.headers.get("Transfer-Encoding", "").lower():
        try:
            for data in read_chunks(handler):
                digest.update(data)
                total += len(data)
                chunks += 1
                STATE.upload_update(rid, bytes=total, chunks=chunks, sha256=digest.hexdigest())
        except (EOFError, OSError, ValueError):
            STATE.upload_update(rid, state="aborted")
            handler.close_connection = True
            return
    else:
        data = read_body(handler)
        digest.update(data)
        STATE.upload_update(rid, bytes=len(data), chunks=1 if data else 0,
                            sha256=digest.hexdigest())
    STATE.upload_update(rid, state="done")
    send_bytes(handler, 200, STATE.upload_record(rid).encode("latin-1"))


def route_upload_result(handler, query):
    read_body(handler)
    send_bytes(handler, 200, STATE.upload_record(param(query, "id", "default")).encode("latin-1"))


ROUTES = {
    "/oauth/2.0/token": route_token,
    "/v1/recognize": route_recognize,
    "/upload": route_upload,
    "/upload_result": route_upload_result,
}


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "orv-speech-service"
    sys_version = ""

    def log_message(self, format, *args):
        pass

    def dispatch(self):
        parts = urlsplit(self.path)
        route = ROUTES.get(parts.path)
        if route is None:
            read_body(self)
            send_bytes(self, 404, b"no such endpoint")
            return
        try:
            route(self, parse_qs(parts.query, keep_blank_values=True))
        except (BrokenPipeError, ConnectionResetError, ssl.SSLError):
            self.close_connection = True

    do_GET = do_POST = do_PUT = dispatch


class PlainServer(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def handle_error(self, request, client_address):
        # Clients that go away (a cancelled session) are ordinary.
        if not isinstance(sys.exc_info()[1], (ConnectionError, ssl.SSLError)):
            super().handle_error(request, client_address)


class TlsServer(PlainServer):
    """TLS handshakes in the connection's own thread, never in the accepting one."""

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
            try:
                tls.close()
            except OSError:
                pass


def tls_context(cert_dir, host_name=None):
    cert = os.path.join(cert_dir, "service.crt")
    key = os.path.join(cert_dir, "service.key")
    names = "IP:127.0.0.1" + (",DNS:" + host_name if host_name else "")
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
         "-nodes", "-keyout", key, "-out", cert, "-days", "2", "-subj", "/CN=" + (host_name or "127.0.0.1"),
         "-addext", "subjectAltName=" + names],
        check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert, key)
    return context


def main(extra_routes=None):
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert-dir", required=True)
    parser.add_argument("--client-id", default=STATE.client_id)
    parser.add_argument("--client-secret", default=STATE.client_secret)
    parser.add_argument("--host-name")
    parser.add_argument("--pinned-port", type=int, default=0)
    args = parser.parse_args()
    STATE.client_id = args.client_id
    STATE.client_secret = args.client_secret
    ROUTES.update(extra_routes or {})

    context = tls_context(args.cert_dir, args.host_name)
    servers = [PlainServer(("127.0.0.1", 0), Handler), TlsServer(("127.0.0.1", 0), context)]
    pinned = -1
    if args.pinned_port > 0:
        try:
            servers.append(TlsServer(("127.0.0.1", args.pinned_port), context))
            pinned = args.pinned_port
        except OSError as error:
            sys.stderr.write("cannot listen on port %d: %s\n" % (args.pinned_port, error))
    for server in servers:
        threading.Thread(target=server.serve_forever, daemon=True).start()
    sys.stdout.write("READY http=%d https=%d pinned=%d\n"
                     % (servers[0].server_address[1], servers[1].server_address[1], pinned))
    sys.stdout.flush()

    # Ends with the parent: its end of our standard input closes.
    try:
        while sys.stdin.buffer.read(4096):
            pass
    except (OSError, KeyboardInterrupt):
        pass
    os._exit(0)


if __name__ == "__main__":
    main()

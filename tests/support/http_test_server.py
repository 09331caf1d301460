#!/usr/bin/env python3
"""The embedded speech service with the routes that only tests use; standard library only."""
# http_test_server.py takes the service's arguments (--cert-dir DIR, and
# --host-name NAME --pinned-port 443 for address pinning) and prints its READY
# line. It keeps in DIR, each written whole at once, the file "counts" (a line
# "<path> <requests so far>" a route) and the service's record of each upload
# ?id= as "upload-<id>". Query parameters shape the answers:
#   /echo         JSON of the request: method, path, body, host and the other
#                 headers ("Name: value" in the order received)
#   /body         status ?status= (200) with the body ?body= or the first ?n=
#                 bytes of pattern(); ?h= adds raw header lines; ?length=
#                 announces another length and closes (a truncated body)
#   /stream       chunked: status ?status=, then ?n= chunks of ?size= bytes of
#                 pattern(), ?interval= ms apart, a stall of ?stall= ms before
#                 chunk ?stall_after=
#   /duplex       sends each chunk of the body back as it arrives; recorded as
#                 the service records an /upload of ?id=
#   /oauth/2.0/token  the service's endpoint, after ?delay= s; but ?body= (with
#                 ?status=) is answered as it is, and ?answer=client with the
#                 token "tok-<client_id>-<client_secret>-<fetch number>"
#   /fault/reset  reads the body, or its first ?after= bytes, then resets
#   /fault/stall (?delay= s, 30), /fault/huge (?count= header
#                 lines of ?size= bytes)
import functools, json, os, socket, struct, sys, threading, time
from urllib.parse import parse_qs

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "service"))
import speech_service as service  # noqa: E402

arg = service.param
DIR = sys.argv[sys.argv.index("--cert-dir") + 1]
LOCK = threading.Lock()
COUNTS = {}
IGNORE_BODY = ("/body", "/stream", "/fault/stall", "/fault/huge")  # read it for them


@functools.lru_cache(maxsize=64)  # benchmarks ask for the same sizes again and again
def pattern(n):
    return bytes((i * 31 + 7 + (i >> 8)) & 0xFF for i in range(n))


def reply(h, status, data=b"", lines=(), length=None):
    h.send_response(status)
    h.send_header("Content-Length", str(len(data) if length is None else length))
    h._headers_buffer += [line.encode("latin-1") + b"\r\n" for line in lines]
    h.end_headers()
    h.wfile.write(data)
    h.close_connection = h.close_connection or length is not None


def chunked(h, status):
    h.send_response(status)
    h.send_header("Transfer-Encoding", "chunked")
    h.end_headers()


def echo(h, query):
    answer = {"method": h.command, "path": h.path, "body": service.read_body(h).decode("latin-1"),
              "headers": ["%s: %s" % item for item in h.headers.items() if item[0] != "Host"],
              "host": h.headers.get("Host", "")}
    reply(h, 200, json.dumps(answer, sort_keys=True, separators=(",", ":")).encode("latin-1"))


def body(h, query):
    n = int(arg(query, "n", "-1"))
    data = pattern(n) if n >= 0 else arg(query, "body").encode("latin-1")
    reply(h, int(arg(query, "status", "200")), data, query.get("h", []), arg(query, "length") or None)


def stream(h, query):
    n, size = int(arg(query, "n", "4")), int(arg(query, "size", "1000"))
    data = pattern(n * size)
    chunked(h, int(arg(query, "status", "200")))
    for i in range(n):
        time.sleep(float(arg(query, "stall", "0")) / 1000 if i == int(arg(query, "stall_after", "-1")) else 0)
        service.write_chunk(h, data[i * size:(i + 1) * size])
        time.sleep(float(arg(query, "interval", "0")) / 1000)
    service.write_chunk(h, b"")


def duplex(h, query):
    rid, got, chunks = arg(query, "id"), 0, 0
    service.STATE.upload_update(rid, bytes=0, chunks=0, sha256="-", state="running")
    chunked(h, 200)
    for data in service.read_chunks(h):
        service.write_chunk(h, data)
        got, chunks = got + len(data), chunks + 1
        service.STATE.upload_update(rid, bytes=got, chunks=chunks)
    service.write_chunk(h, b"")
    service.STATE.upload_update(rid, state="done")


def token(h, query):
    time.sleep(float(arg(query, "delay", "0")))
    if "body" not in query and not arg(query, "answer"):
        return service.route_token(h, query)
    form = parse_qs(service.read_body(h).decode("latin-1"))
    made = json.dumps({"access_token": "tok-%s-%s-%d" % (arg(form, "client_id"), arg(form, "client_secret"), h.number)})
    reply(h, int(arg(query, "status", "200")), arg(query, "body", made).encode("utf-8"))


def publish(name, text):
    with open(os.path.join(DIR, name + ".part"), "w") as out:
        out.write(text)
    os.rename(os.path.join(DIR, name + ".part"), os.path.join(DIR, name))


def upload_update(rid, update=service.STATE.upload_update, **fields):
    with LOCK:  # uploads of one id at once would share the ".part" file
        update(rid, **fields)
        publish("upload-" + rid, service.STATE.upload_record(rid))


def reset(h, query):
    # SO_LINGER with a zero time-out makes the close send RST.
    after = int(arg(query, "after", "-1"))
    h.rfile.read(after) if after >= 0 else service.read_body(h)
    h.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    h.connection.close()


def counted(path, route):
    def run(h, query):
        with LOCK:
            h.number = COUNTS[path] = COUNTS.get(path, 0) + 1
            publish("counts", "".join("\n%s %d" % item for item in COUNTS.items()) + "\n")
        h.close_connection = h.close_connection or path.startswith("/fault/")
        try:
            if path in IGNORE_BODY:
                service.read_body(h)
            route(h, query)
        except (EOFError, OSError, ValueError):
            h.close_connection = True  # clients that go away are part of the tests
    return run


ROUTES = {"/echo": echo, "/body": body, "/stream": stream, "/duplex": duplex, "/oauth/2.0/token": token,
          "/fault/reset": reset,
          "/fault/stall": lambda h, query: time.sleep(float(arg(query, "delay", "30"))),
          "/fault/huge": lambda h, query: reply(h, 200, b"big", ["X-Big-%d: %s" % (i, "v" * int(arg(query, "size", "40")))
                                                                 for i in range(int(arg(query, "count", "100")))])}

def silent(h, query):  # takes the audio and never answers, until the client goes away
    for _ in service.read_chunks(h):
        pass
    h.rfile.read(1)


# With ORV_SERVICE_FAULT=silent (the pipeline tests) the recognition endpoint never answers.
if os.environ.get("ORV_SERVICE_FAULT") == "silent":
    ROUTES["/v1/recognize"] = silent

if __name__ == "__main__":
    service.PlainServer.request_queue_size = 128  # many clients connect at once
    service.STATE.upload_update = upload_update
    service.main({path: counted(path, route) for path, route in {**service.ROUTES, **ROUTES}.items()})

"""Clients that misbehave against "avrecord-card serve", over loopback only,
and what the server makes of them; results are printed as JSON.

usage: card_serve_clients.py PORT stuck READERS HALF DRIP AT CUT
         READERS connections ask for /api/video?at=AT, read 1000 bytes and
         stop reading; HALF send half a request head and stop; DRIP send a
         head a byte a second. While they hang on, /api/days is asked five
         times. With CUT > 0 the readers then stay stuck for CUT seconds;
         the server should have cut them all off by then (and the others
         within the minute). A video is played once more.
       card_serve_clients.py PORT crowd COUNT PID
         holds the server (process PID) still with SIGSTOP while COUNT
         clients connect and ask for /api/days, then lets it go on: how many
         got through at once (the kernel queues them for the server) and how
         many were answered.
       card_serve_clients.py PORT raw
         sends standard input as it stands; prints the answer's status line.
       card_serve_clients.py PORT bighead MEGABYTES
         sends a header line that long; prints the answer's status line, if
         any came."""
import json
import os
import signal
import socket
import statistics
import sys
import threading
import time

HOST = "127.0.0.1"
SMALL_BUFFER = 4096    # a reader that takes little at a time
READ_FIRST = 1000      # what a stuck reader takes before it stops
ANSWER_TIMEOUT = 10    # for an answer the server should give at once
CUT_TIMEOUT = 60       # for the server to cut off the stuck clients
DAYS_ASKS = 5
CONNECT_AT_ONCE = 0.5  # a dropped connection tries again only after a second


def connect(port, small=False):
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    if small:
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SMALL_BUFFER)
    s.settimeout(ANSWER_TIMEOUT)
    s.connect((HOST, port))
    return s


def head(path, port):
    return f"GET {path} HTTP/1.1\r\nHost: {HOST}:{port}\r\n\r\n".encode()


def status_of(data):
    line = data.split(b"\r\n", 1)[0].decode("latin-1")
    parts = line.split(" ")
    return int(parts[1]) if len(parts) > 1 and parts[1].isdigit() else 0


def ask(port, path):
    """Status and seconds of one request on its own connection."""
    started = time.monotonic()
    data = b""
    try:
        with connect(port) as s:
            s.sendall(head(path, port))
            while b"\r\n\r\n" not in data:
                got = s.recv(4096)
                if not got:
                    break
                data += got
    except socket.timeout:
        pass
    return status_of(data), time.monotonic() - started


LAST_CHUNK = b"\r\n0\r\n\r\n"


def read_until_closed(s, deadline):
    """Reads what is left; the seconds until the server closed, or None when
    it did not, or sent a stream to its end (its last, empty chunk)."""
    started = time.monotonic()
    data = b""
    while time.monotonic() < deadline:
        s.settimeout(max(0.1, deadline - time.monotonic()))
        try:
            got = s.recv(65536)
        except socket.timeout:
            return None, data
        except ConnectionError:
            return time.monotonic() - started, data
        if not got:
            return time.monotonic() - started, data
        data += got
        if data.endswith(LAST_CHUNK):
            return None, data
    return None, data


def stuck(port, readers, half, drip, at, cut_after):
    result = {}
    streams = []
    stalled = time.monotonic()
    for _ in range(readers):
        s = connect(port, small=True)
        s.sendall(head(f"/api/video?at={at}", port))
        data = b""
        try:
            data = s.recv(READ_FIRST)  # the answer's head comes in one piece
            while status_of(data) == 200 and len(data) < READ_FIRST:
                data += s.recv(READ_FIRST - len(data))
        except socket.timeout:
            pass
        streams.append((s, status_of(data)))
    result["streams_playing"] = sum(1 for _, code in streams if code == 200)
    result["streams_busy"] = sum(1 for _, code in streams if code == 503)
    halves = []
    for _ in range(half):
        s = connect(port)
        s.sendall(b"GET /api/days HTTP/1.1\r\nHost: 127.0.0")
        halves.append(s)
    drips = []
    stop_drip = threading.Event()

    def drip_bytes(s):
        for byte in head("/api/days", port)[:-2]:  # never the blank line
            if stop_drip.is_set():
                return
            try:
                s.send(bytes([byte]))
            except OSError:
                return
            time.sleep(1)

    for _ in range(drip):
        s = connect(port)
        threading.Thread(target=drip_bytes, args=(s,), daemon=True).start()
        drips.append(s)
    times = []
    for _ in range(DAYS_ASKS):
        code, seconds = ask(port, "/api/days")
        result.setdefault("days_status", code)
        times.append(seconds)
    result["days_seconds_median"] = round(statistics.median(times), 4)
    result["days_seconds_max"] = round(max(times), 4)
    if cut_after:
        deadline = time.monotonic() + CUT_TIMEOUT
        cut = [read_until_closed(s, deadline) for s in halves + drips]
        result["heads_cut"] = sum(1 for seconds, _ in cut if seconds is not None)
        result["heads_answers"] = sorted({status_of(data) for _, data in cut})
        time.sleep(max(0, stalled + cut_after - time.monotonic()))
        cut = [read_until_closed(s, deadline) for s, code in streams if code == 200]
        result["streams_cut"] = sum(1 for seconds, _ in cut if seconds is not None)
        result["video_after"] = ask(port, f"/api/video?at={at}")[0]
    stop_drip.set()
    for s in [s for s, _ in streams] + halves + drips:
        s.close()
    return result


def crowd(port, count, pid):
    result = {"connected": 0, "answered": 0}
    clients = []
    os.kill(pid, signal.SIGSTOP)
    try:
        for _ in range(count):
            s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            s.settimeout(CONNECT_AT_ONCE)
            try:
                s.connect((HOST, port))
                s.sendall(head("/api/days", port))
                result["connected"] += 1
                clients.append(s)
            except OSError:
                s.close()
    finally:
        os.kill(pid, signal.SIGCONT)
    for s in clients:
        s.settimeout(ANSWER_TIMEOUT)
        try:
            result["answered"] += status_of(s.recv(4096)) == 200
        except OSError:
            pass
        s.close()
    return result


def raw(port):
    with connect(port) as s:
        s.sendall(sys.stdin.buffer.read())
        data = b""
        while b"\r\n\r\n" not in data:
            got = s.recv(4096)
            if not got:
                break
            data += got
    return {"status": status_of(data)}


def bighead(port, megabytes):
    line = b"a" * (1 << 20)
    code = 0
    with connect(port) as s:
        try:
            s.sendall(b"GET /api/days HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Big: ")
            for _ in range(megabytes):
                s.sendall(line)
        except OSError:
            pass
        try:
            code = status_of(s.recv(4096))
        except OSError:
            pass
    return {"status": code}


def main():
    port, mode = int(sys.argv[1]), sys.argv[2]
    if mode == "stuck":
        result = stuck(port, *(int(a) for a in sys.argv[3:8]))
    elif mode == "crowd":
        result = crowd(port, int(sys.argv[3]), int(sys.argv[4]))
    elif mode == "raw":
        result = raw(port)
    else:
        result = bighead(port, int(sys.argv[3]))
    print(json.dumps(result, sort_keys=True))


if __name__ == "__main__":
    main()

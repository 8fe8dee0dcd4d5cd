#!/usr/bin/env python3
"""A small RTSP client for the replay tests: ONVIF replay requests over TCP
interleaved, the replay header extension of every access unit, and the
refusals a hostile or careless client meets.

  replay_rtsp_client.py gap PORT FROM TO GAP_START GAP_END USER PASSWORD
  replay_rtsp_client.py refusals PORT USER PASSWORD MAX_SESSIONS

Prints what it checked; exits 1 with the reasons when a check fails."""
import hashlib
import json
import re
import socket
import struct
import sys
import time

failures = []


def check(ok, what):
    if not ok:
        failures.append(what)


def md5(text):
    return hashlib.md5(text.encode()).hexdigest()


class Client:
    def __init__(self, port, user=None, password=None):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=20)
        self.base = "rtsp://127.0.0.1:%d/replay" % port
        self.user, self.password = user, password
        self.cseq = 0
        self.challenge = None
        self.buffer = b""

    def _authorization(self, method, url):
        realm = re.search(r'realm="([^"]*)"', self.challenge).group(1)
        nonce = re.search(r'nonce="([^"]*)"', self.challenge).group(1)
        ha1 = md5("%s:%s:%s" % (self.user, realm, self.password))
        response = md5("%s:%s:%s" % (ha1, nonce, md5("%s:%s" % (method, url))))
        return ('Digest username="%s", realm="%s", nonce="%s", uri="%s", response="%s"'
                % (self.user, realm, nonce, url, response))

    def _read_exactly(self, n):
        while len(self.buffer) < n:
            data = self.sock.recv(65536)
            if not data:
                raise EOFError("connection closed")
            self.buffer += data
        out, self.buffer = self.buffer[:n], self.buffer[n:]
        return out

    def read_item(self):
        """('rtp', channel, packet) for interleaved data, else ('answer', code, headers, body)."""
        first = self._read_exactly(1)
        if first == b"$":
            channel, length = struct.unpack(">BH", self._read_exactly(3))
            return ("rtp", channel, self._read_exactly(length))
        head = first
        while not head.endswith(b"\r\n\r\n"):
            head += self._read_exactly(1)
        lines = head.decode().split("\r\n")
        code = int(lines[0].split()[1])
        headers = {}
        for line in lines[1:]:
            if ":" in line:
                name, value = line.split(":", 1)
                headers[name.strip().lower()] = value.strip()
        body = self._read_exactly(int(headers.get("content-length", "0"))).decode()
        return ("answer", code, headers, body)

    def request(self, method, url=None, headers=None, auth=True, packets=None):
        url = url or self.base
        self.cseq += 1
        lines = ["%s %s RTSP/1.0" % (method, url), "CSeq: %d" % self.cseq]
        if auth and self.challenge and self.user is not None:
            lines.append("Authorization: " + self._authorization(method, url))
        lines += ["%s: %s" % item for item in (headers or {}).items()]
        self.sock.sendall(("\r\n".join(lines) + "\r\n\r\n").encode())
        while True:
            item = self.read_item()
            if item[0] == "answer":
                break
            if packets is not None:
                packets.append(item[1:])
        code, answer_headers, body = item[1:]
        if code == 401 and auth and self.user is not None and self.challenge is None:
            self.challenge = answer_headers["www-authenticate"]
            return self.request(method, url, headers, auth, packets)
        return code, answer_headers, body


def clock(t):
    return time.strftime("%Y%m%dT%H%M%SZ", time.gmtime(t))


def setup_all(client, sdp, extra):
    session = None
    channel = 0
    for control in re.findall(r"a=control:(trackID=\d)", sdp):
        headers = dict(extra)
        headers["Transport"] = "RTP/AVP/TCP;unicast;interleaved=%d-%d" % (channel, channel + 1)
        if session:
            headers["Session"] = session
        code, answer, _ = client.request("SETUP", client.base + "/" + control, headers)
        check(code == 200, "SETUP %s answered %d" % (control, code))
        session = answer.get("session", "").split(";")[0]
        channel += 2
    return session


def access_units(packets, channel):
    """Per access unit of the channel: (ntp seconds, flags, cseq byte, rtp time)."""
    units = []
    for ch, packet in packets:
        if ch != channel or len(packet) < 12 or not packet[0] & 0x10:
            continue
        profile, words = struct.unpack(">HH", packet[12:16])
        check(profile == 0xABAC and words == 3, "extension profile %04x length %d" % (profile, words))
        seconds, fraction, flags, cseq = struct.unpack(">IIBB", packet[16:26])
        units.append((seconds - 2208988800 + fraction / 2**32, flags, cseq, struct.unpack(">I", packet[4:8])[0]))
    return units


def holds_bye(rtcp):
    """Whether an RTCP compound packet holds a BYE, walked packet by packet
    (a sender report's time stamps may hold the BYE's type byte anywhere)."""
    at = 0
    while at + 4 <= len(rtcp):
        if rtcp[at + 1] == 203:
            return True
        at += (struct.unpack(">H", rtcp[at + 2:at + 4])[0] + 1) * 4
    return False


def byes(packets, channel):
    return sum(1 for ch, p in packets if ch == channel and holds_bye(p))


def gap(port, start, end, gap_start, gap_end, user, password):
    onvif = {"Require": "onvif-replay"}
    client = Client(port, user, password)
    code, _, sdp = client.request("DESCRIBE", headers=dict(onvif, Accept="application/sdp"))
    check(code == 200, "DESCRIBE answered %d" % code)
    check("a=range:clock=" in sdp, "no clock range in the SDP")
    session = setup_all(client, sdp, onvif)
    packets = []
    play = dict(onvif, Session=session, Range="clock=%s-%s" % (clock(start), clock(end)))
    play["Rate-Control"] = "no"
    code, answer, _ = client.request("PLAY", headers=play, packets=packets)
    check(code == 200, "PLAY answered %d" % code)
    play_cseq = client.cseq & 0xFF
    deadline = time.time() + 60
    while byes(packets, 1) == 0 and time.time() < deadline:
        item = client.read_item()
        if item[0] == "rtp":
            packets.append(item[1:])
    check(byes(packets, 1) == 1, "no RTCP BYE at the end of the range")
    video = access_units(packets, 0)
    check(len(video) > 0, "no video")
    if not video:
        return
    flags = [u[1] for u in video]
    times = [u[0] for u in video]
    check(flags[0] & 0xA0 == 0xA0, "first access unit not C and D: %02x" % flags[0])
    check(flags[-1] & 0x10, "last access unit not T: %02x" % flags[-1])
    check(all(f & 0x10 == 0 for f in flags[:-1]), "T before the end")
    check(all(u[2] == play_cseq for u in video), "CSeq byte is not the PLAY's")
    check(times[0] <= start, "replay starts after the asked time: %.3f > %d" % (times[0], start))
    check(times[0] > start - 3, "replay starts too early: %.3f" % times[0])
    check(times[-1] <= end, "replay goes beyond the end: %.3f" % times[-1])
    ends = [i for i, f in enumerate(flags) if f & 0x40]
    jumps = [i for i, f in enumerate(flags) if f & 0x20 and i > 0]
    check(len(ends) >= 1 and len(jumps) == 1 and jumps[0] == ends[0] + 1,
          "E/D not on both sides of one gap: E at %s, D at %s" % (ends, jumps))
    if ends and jumps:
        before, after = times[ends[0]], times[jumps[0]]
        check(before < gap_start + 1 and after >= gap_end - 1,
              "gap marked from %.3f to %.3f, recorded gap %d..%d" % (before, after, gap_start, gap_end))
        check(flags[jumps[0]] & 0x80, "first unit after the gap is no key frame")
    check(all(b >= a for a, b in zip(times, times[1:])), "capture times go backwards")
    rtp_times = [u[3] for u in video]
    check(all(((b - a) & 0xFFFFFFFF) < 2**31 for a, b in zip(rtp_times, rtp_times[1:])),
          "RTP times go backwards")
    code, _, _ = client.request("TEARDOWN", headers={"Session": session})
    check(code == 200, "TEARDOWN answered %d" % code)
    print(json.dumps({"video_units": len(video), "end_flags": ends, "discontinuities": jumps,
                      "first": times[0], "last": times[-1]}))


def refusals(port, user, password, max_sessions):
    anonymous = Client(port)
    code, answer, _ = anonymous.request("DESCRIBE")
    check(code == 401 and answer.get("www-authenticate", "").startswith("Digest "),
          "DESCRIBE without credentials answered %d" % code)
    wrong = Client(port, user, password + "x")
    code, _, _ = wrong.request("DESCRIBE")
    check(code == 401, "DESCRIBE with a wrong password answered %d" % code)
    client = Client(port, user, password)
    code, _, _ = client.request("OPTIONS", headers={"Require": "onvif-replay, com.example.other"})
    check(code == 551, "Require of an unknown option answered %d" % code)
    code, answer, _ = client.request("OPTIONS", headers={"Require": "com.example.other"})
    check(answer.get("unsupported") == "com.example.other", "Unsupported: %s" % answer.get("unsupported"))
    code, _, sdp = client.request("DESCRIBE")
    check(code == 200, "DESCRIBE answered %d" % code)
    code, _, _ = client.request("PLAY", headers={"Session": "12345"})
    check(code == 454, "PLAY of an unknown session answered %d" % code)
    code, _, _ = client.request("PLAY", headers={"Range": "smpte=0:10:00-"})
    check(code in (455, 457), "PLAY without session answered %d" % code)
    for done in (anonymous, wrong, client):
        done.sock.close()
    clients = [Client(port, user, password) for _ in range(max_sessions + 1)]
    codes = []
    for c in clients:
        c.request("DESCRIBE")
        code, _, body = c.request("SETUP", c.base + "/trackID=0",
                                  {"Transport": "RTP/AVP/TCP;unicast;interleaved=0-1"})
        codes.append(code)
    check(codes == [200] * max_sessions + [503], "SETUP answers over the cap: %s" % codes)
    check("too many" in body, "the refusal does not say why: %r" % body)
    print(json.dumps({"setup_codes": codes}))


if __name__ == "__main__":
    command, args = sys.argv[1], sys.argv[2:]
    if command == "gap":
        gap(int(args[0]), int(args[1]), int(args[2]), int(args[3]), int(args[4]), args[5], args[6])
    else:
        refusals(int(args[0]), args[1], args[2], int(args[3]))
    for failure in failures:
        print("FAIL:", failure)
    sys.exit(1 if failures else 0)

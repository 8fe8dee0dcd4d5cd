#!/usr/bin/env python3
"""Load on the replay server while the recorder records (the real-card
replay lane):

  replay_load_client.py pull PORT SECONDS   replays what is recorded so far
      with Rate-Control: no, again and again, for SECONDS; prints the bytes
      and access units it took in and the replay rate.
  replay_load_client.py tail PORT SECONDS SAMPLE PUBLISHED   follows the
      recording from now on for SECONDS (Rate-Control: no); prints how long
      after the simulator published it (avcam-sim run --publish-log
      PUBLISHED, looping the video SAMPLE) each frame written after the PLAY
      arrived (median, 95th percentile, largest).

Exits 1 with the reasons when a check fails."""
import hashlib
import json
import re
import struct
import sys
import time

from replay_rtsp_client import Client, access_units, check, clock, failures, holds_bye, setup_all

ONVIF = {"Require": "onvif-replay"}


def session(port):
    client = Client(port)
    code, _, sdp = client.request("DESCRIBE", headers=dict(ONVIF, Accept="application/sdp"))
    check(code == 200, "DESCRIBE answered %d" % code)
    return client, setup_all(client, sdp, ONVIF)


def pull(port, seconds):
    started, rounds, units, payload = time.time(), 0, 0, 0
    while time.time() - started < seconds:
        client, sid = session(port)
        packets = []
        play = dict(ONVIF, Session=sid, Range="clock=%s-%s" % (clock(started - 3600), clock(time.time() - 2)))
        play["Rate-Control"] = "no"
        code, _, _ = client.request("PLAY", headers=play, packets=packets)
        check(code == 200, "PLAY answered %d" % code)
        while True:
            item = client.read_item()
            if item[0] != "rtp":
                continue
            packets.append(item[1:])
            payload += len(item[2])
            if item[1] == 1 and holds_bye(item[2]):
                break
        units += len(access_units(packets, 0))
        client.request("TEARDOWN", headers={"Session": sid})
        rounds += 1
    took = time.time() - started
    print(json.dumps({"rounds": rounds, "video_units": units, "bytes": payload,
                      "mbit_per_s": round(payload * 8 / took / 1e6, 1)}))
    check(rounds > 0 and units > 0, "nothing replayed")


def nal_units(data):
    """The NAL units of an Annex B stream, without start codes."""
    return [unit.rstrip(b"\0") for unit in re.split(b"\0\0\1", data)[1:]]


def picture_units(sample):
    """Input access unit number by the digest of its picture's NAL unit (one
    slice per picture, as the samples are made)."""
    pictures = [n for n in nal_units(open(sample, "rb").read()) if n and n[0] & 0x1F in (1, 5)]
    return {hashlib.sha1(n).digest(): i for i, n in enumerate(pictures)}


def publications(log):
    """Publication times of the main stream's frames by input access unit."""
    times = {}
    for line in open(log):
        us, stream, unit = (int(word) for word in line.split())
        if stream == 0:
            times.setdefault(unit, []).append(us / 1e6)
    return times


def received_pictures(packets):
    """(arrival of its first packet, picture NAL unit) per access unit of the
    video channel, reassembled from single NAL unit and FU-A packets."""
    pictures, nal, first, stamp = [], None, None, None
    for arrived, packet in packets:
        head = 12 + 4 * (packet[0] & 0x0F)
        if packet[0] & 0x10:
            head += 4 + 4 * struct.unpack(">H", packet[head + 2:head + 4])[0]
        payload, rtp_time = packet[head:], struct.unpack(">I", packet[4:8])[0]
        if rtp_time != stamp:
            stamp, first = rtp_time, arrived
        kind = payload[0] & 0x1F
        if kind == 28 and payload[1] & 0x80:
            nal = bytearray([payload[0] & 0xE0 | payload[1] & 0x1F])
        if kind == 28 and nal is not None:
            nal += payload[2:]
            if payload[1] & 0x40 and nal[0] & 0x1F in (1, 5):
                pictures.append((first, bytes(nal)))
        elif kind in (1, 5):
            pictures.append((first, payload))
    return pictures


def tail(port, seconds, sample, log):
    """From the encoder's publication of each frame written after the PLAY to
    the arrival of the frame's first packet."""
    client, sid = session(port)
    packets = []
    # As a recorder filling a hole takes it: as fast as it comes.
    played = time.time()
    play = dict(ONVIF, Session=sid, Range="clock=%s-" % clock(played))
    play["Rate-Control"] = "no"
    code, _, _ = client.request("PLAY", headers=play)
    check(code == 200, "PLAY answered %d" % code)
    while time.time() - played < seconds:
        item = client.read_item()
        if item[0] == "rtp" and item[1] == 0:
            packets.append((time.time(), item[2]))
    client.request("TEARDOWN", headers={"Session": sid})
    units, published = picture_units(sample), publications(log)
    delays, unknown = [], 0
    for arrived, picture in received_pictures(packets):
        times = [t for t in published.get(units.get(hashlib.sha1(picture).digest()), []) if t <= arrived]
        if not times:
            unknown += 1
        elif times[-1] >= played:
            delays.append(arrived - times[-1])
    check(unknown == 0, "%d access units match no published frame" % unknown)
    check(len(delays) > seconds * 5, "only %d access units followed in %d s" % (len(delays), seconds))
    if delays:
        delays.sort()
        print(json.dumps({"units": len(delays), "median_s": round(delays[len(delays) // 2], 3),
                          "p95_s": round(delays[len(delays) * 95 // 100], 3), "max_s": round(delays[-1], 3)}))


if __name__ == "__main__":
    {"pull": pull, "tail": tail}[sys.argv[1]](int(sys.argv[2]), int(sys.argv[3]), *sys.argv[4:])
    if failures:
        print("\n".join(failures))
        sys.exit(1)

#!/usr/bin/env python3
"""Load on the replay server while the recorder records (the real-card
replay lane):

  replay_load_client.py pull PORT SECONDS   replays what is recorded so far
      with Rate-Control: no, again and again, for SECONDS; prints the bytes
      and access units it took in and the replay rate.
  replay_load_client.py tail PORT SECONDS   follows the recording from now
      on for SECONDS (Rate-Control: no); prints how long after its capture time each access
      unit arrived (median, 95th percentile, largest).

Exits 1 with the reasons when a check fails."""
import json
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


def tail(port, seconds):
    client, sid = session(port)
    packets, arrivals = [], []
    # As a recorder filling a hole takes it: as fast as it comes.
    play = dict(ONVIF, Session=sid, Range="clock=%s-" % clock(time.time()))
    play["Rate-Control"] = "no"
    code, _, _ = client.request("PLAY", headers=play, packets=packets)
    check(code == 200, "PLAY answered %d" % code)
    started = time.time()
    while time.time() - started < seconds:
        item = client.read_item()
        if item[0] == "rtp" and item[1] == 0:
            packets.append(item[1:])
            arrivals.append(time.time())
    delays = []
    for packet, arrived in zip(packets, arrivals):
        units = access_units([packet], 0)
        if units:
            delays.append(arrived - units[0][0])
    client.request("TEARDOWN", headers={"Session": sid})
    check(len(delays) > seconds * 5, "only %d access units followed in %d s" % (len(delays), seconds))
    if delays:
        delays.sort()
        print(json.dumps({"units": len(delays), "median_s": round(delays[len(delays) // 2], 3),
                          "p95_s": round(delays[len(delays) * 95 // 100], 3), "max_s": round(delays[-1], 3)}))


if __name__ == "__main__":
    {"pull": pull, "tail": tail}[sys.argv[1]](int(sys.argv[2]), int(sys.argv[3]))
    if failures:
        print("\n".join(failures))
        sys.exit(1)

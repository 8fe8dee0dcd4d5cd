"""The card's page in headless Chromium, used as a person would: find the
day in the calendar and the sections on its timeline, with the alarm lanes
named by what they watch; zoom in on an empty part of the day and still
find the recording, go to the recordings with one button; zoom in with the
wheel, click into a section and watch it play from the clicked moment
itself (20 clicks, timed), pause it without a seek bar of its own; make a
clip with 24-hour times, its progress never ahead of its total, and
download it; then the same timeline at phone width. Screenshots go to the
artefact folder; the downloaded clip's path and the measured figures are
printed as JSON. Exits 1 on the first failed expectation.

usage: card_serve_page.py URL DAY SECTION START CLICK_OFFSET ARTEFACTS DOWNLOADS"""
import json
import os
import sys
import tempfile
import time

from browser import Browser, BrowserError

WHEEL_STEPS = 16          # from 24 h down to the one-minute zoom
PLAY_SECONDS = 3
CLIP_SECONDS = 10
TIMEOUT = 60
FRAME = 0.04              # one frame at 25 fps
CLOCK_SLACK = 0.1         # a frame and a screen refresh
TIMED_CLICKS = 20
PHONE_WIDTH = 420


def check(condition, message):
    if not condition:
        raise BrowserError(message)


def zoom_to_section(b, section):
    """Wheels in over the section's bar until a minute fills the timeline,
    then drags the bar's start to the middle."""
    bar = f'#timeline rect.section[data-name="{section}"]'
    for _ in range(WHEEL_STEPS):
        box = b.box(bar)
        b.mouse("mouseWheel", box["x"] + 1, box["y"] + box["height"] / 2, deltaX=0, deltaY=-120)
    box, timeline = b.box(bar), b.box("#timeline")
    y = box["y"] + box["height"] / 2
    b.mouse("mousePressed", box["x"] + 1, y, button="left", clickCount=1)
    b.mouse("mouseMoved", timeline["x"] + timeline["width"] / 2, y, button="left", buttons=1)
    b.mouse("mouseReleased", timeline["x"] + timeline["width"] / 2, y, button="left", clickCount=1)
    check(b.evaluate("document.getElementById('video').src") == "", "dragging the timeline started playback")
    span = b.evaluate("(() => { const r = [...document.querySelectorAll('#timeline text')]"
                      ".map(t => t.textContent); return r.filter(t => /:\\d\\d:\\d\\d$/.test(t)).length; })()")
    check(span > 0, "the timeline does not show seconds after zooming in")


def click_moment(b, section, start, offset):
    """Clicks the section's bar in the middle of second start + offset."""
    bar = b.box(f'#timeline rect.section[data-name="{section}"]')
    timeline = b.evaluate("(() => { const s = document.getElementById('timeline'); "
                          "return {left: s.getBoundingClientRect().x}; })()")
    x = b.evaluate(f"xOf({start + offset + 0.5})") + timeline["left"]
    check(bar["x"] <= x <= bar["x"] + bar["width"], f"moment {offset} s is not on the section's bar")
    clicks = b.evaluate("window.avrecordStats.clicks")
    b.click(x, bar["y"] + bar["height"] / 2)
    b.wait_for(f"window.avrecordStats.clicks > {clicks} && window.avrecordStats.clickToFirstFrameMs !== null",
               TIMEOUT, f"the first frame after a click at {offset} s")
    stats = b.evaluate("window.avrecordStats")
    # Playback starts on the key frame before the moment, but the first
    # frame shown is the moment's own.
    check(stats["firstFrameMediaTime"] is not None and abs(stats["firstFrameMediaTime"]) <= FRAME,
          f"click at {offset} s: the first frame shown is at {stats['firstFrameMediaTime']} s of the video")
    return stats["clickToFirstFrameMs"]


def watch(b, start, offset):
    b.wait_for(f"document.getElementById('video').currentTime >= {PLAY_SECONDS}", TIMEOUT,
               f"{PLAY_SECONDS} s of playback")
    state = b.evaluate("(() => { const v = document.getElementById('video'); return {"
                       "time: v.currentTime, error: v.error && v.error.message, paused: v.paused,"
                       "width: v.videoWidth, clock: document.getElementById('clock').textContent,"
                       "shown: Number(document.getElementById('clock').dataset.time),"
                       "stats: window.avrecordStats,"
                       "details: Object.fromEntries([...document.querySelectorAll('#details dd')]"
                       ".map(d => [d.dataset.field, d.textContent]))}; })()")
    check(not state["error"] and not state["stats"]["lastError"], f"video error: {state}")
    check(state["width"] > 0, "no picture decoded")
    # The clock shows the recording's own time: the clicked moment plus what
    # has played since (the clock is set at the screen's last refresh).
    played_from = state["shown"] - state["time"]
    moment = start + offset
    check(abs(played_from - moment) <= CLOCK_SLACK, f"clock {state['clock']} ({played_from}) for a click at {moment}")
    return state


def lanes_and_alarms(b):
    """The lanes and the alarm details say what the alarms watch and what
    their frame counts count."""
    labels = b.evaluate("[...document.querySelectorAll('#timeline .lane-label')].map(t => t.textContent)")
    check(labels == ["Recordings", "Alarm input", "Motion", "Motion and alarm input"], f"lanes: {labels}")
    title = b.evaluate("document.querySelector('#timeline rect.alarm-type-4 title').textContent")
    check("Motion 08:00:06" in title and "first sighting" in title, f"alarm bar: {title}")


def find_recordings(b, section):
    """Wheeling in over an empty evening still ends on the recording; the
    button goes to the recordings from the whole day."""
    timeline = b.box("#timeline")
    x, y = timeline["x"] + timeline["width"] * 0.9, timeline["y"] + timeline["height"] / 2
    for _ in range(WHEEL_STEPS):
        b.mouse("mouseWheel", x, y, deltaX=0, deltaY=-120)
    bar = f'#timeline rect.section[data-name="{section}"]'
    check(b.evaluate(f"!!document.querySelector('{bar}')"), "zooming in on an empty hour lost the recording")
    b.click_element('#zoom button[data-span="86400"]')
    b.click_element("#go-recordings")
    check_recordings_shown(b, bar)


def check_recordings_shown(b, bar):
    """The 30 s section whole and in the middle of the view, which is at
    its closest a minute across."""
    box, plot = b.box(bar), b.evaluate("plotWidth()")
    left = b.evaluate("PLOT_LEFT") + b.box("#timeline")["x"]
    middle = box["x"] + box["width"] / 2 - left
    check(box["width"] >= 0.45 * plot and abs(middle - plot / 2) <= 0.05 * plot,
          f"after 'go to the recordings' the section is {box['width']} px wide at {middle} of {plot}")


def timed_clicks(b, section, start):
    """Clicks at 20 moments of the section; the click-to-first-frame times."""
    times = []
    for n in range(TIMED_CLICKS):
        times.append(click_moment(b, section, start, 1 + n))
    return sorted(times)


def seek_bar_and_pause(b):
    """No native seek bar; the page's button pauses and plays on."""
    check(b.evaluate("!document.getElementById('video').controls"), "the video shows its own seek bar")
    paused = "document.getElementById('video').paused"
    was = b.evaluate(paused)
    for want in (not was, was):
        b.click_element("#play-pause")
        b.wait_for(f"{paused} === {json.dumps(want)}", TIMEOUT, "pausing" if want else "playing on")


def make_clip(b, downloads, start, offset):
    b.send("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": downloads, "eventsEnabled": True})
    fields = b.evaluate("[document.getElementById('clip-from').type, document.getElementById('clip-from').value,"
                        " document.getElementById('clip-to').value]")
    wanted = [time.strftime("%H:%M:%S", time.gmtime(start + offset + d)) for d in (0, CLIP_SECONDS - 1)]
    check(fields == ["text"] + wanted, f"clip fields {fields}, not a 24-hour {wanted}")
    b.evaluate("document.getElementById('clip-to').value = '8:00 PM'")
    b.click_element("#clip-make")
    status = b.evaluate("document.getElementById('clip-status').textContent")
    check("24-hour" in status, f"a 12-hour time was taken: {status}")
    b.evaluate(f"document.getElementById('clip-to').value = '{wanted[1]}'")
    b.click_element("#clip-make")
    b.wait_for("!document.getElementById('clip-progress').hidden", TIMEOUT, "the clip's progress")
    began = b.wait_event("Browser.downloadWillBegin", timeout=TIMEOUT)
    b.wait_event("Browser.downloadProgress",
                 lambda p: p["guid"] == began["guid"] and p["state"] == "completed", timeout=TIMEOUT)
    status = b.evaluate("document.getElementById('clip-status').textContent")
    check(status.startswith("done"), f"clip status: {status}")
    done, total = (int(n) for n in status.split(": ")[1].split(" frames")[0].split(" of "))
    check(done == total == CLIP_SECONDS * 25, f"clip progress: {status}")
    check(began["suggestedFilename"].endswith(f"_{CLIP_SECONDS}s.mp4"), f"clip named {began['suggestedFilename']}")
    return os.path.join(downloads, began["suggestedFilename"])


def phone(b, section, start, artefacts):
    """At phone width the timeline spans the screen and a tap plays."""
    b.send("Emulation.setDeviceMetricsOverride",
           {"width": PHONE_WIDTH, "height": 860, "deviceScaleFactor": 1, "mobile": True}, session=True)
    b.wait_for(f"document.getElementById('timeline').getBoundingClientRect().width >= {PHONE_WIDTH - 40}",
               TIMEOUT, "the timeline across the phone's width")
    b.evaluate("document.getElementById('zoom').scrollIntoView()")
    b.click_element("#go-recordings")
    check_recordings_shown(b, f'#timeline rect.section[data-name="{section}"]')
    click_moment(b, section, start, 7)
    b.screenshot(os.path.join(artefacts, "phone.png"))


def main(url, day, section, start, offset, artefacts, downloads):
    start, offset = int(start), int(offset)
    profile = tempfile.TemporaryDirectory()
    b = Browser(profile.name)
    try:
        b.navigate(url)
        b.wait_for(f"!!document.querySelector('#calendar button[data-day=\"{day}\"].selected')", TIMEOUT,
                   f"day {day} in the calendar")
        b.wait_for(f"!!document.querySelector('#timeline rect.section[data-name=\"{section}\"]')", TIMEOUT,
                   f"section {section} on the timeline")
        lanes_and_alarms(b)
        find_recordings(b, section)
        b.click_element('#zoom button[data-span="86400"]')
        zoom_to_section(b, section)
        b.screenshot(os.path.join(artefacts, "timeline.png"), "#timeline")
        click_moment(b, section, start, offset)
        state = watch(b, start, offset)
        seek_bar_and_pause(b)
        clip = make_clip(b, downloads, start, offset)
        times = timed_clicks(b, section, start)
        b.evaluate("drawTimeline()")
        b.screenshot(os.path.join(artefacts, "page.png"), "body")
        phone(b, section, start, artefacts)
        print(json.dumps({"clip": clip, "clock": state["clock"], "details": state["details"],
                          "click_to_first_frame_ms": {"median": times[len(times) // 2], "min": times[0],
                                                      "max": times[-1], "clicks": len(times)}}))
    finally:
        b.close()
        profile.cleanup()


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except BrowserError as error:
        print(f"FAIL: page: {error}")
        sys.exit(1)

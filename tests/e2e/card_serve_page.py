"""The card's page in headless Chromium, used as a person would: find the
day in the calendar and the sections on its timeline, zoom in with the
wheel, click into a section and watch it play, then make a clip and
download it. Screenshots of the timeline and the page go to the artefact
folder; the downloaded clip's path and the measured figures are printed as
JSON. Exits 1 on the first failed expectation.

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
    clicked = time.monotonic()
    b.click(x, bar["y"] + bar["height"] / 2)
    return clicked


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
    # has played since, less at most a key-frame interval before it.
    played_from = state["shown"] - state["time"]
    moment = start + offset
    check(moment - 2 <= played_from <= moment, f"clock {state['clock']} ({played_from}) for a click at {moment}")
    return state


def make_clip(b, downloads):
    b.send("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": downloads, "eventsEnabled": True})
    b.click_element("#clip-make")
    b.wait_for("!document.getElementById('clip-progress').hidden", TIMEOUT, "the clip's progress")
    began = b.wait_event("Browser.downloadWillBegin", timeout=TIMEOUT)
    b.wait_event("Browser.downloadProgress",
                 lambda p: p["guid"] == began["guid"] and p["state"] == "completed", timeout=TIMEOUT)
    status = b.evaluate("document.getElementById('clip-status').textContent")
    check(status.startswith("done"), f"clip status: {status}")
    return os.path.join(downloads, began["suggestedFilename"])


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
        zoom_to_section(b, section)
        b.screenshot(os.path.join(artefacts, "timeline.png"), "#timeline")
        click_moment(b, section, start, offset)
        state = watch(b, start, offset)
        b.wait_for("window.avrecordStats.clickToFirstFrameMs !== null", TIMEOUT, "the first frame")
        clip = make_clip(b, downloads)
        clip_from = b.evaluate("document.getElementById('clip-from').value")
        b.evaluate("drawTimeline()")
        b.screenshot(os.path.join(artefacts, "page.png"), "body")
        print(json.dumps({"clip": clip, "clip_from": clip_from, "clock": state["clock"],
                          "details": state["details"],
                          "click_to_first_frame_ms": b.evaluate("window.avrecordStats.clickToFirstFrameMs")}))
    finally:
        b.close()
        profile.cleanup()


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except BrowserError as error:
        print(f"FAIL: page: {error}")
        sys.exit(1)

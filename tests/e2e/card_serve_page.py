"""The card's page in headless Chromium, used as a person would: find the
day in the calendar and the sections on its timeline, with the alarm lanes
named by what they watch; zoom in on an empty part of the day and still
find the recording, go to the recordings with one button; zoom in with the
wheel, click into a section and watch it play from the clicked moment
itself (20 clicks, timed), pause it without a seek bar of its own, play on
after a pause the server outlasted and after a stream cut short; make a
clip with 24-hour times, its progress never ahead of its total, and
download it; then the same timeline at phone width; last, on a second
server, a card whose file 0 the next lap overwrote, served with --recover:
the older lap's remnant is drawn and named as one and plays. Screenshots
go to the artefact folder; the downloaded clip's path and the measured
figures are printed as JSON. Exits 1 on the first failed expectation.

usage: card_serve_page.py URL DAY SECTION START CLICK_OFFSET ARTEFACTS DOWNLOADS REMNANT_URL REMNANT_SECTION
       card_serve_page.py --timed URL DAY SECTION START   (the timed clicks alone)"""
import base64
import contextlib
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
DESKTOP_WIDTH, DESKTOP_HEIGHT = 1280, 900
BROKEN_AFTER = 1.4        # seconds shown of a stream broken off (a second at least, less than a fragment)
TOO_SHORT = 0.3           # and of one broken off too soon to be asked for again
PLAY_ON = 0.5             # seconds of playback that show it went on
KEY_INTERVAL = 2          # seconds between the test card's key frames
KEYS_KNOWN = True         # the test card's key frames: see check_first_picture
BOX_HEAD = 8              # an MP4 box's size and type
REMNANT_CLICK = 12        # seconds into the 25 s remnant: its middle, a few pixels into its bar
VIDEO = "document.getElementById('video')"


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
    # frame the video shows is the moment's own.
    check(stats["firstFrameMediaTime"] is not None and abs(stats["firstFrameMediaTime"]) <= FRAME,
          f"click at {offset} s: the first frame shown is at {stats['firstFrameMediaTime']} s of the video")
    check_first_picture(start, offset, stats)
    return stats["clickToFirstPictureMs"], stats["clickToFirstFrameMs"]


def check_first_picture(start, offset, stats):
    """The first picture is the moment's frame or the key frame the stream
    starts on, and the clock gave it its own time, never the moment's. On
    the test card every key frame is the first of its second, one every
    KEY_INTERVAL seconds from the start; on another card (KEYS_KNOWN unset)
    it lies within a key interval before the moment."""
    shown, moment = stats["firstPictureTime"], start + offset
    check(shown is not None and stats["clickToFirstPictureMs"] <= stats["clickToFirstFrameMs"],
          f"click at {moment}: no first picture before the first frame ({stats})")
    key = start + offset // KEY_INTERVAL * KEY_INTERVAL
    if KEYS_KNOWN:
        right = abs(shown - moment) <= FRAME or abs(shown - key) <= FRAME
    else:
        right = abs(shown - moment) <= FRAME or moment - KEY_INTERVAL - FRAME <= shown < moment
    check(right, f"click at {moment}: the first picture was given the time {shown}")


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
    """Clicks at 20 moments of the section; the figures of the times from
    click to the first picture and to the moment's own frame."""
    pictures, frames = zip(*(click_moment(b, section, start, 1 + n) for n in range(TIMED_CLICKS)))
    figures = lambda times: {"median": sorted(times)[len(times) // 2], "min": min(times), "max": max(times)}
    return {"clicks": TIMED_CLICKS, "first_picture_ms": figures(pictures), "moment_frame_ms": figures(frames),
            "key_frames_shown": b.evaluate("window.avrecordStats.keyFramesShown")}


def seek_bar_and_pause(b):
    """No native seek bar; the page's button pauses and plays on."""
    check(b.evaluate("!document.getElementById('video').controls"), "the video shows its own seek bar")
    paused = "document.getElementById('video').paused"
    was = b.evaluate(paused)
    for want in (not was, was):
        b.click_element("#play-pause")
        b.wait_for(f"{paused} === {json.dumps(want)}", TIMEOUT, "pausing" if want else "playing on")


def video_at(b):
    """The moment the page asked the playing stream for."""
    return int(b.evaluate(f"new URL({VIDEO}.src).searchParams.get('at')"))


def resume_after_long_pause(b):
    """A short pause plays on with the same stream; after a pause the server
    may have cut the stream in (dated back here instead of waited out), Play
    asks for the video anew from the paused moment's second, whose first
    frame shows, and playback goes on past the moment."""
    b.wait_for(f"!{VIDEO}.paused", TIMEOUT, "playing")
    stream, resumes = b.evaluate(f"{VIDEO}.src"), b.evaluate("window.avrecordStats.resumes")
    check(resumes == 0 and video_at(b) == int(b.evaluate("state.playing.at")),
          f"a short pause asked for the stream anew: {stream}, {resumes} resumes")
    b.click_element("#play-pause")
    b.wait_for("state.paused !== null", TIMEOUT, "pausing")
    paused = b.evaluate("state.paused.moment")
    b.evaluate("state.paused.since -= STREAM_IDLE_CUT_MS")
    b.click_element("#play-pause")
    b.wait_for("window.avrecordStats.resumes === 1 && window.avrecordStats.clickToFirstFrameMs !== null",
               TIMEOUT, "the first frame after a long pause")
    stats = b.evaluate("window.avrecordStats")
    check(abs(stats["firstFrameMediaTime"]) <= FRAME and not stats["lastError"] and video_at(b) == int(paused),
          f"played on after a long pause at {paused} from {video_at(b)}: {stats}")
    b.wait_for(f"Number(document.getElementById('clock').dataset.time) >= {paused + PLAY_ON}", TIMEOUT,
               f"playback going on past {paused}")


def media_data(stream):
    """Where the media data of each key-frame interval of the test card's
    starts in the stream, and its size. The first interval comes in two
    fragments (the first ends after the first sample of each track)."""
    boxes, offset = [], 0
    while offset + BOX_HEAD <= len(stream):
        size, kind = int.from_bytes(stream[offset:offset + 4], "big"), stream[offset + 4:offset + BOX_HEAD]
        if size < BOX_HEAD:
            break
        if kind == b"mdat":
            boxes.append((offset, size))
        offset += size
    if len(boxes) > 1:
        boxes[:2] = [(boxes[0][0], sum(boxes[1]) - boxes[0][0])]
    return boxes


def broken_off(stream, seconds):
    """The stream's bytes up to about seconds into its media, inside a fragment."""
    index, share = divmod(seconds / KEY_INTERVAL, 1)
    offset, size = media_data(stream)[int(index)]
    return offset + int(size * share)


def hand_over_cut(b, length):
    """Answers the page's next video request with the first length(stream)
    bytes of the server's stream."""
    paused = b.wait_event("Fetch.requestPaused", timeout=TIMEOUT)
    body = b.send("Fetch.getResponseBody", {"requestId": paused["requestId"]}, session=True, timeout=TIMEOUT)
    check(body["base64Encoded"], "the video came as text")
    stream = base64.b64decode(body["body"])
    b.send("Fetch.fulfillRequest", {"requestId": paused["requestId"], "responseCode": 200,
                                    "body": base64.b64encode(stream[:length(stream)]).decode(),
                                    "responseHeaders": [{"name": "Content-Type", "value": "video/mp4"}]},
           session=True)


def resume_after_cut(b, section, start):
    """Streams that stop before their section ends play on from where they
    stopped, whether the stream ends cleanly after whole fragments or
    breaks off inside one; one that breaks off before a second of it showed
    is not asked for again (a fault at one place of the card would be asked
    for on and on), the page says the video cannot be played. Only the
    streams' first bytes reach the page: the browser's own request
    interception hands them over."""
    # The video's requests only: the page's own read of a stream's key frame passes.
    b.send("Fetch.enable", {"patterns": [{"urlPattern": "*/api/video*", "resourceType": "Media",
                                          "requestStage": "Response"}]}, session=True)
    try:
        resumes = b.evaluate("window.avrecordStats.resumes")
        clicked = start + 2 * KEY_INTERVAL
        bar = b.box(f'#timeline rect.section[data-name="{section}"]')
        b.click(b.evaluate(f"xOf({clicked + 0.5})") + b.box("#timeline")["x"], bar["y"] + bar["height"] / 2)
        hand_over_cut(b, lambda stream: sum(media_data(stream)[0]))  # the first fragment, whole
        moments = [clicked]
        for shown in (BROKEN_AFTER, TOO_SHORT):
            b.wait_for(f"window.avrecordStats.resumes > {resumes + len(moments) - 1}", TIMEOUT,
                       f"a stream that stopped at {moments[-1]} + some asked for anew")
            moments.append(video_at(b))
            check(moments[-1] > moments[-2], f"streams asked for from {moments}")
            # That stream starts on the key frame at or before its moment.
            shown_from = (moments[-1] - start) % KEY_INTERVAL
            hand_over_cut(b, lambda stream: broken_off(stream, shown_from + shown))
        b.wait_for("window.avrecordStats.lastError !== null", TIMEOUT, "a stream broken off at once")
    finally:
        b.send("Fetch.disable", session=True)
    stats = b.evaluate("[window.avrecordStats, document.getElementById('play-status').textContent]")
    check(stats[0]["resumes"] == resumes + 2 and video_at(b) == moments[-1] and
          stats[0]["clickToFirstFrameMs"] is not None and "cannot be played" in stats[1],
          f"streams broken off: from {moments}, {stats}")


def remnant(b, url, section, artefacts):
    """A card whose file 0 the next lap overwrote, served with --recover:
    the older lap's frames behind the new lap are a section drawn apart,
    explained by its tooltip and a legend, named in the details, and play."""
    b.send("Emulation.setDeviceMetricsOverride", {"width": DESKTOP_WIDTH, "height": DESKTOP_HEIGHT,
                                                  "deviceScaleFactor": 1, "mobile": False}, session=True)
    b.navigate(url)
    bar = f'#timeline rect.section[data-name="{section}"]'
    b.wait_for(f"!!document.querySelector('{bar}')", TIMEOUT, f"remnant {section} on the timeline")
    look = b.evaluate("(() => { const bars = [...document.querySelectorAll('#timeline rect.section')]; return {"
                      "bars: bars.map(r => [r.dataset.name, r.classList.contains('remnant'), getComputedStyle(r).fill,"
                      " r.querySelector('title').textContent]),"
                      "legend: document.getElementById('remnant-legend').checkVisibility() &&"
                      " document.getElementById('remnant-legend').textContent.replace(/\\s+/g, ' '),"
                      "title: document.getElementById('day-title').textContent}; })()")
    marked = [bar for bar in look["bars"] if bar[1]]
    check(len(look["bars"]) == 2 and [m[0] for m in marked] == [section], f"remnant bars: {look}")
    others = [bar for bar in look["bars"] if not bar[1]]
    check("remnant-hatch" in marked[0][2] and marked[0][2] != others[0][2],
          f"the remnant is drawn as the others: {look}")
    check("older frames of an overwritten lap" in marked[0][3] and "overwritten" not in others[0][3],
          f"tooltips: {look}")
    check(look["legend"] and "recovered from the media data" in look["legend"], f"no legend: {look}")
    check("(1 of an overwritten lap)" in look["title"], f"day title: {look['title']}")
    b.click_element("#go-recordings")
    start = b.evaluate(f"Number(document.querySelector('{bar}').dataset.start)")
    click_moment(b, section, start, REMNANT_CLICK)
    # The details come from their own request, which may answer after the first frame.
    b.wait_for(f"document.getElementById('section-title').textContent.startsWith('{section}')", TIMEOUT,
               "the remnant's details")
    details = b.evaluate("[document.getElementById('section-title').textContent,"
                         " document.querySelector('#details dd[data-field=remnant]')?.textContent]")
    check(details[0] == f"{section} (remnant)" and "overwritten lap" in (details[1] or ""),
          f"remnant details: {details}")
    b.click_element('#zoom button[data-span="60"]')  # the hatching, a minute across
    b.screenshot(os.path.join(artefacts, "remnant.png"), "body")


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


@contextlib.contextmanager
def page_of(url, day, section):
    """A browser on the page, the day chosen and the section on its timeline."""
    profile = tempfile.TemporaryDirectory()
    b = Browser(profile.name)
    try:
        b.navigate(url)
        b.wait_for(f"!!document.querySelector('#calendar button[data-day=\"{day}\"].selected')", TIMEOUT,
                   f"day {day} in the calendar")
        b.wait_for(f"!!document.querySelector('#timeline rect.section[data-name=\"{section}\"]')", TIMEOUT,
                   f"section {section} on the timeline")
        yield b
    finally:
        b.close()
        profile.cleanup()


def main(url, day, section, start, offset, artefacts, downloads, remnant_url, remnant_section):
    start, offset = int(start), int(offset)
    with page_of(url, day, section) as b:
        lanes_and_alarms(b)
        find_recordings(b, section)
        b.click_element('#zoom button[data-span="86400"]')
        zoom_to_section(b, section)
        b.screenshot(os.path.join(artefacts, "timeline.png"), "#timeline")
        click_moment(b, section, start, offset)
        state = watch(b, start, offset)
        check("remnant" not in state["details"], f"a recorded section is named a remnant: {state['details']}")
        seek_bar_and_pause(b)
        resume_after_long_pause(b)
        clip = make_clip(b, downloads, start, offset)
        resume_after_cut(b, section, start)
        timed = timed_clicks(b, section, start)
        check(timed["key_frames_shown"] > 0, "no click showed the key frame before the moment's frame")
        b.evaluate("drawTimeline()")
        b.screenshot(os.path.join(artefacts, "page.png"), "body")
        phone(b, section, start, artefacts)
        remnant(b, remnant_url, remnant_section, artefacts)
        print(json.dumps({"clip": clip, "clock": state["clock"], "details": state["details"],
                          "click_to_picture": timed}))


def timed_only(url, day, section, start):
    """The 20 timed clicks alone, on any card (bench/first-frame)."""
    global KEYS_KNOWN
    KEYS_KNOWN = False
    with page_of(url, day, section) as b:
        b.click_element("#go-recordings")
        print(json.dumps(timed_clicks(b, section, int(start))))


if __name__ == "__main__":
    try:
        timed_only(*sys.argv[2:]) if sys.argv[1:2] == ["--timed"] else main(*sys.argv[1:])
    except BrowserError as error:
        print(f"FAIL: page: {error}")
        sys.exit(1)

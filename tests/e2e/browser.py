"""Headless Chromium driven through its DevTools protocol over a pipe
(--remote-debugging-pipe: JSON messages separated by NUL bytes on file
descriptors 3 and 4), for the tests that use a page as a person would."""
import json
import os
import select
import subprocess
import time

FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--remote-debugging-pipe",
    # Containers often have a small /dev/shm and no sound device.
    "--disable-dev-shm-usage", "--mute-audio",
]


class BrowserError(Exception):
    pass


class Browser:
    def __init__(self, profile, executable="chromium", width=1280, height=900):
        to_browser, self._commands = os.pipe()
        self._replies, from_browser = os.pipe()

        def pipes_as_3_and_4():
            a, b = os.dup(to_browser), os.dup(from_browser)
            os.dup2(a, 3)
            os.dup2(b, 4)

        self.process = subprocess.Popen(
            [executable, *FLAGS, f"--user-data-dir={profile}", f"--window-size={width},{height}", "about:blank"],
            preexec_fn=pipes_as_3_and_4, close_fds=False, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self._buffer = b""
        self._next_id = 0
        self.events = []
        target = self.send("Target.createTarget", {"url": "about:blank"})["targetId"]
        self.session = self.send("Target.attachToTarget", {"targetId": target, "flatten": True})["sessionId"]
        for domain in ("Page", "Runtime"):
            self.send(f"{domain}.enable", session=True)
        self.send("Emulation.setDeviceMetricsOverride",
                  {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False}, session=True)

    def close(self):
        try:
            self.send("Browser.close", timeout=5)
        except (BrowserError, OSError):
            pass
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        os.close(self._commands)
        os.close(self._replies)

    def _read_message(self, deadline):
        while b"\0" not in self._buffer:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self._replies], [], [], left)[0]:
                return None
            chunk = os.read(self._replies, 1 << 20)
            if not chunk:
                raise BrowserError("the browser went away")
            self._buffer += chunk
        message, self._buffer = self._buffer.split(b"\0", 1)
        return json.loads(message)

    def send(self, method, params=None, session=False, timeout=30):
        self._next_id += 1
        message = {"id": self._next_id, "method": method, "params": params or {}}
        if session:
            message["sessionId"] = self.session
        os.write(self._commands, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + timeout
        while True:
            reply = self._read_message(deadline)
            if reply is None:
                raise BrowserError(f"{method}: no answer in {timeout} s")
            if reply.get("id") == self._next_id:
                if "error" in reply:
                    raise BrowserError(f"{method}: {reply['error']}")
                return reply["result"]
            if "method" in reply:
                self.events.append(reply)

    def wait_event(self, method, predicate=lambda params: True, timeout=30):
        """The parameters of the first event method (seen or to come) that
        predicate accepts."""
        deadline = time.monotonic() + timeout
        while True:
            for event in self.events:
                if event["method"] == method and predicate(event["params"]):
                    self.events.remove(event)
                    return event["params"]
            message = self._read_message(deadline)
            if message is None:
                raise BrowserError(f"no {method} in {timeout} s")
            if "method" in message:
                self.events.append(message)

    def evaluate(self, expression):
        result = self.send("Runtime.evaluate", {"expression": expression, "returnByValue": True,
                                                 "awaitPromise": True}, session=True)
        if "exceptionDetails" in result:
            raise BrowserError(f"{expression}: {result['exceptionDetails'].get('text')}")
        return result["result"].get("value")

    def wait_for(self, expression, timeout=30, what=None):
        """Polls expression until it is truthy; its value."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            value = self.evaluate(expression)
            if value:
                return value
            time.sleep(0.05)
        raise BrowserError(f"timed out waiting for {what or expression}")

    def navigate(self, url):
        self.send("Page.navigate", {"url": url}, session=True)
        self.wait_event("Page.loadEventFired")

    def mouse(self, kind, x, y, **extra):
        self.send("Input.dispatchMouseEvent", {"type": kind, "x": x, "y": y, **extra}, session=True)

    def click(self, x, y):
        self.mouse("mouseMoved", x, y)
        self.mouse("mousePressed", x, y, button="left", clickCount=1)
        self.mouse("mouseReleased", x, y, button="left", clickCount=1)

    def click_element(self, selector):
        box = self.box(selector)
        self.click(box["x"] + box["width"] / 2, box["y"] + box["height"] / 2)

    def box(self, selector):
        box = self.evaluate(f"(() => {{ const r = document.querySelector({json.dumps(selector)})"
                            ".getBoundingClientRect(); return {x: r.x, y: r.y, width: r.width, height: r.height}; })()")
        if not box:
            raise BrowserError(f"no element {selector}")
        return box

    def screenshot(self, path, selector=None):
        params = {"format": "png"}
        if selector:
            box = self.box(selector)
            params["clip"] = {**box, "scale": 1}
        data = self.send("Page.captureScreenshot", params, session=True)["data"]
        import base64
        with open(path, "wb") as f:
            f.write(base64.b64decode(data))


def check(condition, message):
    """Fails the page test with the message unless condition holds."""
    if not condition:
        raise BrowserError(message)


def run_page(page, *args):
    """Runs page(browser, *args) in a fresh headless Chromium with its own
    profile; prints "FAIL: page: ..." and exits 1 on a failed expectation."""
    import sys
    import tempfile
    profile = tempfile.TemporaryDirectory()
    try:
        b = Browser(profile.name)
        try:
            page(b, *args)
        finally:
            b.close()
    except BrowserError as error:
        print(f"FAIL: page: {error}")
        sys.exit(1)
    finally:
        profile.cleanup()

"""A headless chromium that is spoken to over a pipe: no port, no library."""

import base64
import json
import os
import shlex
import subprocess
import tempfile

FLAGS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run", "--hide-scrollbars",
         "--disable-background-networking", "--disable-component-update", "--disable-sync", "--remote-debugging-pipe"]


class Browser:
    def __init__(self, program):
        self.profile = tempfile.TemporaryDirectory(prefix="page-", ignore_cleanup_errors=True)
        theirs_in, self.out = os.pipe()
        self.back, theirs_out = os.pipe()
        command = shlex.join([program, *FLAGS, f"--user-data-dir={self.profile.name}", "about:blank"])
        self.process = subprocess.Popen(
            ["bash", "-c", f"exec {command} 3<&{theirs_in} 4>&{theirs_out}"], pass_fds=(theirs_in, theirs_out),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(theirs_in)
        os.close(theirs_out)
        self.rest = b""
        self.number = 0
        self.events = []

    def close(self):
        try:
            self.call("Browser.close")
        except (OSError, EOFError):
            pass
        self.process.wait(timeout=30)
        os.close(self.out)
        os.close(self.back)
        self.profile.cleanup()

    def call(self, method, session=None, **params):
        self.number += 1
        message = {"id": self.number, "method": method, "params": params}
        if session:
            message["sessionId"] = session
        data = json.dumps(message).encode() + b"\0"
        while data:
            data = data[os.write(self.out, data):]
        while True:
            answer = self.read()
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]
            self.events.append(answer)

    def read(self):
        while b"\0" not in self.rest:
            piece = os.read(self.back, 1 << 20)
            if not piece:
                raise EOFError("the browser went away")
            self.rest += piece
        line, self.rest = self.rest.split(b"\0", 1)
        return json.loads(line)

    def wait_for(self, method, session):
        while True:
            for at, event in enumerate(self.events):
                if event.get("method") == method and event.get("sessionId") == session:
                    return self.events.pop(at)
            self.events.append(self.read())


KEYS = {"ArrowLeft": 37, "ArrowUp": 38, "ArrowRight": 39, "ArrowDown": 40, "Enter": 13, "Escape": 27, "Home": 36,
        "End": 35, "Tab": 9}


class Page:
    """One tab that shows a file, and what it asked for and complained about."""

    def __init__(self, browser, path, width=1440, height=1000, media=()):
        self.browser = browser
        self.target = browser.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = browser.call("Target.attachToTarget", targetId=self.target, flatten=True)["sessionId"]
        for domain in ("Page", "Network", "Runtime", "Log"):
            self.call(f"{domain}.enable")
        self.size(width, height)
        if media:
            self.call("Emulation.setEmulatedMedia", features=[{"name": name, "value": value} for name, value in media])
        self.url = f"file://{path}"
        self.call("Page.navigate", url=self.url)
        browser.wait_for("Page.loadEventFired", self.session)
        self.frames()

    def call(self, method, **params):
        return self.browser.call(method, self.session, **params)

    def close(self):
        self.browser.call("Target.closeTarget", targetId=self.target)
        self.browser.events = [event for event in self.browser.events if event.get("sessionId") != self.session]

    def size(self, width, height):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def js(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in result:
            raise RuntimeError(f"{expression}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def frames(self):
        """Until what was asked for is drawn."""
        self.js("new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(() => setTimeout(done, 0))))")

    def until(self, condition):
        """Until the condition holds; fails after a minute."""
        held = self.js(f"""new Promise((done) => {{
            const end = performance.now() + 60000;
            const look = () => ({condition}) ? done(true) : performance.now() > end ? done(false) : requestAnimationFrame(look);
            look();
        }})""")
        if not held:
            raise AssertionError(f"never came true: {condition}")

    def texts(self, selector):
        return self.js(f"[...document.querySelectorAll({json.dumps(selector)})].map((one) => one.textContent.trim())")

    def text(self, selector):
        return self.texts(selector)[0]

    def count(self, selector):
        return self.js(f"document.querySelectorAll({json.dumps(selector)}).length")

    def box(self, selector):
        return self.js(f"(({{x, y, width, height}}) => ({{x, y, width, height}}))"
                       f"(document.querySelector({json.dumps(selector)}).getBoundingClientRect())")

    def key(self, name, shift=False):
        text = name if len(name) == 1 else "\r" if name == "Enter" else ""
        code = KEYS.get(name, ord(name[0]))
        common = {"key": name, "windowsVirtualKeyCode": code, "modifiers": 8 if shift else 0}
        self.call("Input.dispatchKeyEvent", type="keyDown", **common, **({"text": text} if text else {}))
        self.call("Input.dispatchKeyEvent", type="keyUp", **common)
        self.frames()

    def write(self, text):
        self.call("Input.insertText", text=text)

    def focus(self, selector):
        self.js(f"document.querySelector({json.dumps(selector)}).focus()")

    def mouse(self, kind, x, y, **params):
        self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, **params)

    def click(self, x, y):
        self.drag(x, x, y)

    def click_on(self, selector):
        self.js(f"document.querySelector({json.dumps(selector)}).scrollIntoView({{block: 'center'}})")
        box = self.box(selector)
        self.click(box["x"] + box["width"] / 2, box["y"] + box["height"] / 2)

    def drag(self, x, to, y):
        self.mouse("mouseMoved", x, y)
        self.mouse("mousePressed", x, y, button="left", buttons=1, clickCount=1)
        if x != to:
            self.mouse("mouseMoved", (x + to) / 2, y, button="left", buttons=1)
            self.mouse("mouseMoved", to, y, button="left", buttons=1)
        self.mouse("mouseReleased", to, y, button="left", clickCount=1)
        self.frames()

    def screenshot(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.call("Page.captureScreenshot")["data"]))

    def requests(self):
        return [event["params"]["request"]["url"] for event in self.own("Network.requestWillBeSent")]

    def complaints(self):
        thrown = [event["params"]["exceptionDetails"] for event in self.own("Runtime.exceptionThrown")]
        logged = [event["params"] for event in self.own("Runtime.consoleAPICalled")]
        return thrown + logged + [event["params"]["entry"] for event in self.own("Log.entryAdded")]

    def own(self, method):
        self.js("0")
        return [event for event in self.browser.events
                if event.get("method") == method and event.get("sessionId") == self.session]

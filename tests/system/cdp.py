"""Headless Chromium driven over its DevTools pipe (fds 3 and 4): no network port, no
extra Python packages. Enough for page tests: load, evaluate, console errors, screenshot."""
import base64
import fcntl
import json
import os
import shutil
import struct
import subprocess
import threading
import time
import zlib


def chromium():
    return shutil.which("chromium") or shutil.which("chromium-browser")


class Browser:
    def __init__(self, profile, size=(1280, 800)):
        to_chrome = os.pipe()
        from_chrome = os.pipe()
        # High numbers, so that moving them to 3 and 4 in the child clobbers nothing.
        c_in = fcntl.fcntl(to_chrome[0], fcntl.F_DUPFD, 100)
        c_out = fcntl.fcntl(from_chrome[1], fcntl.F_DUPFD, 100)

        def fds():
            os.dup2(c_in, 3)
            os.dup2(c_out, 4)

        self.proc = subprocess.Popen(
            [chromium(), "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--no-first-run", "--remote-debugging-pipe", f"--user-data-dir={profile}",
             f"--window-size={size[0]},{size[1]}", "about:blank"],
            preexec_fn=fds, pass_fds=(3, 4), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        for fd in (to_chrome[0], from_chrome[1], c_in, c_out):
            os.close(fd)
        self.w = os.fdopen(to_chrome[1], "wb")
        self.r = os.fdopen(from_chrome[0], "rb")
        self.next_id = 1
        self.replies = {}
        self.events = []
        self.cond = threading.Condition()
        threading.Thread(target=self._read, daemon=True).start()
        self.session = None

    def _read(self):
        buf = b""
        while True:
            chunk = self.r.read1(65536)
            if not chunk:
                break
            buf += chunk
            while b"\0" in buf:
                raw, buf = buf.split(b"\0", 1)
                msg = json.loads(raw)
                with self.cond:
                    if "id" in msg:
                        self.replies[msg["id"]] = msg
                    else:
                        self.events.append(msg)
                    self.cond.notify_all()

    def call(self, method, params=None, session=True, timeout=20):
        with self.cond:
            n = self.next_id
            self.next_id += 1
        msg = {"id": n, "method": method, "params": params or {}}
        if session and self.session:
            msg["sessionId"] = self.session
        self.w.write(json.dumps(msg).encode() + b"\0")
        self.w.flush()
        end = time.monotonic() + timeout
        with self.cond:
            while n not in self.replies:
                left = end - time.monotonic()
                if left <= 0:
                    raise TimeoutError(f"no answer to {method} within {timeout} s")
                self.cond.wait(left)
            reply = self.replies.pop(n)
        if "error" in reply:
            raise RuntimeError(f"{method}: {reply['error']}")
        return reply["result"]

    def open(self, url, timeout=20):
        target = self.call("Target.createTarget", {"url": "about:blank"}, session=False)["targetId"]
        self.session = self.call("Target.attachToTarget", {"targetId": target, "flatten": True},
                                 session=False)["sessionId"]
        for domain in ("Runtime", "Log", "Page"):
            self.call(domain + ".enable")
        mark = len(self.events)
        self.call("Page.navigate", {"url": url})
        end = time.monotonic() + timeout
        with self.cond:
            while not any(e.get("method") == "Page.loadEventFired" for e in self.events[mark:]):
                if end <= time.monotonic():
                    raise TimeoutError(f"{url} did not load within {timeout} s")
                self.cond.wait(end - time.monotonic())

    def eval(self, expr):
        r = self.call("Runtime.evaluate", {"expression": expr, "returnByValue": True})
        if "exceptionDetails" in r:
            raise RuntimeError(f"{expr}: {r['exceptionDetails']}")
        return r["result"].get("value")

    def errors(self):
        """Uncaught exceptions, console.error calls and error log entries (failed loads)."""
        out = []
        with self.cond:
            for e in self.events:
                m, p = e.get("method"), e.get("params", {})
                if m == "Runtime.exceptionThrown":
                    out.append(p["exceptionDetails"].get("text", "exception"))
                elif m == "Runtime.consoleAPICalled" and p.get("type") == "error":
                    out.append(" ".join(str(a.get("value", a.get("description"))) for a in p["args"]))
                elif m == "Log.entryAdded" and p["entry"].get("level") == "error":
                    out.append(p["entry"].get("text", ""))
        return out

    def pixel(self, x, y):
        """The colour (r, g, b) the page shows at CSS pixel x, y."""
        clip = {"x": x, "y": y, "width": 1, "height": 1, "scale": 1}
        png = base64.b64decode(self.call("Page.captureScreenshot", {"format": "png", "clip": clip})["data"])
        pos, idat = 8, b""
        while pos + 8 <= len(png):
            n, kind = struct.unpack_from(">I4s", png, pos)
            if kind == b"IHDR":
                assert png[pos + 16:pos + 18] in (b"\x08\x02", b"\x08\x06"), "8-bit RGB(A) expected"
            elif kind == b"IDAT":
                idat += png[pos + 8:pos + 8 + n]
            pos += 12 + n
        # One pixel: whatever the row's filter, it leaves the first pixel as it is.
        return tuple(zlib.decompress(idat)[1:4])

    def screenshot(self, path):
        data = self.call("Page.captureScreenshot", {"format": "png"})["data"]
        with open(path, "wb") as f:
            f.write(base64.b64decode(data))

    def close(self):
        try:
            self.call("Browser.close", session=False, timeout=5)
        except (OSError, TimeoutError, RuntimeError):
            pass
        try:
            self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()

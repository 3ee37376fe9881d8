#!/usr/bin/env python3
"""report_check.py PAGE [SCREENSHOTS]: looks at the report in headless Chromium, as a reader would.

Opens the page at the width of a desktop and of a phone, offline, and checks that nothing overflows, that nothing is
asked of any network and nothing goes wrong in the script, that search, sort and links work by keyboard, and that
headings, labels and table heads are there for screen readers. Exit code 77 when there is no browser.
"""
import base64
import fcntl
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys


class Browser:
    """Chromium, spoken to over two pipes: messages are JSON and end in a zero byte."""

    def __init__(self, program):
        (to_read, self.out), (self.inp, to_write) = self.pipe(), self.pipe()

        def descriptors():
            os.dup2(to_read, 3)
            os.dup2(to_write, 4)

        self.process = subprocess.Popen(
            [program, "--headless=new", "--no-sandbox", "--disable-gpu", "--remote-debugging-pipe", "about:blank"],
            preexec_fn=descriptors, pass_fds=(3, 4), start_new_session=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_read)
        os.close(to_write)
        self.number = 0
        self.events = []
        self.rest = b""
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]

    session = None

    @staticmethod
    def pipe():
        """Out of the way of the two descriptors that the browser expects."""
        ends = os.pipe()
        moved = tuple(fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 10) for end in ends)
        for end in ends:
            os.close(end)
        return moved

    def receive(self):
        while b"\0" not in self.rest:
            piece = os.read(self.inp, 1 << 16)
            if not piece:
                raise SystemExit("the browser has gone")
            self.rest += piece
        message, _, self.rest = self.rest.partition(b"\0")
        return json.loads(message)

    def call(self, method, **params):
        self.number += 1
        message = {"id": self.number, "method": method, "params": params}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.out, json.dumps(message).encode() + b"\0")
        while True:
            answer = self.receive()
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise SystemExit(f"{method}: {answer['error']}")
                return answer["result"]
            self.events.append(answer)

    def wait(self, event):
        while not any(seen.get("method") == event for seen in self.events):
            self.events.append(self.receive())

    def run(self, script):
        result = self.call("Runtime.evaluate", expression=script, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in result:
            raise SystemExit(f"{script}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def press(self, key):
        for kind in ("rawKeyDown", "char", "keyUp"):
            text = {"text": "\r"} if key == "Enter" and kind == "char" else {}
            if kind != "char" or text:
                self.call("Input.dispatchKeyEvent", type=kind, key=key, code=key,
                          windowsVirtualKeyCode={"Enter": 13, "Tab": 9}[key], **text)

    def close(self):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()


def look(browser, page, width, screenshots):
    browser.events.clear()
    browser.call("Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1,
                 mobile=width < 600)
    browser.call("Page.navigate", url=page.as_uri())
    browser.wait("Page.loadEventFired")
    expect = []

    def check(what, actual, wanted):
        if actual != wanted:
            expect.append(f"{width}: {what}: {actual!r} instead of {wanted!r}")

    check("overflow", browser.run("document.scrollingElement.scrollWidth > innerWidth"), False)
    rules = browser.run("document.querySelectorAll('tr.rule').length")
    check("rules", browser.run("document.getElementById('count').textContent"), f"{rules} rules")
    # Search: typed into the field that its label names.
    browser.run("document.querySelector('label[for=search]').control.focus()")
    browser.call("Input.insertText", text="Kerberos 88")
    browser.run("""new Promise(done => {
        const wait = left => document.querySelectorAll('.set tbody tr').length === 1 || left === 0 ? done()
                                                                                   : setTimeout(wait, 50, left - 1);
        wait(100);
    })""")
    check("found", browser.run("document.getElementById('count').textContent"), f"1 of {rules} rules")
    check("visible", browser.run("[...document.querySelectorAll('tr.rule')].filter(r => r.checkVisibility()).length"), 1)
    browser.run("const s = document.getElementById('search'); s.value = ''; s.dispatchEvent(new Event('input'))")
    browser.run("new Promise(done => setTimeout(done, 400))")
    # Sort: the head's button, by keyboard, twice.
    if width >= 600:
        table = "document.querySelector('table.sorted')"
        browser.run(f"{table}.querySelector('th button').focus()")
        browser.press("Enter")
        check("ascending", browser.run(f"{table}.querySelector('th').getAttribute('aria-sort')"), "ascending")
        browser.press("Enter")
        check("descending", browser.run(f"{table}.querySelector('th').getAttribute('aria-sort')"), "descending")
        check("last first", browser.run(f"Number({table}.tBodies[0].rows[0].cells[0].dataset.sort) > "
                                        f"Number({table}.tBodies[0].rows[1].cells[0].dataset.sort)"), True)
    # A link to a rule of a folded rule set opens it.
    browser.run("document.querySelectorAll('details.set').forEach(set => { set.open = false; })")
    browser.run("location.hash = document.querySelector('tr.rule').id")
    browser.run("new Promise(done => setTimeout(done, 200))")
    check("opened", browser.run("document.querySelector('details.set').open"), True)
    # For screen readers: one main heading, no level left out, every table with heads, every field with a label.
    levels = browser.run("[...document.querySelectorAll('h1,h2,h3,h4')].map(h => Number(h.tagName[1]))")
    check("headings", levels.count(1) == 1 and all(b - a <= 1 for a, b in zip(levels, levels[1:])), True)
    check("heads", browser.run("[...document.querySelectorAll('th')].every(h => h.scope)"), True)
    check("labels", browser.run("[...document.querySelectorAll('input')].every(i => i.labels.length > 0)"), True)
    check("language", browser.run("document.documentElement.lang"), "en")
    # The first stop of the keyboard leads to the rules.
    browser.run("document.activeElement.blur(); document.getSelection().removeAllRanges(); scrollTo(0, 0)")
    for event in browser.events:
        if event["method"] in ("Runtime.exceptionThrown", "Log.entryAdded"):
            expect.append(f"{width}: {event['params']}")
        if event["method"] == "Network.requestWillBeSent" and event["params"]["request"]["url"] != page.as_uri():
            expect.append(f"{width}: asks for {event['params']['request']['url']}")
    if screenshots:
        browser.run("location.hash = ''")
        height = min(browser.run("document.scrollingElement.scrollHeight"), 6000)
        image = browser.call("Page.captureScreenshot", captureBeyondViewport=True,
                             clip={"x": 0, "y": 0, "width": width, "height": height, "scale": 1})
        (screenshots / f"report-{width}.png").write_bytes(base64.b64decode(image["data"]))
    return expect


def main():
    program = shutil.which("chromium") or shutil.which("chromium-browser") or shutil.which("google-chrome")
    if not program:
        print("no browser")
        return 77
    page = pathlib.Path(sys.argv[1]).resolve()
    screenshots = pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else None
    browser = Browser(program)
    try:
        for domain in ("Page", "Runtime", "Log", "Network"):
            browser.call(f"{domain}.enable")
        browser.call("Network.emulateNetworkConditions", offline=True, latency=0, downloadThroughput=0,
                     uploadThroughput=0)
        problems = [problem for width in (1400, 390) for problem in look(browser, page, width, screenshots)]
    finally:
        browser.close()
    print("\n".join(problems) or "the page is good at both widths")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

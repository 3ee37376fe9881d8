#!/usr/bin/env python3
"""report_check.py PAGE: looks at the report in headless Chromium, as a reader would.

Opens the page at the width of a desktop and of a phone, offline, and checks that nothing overflows, that nothing is asked
of any network and nothing goes wrong in the script, that search, sort, macros and links work by keyboard, that headings,
labels and table heads are there for screen readers, and the rows without a script. Exit code 77 when there is no browser.
"""
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys


class Browser:
    """Chromium, spoken to over two pipes: messages are JSON and end in a zero byte."""

    def __init__(self):
        program = shutil.which("chromium") or shutil.which("chromium-browser") or shutil.which("google-chrome")
        if not program:
            print("no browser")
            sys.exit(77)
        # It expects the pipes as its descriptors 3 and 4.
        self.process = subprocess.Popen(
            ["sh", "-c", 'exec "$0" "$@" 3<&0 4>&1 </dev/null >/dev/null 2>&1', program, "--headless=new", "--no-sandbox",
             "--disable-gpu", "--remote-debugging-pipe", "about:blank"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True)
        self.number, self.events, self.rest, self.session = 0, [], b"", {}
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = {"sessionId": self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]}
        for domain in ("Page", "Runtime", "Log", "Network", "DOM"):
            self.call(f"{domain}.enable")
        self.call("Network.emulateNetworkConditions", offline=True, latency=0, downloadThroughput=0, uploadThroughput=0)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()

    def receive(self):
        while b"\0" not in self.rest:
            piece = self.process.stdout.read1()
            if not piece:
                raise SystemExit("the browser has gone")
            self.rest += piece
        message, _, self.rest = self.rest.partition(b"\0")
        return json.loads(message)

    def call(self, method, **params):
        self.number += 1
        message = {"id": self.number, "method": method, "params": params, **self.session}
        self.process.stdin.write(json.dumps(message).encode() + b"\0")
        self.process.stdin.flush()
        while (answer := self.receive()).get("id") != self.number:
            self.events.append(answer)
        if "error" in answer:
            raise SystemExit(f"{method}: {answer['error']}")
        return answer["result"]

    def run(self, script):
        result = self.call("Runtime.evaluate", expression=script, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in result:
            raise SystemExit(f"{script}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def press(self, key, code, text=""):
        for kind in ("keyDown" if text else "rawKeyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, code=key, windowsVirtualKeyCode=code, text=text)

    def open(self, page, width):
        self.events.clear()
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=width < 600)
        self.call("Page.navigate", url=page.as_uri())
        while not any(seen.get("method") == "Page.loadEventFired" for seen in self.events):
            self.events.append(self.receive())


def look(browser, page, width):
    browser.open(page, width)
    problems = []

    def check(condition):
        """It must come to be so, within five seconds."""
        if not browser.run(f"""new Promise(done => {{
                const look = left => ({condition}) ? done(true) : left ? setTimeout(look, 50, left - 1) : done(false);
                look(100);
            }})"""):
            problems.append(f"{width}: not so: {condition}")

    check("document.scrollingElement.scrollWidth <= innerWidth")
    # The first stop of the keyboard leads past everything; it appears when it is reached.
    check("document.querySelector('.skip').getBoundingClientRect().right <= 0")
    browser.press("Tab", 9)
    check("document.activeElement.className === 'skip' && document.activeElement.getBoundingClientRect().left >= 0")
    rules = browser.run("document.querySelectorAll('.set tbody tr').length")
    check(f"document.getElementById('count').textContent === '{rules} rules'")
    # Search: typed into the field that its label names.
    browser.run("document.querySelector('label[for=search]').control.focus()")
    browser.call("Input.insertText", text="Kerberos 88")
    check(f"document.getElementById('count').textContent === '1 of {rules} rules'")
    check("[...document.querySelectorAll('.set tbody tr')].filter(r => r.checkVisibility()).length === 1")
    browser.run("const s = document.getElementById('search'); s.value = ''; s.dispatchEvent(new Event('input'))")
    check(f"document.getElementById('count').textContent === '{rules} rules'")
    # Sort: the head's button, by keyboard, twice.
    browser.run("const table = document.querySelector('.set table'); table.querySelector('th button').focus()")
    for direction, sign in (("ascending", "<"), ("descending", ">")):
        browser.press("Enter", 13, "\r")
        check(f"table.querySelector('th').getAttribute('aria-sort') === '{direction}'")
        check(f"(([a, b]) => a {sign} b)([0, 1].map(i => parseInt(table.tBodies[0].rows[i]?.cells[0].textContent)))")
    # A macro unfolds by keyboard.
    browser.run("document.querySelector('td [popovertarget]').focus()")
    browser.press("Enter", 13, "\r")
    check("document.querySelectorAll(':popover-open').length === 1")
    browser.run("document.querySelector(':popover-open')?.hidePopover()")
    # What the keyboard reaches can be seen.
    check("""[...document.querySelectorAll('a, button, input, summary')].every(e => {
        const box = e.getBoundingClientRect();
        return e.className === 'skip' || !e.checkVisibility() || (box.right > 0 && box.left < innerWidth && box.width !== 0);
    })""")
    # A link to a rule of a folded rule set opens it.
    browser.run("document.querySelectorAll('details.set').forEach(set => { set.open = false; })")
    browser.run("location.hash = document.querySelector('.set tbody tr').id")
    check("document.querySelector('details.set').open")
    # For screen readers: one main heading, no level left out, every table with heads, every field with a label.
    check("document.querySelectorAll('h1').length === 1")
    check("[...document.querySelectorAll('h1,h2,h3,h4')].every((h, i, all) => i === 0 || h.tagName[1] - all[i - 1].tagName[1] <= 1)")
    check("[...document.querySelectorAll('th')].every(h => h.scope)")
    check("[...document.querySelectorAll('input')].every(i => i.labels.length > 0)")
    check("document.documentElement.lang === 'en'")
    for event in browser.events:
        if event["method"] in ("Runtime.exceptionThrown", "Log.entryAdded"):
            problems.append(f"{width}: {event['params']}")
        if event["method"] == "Network.requestWillBeSent" and event["params"]["request"]["url"] != page.as_uri():
            problems.append(f"{width}: asks for {event['params']['request']['url']}")
    browser.call("Emulation.setScriptExecutionDisabled", value=True)
    browser.open(page, width)
    root = browser.call("DOM.getDocument")["root"]["nodeId"]
    rows = browser.call("DOM.querySelectorAll", nodeId=root, selector=".set tbody tr")["nodeIds"]
    if len(rows) != rules:
        problems.append(f"{width}: {len(rows)} of {rules} rules without a script")
    browser.call("Emulation.setScriptExecutionDisabled", value=False)
    return problems


def main():
    page = pathlib.Path(sys.argv[1]).resolve()
    with Browser() as browser:
        problems = [problem for width in (1400, 390) for problem in look(browser, page, width)]
    print("\n".join(problems) or "good")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

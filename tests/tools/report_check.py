#!/usr/bin/env python3
"""report_check.py PAGE [SCREENSHOTS]: looks at the report in headless Chromium, as a reader would.
report_check.py --full BINARIES DIRECTORY: measures the report of a full store (64 rule sets of 1000 rules).

The first opens the page at the width of a desktop and of a phone, offline, and checks that nothing overflows, that
nothing is asked of any network and nothing goes wrong in the script, that search, sort, macros and links work by
keyboard, that headings, labels and table heads are there for screen readers, and the rows without a script. The second
makes store and page with kxrule in a new directory, and checks size, time and memory. Exit code 77 when there is no
browser.
"""
import base64
import fcntl
import json
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import time


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

    def memory(self):
        """Of all its processes, what they share counted once."""
        total = 0
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if os.getpgid(int(process.name)) == self.process.pid:
                    lines = (process / "smaps_rollup").read_text().splitlines()
                    total += sum(int(line.split()[1]) << 10 for line in lines if line.startswith("Pss:"))
            except OSError:  # it has ended
                pass
        return total

    def open(self, page, width, scheme="light"):
        self.events.clear()
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=width < 600)
        self.call("Page.navigate", url=page.as_uri())
        self.wait("Page.loadEventFired")

    def picture(self, file, width):
        height = min(self.run("document.scrollingElement.scrollHeight"), 6000)
        image = self.call("Page.captureScreenshot", captureBeyondViewport=True,
                          clip={"x": 0, "y": 0, "width": width, "height": height, "scale": 1})
        file.write_bytes(base64.b64decode(image["data"]))

    def close(self):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()


def look(browser, page, width, screenshots):
    browser.open(page, width)
    expect = []

    def check(what, actual, wanted):
        if actual != wanted:
            expect.append(f"{width}: {what}: {actual!r} instead of {wanted!r}")

    check("overflow", browser.run("document.scrollingElement.scrollWidth > innerWidth"), False)
    rules = browser.run("document.querySelectorAll('.set tbody tr').length")
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
    check("visible", browser.run("[...document.querySelectorAll('.set tbody tr')].filter(r => r.checkVisibility()).length"), 1)
    browser.run("const s = document.getElementById('search'); s.value = ''; s.dispatchEvent(new Event('input'))")
    browser.run("new Promise(done => setTimeout(done, 400))")
    # Sort: the head's button, by keyboard, twice.
    table = "document.querySelector('.set table')"
    first = f"[0, 1].map(i => parseInt({table}.tBodies[0].rows[i].cells[0].textContent))"
    browser.run(f"{table}.querySelector('th button').focus()")
    for direction in ("ascending", "descending"):
        browser.press("Enter")
        check(direction, browser.run(f"{table}.querySelector('th').getAttribute('aria-sort')"), direction)
        browser.run("new Promise(done => setTimeout(done, 400))")
        check("order", browser.run(f"(([a, b]) => a < b ? 'ascending' : 'descending')({first})"), direction)
    # A macro unfolds by keyboard.
    browser.run("document.querySelector('td [popovertarget]').focus()")
    browser.press("Enter")
    check("unfolded", browser.run("document.querySelectorAll(':popover-open').length"), 1)
    browser.run("document.querySelector(':popover-open')?.hidePopover()")
    # What the keyboard reaches can be seen; the link past everything appears when it is reached.
    check("out of sight", browser.run("""[...document.querySelectorAll('a, button, input, summary')].filter(e => {
        const box = e.getBoundingClientRect();
        return e.className !== 'skip' && e.checkVisibility() && (box.right <= 0 || box.left >= innerWidth || box.width === 0);
    }).length"""), 0)
    # A link to a rule of a folded rule set opens it.
    browser.run("document.querySelectorAll('details.set').forEach(set => { set.open = false; })")
    browser.run("location.hash = document.querySelector('.set tbody tr').id")
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
        for scheme in ("light", "dark"):
            browser.open(page, width, scheme)
            browser.picture(screenshots / f"report-{width}-{scheme}.png", width)
    browser.call("Emulation.setScriptExecutionDisabled", value=True)
    browser.open(page, width)
    root = browser.call("DOM.getDocument")["root"]["nodeId"]
    check("without script", len(browser.call("DOM.querySelectorAll", nodeId=root, selector=".set tbody tr")["nodeIds"]), rules)
    browser.call("Emulation.setScriptExecutionDisabled", value=False)
    return expect


def full_policy():
    pick = random.Random(7)
    ports = pick.sample(range(1, 10000), 200)

    def rule(index):
        a, b, c, port = *(pick.randrange(256) for _ in range(3)), pick.choice(ports)
        peers = [f"10.{a}.{b}.0/24"] * 9 + [f"10.{a}.{b}.{c}"] * 5 + [f"fd00:{a:x}:{b:x}::/48"] * 4
        entry = {"index": index, "kind": "access", "description": f"Ticket {pick.randrange(10**6)}, office {index % 90}",
                 "protocol": pick.choice(["tcp", "udp", "tcpudp"]),
                 "addresses": ["any", pick.choice(peers + ["@servers", f"!10.{a}.0.0/16"])],
                 "ports": ["any", pick.choice([str(port), f"{port}-{port + 20}"])],
                 "action": pick.choice(["accept", "drop", "reject", "ask"])}
        program = pick.randrange(150)
        path = f"C:\\Program Files\\Vendor {program % 40}\\Product {program}\\program{program}.exe"
        return {**entry, "application": path} if index % 3 else entry

    return {"version": 1, "active": list(range(1, 65)),
            "macros": [{"name": "servers", "items": [{"address": f"10.20.{i}.0/24"} for i in range(20)]}],
            "ruleSets": [{"index": number, "name": f"Office {number}", "rules": [rule(i) for i in range(1, 1001)]}
                         for number in range(1, 65)]}


SEARCH = """new Promise(done => {
    const input = document.getElementById("search");
    input.scrollIntoView();
    input.value = "TEXT";
    const started = performance.now();
    input.dispatchEvent(new Event("input"));
    new MutationObserver(() => requestAnimationFrame(() => requestAnimationFrame(
        () => done((performance.now() - started) / 1000)))).observe(document.getElementById("count"), { childList: true });
})"""


def measure(browser, binaries, directory):
    directory.mkdir()
    policy, store, page = directory / "policy.json", directory / "store", directory / "page.html"
    store.mkdir()
    policy.write_text(json.dumps(full_policy()))

    def kxrule(*arguments):
        started = time.monotonic()
        runner = pathlib.Path(__file__).resolve().parent.parent.parent / "cmake/wine-run.sh"
        subprocess.run([runner, binaries / "kxrule.exe", "--dir", store, *arguments], check=True, stdout=subprocess.DEVNULL)
        return time.monotonic() - started

    kxrule("import", policy)
    figures = [("make", kxrule("report", "-o", page), 60, "s"), ("file", page.stat().st_size / 1e6, 15, "MB")]
    empty = browser.memory() / 1e6
    started = time.monotonic()
    browser.open(page, 1400)
    browser.run("new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done)))")
    figures.append(("open", time.monotonic() - started, 3, "s"))
    for text in ("office 55", "10.1", "program77.exe drop", "nowhere"):
        figures.append((f"search {text}", browser.run(SEARCH.replace("TEXT", text)), 0.3, "s"))
    figures.append(("memory beyond an empty page", browser.memory() / 1e6 - empty, 500, "MB"))
    for what, figure, most, unit in figures:
        print(f"{what}: {figure:.2f} {unit}, at most {most}")
    return [f"too much: {what}" for what, figure, most, _ in figures if figure > most]


def main():
    program = shutil.which("chromium") or shutil.which("chromium-browser") or shutil.which("google-chrome")
    if not program:
        print("no browser")
        return 77
    browser = Browser(program)
    try:
        for domain in ("Page", "Runtime", "Log", "Network", "DOM"):
            browser.call(f"{domain}.enable")
        browser.call("Network.emulateNetworkConditions", offline=True, latency=0, downloadThroughput=0,
                     uploadThroughput=0)
        if sys.argv[1] == "--full":
            problems = measure(browser, *(pathlib.Path(argument).resolve() for argument in sys.argv[2:4]))
        else:
            page = pathlib.Path(sys.argv[1]).resolve()
            screenshots = pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else None
            problems = [problem for width in (1400, 390) for problem in look(browser, page, width, screenshots)]
    finally:
        browser.close()
    print("\n".join(problems) or "good")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

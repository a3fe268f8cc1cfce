#!/usr/bin/python3
"""The status page of `shmrmctl serve` in a real headless Chromium, driven through the DevTools
protocol: it reads the rendered DOM, follows changes made with `shmrmctl set`, `add` and a
region that goes away and comes back, without a reload, checks the phone layout and the bearer
token, and saves a screenshot.

usage: web_test.py SHMRMCTL [--screenshot PNG]
WEB_TEST_SERVE, when set, is the command run instead of `SHMRMCTL serve` (its options follow).
Exits 77 (skipped) when Chromium or python3-websocket is not installed."""

import argparse
import base64
import json
import os
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

SKIP = 77

try:
    import websocket  # Debian's python3-websocket
except ImportError:
    print("SKIP: python3-websocket is not installed (scripts/deps.sh installs it)")
    sys.exit(SKIP)

CHROMIUM = shutil.which("chromium") or shutil.which("chromium-browser")
if not CHROMIUM:
    print("SKIP: chromium is not installed (scripts/deps.sh installs it)")
    sys.exit(SKIP)


class Failed(Exception):
    pass


class Fatal(Exception):
    """A failure that waiting longer cannot mend."""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(what, probe, seconds=10.0):
    """Polls probe() until it returns something true; returns it, or fails naming `what`."""
    end = time.monotonic() + seconds
    last = None
    while time.monotonic() < end:
        try:
            last = probe()
            if last:
                return last
        except (OSError, urllib.error.URLError, Failed) as e:
            last = e
        time.sleep(0.1)
    raise Failed(f"never saw {what} within {seconds:.0f} s (last: {last!r})")


class Node:
    """A held region in a private namespace and install directory, and the tool to change it."""

    def __init__(self, tool, work):
        self.tool = tool
        self.env = dict(os.environ, VEX_IPC_NAMESPACE=f"shmrmctl-web-{os.getpid()}",
                        VEX_INSTALL_PATH=os.path.join(work, "install"))
        os.makedirs(os.path.join(work, "install", "etc"))
        with open(os.path.join(work, "install", "etc", "vex.xml"), "w") as f:
            f.write("<root><all><num><group>8</group><resource>4</resource>"
                    "<monitor>8</monitor></num></all></root>\n")
        self.holder = None
        self.hold_out = os.path.join(work, "hold.out")

    def hold(self):
        out = open(self.hold_out, "w")
        self.holder = subprocess.Popen([self.tool, "hold"], env=self.env, stdout=out)
        wait_for("the holder", lambda: "ready" in open(self.hold_out).read())

    def release(self):
        if self.holder:
            self.holder.send_signal(signal.SIGTERM)
            self.holder.wait(10)
            self.holder = None

    def run(self, *args):
        subprocess.run([self.tool, *args], env=self.env, check=True, stdout=subprocess.DEVNULL)


class Server:
    def __init__(self, node, work, token=None):
        self.port = free_port()
        command = shlex.split(os.environ.get("WEB_TEST_SERVE", "")) or [node.tool, "serve"]
        command += ["--listen", f"127.0.0.1:{self.port}", "--interval", "0.5"]
        self.headers = {}
        if token:
            path = os.path.join(work, "token")
            with open(path, "w") as f:
                f.write(token + "\n")
            command += ["--token-file", path]
            self.headers = {"Authorization": f"Bearer {token}"}
        self.url = f"http://127.0.0.1:{self.port}/"
        self.process = subprocess.Popen(command, env=node.env)
        wait_for("the server", self.answers)

    def answers(self):
        if self.process.poll() is not None:
            raise Fatal(f"the server exited with {self.process.returncode}")
        request = urllib.request.Request(self.url + "api/status", headers=self.headers)
        with urllib.request.urlopen(request, timeout=2) as r:
            return r.status == 200 and "json" in r.headers.get("Content-Type", "")

    def stop(self):
        self.process.terminate()
        self.process.wait(10)


class Browser:
    """Headless Chromium and one page of it, spoken to over the DevTools protocol."""

    def __init__(self, work):
        self.port = free_port()
        args = [CHROMIUM, "--headless", f"--remote-debugging-port={self.port}",
                f"--user-data-dir={os.path.join(work, 'chromium')}", "--no-first-run",
                "--disable-gpu", "--disable-extensions", "--hide-scrollbars", "about:blank"]
        if os.geteuid() == 0:
            args.insert(1, "--no-sandbox")  # Chromium refuses to run as root otherwise
        self.process = subprocess.Popen(args, stdout=subprocess.DEVNULL,
                                        stderr=open(os.path.join(work, "chromium.log"), "w"))
        targets = wait_for("Chromium's DevTools endpoint", self.pages, 30)
        self.ws = websocket.create_connection(targets[0]["webSocketDebuggerUrl"], timeout=30)
        self.next_id = 0

    def pages(self):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/json/list", timeout=2) as r:
            return [t for t in json.load(r) if t.get("type") == "page"]

    def call(self, method, **params):
        self.next_id += 1
        self.ws.send(json.dumps({"id": self.next_id, "method": method, "params": params}))
        while True:
            reply = json.loads(self.ws.recv())
            if reply.get("id") == self.next_id:
                if "error" in reply:
                    raise Failed(f"{method}: {reply['error']}")
                return reply.get("result", {})

    def eval(self, expression):
        r = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in r:
            raise Failed(f"{expression}: {r['exceptionDetails']}")
        return r["result"].get("value")

    def size(self, width, height, mobile=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=1, mobile=mobile)

    def open(self, url):
        self.call("Page.navigate", url=url)
        wait_for("the page loaded", lambda: self.eval("document.readyState") == "complete")

    def text(self, selector):
        return self.eval(f"(e => e ? e.textContent.trim() : null)"
                         f"(document.querySelector({json.dumps(selector)}))")

    def attr(self, selector, name):
        return self.eval(f"(e => e ? e.getAttribute({json.dumps(name)}) : null)"
                         f"(document.querySelector({json.dumps(selector)}))")

    def screenshot(self, path, scale=0.7):
        """The whole page, scaled down."""
        size = self.call("Page.getLayoutMetrics")["cssContentSize"]
        clip = {"x": 0, "y": 0, "width": size["width"], "height": size["height"], "scale": scale}
        data = self.call("Page.captureScreenshot", format="png", clip=clip,
                         captureBeyondViewport=True)["data"]
        with open(path, "wb") as f:
            f.write(base64.b64decode(data))

    def close(self):
        try:
            self.ws.close()
        finally:
            self.process.terminate()
            self.process.wait(10)


def value(kind, record, attribute):
    return f'[data-kind="{kind}"][data-id="{record}"][data-attr="{attribute}"]'


def row(kind, record):
    return f'[data-kind="{kind}"][data-id="{record}"]:not([data-attr])'


def populate(node):
    for group, stat, sv in [("web", 2, "online"), ("db", 1, "starting"), ("batch", 0, "failed")]:
        node.run("add", "group", group)
        node.run("set", "group", group, "stat", str(stat))
        node.run("set", "group", group, "sv", sv)
    for group, kind, name, stat, sv in [
        ("web", "ip", "web-vip", 2, "online"), ("web", "app", "web-server", 2, "online"),
        ("db", "disk", "db-volume", 2, "online"), ("db", "app", "db-engine", 1, "starting"),
        ("batch", "app", "scheduler", 0, "failed"), ("batch", "disk", "spool", 0, "")]:
        node.run("add", "resource", group, kind, name)
        node.run("set", "resource", group, kind, name, "stat", str(stat))
        if sv:
            node.run("set", "resource", group, kind, name, "sv", sv)
    node.run("set", "group", "web", "flag", "0x0012")
    node.run("set", "resource", "web", "app", "web-server", "descript", "httpd pid 4242")
    for kind, name, steps in [("ping", "gateway", ["3"]), ("disk", "db-volume", ["3", "4"]),
                              ("proc", "scheduler", [])]:
        node.run("add", "monitor", kind, name)
        for step in steps:
            if step == "4":
                time.sleep(1.2)  # a step that took a while
            node.run("set", "monitor", kind, name, "progress", step)
    node.run("set", "monitor", "ping", "gateway", "stat", "2")
    node.run("set", "monitor", "disk", "db-volume", "stat", "1")
    node.run("set", "header", "acstat", "1")


def check_first_view(browser):
    """What the page shows of the region as populate() left it: (selector, expected) rows."""
    wait_for("the resource table", lambda: browser.text(value("resource", "web/ip/web-vip", "stat")))
    rows = [
        (value("resource", "web/ip/web-vip", "stat"), "text", "2"),
        (value("resource", "web/ip/web-vip", "sv"), "text", "online"),
        (value("resource", "web/app/web-server", "descript"), "text", "httpd pid 4242"),
        (value("group", "web", "flag"), "text", "0x0012"),
        (value("header", "", "acstat"), "text", "1"),
        (value("header", "", "grpmax"), "text", "8"),
        (row("resource", "web/ip/web-vip"), "data-state", "online"),
        (row("resource", "db/app/db-engine"), "data-state", "moving"),
        (row("resource", "batch/app/scheduler"), "data-state", "failed"),
        (row("resource", "batch/disk/spool"), "data-state", "offline"),  # no sv: stat 0
        (row("group", "web"), "data-state", "online"),
        (row("group", "batch"), "data-state", "failed"),
        (value("monitor", "ping/gateway", "progress") + ' [data-role="step"]', "text", "3"),
        (value("monitor", "disk/db-volume", "progress") + ' [data-role="step"]', "text", "4"),
        (value("monitor", "proc/scheduler", "progress") + ' [data-role="step"]', "text", "0"),
        ("#conn", "data-state", "live"),
        ("body", "data-region", "up"),
    ]
    for selector, what, expected in rows:
        expect(browser, selector, what, expected, 5)
    # (monitor, prefix, least, most seconds): the ages come from the node's stamps, and the
    # step of db-volume took the 1.2 s populate() waited between steps 3 and 4.
    ages = [
        ("ping/gateway", "running ", 1.0, 60.0),  # at step 3: since its stamp, and counting
        ("disk/db-volume", "took ", 1.1, 3.0),    # at step 4: from stamp 3 to stamp 4
    ]
    for monitor, prefix, least, most in ages:
        age = browser.text(value("monitor", monitor, "progress") + ' [data-role="age"]') or ""
        words = age[len(prefix):].split()
        if not age.startswith(prefix) or len(words) < 2 or words[1].rstrip(",") != "s" or \
                not least <= float(words[0]) <= most:
            raise Failed(f"monitor {monitor}: age {age!r}, expected {prefix}<{least} to {most}> s")
    # Nothing comes from anywhere but serve: a node is often offline.
    foreign = browser.eval("[...performance.getEntriesByType('resource')].map(e => e.name)"
                           ".filter(n => !n.startsWith(location.origin + '/'))")
    if foreign:
        raise Failed(f"the page loads from elsewhere: {foreign}")
    first = browser.text(value("monitor", "ping/gateway", "progress") + ' [data-role="age"]')
    wait_for("the running age to move", lambda: browser.text(
        value("monitor", "ping/gateway", "progress") + ' [data-role="age"]') != first, 5)


def expect(browser, selector, what, expected, seconds):
    """Waits for the element's text (what == "text") or attribute to read `expected`."""
    def current():
        return browser.text(selector) if what == "text" else browser.attr(selector, what)
    try:
        wait_for(f"{selector} {what} = {expected!r}", lambda: current() == expected, seconds)
    except Failed as e:
        raise Failed(f"{e}; it reads {current()!r}") from None


def mark_page(browser):
    """A mark that only this load of the page holds: a reload loses it."""
    browser.eval("window.__sameLoad = 'yes'")


def same_load(browser):
    return browser.eval("window.__sameLoad") == "yes"


def check_live_changes(browser, node):
    """Each change made on the node appears without a reload, the changed cell highlighted."""
    mark_page(browser)
    changes = [
        (["set", "resource", "web", "ip", "web-vip", "stat", "3"],
         value("resource", "web/ip/web-vip", "stat"), "3"),
        (["set", "resource", "web", "ip", "web-vip", "sv", "stopping"],
         value("resource", "web/ip/web-vip", "sv"), "stopping"),
        (["set", "group", "db", "sv", "online"], value("group", "db", "sv"), "online"),
        (["set", "header", "acstat2", "7"], value("header", "", "acstat2"), "7"),
        (["set", "monitor", "proc", "scheduler", "progress", "3"],
         value("monitor", "proc/scheduler", "progress") + ' [data-role="step"]', "3"),
    ]
    for command, selector, expected in changes:
        node.run(*command)
        wait_for(f"{selector} = {expected!r} after {' '.join(command)}",
                 lambda: browser.text(selector) == expected, 8)
        cell = selector.split(" ")[0]
        if browser.attr(cell, "data-changed") is None:
            raise Failed(f"{cell} changed but is not highlighted")
    if browser.attr(row("resource", "web/ip/web-vip"), "data-state") != "moving":
        raise Failed("web/ip/web-vip is 'stopping' but its row is not coloured as moving")
    if browser.attr(row("group", "db"), "data-state") != "online":
        raise Failed("group db is 'online' but is not coloured so")
    node.run("add", "resource", "web", "disk", "web-data")
    wait_for("an added resource", lambda: browser.text(
        value("resource", "web/disk/web-data", "stat")) == "0", 8)
    node.run("add", "monitor", "app", "short-lived")
    wait_for("an added monitor", lambda: browser.text(row("monitor", "app/short-lived")), 8)
    node.run("remove", "monitor", "app", "short-lived")
    wait_for("a removed monitor to go", lambda: browser.text(row("monitor", "app/short-lived")) is None, 8)
    wait_for("the highlight to end", lambda: browser.attr(
        value("resource", "web/ip/web-vip", "stat"), "data-changed") is None, 8)
    if not same_load(browser):
        raise Failed("the page was reloaded")


def check_phone(browser):
    """At 375 px nothing scrolls sideways, and each value is still labelled."""
    # A phone would zoom out to fit a wider page: the widths are checked against 375 px.
    browser.size(375, 812, mobile=True)
    wait_for("the phone layout", lambda: browser.eval(
        "document.documentElement.scrollWidth <= 375 && window.innerWidth == 375"), 5)
    overflow = browser.eval(
        "[...document.querySelectorAll('body *')].filter(e => e.getBoundingClientRect().right"
        " > 376).map(e => e.tagName + ' ' + (e.dataset.attr || '')).slice(0,5)")
    if overflow:
        raise Failed(f"wider than a 375 px phone: {overflow}")
    label = browser.eval("getComputedStyle(document.querySelector("
                         f"{json.dumps(value('resource', 'web/ip/web-vip', 'stat'))}), '::before')"
                         ".content")
    if "stat" not in (label or ""):
        raise Failed(f"phone cards do not label their values: {label!r}")
    browser.size(1280, 800)


def check_region_gone(browser, node):
    mark_page(browser)
    node.release()
    wait_for("the 'region gone' state", lambda: browser.attr("body", "data-region") == "gone", 10)
    if not browser.eval("getComputedStyle(document.getElementById('gone')).display !== 'none'"):
        raise Failed("region gone but no banner shown")
    node.hold()
    node.run("add", "group", "reborn")
    wait_for("the region back", lambda: browser.attr("body", "data-region") == "up", 10)
    wait_for("the new region's group", lambda: browser.text(value("group", "reborn", "stat")) == "0", 10)
    if browser.text(value("group", "web", "stat")) is not None:
        raise Failed("records of the old region still shown")
    if not same_load(browser):
        raise Failed("the page was reloaded")


TOKEN = "s3cret+Tok/en="  # as base64 makes them: '+' is no space, '/' and '=' are no separators


def check_token(browser, node, work):
    server = Server(node, work, token=TOKEN)
    try:
        # A browser sends no Authorization header when it opens an address: the page itself
        # (it holds no data of the node) comes without the token, everything else needs it.
        try:
            with urllib.request.urlopen(server.url, timeout=5) as r:
                r.read()
        except urllib.error.HTTPError as e:
            raise Failed(f"GET / without the token: {e.code}; a browser could never load the page")
        for path in ["api/status", "api/events", "metrics"]:
            try:
                with urllib.request.urlopen(server.url + path, timeout=5):
                    raise Failed(f"GET /{path} answered without the token")
            except urllib.error.HTTPError as e:
                if e.code != 401:
                    raise Failed(f"GET /{path} without the token: {e.code}, expected 401")
        browser.open(server.url)
        expect(browser, "#conn", "data-state", "unauthorized", 10)
        browser.open(server.url + "#token=" + TOKEN)
        wait_for("the page with the token", lambda: browser.text(value("group", "reborn", "stat")) == "0")
        wait_for("the event stream with the token", lambda: browser.attr("#conn", "data-state") == "live")
        mark_page(browser)
        node.run("set", "group", "reborn", "stat", "2")
        wait_for("a change through the token's stream",
                 lambda: browser.text(value("group", "reborn", "stat")) == "2", 8)
        if not same_load(browser):
            raise Failed("the page was reloaded")
    finally:
        server.stop()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("tool")
    parser.add_argument("--screenshot")
    args = parser.parse_args()
    work = tempfile.mkdtemp(prefix="shmrmctl-web-")
    node = Node(args.tool, work)
    server = browser = None
    try:
        node.hold()
        populate(node)
        server = Server(node, work)
        browser = Browser(work)
        browser.size(1280, 800)
        browser.open(server.url)
        check_first_view(browser)
        check_live_changes(browser, node)
        node.run("set", "group", "batch", "sv", "failed")
        node.run("set", "resource", "db", "app", "db-engine", "sv", "online")
        wait_for("the last change", lambda: browser.text(
            value("resource", "db/app/db-engine", "sv")) == "online", 8)
        if args.screenshot:
            browser.screenshot(args.screenshot)
        check_phone(browser)
        check_region_gone(browser, node)
        server.stop()
        server = None
        check_token(browser, node, work)
        print("web: ok")
        return 0
    except (Failed, Fatal) as e:
        print(f"FAILED: {e}", file=sys.stderr)
        return 1
    finally:
        if browser:
            browser.close()
        if server:
            server.stop()
        node.release()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())

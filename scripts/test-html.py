#!/usr/bin/python3
"""Opens the pages of reports in a headless browser and uses them.

  test-html.py VXRUN FOLDER

It makes reports with VXRUN in FOLDER, which must be empty, and leaves screenshots there. The browser is driven by
WebDriver's HTTP interface.
"""
import base64, json, os, signal, struct, subprocess, sys, time, urllib.request, zlib

vxrun, folder = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
os.chdir(folder)
EVIL = '<script>alert(1)</script>"\'&<img src=x onerror=alert(2)>'


# ---- Reports

def sh(*words, expected=0):
    code = subprocess.run(words, stdout=subprocess.DEVNULL, stderr=open("log", "a")).returncode
    check(code == expected, f"{' '.join(words)}: exit {code}")


def dump(name, value):
    with open(name, "w") as file:
        json.dump(value, file)


def png(name, width, height, depth, sample):  # gray
    pack = ">B" if depth == 8 else ">H"
    rows = b"".join(b"\0" + b"".join(struct.pack(pack, sample(x, y)) for x in range(width)) for y in range(height))
    chunk = lambda kind, data: struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    with open(name, "wb") as file:
        file.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, depth, 0, 0, 0, 0)) +
                   chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def wrong_cells(frame):  # grows from one of 6 x 5 cells
    cells = sum(1 << 31 - (y * 6 + x) for y in range(5) for x in range(6) if abs(x - 2) + abs(y - 1) <= (frame - 12) / 3)
    return f"{cells:08x}"


def failure(name):
    unit = {"frame": 12, "picture": 14, "unit": 14, "offset": 48211, "bytes": 812, "pts": 12, "dts": 14, "type": "B",
            "key": False, "reference": False, "temporal_layer": 2}
    return {"type": "CRC_MISMATCH", "kind": "samples", "shape": "in one 8x8 block",
            "text": f"check: frame 12 (timestamp 12): plane Y x=80 y=8 actual 5 expected 9, in {name}",
            "log": f"check: frame 12 differs\n{EVIL}\n" * 5,
            "command": f"vxrun suite S.json --resources vectors --decoder mine.json --filter '{name}'",
            "input": f"vectors/S/{name}/clip.264", "node": "check",
            "first": {"frame": 12, "timestamp": 12, "plane": "Y", "x": 80, "y": 8, "actual": 5, "expected": 9},
            "wrong_frames": [[12, 20], [24, 24]], "wrong_frames_total": 10, "cell_size": 64, "cell_columns": 6,
            "cell_rows": 5, "frames": [{"frame": n, "psnr": None if n == 15 else 60 - 2 * (n - 12),
                                        "cells": wrong_cells(n)} for n in [*range(12, 21), 24]],
            "hint": {"text": "the wrong area grows from one cell", "reason": "frame 12 has 1 wrong cell of 30"},
            "stream": {"codec": "h264", "units": 60, "pictures": 60, "time_base": "1/25",
                       "frames": [n if n % 4 == 0 else 4 * (n // 4) + [0, 3, 2, 4][n % 4] for n in range(60)]},
            "first_in_output_order": unit,
            "first_in_decoding_order": {**unit, "frame": 16, "picture": 12, "unit": 12, "type": "P"},
            "dumps": [{"frame": n, "actual": f"bad{n}.actual.png", "expected": f"bad{n}.expected.png",
                       "diff": f"bad{n}.diff.png"} for n in (12, 13, 14)], "bundle": "fail bundle.tar.zst"}


def suite(vectors, decoders):
    return {"system_info": {"vxrun": "1.0.0", "kernel": EVIL, "command_line": "vxrun suite S.json"},
            "test_suites": {"S " + EVIL: {"decoders": {decoder: report(vectors, shift)
                                                       for shift, decoder in enumerate(decoders)}}}}


def report(names, shift):
    vectors = {}
    for i, name in enumerate(names):
        result = "Fail" if (i + shift) % 50 == 7 else "Not run" if i % 90 == 5 else "Success"
        vectors[name] = {"result": result, "time": 0.01 * (i * 37 % 101 + 1), "profile": ["Main", "High", EVIL][i % 3]}
        if result == "Fail":
            vectors[name]["failure"] = failure(name)
    count = lambda *kinds: sum(v["result"] in kinds for v in vectors.values())
    return {"decoder_version": "1.2", "total_tests": len(vectors), "passed": count("Success"), "failed_error": count("Fail"),
            "not_run": count("Not run"), "not_supported": 0, "total_time": 505.0,
            "profile_stats": {"Main": {"passed": 1, "total": 2}}, "vectors": vectors}


def make_reports():
    for n in (12, 13):
        depth = 8 if n == 12 else 16
        top = 255 if depth == 8 else 65535
        base = lambda x, y: (x * 3 + y * 2) % 256 * top // 255
        is_wrong = lambda x, y: 80 <= x < 88 and 8 <= y < 16
        png(f"bad{n}.expected.png", 352, 288, depth, base)
        png(f"bad{n}.actual.png", 352, 288, depth, lambda x, y: top - base(x, y) if is_wrong(x, y) else base(x, y))
        png(f"bad{n}.diff.png", 352, 288, 8, lambda x, y: 200 if is_wrong(x, y) else 0)
    open("fail bundle.tar.zst", "w").close()
    names = [f"vector_{i:04}" for i in range(1000)]
    names[7] = EVIL
    dump("new.json", suite(names, ["mine"]))
    dump("two.json", suite(names[:60], ["mine", "other"]))
    old = suite(names[:-1] + ["gone"], ["mine"])
    results = next(iter(old["test_suites"].values()))["decoders"]["mine"]["vectors"]
    results[names[57]]["result"] = "Success"
    results[names[58]]["result"] = "Fail"
    dump("old.json", old)
    sh(vxrun, "report", "new.json", "--baseline", "old.json", "--html", "suite.html")
    sh(vxrun, "report", "two.json", "--html", "two.html")
    sh("ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=176x144:rate=25:duration=4", "clip.264")
    sh(vxrun, "decode", "clip.264", "--json", "run.json", "--trace", "trace.json", "--html", "run.html")
    sh(vxrun, "report", "run.json", "--html", "again.html")
    check(open("run.html").read() == open("again.html").read(), "vxrun report gives another page than --html")
    md5 = subprocess.run(["ffmpeg", "-v", "error", "-i", "clip.264", "-f", "md5", "-"], capture_output=True, text=True).stdout
    vectors = [{"name": name, "source": "", "source_checksum": "", "input_file": "clip.264", "output_format": "None",
                "result": result} for name, result in (("good", md5.strip()[4:]), ("bad <b>", "0" * 32))]
    dump("real.suite", {"name": "real", "codec": "H.264", "description": "", "test_vectors": vectors})
    for vector in vectors:
        os.makedirs("real/" + vector["name"])
        os.link("clip.264", f"real/{vector['name']}/clip.264")
    sh(vxrun, "suite", "real.suite", "--resources", ".", "--html", "real.html", expected=1)
    run = json.load(open("run.json"))
    run["run"].update(verdict="CRC_MISMATCH", exit_code=1, failure=failure(EVIL))
    dump("failed.json", json.loads(json.dumps(run).replace('"reader"', json.dumps("reader" + EVIL))))
    sh(vxrun, "report", "failed.json", "--html", "failed.html")


# ---- The browser

class Browser:
    def __init__(self, port, dark, width):
        self.base = f"http://127.0.0.1:{port}/session"
        arguments = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-breakpad",
                     "--hide-scrollbars", *(["--force-dark-mode"] if dark else [])]
        options = {"binary": "/usr/bin/chromium", "args": arguments}
        logs = {"browser": "ALL", "performance": "ALL"}
        self.base += "/" + self.post("", {"capabilities": {"alwaysMatch": {
            "goog:chromeOptions": options, "goog:loggingPrefs": logs}}})["sessionId"]
        self.devtools("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme",
                                                                   "value": "dark" if dark else "light"}]})
        self.resize(width, 900)

    def post(self, path, value):
        request = urllib.request.Request(self.base + path, json.dumps(value).encode(),
                                         {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=120) as answer:
            return json.load(answer)["value"]

    def devtools(self, name, parameters):
        return self.post("/goog/cdp/execute", {"cmd": name, "params": parameters})

    def resize(self, width, height):
        self.devtools("Emulation.setDeviceMetricsOverride",
                      {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def open(self, page):
        start = time.monotonic()
        self.post("/url", {"url": "about:blank"})
        self.post("/url", {"url": f"file://{folder}/{page}"})
        return time.monotonic() - start

    def js(self, script):
        return self.post("/execute/sync", {"script": script, "args": []})

    def keys(self, *keys):
        actions = [{"type": kind, "value": key} for key in keys for kind in ("keyDown", "keyUp")]
        self.post("/actions", {"actions": [{"type": "key", "id": "keys", "actions": actions}]})

    def shoot(self, name, whole=True):
        size = self.devtools("Page.getLayoutMetrics", {})["cssContentSize"]
        clip = {"x": 0, "y": 0, "width": size["width"], "height": min(size["height"], 6000), "scale": 1}
        more = {"captureBeyondViewport": True, "clip": clip} if whole else {}
        with open(name + ".png", "wb") as file:
            file.write(base64.b64decode(self.devtools("Page.captureScreenshot", more)["data"]))

    def check_quiet(self, page):
        errors = [entry["message"] for entry in self.post("/se/log", {"type": "browser"})
                  if entry["level"] == "SEVERE"]
        check(not errors, f"{page}: {errors}")
        for entry in self.post("/se/log", {"type": "performance"}):
            message = json.loads(entry["message"])["message"]
            url = message["params"].get("request", {}).get("url", "")
            check(message["method"] != "Network.requestWillBeSent" or url.split(":")[0] in ("file", "data", "about"),
                  f"{page} loads {url}")

    def close(self):
        urllib.request.urlopen(urllib.request.Request(self.base, method="DELETE"), timeout=60).close()


checks = 0


def check(is_good, text):
    global checks
    checks += 1
    if not is_good:
        sys.exit(f"html: {text}")


ENTER, ESCAPE = "\ue007", "\ue00c"
SHOWN = "return [...document.querySelectorAll('.vectors tbody tr')].filter(row => !row.hidden).length"
SET = "const node = document.querySelector(\"%s\"); node.value = '%s'; node.dispatchEvent(new Event('%s', {bubbles: true}));"


def use_suite(browser):
    seconds = browser.open("suite.html")
    print(f"html: 1000 vectors open in {seconds:.2f} s")
    check(seconds < 10, "1000 vectors take more than 10 s")
    check(browser.js(SHOWN) == 1000, "not all vectors are shown")
    check(browser.js("return document.querySelector('h1').textContent") == "S " + EVIL, "a name is not shown as it is")
    check("1 newly failing, 1 newly passing, 0 no longer run, 1 appeared, 1 gone" ==
          browser.js("return document.querySelector('.changes').textContent"), "the changes are others")
    browser.shoot("suite", whole=False)
    # Filters
    browser.js(SET % ("select[name=result]", "Fail", "change"))
    check(browser.js(SHOWN) == 20, "the filter by result shows others")
    browser.js(SET % ("select[name=profile]", "High", "change"))
    check(browser.js(SHOWN) == 7, "the filter by profile shows others")
    browser.keys("/", *"0907")
    check(browser.js(SHOWN) == 1, "the filter by text shows others")
    browser.keys(ESCAPE)
    check(browser.js(SHOWN) == 1000, "Escape does not clear the filters")
    # Sorting
    times = "return [...document.querySelectorAll('.vectors td.time')].slice(0, 3).map(cell => cell.textContent)"
    click = "document.querySelectorAll('.vectors th button')[3].click();"
    check(browser.js(click + times)[0] == "0.010" and browser.js(click + times)[0] == "1.010", "not sorted by time")
    # Keys
    browser.js("document.querySelectorAll('.vectors th button')[0].click()")
    browser.js(SET % ("select[name=result]", "Fail", "change"))
    browser.js("document.activeElement.blur()")
    browser.keys("j", "j", "k", "j")
    second = browser.js("return document.activeElement.cells[0].textContent")
    browser.keys(ENTER)
    at = browser.js("return document.activeElement.closest('details[open]')?.textContent ?? ''")
    check(second in at, f"Enter does not open the failure of {second}")
    browser.shoot("suite-failure", whole=False)
    browser.keys(ESCAPE)
    check(browser.js("return document.querySelectorAll('.failure[open]').length") == 0, "Escape does not close it")
    check(browser.js("return document.activeElement.matches('tr')"), "Escape does not go back to the row")
    browser.check_quiet("suite.html")


def use_run(browser, name):
    browser.open("failed.html")
    loaded = "return [...document.images].every(image => image.complete && image.naturalWidth === 352)"
    check(browser.js(loaded) and browser.js("return document.images.length") == 6, "pictures are missing")
    clip = "return getComputedStyle(document.querySelector('.over')).clipPath"
    before = browser.js(clip)
    browser.js(SET % (".wipe", "80", "input"))
    check(browser.js(clip) != before, "the slider does not wipe")
    origin = "return document.querySelector('img.diff').style.transformOrigin.split(' ').map(parseFloat)"
    x, y = browser.js("document.querySelector('.zoom').click();" + origin)
    check(abs(x - 100 * 80 / 352) < .5 and abs(y - 100 * 8 / 288) < .5, f"zooms to {x}%, {y}%")
    browser.js("document.querySelector('.zoom').scrollIntoView()")
    browser.shoot(f"{name}-zoomed", whole=False)
    browser.js("document.querySelector('.zoom').click()")
    wrong = """const canvas = document.querySelector('canvas.grid'), seen = new Map();
        const bytes = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
        for (let i = 0; i < bytes.length; i += 4) seen.set(bytes[i], (seen.get(bytes[i]) ?? 0) + 1);
        return [canvas.width, canvas.height, Math.min(...seen.values())]"""
    check(browser.js(wrong) == [6, 5, 1], "the grid of frame 12 is another")
    browser.js(SET % (".heat input", "3", "input"))
    check(browser.js(wrong) == [6, 5, 5], "the grid of frame 15 is another")
    check(browser.js("return document.querySelectorAll('svg .edge').length") == 2, "the graph has other edges")
    check(browser.js("return document.querySelectorAll('svg .curve').length") > 3, "queues are missing")
    check(browser.js("return document.querySelector('.copy').closest('.command').textContent").count(EVIL) == 1,
          "the command is another")
    background = browser.js("return getComputedStyle(document.body).backgroundColor")
    check((background == "rgb(255, 255, 255)") == ("light" in name), f"{name}: the paper is {background}")
    check(browser.js("return document.documentElement.scrollWidth <= innerWidth"), f"{name}: wider than the window")
    browser.shoot(name)
    browser.check_quiet("failed.html")


make_reports()
driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          start_new_session=True)
try:
    port = next(line.split()[-1].rstrip(".") for line in driver.stdout if "started successfully on port" in line)
    for name, dark, width in (("light", False, 1280), ("dark", True, 1280), ("light-narrow", False, 400)):
        browser = Browser(port, dark, width)
        use_run(browser, name)
        for page in ("two.html", "run.html", "real.html"):
            browser.open(page)
            check(browser.js("return document.documentElement.scrollWidth <= innerWidth"), f"{page} is wider than {width}")
            browser.shoot(f"{page[:-5]}-{name}")
            browser.check_quiet(page)
        if name == "light":
            use_suite(browser)
        browser.close()
finally:
    os.killpg(driver.pid, signal.SIGKILL)
print(f"html: PASS, {checks} checks")

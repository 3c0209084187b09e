#!/usr/bin/python3
"""The receiver's page in a real browser: page_test.py BIN_DIR.

Chromium is driven over a pipe by the DevTools protocol. With TELEMETRY_SCREENSHOTS=DIR the pictures of the scenarios
go there.
"""
import base64
import hashlib
import hmac
import json
import os
import pathlib
import shutil
import ssl
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import urllib.request

BIN = sys.argv.pop(1) if len(sys.argv) > 1 and not sys.argv[1].startswith("-") else "build/release/bin"
SOURCE = pathlib.Path(__file__).resolve().parents[2]
CHROMIUM = shutil.which("chromium")
FLAGS = ("--headless --no-sandbox --disable-gpu --disable-background-networking --disable-component-update "
         "--disable-sync --no-first-run --disable-dev-shm-usage --remote-debugging-pipe --window-size=1200,1000").split()
HOSTILE = ["<script>document.title='taken'</script>", "\"'><img src=x onerror=alert(1)>", "\u202eecneuqes\u202c",
           "N" * 4000, "\u0000&lt;\n\t"]


class Browser:
    def __init__(self):
        self.profile = tempfile.mkdtemp(prefix="page")
        to_read, self.to = os.pipe()
        self.back, from_write = os.pipe()
        self.process = subprocess.Popen(
            ["sh", "-c", f'exec "$@" 3<&{to_read} 4>&{from_write}', "sh", CHROMIUM, *FLAGS,
             "--user-data-dir=" + self.profile, "about:blank"],
            pass_fds=(to_read, from_write), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_read)
        os.close(from_write)
        self.number, self.rest, self.events, self.session = 0, b"", [], None
        target = next(t for t in self.call("Target.getTargets")["targetInfos"] if t["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=target["targetId"], flatten=True)["sessionId"]
        for domain in ("Runtime", "Log", "Network", "Page"):
            self.call(domain + ".enable")

    def call(self, method, **parameters):
        self.number += 1
        order = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            order["sessionId"] = self.session
        os.write(self.to, json.dumps(order).encode() + b"\0")
        while True:
            while b"\0" not in self.rest:
                chunk = os.read(self.back, 1 << 16)
                if not chunk:
                    raise RuntimeError("the browser ended")
                self.rest += chunk
            text, self.rest = self.rest.split(b"\0", 1)
            message = json.loads(text)
            if message.get("id") == self.number:
                if "error" in message:
                    raise RuntimeError(f"{method}: {message['error']}")
                return message["result"]
            self.events.append(message)

    def value(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError(result["exceptionDetails"])
        return result["result"].get("value")

    def show(self, address, ready):
        self.call("Page.navigate", url="about:blank")
        self.call("Page.navigate", url=address)
        self.wait(ready)

    def wait(self, condition):
        end = time.monotonic() + 60
        while not self.value(f"Boolean({condition})"):
            if time.monotonic() > end:
                raise RuntimeError(f"never came: {condition}; {self.value('document.body.innerText')[:500]}")
            time.sleep(0.1)

    def size(self, width, height, scheme="light"):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])

    def faults(self):
        """Console errors, exceptions, refused content, and addresses asked for beside the page's own."""
        found, hosts = [], set()
        for event in self.events:
            kind, what = event.get("method"), event.get("params", {})
            if kind == "Runtime.exceptionThrown" or (kind == "Log.entryAdded" and what["entry"]["level"] == "error") or (
                    kind == "Runtime.consoleAPICalled" and what["type"] in ("error", "warning")):
                found.append(json.dumps(what)[:600])
            if kind == "Network.requestWillBeSent":
                hosts.add(urllib.parse.urlsplit(what["request"]["url"]).netloc)
        return found, hosts - {""}

    def picture(self, file):
        self.call("Page.bringToFront")
        data = self.call("Page.captureScreenshot", format="png")["data"]
        pathlib.Path(file).write_bytes(base64.b64decode(data))

    def close(self):
        self.process.terminate()
        self.process.wait(20)
        shutil.rmtree(self.profile, ignore_errors=True)


class Receiver:
    def __init__(self):
        self.directory = tempfile.mkdtemp(prefix="recv")
        self.process = subprocess.Popen([BIN + "/telemetry-receiver", "--dir", self.directory, "--page", "127.0.0.1:0"],
                                        stdout=subprocess.DEVNULL)
        port = pathlib.Path(self.directory, "port")
        while not port.exists():
            if self.process.poll() is not None:
                raise RuntimeError("the receiver does not start")
            time.sleep(0.05)
        self.base = f"https://127.0.0.1:{port.read_text().strip()}"
        self.page = f"http://127.0.0.1:{pathlib.Path(self.directory, 'page_port').read_text().strip()}/"
        self.trust = ssl.create_default_context(cafile=self.directory + "/ca.cer")

    def call(self, path, body, headers=None):
        request = urllib.request.Request(self.base + path, body.encode("utf-8", "surrogatepass"),
                                         {"Content-Type": "application/json", **(headers or {})})
        with urllib.request.urlopen(request, context=self.trust) as answer:
            return json.load(answer)

    def upload(self, device, records):
        key = self.call("/api/data/device/getAccessKey", json.dumps({"deviceId": device, "hwId": "H", "mac": "M"}))["result"]
        source = {"di": device, "dt": "HOMEWIFISYSTEM", "dhv": "1", "oemId": "O", "dfv": "1.0", "dm": "Model", "dcg": "router"}
        body = json.dumps({"sr": "device", "srp": source, "el": records})
        path, stamp = "/api/data/device/uploadBasicData", str(int(time.time()))
        digest = base64.b64encode(hashlib.md5(body.encode()).digest()).decode()
        signature = hmac.new(key["accessSecret"].encode(), f"{digest}\n{stamp}\n{path}".encode(), "sha1").hexdigest()
        answer = self.call(path, body, {"X-Authorization": f"Id={stamp},AccessKey={key['accessKey']},Signature={signature}"})
        if answer != {"error_code": 0}:
            raise RuntimeError(answer)

    def close(self):
        self.process.terminate()
        self.process.wait(20)
        shutil.rmtree(self.directory, ignore_errors=True)


def digest_of(mac):
    return hashlib.md5(mac.upper().replace(":", "-").encode()).hexdigest()


def records_of(scenario, hours=1):
    """The records that a scenario's mesh sends, an hour apart."""
    nodes = scenario["nodes"]
    ids = {node["device_id"]: digest_of(node["mac"]) for node in nodes}
    links = [node["driver"]["interfaces"].get("apclix0", {}).get("uplink", {}) for node in nodes]
    kinds = ["other", "pc", "phone", "laptop", "tablet", "entertainment", "printer", "iot_device"]
    clients = [{"mk": digest_of(one["mac"]), "am": ids[one["node"]], "type": kinds[one["client_type"]],
                "iname": None, "itype": one.get("iot_category"), "ctype": one["connection_type"],
                "ngtx": one.get("tx", -1), "ngrx": one.get("rx", -1), "sl": 50} for one in scenario["clients"]]
    now, records = int(time.time()), []
    for hour in range(hours):
        swing = abs(12 - hour % 24)
        records.append({"eid": "system_info", "ct": now - 3600 * (hours - 1 - hour), "ep": {"sl": [
            {"dm": ids[node["device_id"]], "cu": 12 + 3 * swing + i, "mu": 40 + i * 4 + swing, "natn": 200 + 20 * swing,
             "tem": {"w0": 50 + i + swing, "cpu": 45 + i + swing}} for i, node in enumerate(nodes)]}})
        records.append({"eid": "client_info", "ct": now - 3600 * (hours - 1 - hour),
                        "ep": {"cl": clients[:len(clients) - swing]}})
        records.append({"eid": "device_info", "ct": now - 3600 * (hours - 1 - hour), "ep": {"dl": [
            {"dm": ids[node["device_id"]], "dmodel": node["model"], "dnk": node.get("nickname", ""), "ddl": 1.6,
             "pm": ids.get(node.get("parent"), ""),
             "bh": [{"bt": "5G", "btx": link["tx"] - 9 * swing, "brx": link["rx"]}] if link else []}
            for node, link in zip(nodes, links)]}})
    records[-2]["ep"]["cl"] = clients
    return records


@unittest.skipUnless(CHROMIUM, "chromium is not installed")
class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.receiver, cls.browser = Receiver(), Browser()

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()
        cls.receiver.close()

    def check_quiet(self):
        found, hosts = self.browser.faults()
        self.assertEqual(found, [])
        self.assertEqual(hosts, {urllib.parse.urlsplit(self.receiver.page).netloc})

    def open_mesh(self, device):
        self.browser.show(f"{self.receiver.page}#mesh/{device}", "document.querySelector('.picture svg')")

    def test_scenarios_are_drawn_and_followed(self):
        for name in ("home", "large"):
            scenario = json.loads((SOURCE / "lab/scenarios" / (name + ".json")).read_text())
            device = scenario["nodes"][0]["device_id"]
            records = records_of(scenario, 25)
            self.receiver.upload(device, records[:60])
            self.receiver.upload(device, records[60:])
            self.open_mesh(device)
            count = self.browser.value
            self.assertEqual(count("document.querySelectorAll('.picture .node').length"), len(scenario["nodes"]))
            self.assertEqual(count("document.querySelectorAll('.picture .client').length"), len(scenario["clients"]))
            edges = count("[...document.querySelectorAll('.uplink')].map(e => e.dataset.from + e.dataset.to)")
            ids = {node["device_id"]: digest_of(node["mac"]) for node in scenario["nodes"]}
            self.assertEqual(sorted(edges), sorted(ids[node["parent"]] + ids[node["device_id"]]
                                                   for node in scenario["nodes"] if "parent" in node))
            self.assertEqual(count("document.querySelectorAll('.plot path.line').length"),
                             6 * len(scenario["nodes"]) + len(scenario["nodes"]) - 1)
            for width, height, scheme, part in ((1200, 1500, "light", ""), (400, 900, "dark", "-narrow")):
                self.browser.size(width, height, scheme)
                self.open_mesh(device)
                self.assertLessEqual(count("document.documentElement.scrollWidth"), width)
                if os.environ.get("TELEMETRY_SCREENSHOTS"):
                    self.browser.picture(f"{os.environ['TELEMETRY_SCREENSHOTS']}/page-{name}{part}.png")
            self.browser.size(1200, 1000)
        # A new upload shows without anybody's doing.
        scenario["nodes"][0]["nickname"] = "Renamed"
        self.receiver.upload(device, records_of(scenario))
        self.browser.wait("document.querySelector('.picture').textContent.includes('Renamed')")
        self.check_quiet()

    def test_names_stay_text_and_broken_records_are_borne(self):
        nodes = [{"dm": f"{i:032x}", "dmodel": name, "dnk": name, "pm": f"{(i + 1) % 5:032x}",
                  "bh": [{"bt": name, "btx": 5, "brx": name}]} for i, name in enumerate(HOSTILE)]
        clients = [{"mk": name, "am": f"{i:032x}", "type": name, "itype": name, "ctype": name} for i, name in enumerate(HOSTILE)]
        now = int(time.time())
        self.receiver.upload("HOSTILE", [{"eid": "device_info", "ct": now, "ep": {"dl": nodes}},
                                         {"eid": "client_info", "ct": now, "ep": {"cl": clients}},
                                         {"eid": "system_info", "ct": now, "ep": {"sl": [None, 7, {"dm": 3, "tem": "x"}], "cl": {}}}])
        self.open_mesh("HOSTILE")
        self.assertEqual(self.browser.value("document.querySelectorAll('main script, main img').length"), 0)
        self.assertIn(HOSTILE[0], self.browser.value("document.querySelector('#nodes-table').textContent"))
        self.assertNotIn("\u202e", self.browser.value("document.querySelector('.picture').textContent"))
        self.assertLess(self.browser.value("Math.max(...[...document.querySelectorAll('td')].map(e => e.textContent.length))"), 100)
        self.assertEqual(self.browser.value("document.title"), "Mesh HOSTILE")

        self.browser.show(f"{self.receiver.page}#records/HOSTILE", "document.querySelector('td a')")
        self.browser.value("[...document.querySelectorAll('td a')].find(a => a.textContent.includes('device_info')).click()")
        self.browser.wait("document.querySelector('#raw')")
        self.assertEqual(json.loads(self.browser.value("document.querySelector('#raw').textContent")), {"dl": nodes})
        self.browser.show(self.receiver.page, "document.querySelector('td a')")
        self.check_quiet()

    def test_answers_are_for_this_page_only(self):
        with urllib.request.urlopen(self.receiver.page) as answer:
            self.assertIn("default-src 'self'", answer.headers["Content-Security-Policy"])
        foreign = urllib.request.Request(self.receiver.page, headers={"Host": "elsewhere.example"})
        with self.assertRaises(urllib.error.HTTPError):
            urllib.request.urlopen(foreign)


if __name__ == "__main__":
    if not CHROMIUM:
        print("page_test: skipped, chromium is not installed")
        sys.exit(77)
    unittest.main()

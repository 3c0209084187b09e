"""Random cases of the bus daemon and the `ubus` command: a service, rights, who listens, subscribes and monitors.

A case is {"rights": {...} or None, "replies": {method: (bytes, status)}, "watch": [words], "watch_user": bool,
"steps": [[words]]}. Words that begin with "user:" run as a user who is not root.
"""

import contextlib
import json
import re
import select
import shlex
import socket
import subprocess
import time

from comparison.bus import T_INT32, T_STRING, T_TABLE, Service, member
from comparison.side import CASE_DIR

WAITS = "a monitor that sees wait_for look"
UNSEEN = "a monitor that sees a call of an object the caller may not see"
KNOWN = {
    WAITS: "ours looks up the names it waits for; the original asks for the list of all objects",
    UNSEEN: "the lookup succeeds without an id: ours calls 0, which nobody has; the original what was in the variable",
}

OBJECT = "svc.a"
SIGNATURE = b"".join(
    member(T_TABLE, method, b"".join(member(T_INT32, name, kind.to_bytes(4, "big")) for name, kind in arguments))
    for method, arguments in (("get", [("n", 5), ("text", 3), ("wide", 4), ("small", 6), ("flag", 7), ("t", 2), ("l", 1)]),
                              ("none", []), ("notify", []), ("fails", [("odd", 9)])))
USER = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
METHODS = ["get", "get", "get", "none", "fails", "notify", "absent", ""]
PATHS = ["svc.a", "svc.a", "svc.a", "svc.b", "svc.*", "*", "", "svc.a.b", "SVC.A"]
EVENTS = ["ev.a", "ev.b", "ev", "other", "ubus.object.add", "*", ""]
ARGUMENTS = ["{}", '{"n":1}', '{"text":"x","flag":true}', '{"l":[1,"a",{}],"t":{"x":null}}', "[1]", "junk", "", '{"n":',
             '{"d":1.5,"wide":9999999999}', '{"":1}', '{"n":1,"n":2}']
GRANTS = {"methods": ["get", "none", "notify"]}
READY, START, END = "case.ready", "case.start", "case.end"
USAGE = re.compile(r"Usage: ubus .*", re.DOTALL)  # ours in words and order
PATIENCE = 5  # seconds for what the bus should do at once


def some(random, values):
    return [value for value in values if random.random() < 0.4]


def make_rights(random):
    if random.random() < 0.3:
        return None
    access = {name: {"methods": some(random, [*GRANTS["methods"], "fails", "*"])}
              for name in some(random, ["svc.a", "svc.*", "svc.b", "*"])}
    rights = {random.choice(["user", "user", "user", "group"]): random.choice(["nobody", "nobody", "nogroup", "root"]),
              "access": access}
    for word in ("listen", "send", "subscribe", "publish"):
        if random.random() < 0.6:
            rights[word] = some(random, ["ev.*", "ev.a", "*", "svc.*", "case.*"])
    return rights


def make_step(random):
    options = [option for option in ("-v", "-S") if random.random() < 0.2]
    word = random.choice(["list", "call", "call", "call", "send", "send", "wait_for", "other"])
    if word == "list":
        words = [*options, "list", *random.choice([[], [], [random.choice(PATHS)], [OBJECT, OBJECT]])]
    elif word == "call":
        words = [*options, "call", random.choice(PATHS), random.choice(METHODS)]
        words += random.choice([[], [random.choice(ARGUMENTS)], [random.choice(ARGUMENTS)]])
    elif word == "send":
        words = [*options, "send", random.choice(EVENTS), *random.choice([[], [random.choice(ARGUMENTS)]])]
    elif word == "wait_for":
        words = ["wait_for", OBJECT]
    else:
        words = random.choice([[], ["nonsense"], ["call"], ["call", OBJECT], ["send"], ["list", "-x"], ["wait_for"],
                               ["subscribe"], ["subscribe", "svc.b"], ["call", OBJECT, "get", "{}", "{}"]])
    return ["user:", *words] if random.random() < 0.3 else words


def make_watch(random):
    kind = random.choice(["listen", "listen", "subscribe", "subscribe", "monitor", None])
    if kind == "listen":
        return ["listen", "case.*", *some(random, ["ev.*", "ev.a", "*", "ubus.object.*"])]
    if kind == "subscribe":
        return ["subscribe", OBJECT]
    return ["monitor", *random.choice([[], ["-M", "r"], ["-m", "invoke", "-m", "lookup"]])] if kind else []


def make(random):
    fails = random.randrange(15)
    return {
        "rights": make_rights(random),
        "replies": {"get": (member(T_STRING, "text", b"a value\0"), 0), "none": (None, 0), "notify": (None, 0),
                    "fails": (random.choice([None, b""]), fails)},
        "watch": make_watch(random),
        "watch_user": random.random() < 0.3,
        "steps": [make_step(random) for _ in range(random.randrange(1, 4))],
    }


def wait_until(condition):
    """Whether it came true in time."""
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.002)
    return True


def bus_answers(path):
    with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as client:
        client.connect(str(path))
        return True
    return False


@contextlib.contextmanager
def process(side, words, output=subprocess.DEVNULL):
    started = subprocess.Popen(words, cwd=CASE_DIR, env=side.env, stdin=subprocess.DEVNULL, stdout=output, bufsize=0,
                               stderr=subprocess.STDOUT)
    try:
        yield started
    finally:
        started.kill()
        started.wait()
        if started.stdout:
            started.stdout.close()


class Watch:
    """`ubus listen`, `subscribe` or `monitor` beside a case's steps. Marks show when it hears and when all was told."""

    def __init__(self, words, service, program):
        self.program, self.printed, self.ended = program, b"", False
        self.mark = {"listen": service.event, "subscribe": service.notify, "monitor": service.lookup}[words[0]]

    def read_until(self, word, end):
        """Whether the word was printed, or nothing will be any more."""
        while word not in self.printed and not self.ended:
            if not select.select([self.program.stdout], [], [], max(0, end - time.monotonic()))[0]:
                return False
            more = self.program.stdout.read(65536)
            self.printed, self.ended = self.printed + more, not more
        return True

    def tell(self, mark):
        """Until it is seen: who just begins to watch has missed the first."""
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            self.mark(mark)
            if self.read_until(mark.encode(), time.monotonic() + 0.02):
                break

    def begin(self):
        self.tell(READY)
        self.mark(START)

    def end(self):
        """What was printed between the marks, or why nothing was."""
        self.tell(END)
        text = self.printed.decode("latin-1")
        text = text.partition(START)[2].partition(END)[0] if START in text else text
        return f"{self.program.wait() if self.ended else None}\n{comparable(text)}"


def without_ids(text):
    """Ids are random: they become their number in the order in which they are first met."""
    known = {}

    def renamed(match):
        decimal = match[1].startswith('"')
        key = int(match[2], 10 if decimal else 16) & 0xFFFFFFFF
        return match[1] + (f"({known.setdefault(key, len(known) + 1)})" if key >= 1024 else match[2])

    text = re.sub(r'("objid":|"objtype":|"object":)(-?\d+)', renamed, text)
    return re.sub(r"(@|<- |-> |#)([0-9a-f]{8})", renamed, text)


def comparable(text):
    return without_ids(USAGE.sub("(usage)", text))


def run(side, case, _):
    directory = side.fresh_dir()
    (directory / "acl").mkdir()
    if case["rights"] is not None:
        (directory / "acl/case.json").write_text(json.dumps(case["rights"]))
    path = directory / "bus"
    with process(side, ["ubusd", "-s", str(path), "-A", str(directory / "acl")]):
        if not wait_until(lambda: bus_answers(path)):
            return {"bus": "does not start"}
        service = Service(path, OBJECT, SIGNATURE, case["replies"])
        try:
            return run_on(side, case, service)
        finally:
            service.close()


def command_line(words):
    user = words[:1] == ["user:"]
    return [*(USER if user else []), "ubus", "-s", str(CASE_DIR / "bus"), "-t", "1", *words[1 if user else 0:]]


def run_on(side, case, service):
    lines = [shlex.join(command_line(words)).encode("latin-1") for words in case["steps"]]
    with contextlib.ExitStack() as stack:
        watch = None
        if case["watch"]:
            words = command_line(["user:", *case["watch"]] if case["watch_user"] else case["watch"])
            del words[words.index("-t"): words.index("-t") + 2]
            watch = Watch(case["watch"], service, stack.enter_context(process(side, words, subprocess.PIPE)))
            watch.begin()
        result = {label: comparable(text) for label, text in side.run_steps(lines).items()}
        if watch:
            result["watch"] = watch.end()
    return result


def without_called(text):
    """What a monitor saw, but for who was called and all numbers that stand for ids."""
    return re.sub(r'#\S+|"objid":[^,}]*|\(\d+\)', "", text or "")


def classify(case, label, ours, original):
    number, _, part = label.partition(" ")
    if case["watch"][:1] == ["monitor"] and label == "watch" and any("wait_for" in words for words in case["steps"]):
        return WAITS
    if label == "watch" and without_called(ours) == without_called(original):
        return UNSEEN
    if not part:
        return f"{label} {' '.join(case['watch'][:1])}"
    words = [word for word in case["steps"][int(number)] if not word.startswith("-")]
    return f"{' '.join(words[:2] if words[:1] == ['user:'] else words[:1])} {part}"

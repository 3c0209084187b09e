"""Random cases of the `uci` command: files, staged changes and overrides, a few commands, and what is left."""

import shlex

KNOWN = {}


def make(random):
    return {"files": {"conf/p": b"config a 's'\n\toption o '1'\n"}, "steps": [[b"show", b"p"]]}


def run(side, case, state):
    directory = side.fresh_dir()
    for name, content in case["files"].items():
        path = directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    lines = [b"uci -c conf " + b" ".join(shlex.quote(word.decode("latin-1")).encode("latin-1") for word in step)
             for step in case["steps"]]
    return side.run_steps(lines) | side.read_tree(directory / "conf", "conf")


def classify(case, label, ours, original):
    return f"{case['steps'][0][0].decode()} {label.split()[-1]}"

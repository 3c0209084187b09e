"""One of the two sides of a comparison: where its programs are, and how a script of shell lines runs on it."""

import contextlib
import os
import select
import shutil
import signal
import subprocess
import time
from pathlib import Path

CASE_DIR = Path("/tmp/case")  # the same on both sides, so that no path differs; in a private /tmp
TIMEOUT = 10  # seconds for the script of one case
OUTPUT_LIMIT = 1 << 20  # bytes kept of each output


def text(data):
    """Any bytes as a string that can be compared, printed and stored."""
    return data.decode("latin-1")


class Side:
    """`name` is "ours" or "original"; `env` finds the side's `uci`, `ubus` and `ubusd` by their bare names."""

    def __init__(self, name, paths, libraries):
        self.name = name
        self.shell = None
        self.env = {"PATH": ":".join([*map(str, paths), "/usr/bin", "/bin"]), "LC_ALL": "C"}
        if libraries:
            self.env["LD_LIBRARY_PATH"] = str(libraries)

    def fresh_dir(self):
        """An empty CASE_DIR."""
        shutil.rmtree(CASE_DIR, ignore_errors=True)
        CASE_DIR.mkdir()
        return CASE_DIR

    def run_steps(self, lines, directory=CASE_DIR):
        """Runs shell lines (bytes) one after the other in `directory`.

        Returns {"0 status": .., "0 out": .., "0 err": .., "1 status": ..}; a step that did not end has the status
        "hangs", one that a signal ended 128 and its number.
        """
        script = b"cd %s\n" % os.fsencode(directory) + b"".join(
            b"{ %s\n} </dev/null >.o%d 2>.e%d\necho $?\n" % (line, i, i) for i, line in enumerate(lines)
        )
        statuses = self._run_script(script, len(lines))
        result = {}
        for i in range(len(lines)):
            result[f"{i} status"] = statuses[i] if i < len(statuses) else "hangs"
            result[f"{i} out"] = self._take(directory / f".o{i}", "")
            result[f"{i} err"] = self._take(directory / f".e{i}", "")
        return result

    def _run_script(self, script, count):
        """The lines that a script printed, when it prints so many in time. One shell runs the scripts of all cases."""
        if self.shell is None:
            self.shell = subprocess.Popen(["/bin/sh"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0,
                                          stderr=subprocess.DEVNULL, env=self.env, start_new_session=True)
        printed, end = b"", time.monotonic() + TIMEOUT
        with contextlib.suppress(BrokenPipeError):
            self.shell.stdin.write(script)
        while printed.count(b"\n") < count:
            ready = select.select([self.shell.stdout], [], [], max(0, end - time.monotonic()))[0]
            more = self.shell.stdout.read(4096) if ready else b""
            if not more:
                os.killpg(self.shell.pid, signal.SIGKILL)
                self.shell.wait()
                self.shell = None
                break
            printed += more
        return text(printed).split()

    def read_tree(self, top, label):
        """{"label/path": content} of every file below `top`, in order of their paths."""
        result = {}
        for folder, _, names in sorted(os.walk(top)):
            for name in sorted(names):
                path = Path(folder) / name
                content = self._take(path, "unreadable")
                result[f"{label}/{path.relative_to(top)}"] = content
        return result

    @staticmethod
    def _take(path, otherwise):
        try:
            with open(path, "rb", buffering=0) as stream:
                return text(stream.read(OUTPUT_LIMIT))
        except OSError:
            return otherwise

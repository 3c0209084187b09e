"""One of the two sides of a comparison: where its programs are, and how a script of shell lines runs on it."""

import os
import shutil
import subprocess
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
        script = b"".join(
            b"{ %s\n} </dev/null >.o%d 2>.e%d\necho $? >.s%d\n" % (line, i, i, i) for i, line in enumerate(lines)
        )
        try:
            subprocess.run(["/bin/sh", "-s"], input=script, cwd=directory, env=self.env, timeout=TIMEOUT,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False,
                           start_new_session=True)
        except subprocess.TimeoutExpired:
            pass
        result = {}
        for i in range(len(lines)):
            result[f"{i} status"] = self._take(directory / f".s{i}", "hangs").strip()
            result[f"{i} out"] = self._take(directory / f".o{i}", "")
            result[f"{i} err"] = self._take(directory / f".e{i}", "")
        return result

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
            with open(path, "rb") as stream:
                return text(stream.read(OUTPUT_LIMIT))
        except OSError:
            return otherwise

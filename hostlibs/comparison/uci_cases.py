"""Random cases of the `uci` command: files, staged changes and overrides, a few commands, and what is left.

A case is {"files": {path: bytes}, "steps": [([words], input)]}. Paths are below the case's directory, but "staged/"
stands for the default directory of staged changes and "overrides/" for the default one of overrides.
"""

import re
import shlex
import shutil
from pathlib import Path

CUT_STAGED = "a staged file that ends within a line"
MARKED_TYPE = "a section type with quotes or marks"
ZERO_BYTE = "a zero byte in a line of more than 30 bytes"
FOREIGN_LINE = "revert with another package's line in the staged file"
KNOWN = {
    CUT_STAGED: "ours sets aside what a crash left half written; the original appends to it, and loses both",
    MARKED_TYPE: "ours writes it quoted; the original writes it bare, and then reads another type or none at all",
    ZERO_BYTE: "the original goes on behind the byte or in the next line, as its buffer happens to be; ours in the next",
    FOREIGN_LINE: "ours keeps the line; the original makes it a change of this package",
}

# What is whole of a change: escaped characters and quoted pieces.
WHOLE = re.compile(rb"""\\.|'[^']*'|"(?:\\.|[^"\\])*\"""", re.DOTALL)
MARKED = re.compile(r"""['"\\#;\s]""")
MARKED_CHANGE = re.compile(rb"""^\+?[\w-]+\.\w+='(?:[^'\n]*["\\#;]|[^'\n]*'[^\n])""", re.MULTILINE)

DEFAULT_DIRS = {"staged": Path("/tmp/.uci"), "overrides": Path("/var/run/uci")}
DIRS = ["conf", "own", "other", "var"]  # of -c, of -t and -P, of -p, of -C

TYPES = ["a", "b", "zone"]
SECTIONS = ["s", "t", "cfg01b606", "cfg02b606", "cfg03dc81"]
OPTIONS = ["o", "q", "l", "m"]
VALUES = ["1", "2", "x", "two words", "it's", "", 'say "x"', "a#b", "a;b", "back\\slash", "l1\nl2", "\ttab", "\xc3\xa4",
          "a=b.c", "\x01", "\x7f", "'", "\\", "-1", "0"]
ODD_NAMES = ["o-p", "s t", "", "@x", "s.t", "\xe4", "x" * 200, "package", "'", "1"]
EXTENDED = ["@a[0]", "@a[-1]", "@b[0]", "@zone[1]", "@[0]", "@[-1]", "@a[]", "@a[", "@a", "@a[0]x", "@a[9]", "@a[-9]",
            "@a[1x]", "@a[ 1]", "@a[+0]", "@"]
# What a text is made of that need not be good.
PIECES = ["config", "option", "list", "package", "c", "o", "l", "p", "conf", "'config'", "a", "s", "t", "b", "zone", "q",
          "m", "1", "'x'", '"y"', "''", '""', "'", '"', "\\", "\\\n", "\n", "\n", "\n", "\n", "\n", ";", " ; ", "#", "\t",
          " ", " ", " ", " ", " ", "\r\n", "\v", "'a b'", '"a\\"b"', '"a\\\nb"', "'l1\nl2'", "it\\'s", "o-p", "\0", "\x01",
          "\xff", "x#y", "\\#", "'x';", "=", "."]


NOT_COMPARED = [
    # The list of commands and options is ours in words and order.
    (re.compile(r"Usage: uci .*", re.DOTALL), "(usage)"),
    # After a parse error the original repeats its details behind every later error of the same process, and an empty line
    # more each time.
    (re.compile(r"^(uci: (?!Parse error)[^(\n]*?)( \(.*\) at line \d+, byte \d+)?\n\n+", re.MULTILINE), r"\1\n"),
]


def quoted(value):
    return "'" + value.replace("'", "'\\''") + "'"


def good_text(random):
    """A file as people and programs write it."""
    lines = []
    for _ in range(random.randrange(4)):
        name = random.choice(["", "", *(" " + quoted(name) for name in SECTIONS)])
        lines.append(f"config {random.choice(TYPES)}{name}")
        for _ in range(random.randrange(4)):
            word = random.choice(["option", "option", "list"])
            lines.append(f"\t{word} {random.choice(OPTIONS)} {quoted(random.choice(VALUES))}")
        if random.random() < 0.1:
            lines.append(random.choice(["# comment", "", "config", "option o-p '1'", "junk", "package q"]))
    return "\n".join(lines) + random.choice(["\n", "\n", "\n", ""])


def pieces_text(random):
    """A text that may be anything, mostly with a good start."""
    start = random.choice(["", "config a 's'\n", "config a 's'\noption o '1'\n", "config a\n"])
    return start + "".join(random.choice(PIECES) for _ in range(random.randrange(1, 14)))


def file_text(random):
    return good_text(random) if random.random() < 0.7 else pieces_text(random)


def section_name(random, extended):
    return random.choice(SECTIONS + SECTIONS + EXTENDED[:6 if random.random() < 0.7 else None] if extended else SECTIONS)


def place(random, extended=True):
    """package.section.option, cut anywhere, sometimes odd."""
    package = random.choice(["p"] * 8 + ["q", "none", "bad"] + (["o-p", "", "../p", "x.y"] if extended else []))
    parts = [package, section_name(random, extended), random.choice(OPTIONS)][: random.choice([1, 2, 2, 3, 3, 3, 3])]
    if random.random() < 0.05:
        parts[random.randrange(len(parts))] = random.choice(ODD_NAMES)
    return ".".join(parts)


def staged_line(random):
    if random.random() < 0.1:
        return pieces_text(random)
    prefix = random.choice(["", "", "", "+", "-", "@", "^", "|", "~", "?"])
    value = random.choice([*VALUES, *TYPES, *SECTIONS, *OPTIONS])
    assigned = "" if random.random() < 0.1 or prefix == "-" and random.random() < 0.7 else "=" + quoted(value)
    end = "\n" if random.random() < 0.97 else random.choice(["", " junk\n", " ; p.s.o='1'\n", "'\n", "\0\n"])
    return prefix + place(random, random.random() < 0.1) + assigned + end


def staged_text(random):
    return "".join(staged_line(random) for _ in range(random.randrange(1, 4)))


def make_files(random):
    files = {"conf/p": file_text(random)}
    for name, share, text in (("conf/q", 0.3, good_text), ("conf/bad", 0.1, pieces_text), ("conf/x.y", 0.05, good_text),
                              ("conf/sub/p", 0.05, good_text), ("staged/p", 0.25, staged_text),
                              ("own/p", 0.25, staged_text), ("other/p", 0.25, staged_text), ("var/p", 0.1, file_text),
                              ("overrides/p", 0.1, file_text), ("overrides/q", 0.05, good_text)):
        if random.random() < share:
            files[name] = text(random)
    return {name: text.encode("latin-1") for name, text in files.items()}


def value_of(random, word):
    if word == "rename":
        return random.choice([*SECTIONS, *OPTIONS, *ODD_NAMES])
    if word == "reorder":
        return random.choice(["0", "1", "2", "9", "-1", "x", ""])
    if word == "delete":
        return random.choice(["0", "1", "9", "-1", "x", "", "1x"])
    return random.choice(VALUES)


def make_command(random):
    """One command with its arguments, and its input."""
    word = random.choice(["show", "show", "get", "set", "set", "set", "add", "add_list", "del_list", "delete", "rename",
                          "reorder", "commit", "commit", "revert", "changes", "export", "import"])
    text = ""
    if word == "add":
        arguments = [random.choice(["p", "p", "p", "q", "none", "p.s", "bad"]), random.choice([*TYPES, "x'y", "a b", ""])]
    elif word == "import":
        arguments = random.choice([[], ["p"], ["q"], ["new"], ["o-p"], ["a.b"]])
        text = random.choice(["", "package p\n", "package new\n", "package p\n\n"]) + file_text(random)
        text += random.choice(["", "", "package q\n", "package p\n"]) + good_text(random)
    elif word in ("show", "commit", "changes", "export"):
        arguments = random.choice([[], [place(random)], [place(random)], ["p"]])
    else:
        arguments = [place(random)]
        with_value = 0.95 if word in ("set", "add_list", "del_list", "rename", "reorder") else 0.1
        if random.random() < with_value:
            of_section = word == "set" and arguments[0].count(".") == 1 and random.random() < 0.9
            arguments[0] += "=" + (random.choice(TYPES) if of_section else value_of(random, word))
    if random.random() < 0.03:
        word, arguments = random.choice([("help", []), ("nonsense", ["p"]), (word, []), (word, arguments + ["more"]),
                                         ("", []), (word, [""])])
    return [word, *arguments], text


def make_batch(random):
    lines = []
    for _ in range(random.randrange(1, 5)):
        words, _ = make_command(random)
        if words[0] == "import":
            continue
        line = " ".join(quoted(word) if random.random() < 0.8 else word for word in words)
        lines.append(line + random.choice(["\n"] * 8 + [" # comment\n", " ; show p\n", "\n\n", " \\\n", ";\n", ""]))
        if random.random() < 0.1:
            lines.append(random.choice(["exit\n", "EXIT now\n", "# comment\n", "show 'p\n", "a b c d\n", "a b c d e f\n",
                                        "'' show\n", "\\show p\n", "show\0 p\n"]))
    return ["batch"], "".join(lines)


def make(random):
    options = [[], [], ["-t", "own"], ["-t", "own"], ["-P", "own"]][random.randrange(5)]
    options = options + random.choice([[], [], ["-p", "other"]]) + random.choice([[], ["-C", "var"]])
    steps = []
    for _ in range(random.randrange(1, 4)):
        words, text = make_batch(random) if random.random() < 0.2 else make_command(random)
        more = [option for option in ("-n", "-N", "-X", "-q", "-S", "-s", "-m", "-d,", "-Z") if random.random() < 0.03]
        if words[0] == "import" and random.random() < 0.3:
            more.append("-m")
        steps.append(([*options, *more, *words], text.encode("latin-1")))
    return {"files": make_files(random), "steps": steps}


def actual_path(directory, name):
    top, _, rest = name.partition("/")
    return DEFAULT_DIRS.get(top, directory / top) / rest


def run(side, case, _):
    directory = side.fresh_dir()
    for folder in DEFAULT_DIRS.values():
        shutil.rmtree(folder, ignore_errors=True)
    for folder in DIRS[1:]:
        if any(name.startswith(folder) for name in case["files"]):
            (directory / folder).mkdir()
    for name, content in case["files"].items():
        path = actual_path(directory, name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    lines = []
    for i, (words, text) in enumerate(case["steps"]):
        (directory / f".i{i}").write_bytes(text)
        line = " ".join(shlex.quote(word) for word in ["uci", "-c", "conf", *words])
        lines.append(line.encode("latin-1") + b" <.i%d" % i)
    result = side.run_steps(lines)
    for label in result:
        for pattern, plain in NOT_COMPARED:
            result[label] = pattern.sub(plain, result[label])
        if label.endswith("err") and "batch" in case["steps"][int(label.split()[0])][0]:
            # Ours counts the lines of the batch, the original those since it last read a package.
            result[label] = re.sub(r"(unterminated .|unknown)\) at line \d+", r"\1) at line (n)", result[label])
    for folder in DIRS:
        result |= side.read_tree(directory / folder, folder)
    for name, folder in DEFAULT_DIRS.items():
        result |= side.read_tree(folder, name)
    return result


def command_of(words):
    with_value = ("-t", "-P", "-p", "-C")
    plain = [word for i, word in enumerate(words) if not word.startswith("-") and (i == 0 or words[i - 1] not in with_value)]
    return plain[0] if plain else ""


def staged_contents(case):
    return [content for name, content in case["files"].items() if name.split("/")[0] in ("staged", "own", "other")]


def ends_quoted(content):
    """Whether some line of a staged file, read as the start of a change, leaves a quote open."""
    lines = content.split(b"\n")
    rests = (WHOLE.sub(b"", b"\n".join(lines[i:])) for i in range(len(lines)))
    return any(b"'" in rest or b'"' in rest for rest in rests)


def has_marked_type(case):
    """Whether a change gives a section a type that is no plain word."""
    words = [word for words, _ in case["steps"] for word in words]
    batches = [text.decode("latin-1") for _, text in case["steps"]]
    return (any(MARKED_CHANGE.search(content) for content in staged_contents(case))
            or "add" in words and bool(MARKED.search(words[-1]))
            or any(MARKED.search(word.partition("=")[2]) for word in words if word.partition("=")[0].count(".") == 1)
            or any(re.search(r"add .*[\"'\\] *\w*[\"'\\]", text) for text in batches))


def known_class(case, label, ours, original):
    commands = {command_of(words) for words, _ in case["steps"]}
    staged = staged_contents(case)
    texts = [*case["files"].values(), *(text for _, text in case["steps"])]
    lines = [line for content in texts for line in content.replace(b"\\\n", b"").split(b"\n")]
    if any(b"\0" in line and len(line) > 30 for line in lines):
        return ZERO_BYTE
    if has_marked_type(case) and ("Parse error" in (original or "") or label.endswith("status")):
        return MARKED_TYPE
    cut = any(not content.endswith(b"\n") or ends_quoted(content) for content in staged)
    if cut and commands - {"show", "get", "export", "changes", "commit", "revert"}:
        return CUT_STAGED
    reverts = "revert" in commands or any(b"revert" in text for _, text in case["steps"])
    if reverts and any(re.search(rb"^.?(?!p\.)[^'\n]*\.", content, re.MULTILINE) for content in staged):
        return FOREIGN_LINE
    if re.search("^config '", ours or "", re.MULTILINE):
        return MARKED_TYPE
    return None


def classify(case, label, ours, original):
    known = known_class(case, label, ours, original)
    if known:
        return known
    number, _, part = label.partition(" ")
    if not part:
        commands = sorted({command_of(words) for words, _ in case["steps"]})
        return f"{label.split('/')[0]} after {'+'.join(commands)}"
    return f"{command_of(case['steps'][int(number)][0])} {part}"

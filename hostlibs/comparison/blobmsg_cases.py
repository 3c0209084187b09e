"""Random named values: replies of a service as `ubus call` prints them, and JSON texts as they come out of the bus again."""

import json
import struct

from comparison import ubus_cases
from comparison.bus import (T_ARRAY, T_DOUBLE, T_INT8, T_INT16, T_INT32, T_INT64, T_STRING, T_TABLE, attribute,
                            member)

NAMELESS = "a value without the head of a name in a reply"
KNOWN = {NAMELESS: "ours takes it for one of an unknown type; the original takes its bytes for a name, or reads behind it"}

NAMES = ["a", "b", "", "two words", 'q"', "\xc3\xa4", "\xff", "\n", "n" * 40]
TEXTS = ["", "x", 'say "x"', "back\\slash", "l1\nl2", "\t\r\b\f\v", "\x01\x1f\x7f", "\xc3\xa4", "\xff", "</a>", "z" * 300]
NUMBERS = [0, 1, -1, 127, -128, 255, 32767, -32768, 2**31 - 1, -2**31, 2**31, 2**32, 2**53 + 1, 2**63 - 1, -2**63, 2**63, 2**70]
REALS = [0.0, -0.0, 1.5, -1.25, 1e300, 1e-300, 1e21, 0.1, 1 / 3, 123456789.123456789, float("inf"), float("-inf"), float("nan")]
INTEGERS = {T_INT64: 8, T_INT32: 4, T_INT16: 2, T_INT8: 1}


def value(random, depth):
    kind = random.choice([T_ARRAY, T_TABLE, T_STRING, T_STRING, T_INT64, T_INT32, T_INT16, T_INT8, T_DOUBLE, 0, 9])
    name = random.choice(NAMES)
    if kind in INTEGERS:
        size = INTEGERS[kind]
        return kind, name, (random.choice(NUMBERS) % 2 ** (8 * size)).to_bytes(size, "big")
    if kind == T_STRING:
        return kind, name, random.choice(TEXTS).encode("latin-1") + b"\0"
    if kind == T_DOUBLE:
        return kind, name, struct.pack(">d", random.choice(REALS))
    if kind in (T_ARRAY, T_TABLE):
        inner = [value(random, depth - 1) for _ in range(random.randrange(4) if depth else 0)]
        return kind, name, b"".join(packed(random, kind == T_ARRAY, one) for one in inner)
    return kind, name, bytes(random.randrange(3))


def packed(random, in_array, one):
    kind, name, data = one
    whole = member(kind, "" if in_array and random.random() < 0.95 else name, data)
    if random.random() < 0.98:
        return whole
    return random.choice([member(kind, name, data[:-1]), member(kind, name, data + b"\0more"), whole[:-4], whole[:4],
                          attribute(kind, data), b"\0\0\0\0", b"\xff" * 4])


def json_value(random, depth):
    kind = random.randrange(7 if depth else 5)
    if kind >= 5:
        inner = [json_value(random, depth - 1) for _ in range(random.randrange(4))]
        return inner if kind == 5 else {random.choice(NAMES): one for one in inner}
    if kind < 3:
        return random.choice([TEXTS, NUMBERS, REALS[:-3]][kind])
    return random.choice([True, False, None])


def json_text(random):
    text = json.dumps({random.choice(NAMES): json_value(random, 3) for _ in range(random.randrange(4))},
                      ensure_ascii=random.random() < 0.5)
    if random.random() < 0.1:
        at = random.randrange(len(text))
        text = text[:at] + random.choice(["", "", ",", "}", "]", "'", "1e999", "0x10", "/* */", "NaN", " ", "\\u0000",
                                          "\\ud800", "\x01"]) + text[at + random.randrange(2):]
    return text


def make(random):
    reply = b"".join(packed(random, False, value(random, 3)) for _ in range(random.randrange(1, 4)))
    if random.random() < 0.02:
        for level in range(random.choice([10, 17, 40])):
            reply = member(T_TABLE, "deep", reply)
    case = {
        "rights": None,
        "replies": {"get": (reply, 0), "notify": (None, 0)},
        "watch": ["listen", "case.*", "ev.*"],
        "watch_user": False,
        "steps": [["call", "svc.a", "get"], ["-S", "call", "svc.a", "get"], ["send", "ev.a", json_text(random)],
                  ["send", "ev.a", json_text(random)]],
    }
    return case


run = ubus_cases.run


def has_nameless(data):
    """Whether some value, at any depth, does not begin with a name that fits into it."""
    at = 0
    while at + 4 <= len(data):
        word = struct.unpack_from(">I", data, at)[0]
        length = word & 0xFFFFFF
        inner = data[at + 4: at + length]
        if length < 4 or at + length > len(data):
            return False
        if not word >> 31 or len(inner) < 4 or int.from_bytes(inner[:2], "big") + 3 > len(inner):
            return True
        head = int.from_bytes(inner[:2], "big") + 3
        if word >> 24 & 0x7F in (T_ARRAY, T_TABLE) and has_nameless(inner[head + -head % 4:]):
            return True
        at += length + -length % 4
    return False


def classify(case, label, ours, original):
    if label in ("0 out", "1 out") and has_nameless(case["replies"]["get"][0]):
        return NAMELESS
    return ubus_cases.classify(case, label, ours, original)

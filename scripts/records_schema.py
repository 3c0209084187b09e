#!/usr/bin/env python3
"""docs/records.schema.json, made from the tables of docs/records.md: those are the only source.

  scripts/records_schema.py                writes the schema
  scripts/records_schema.py --check FILE   quiet when the schema is what the tables say, and the upload in FILE fits it
                                           and has every key that the tables list
"""
import json
import pathlib
import sys

DOCS = pathlib.Path(__file__).resolve().parents[1] / "docs"
SCHEMA = DOCS / "records.schema.json"
DIGEST = "[0-9a-f]{32}"
# The words of the column "Type".
TYPES = {
    "integer": {"type": "integer"},
    "number": {"type": "number"},
    "switch": {"enum": [0, 1]},
    "text": {"type": "string"},
    "text or null": {"type": ["string", "null"]},
    "digest": {"type": "string", "pattern": f"^{DIGEST}$"},
    "digest or empty": {"type": "string", "pattern": f"^({DIGEST})?$"},
    "list of text": {"type": "array", "items": {"type": "string"}},
    "payload": {"type": "object"},
}


def new_object():
    return {"type": "object", "properties": {}, "additionalProperties": False}


def add_row(section, cells):
    """A row of a table becomes a member of the object that its path leads to."""
    key, kind, unit, sent, source, meaning, example = cells
    *way, name = key.strip("`").split(".")
    place = section
    for step in way:
        place = place["properties"][step.removesuffix("[]")]
        place = place["items"] if step.endswith("[]") else place
    if kind == "object":
        member = new_object()
    elif kind == "list":
        member = {"type": "array", "items": new_object()}
    else:
        member = dict(TYPES[kind])
    text = meaning + (f" ({unit})" if unit else "") + (f"; from {source}" if source else "")
    member["description"] = text.replace("`", "")
    if example:
        member["examples"] = [json.loads(example.strip("`"))]
    group = "patternProperties" if name.endswith("*") else "properties"
    name = "^" + name[:-1] if name.endswith("*") else name
    if not sent or name in place.setdefault(group, {}):
        raise ValueError("no word when it is sent, or twice there")
    place[group][name] = member
    if sent == "always":
        place.setdefault("required", []).append(name)


def read_tables(text):
    sections, section = {}, None
    for line in text.splitlines():
        if line.startswith("## "):
            section = sections.setdefault(line[4:-1], new_object()) if line.startswith("## `") else None
        elif line.startswith("| `"):
            try:
                add_row(section, [cell.strip() for cell in line.strip("|").split("|")])
            except (TypeError, ValueError, KeyError) as error:
                sys.exit(f"docs/records.md: {error!r} in {line}")
    return sections


def make_schema(text):
    records = read_tables(text)
    body = records.pop("body")
    record = body["properties"]["el"]["items"]
    record["properties"]["eid"]["enum"] = list(records)
    record["allOf"] = [{"if": {"properties": {"eid": {"const": name}}},
                        "then": {"properties": {"ep": {"$ref": "#/$defs/" + name}}}} for name in records]
    return {"$schema": "https://json-schema.org/draft/2020-12/schema", "title": "An upload of the telemetry daemon",
            "$comment": "Made by scripts/records_schema.py from docs/records.md.", **body, "$defs": records}


def printed(value, indent=0):
    """JSON with what fits on a line on one."""
    short = json.dumps(value)
    if len(short) + indent <= 110 or not isinstance(value, (dict, list)):
        return short
    pad = "\n" + " " * (indent + 1)
    if isinstance(value, list):
        return "[" + ",".join(pad + printed(one, indent + 1) for one in value) + "]"
    return "{" + ",".join(f"{pad}{json.dumps(k)}: {printed(v, indent + 1)}" for k, v in value.items()) + "}"


def listed(schema, way):
    """The keys of an object's schema, by path."""
    for name, member in {**schema.get("properties", {}), **schema.get("patternProperties", {})}.items():
        yield way + name
        yield from listed(member.get("items", member), way + name + ".")


def sent(schema, value, way):
    """The keys of a value that are listed, by the same paths."""
    for one in value if isinstance(value, list) else [value]:
        for name, inner in one.items() if isinstance(one, dict) else []:
            known = name if name in schema.get("properties", {}) else "^" + name[:1]
            member = {**schema.get("properties", {}), **schema.get("patternProperties", {})}.get(known, {})
            yield way + known
            yield from sent(member.get("items", member), inner, way + known + ".")


def read_once(pairs):
    """An object none of whose members stands there twice."""
    if len(dict(pairs)) != len(pairs):
        sys.exit(f"a member is there twice: {pairs}")
    return dict(pairs)


def check(schema, upload):
    from jsonschema import Draft202012Validator
    Draft202012Validator.check_schema(schema)
    problems = [f"/{'/'.join(map(str, error.absolute_path))}: {error.message}"
                for error in Draft202012Validator(schema).iter_errors(upload)]
    seen = set(sent(schema, upload, ""))
    all_keys = set(listed(schema, ""))
    for record in upload.get("el", []):
        seen |= set(sent(schema["$defs"].get(record.get("eid"), {}), record.get("ep"), f"{record.get('eid')} "))
    for name, record in schema["$defs"].items():
        all_keys |= set(listed(record, name + " "))
    return problems + [f"{key} is listed and never sent" for key in sorted(all_keys - seen)]


def main(arguments):
    schema = make_schema((DOCS / "records.md").read_text())
    text = printed(schema) + "\n"
    if not arguments:
        SCHEMA.write_text(text)
    elif arguments[0] == "--check" and len(arguments) == 2:
        if SCHEMA.read_text() != text:
            sys.exit("docs/records.schema.json is not what docs/records.md says: run scripts/records_schema.py")
        upload = json.loads(pathlib.Path(arguments[1]).read_text(), object_pairs_hook=read_once)
        sys.exit("\n".join(check(schema, upload)) or 0)
    else:
        sys.exit(__doc__)


main(sys.argv[1:])

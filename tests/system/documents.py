"""What docs/requests.md and docs/schema/ say, for the tests that hold them against the agent."""

import json
import re

import jsonschema

from harness import SOURCE

DOCS = SOURCE / "docs"


def _validator(name):
    schema = json.loads((DOCS / "schema" / f"{name}.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema)


REQUEST = _validator("request")
REPLY = _validator("reply")


def examples():
    """The JSON blocks of requests.md: (request, the replies that follow it)."""
    found = []
    for block in re.findall(r"^```json\n(.*?)^```$", (DOCS / "requests.md").read_text(), re.M | re.S):
        document = json.loads(block)
        if "reply-id" in document:
            found.append((document, []))
        else:
            found[-1][1].append(document)
    return found


def _rows(prefix):
    lines = (DOCS / "requests.md").read_text().splitlines()
    rows = [line.strip("| ").split(" | ") for line in lines if line.startswith(f"| `{prefix}")]
    return [[cell.strip("`") for cell in row] for row in rows]


def report_rows():
    """The table of reports: (name, number, data-record or None, data or None)."""
    return [(name, int(number, 16), None if record == "none" else json.loads(record),
             None if data == "error reply" else data)
            for name, number, _, record, data in _rows("UDS_REPORT_")]


def mask_rows():
    """The table of status bits: (name, bit, data)."""
    return [(name, int(bit, 16), data) for name, bit, data in _rows("UDS_STATUS_MASK_")]


def agent_names(prefix):
    """The names that the agent knows, in its order."""
    source = (SOURCE / "src" / "movra_fleet" / "common" / "dtc_tables.cpp").read_text()
    return re.findall(rf'"({prefix}\w+)"', source)

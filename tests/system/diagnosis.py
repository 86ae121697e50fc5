"""DTC and version requests, and the bench's ECUs as their settings."""

INTERFACE = "can0"
ENGINE = ("7E0", "7E8")
TRANSMISSION = ("7E1", "7E9")
BODY = ("18DA10F1", "18DAF110")
ALL = (ENGINE, TRANSMISSION, BODY)


def ecu(ids, interface=INTERFACE, functional=None):
    settings = {"ifname": interface, "phy-req-id": ids[0], "phy-resp-id": ids[1], "st-min": "0", "bsize": "8"}
    return {**settings, "func-addr": functional} if functional else settings


def everyone(ids=ALL, functional="7DF"):
    return [ecu(pair, functional=functional) for pair in ids]


def request(reply_id, work, can=ENGINE):
    """Work is the member of the body; can is an ECU's identifiers, or the list of settings of all ECUs."""
    one = isinstance(can, tuple)
    body = {"targetAddress": can[0] if one else "-1", "mode": "CAN", "can": ecu(can) if one else can, **work}
    return {"reply-id": reply_id, "type": "movra.quillet-query", "body": body}


def report(name, record=None):
    work = {"SID": "19", "subfunction": f"UDS_REPORT_{name}"}
    return {"uds": {**work, "data-record": record} if record else work}


def mask(*names):
    return {"type": "STATUS_MASK", "record": [f"UDS_STATUS_MASK_{name}" for name in names]}


def record(text, kind="RECORD"):
    return {"type": kind, "record": text}


def by_status(*names):
    return report("DTC_BY_STATUS_MASK", mask(*names))


def answers(reply):
    """Of a DTC report: (ECU, data) in the reply's order."""
    return [(row["phy-req-id"], row["data"]) for row in reply["body"]["uds"]["data-record"]]


def error(reply):
    return reply["body"]["error"]["uds-nrc"]

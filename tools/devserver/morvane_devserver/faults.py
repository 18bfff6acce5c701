"""The ways a real device server fails, to be played on the agent on demand.

A fault applies to one method or to both, for the next `count` requests it matches or until
the faults are cleared. Faults are kept in the order they were added and the first one that
matches a request is the one played, so queuing two faults for one method plays them one
after the other.
"""

import json
import threading

METHODS = ("account_add_device", "device_configure")

UNAUTHORIZED_CODE = -32001

DEFAULT_UNDECODABLE_BODY = (
    "<html><head><title>Service Unavailable</title></head>"
    "<body>The device service is down for maintenance.</body></html>"
)

# Which parameters each mode takes, with their defaults; None means the caller must give it.
MODES = {
    "error": {"code": -32603, "message": "Internal error"},
    "unauthorized": {"code": UNAUTHORIZED_CODE},
    "empty": {"status": 200},
    "undecodable": {"status": 200, "body": DEFAULT_UNDECODABLE_BODY},
    "status500": {},
    "stall": {"seconds": None},
    "drop": {},
}

_TYPES = {"code": int, "status": int, "message": str, "body": str, "seconds": float}


class FaultError(ValueError):
    pass


def _typed(name, value):
    wanted = _TYPES[name]
    if isinstance(value, bool):
        raise FaultError(f"{name}: must be {'a number' if wanted is float else 'an integer'}")
    if wanted is float and isinstance(value, int):
        value = float(value)
    if not isinstance(value, wanted):
        names = {int: "an integer", float: "a number", str: "a string"}
        raise FaultError(f"{name}: must be {names[wanted]}")
    return value


def make_fault(description):
    """A complete fault from its JSON form, with defaults filled in; FaultError otherwise."""
    if not isinstance(description, dict):
        raise FaultError("a fault is a JSON object")
    mode = description.get("mode")
    if mode not in MODES:
        raise FaultError(f"mode: must be one of {', '.join(MODES)}")
    fault = {"mode": mode, "method": None, "count": None}
    method = description.get("method")
    if method is not None and method not in METHODS:
        raise FaultError(f"method: must be one of {', '.join(METHODS)}, or left out for both")
    fault["method"] = method
    count = description.get("count")
    if count is not None:
        if isinstance(count, bool) or not isinstance(count, int) or count < 1:
            raise FaultError("count: must be a positive integer, or left out for until cleared")
        fault["count"] = count
    params = MODES[mode]
    for name in description:
        if name not in ("mode", "method", "count") and name not in params:
            raise FaultError(f"{name}: not a parameter of the {mode} mode")
    for name, default in params.items():
        if name in description:
            fault[name] = _typed(name, description[name])
        elif default is None:
            raise FaultError(f"{name}: the {mode} mode needs it")
        else:
            fault[name] = default
    if mode == "stall" and fault["seconds"] < 0:
        raise FaultError("seconds: must not be negative")
    if "status" in fault and not 100 <= fault["status"] <= 599:
        raise FaultError("status: must be an HTTP status from 100 to 599")
    return fault


def parse_option(text):
    """The command-line form: a JSON object, or MODE[,NAME=VALUE...] such as
    "stall,seconds=90,method=device_configure,count=1"."""
    text = text.strip()
    if text.startswith("{"):
        try:
            return make_fault(json.loads(text))
        except json.JSONDecodeError as error:
            raise FaultError(f"not valid JSON: {error}") from None
    mode, *pairs = text.split(",")
    description = {"mode": mode}
    for pair in pairs:
        name, sep, value = pair.partition("=")
        if not sep:
            raise FaultError(f"'{pair}': expected NAME=VALUE")
        if name in ("count", "code", "status"):
            try:
                description[name] = int(value)
            except ValueError:
                raise FaultError(f"{name}: must be an integer") from None
        elif name == "seconds":
            try:
                description[name] = float(value)
            except ValueError:
                raise FaultError(f"{name}: must be a number") from None
        else:
            description[name] = value
    return make_fault(description)


class FaultBook:
    def __init__(self, faults=()):
        self._lock = threading.Lock()
        self._faults = [dict(f) for f in faults]

    def add(self, fault):
        with self._lock:
            self._faults.append(dict(fault))

    def clear(self):
        with self._lock:
            count = len(self._faults)
            self._faults.clear()
            return count

    def take(self, method):
        """The fault to play on a request for `method`, or None. Paths of neither method
        never fail on purpose: they are answered as what they are."""
        if method is None:
            return None
        with self._lock:
            for index, fault in enumerate(self._faults):
                if fault["method"] is None or fault["method"] == method:
                    if fault["count"] is not None:
                        fault["count"] -= 1
                        if fault["count"] == 0:
                            del self._faults[index]
                    return dict(fault)
            return None

    def pending(self):
        with self._lock:
            return [dict(f) for f in self._faults]

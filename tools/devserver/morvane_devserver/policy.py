"""A device's policy: the "result" of a device_configure answer.

A policy is checked against the same rules the agent's decoder applies (required keys,
JSON types, the closed lists of log levels and tray types), so that a typo in a policy file
fails here, with the offending key named, instead of as an undecodable answer in the agent.
Answers that the agent must refuse are made on purpose with the "undecodable" fault.
"""

import copy
import secrets

INT64_MIN = -(2**63)
INT64_MAX = 2**63 - 1

LOG_LEVELS = ("none", "warning", "production", "diagnose")
TRAY_TYPES = ("balloon", "hidden", "tooltip", "default")


class PolicyError(ValueError):
    pass


# Each shape is a tuple: ("string",), ("boolean",), ("integer",), ("enum", values),
# ("list", element shape) or ("object", {key: (shape, required)}).
STRING = ("string",)
BOOLEAN = ("boolean",)
INTEGER = ("integer",)


def _obj(**fields):
    return ("object", fields)


def _opt(shape):
    return (shape, False)


def _req(shape):
    return (shape, True)


_LOCATION = _obj(name=_opt(STRING), randomize=_opt(BOOLEAN))

_TARN = _obj(
    interfaces_to_ignore=_opt(("list", STRING)),
    log_level=_opt(("enum", LOG_LEVELS)),
    ncsi_echo_resolver=_opt(STRING),
    ncsi_event_delay=_opt(INTEGER),
    ncsi_interval=_opt(INTEGER),
    ncsi_interval_disconnected=_opt(INTEGER),
    ncsi_timeout=_opt(INTEGER),
    ncsi_url=_opt(STRING),
    tray_type=_opt(("enum", TRAY_TYPES)),
    unbound_log_queries=_opt(BOOLEAN),
    unbound_use_syslog=_opt(BOOLEAN),
)

_RESULT = _obj(
    actions=_opt(
        _obj(
            disable=_opt(BOOLEAN),
            move=_opt(_obj(key=_opt(STRING), location=_opt(_LOCATION), rpc=_opt(STRING))),
            shutdown=_opt(BOOLEAN),
            uninstall=_opt(BOOLEAN),
            upgrade=_opt(_obj(args=_opt(STRING), url=_opt(STRING), version=_opt(STRING))),
        )
    ),
    cfg=_opt(
        _obj(
            persistent=_opt(_obj(key=_req(STRING))),
            runtime=_opt(
                _obj(
                    locations=_req(
                        ("list", _obj(name=_req(STRING), rule=_opt(STRING), tag=_req(STRING)))
                    ),
                    tarn=_opt(_TARN),
                    reconfigure=_opt(INTEGER),
                    user=_opt(STRING),
                )
            ),
        )
    ),
    filters=_opt(
        ("list", _obj(domain=_opt(STRING), resolvers=_opt(("list", STRING)), rule=_opt(STRING)))
    ),
)


def _check(value, shape, where):
    kind = shape[0]
    if kind == "string":
        if not isinstance(value, str):
            raise PolicyError(f"{where}: must be a string")
    elif kind == "boolean":
        if not isinstance(value, bool):
            raise PolicyError(f"{where}: must be true or false")
    elif kind == "integer":
        # bool is an int in Python, but not in JSON
        if isinstance(value, bool) or not isinstance(value, int):
            raise PolicyError(f"{where}: must be an integer")
        if not INT64_MIN <= value <= INT64_MAX:
            raise PolicyError(f"{where}: does not fit in 64 bits")
    elif kind == "enum":
        if value not in shape[1]:
            raise PolicyError(f"{where}: must be one of {', '.join(shape[1])}")
    elif kind == "list":
        if not isinstance(value, list):
            raise PolicyError(f"{where}: must be a list")
        for index, element in enumerate(value):
            _check(element, shape[1], f"{where}[{index}]")
    else:
        if not isinstance(value, dict):
            raise PolicyError(f"{where}: must be an object")
        fields = shape[1]
        for key in value:
            if key not in fields:
                raise PolicyError(f"{where}.{key}: unknown key")
        for key, (inner, required) in fields.items():
            present = value.get(key) is not None
            if required and not present:
                raise PolicyError(f"{where}.{key}: required")
            if present:
                _check(value[key], inner, f"{where}.{key}")


def validate(policy):
    """Raises PolicyError naming the first key that the agent would refuse."""
    _check(policy, _RESULT, "policy")


def default_policy():
    """What a device of a small company account gets: a split-horizon rule for the
    office domain and network, the service's own resolvers for everything else, two
    locations and the agent's settings. Addresses are from the documentation ranges."""
    return {
        "cfg": {
            "runtime": {
                "locations": [
                    {"name": "Head office", "tag": "loc-3f9a1c7e", "rule": "203.0.113.0/24"},
                    {"name": "Roaming", "tag": "loc-b2d4e6f8"},
                ],
                "reconfigure": 0,
                "tarn": {
                    "interfaces_to_ignore": ["wg-corp"],
                    "log_level": "production",
                    "ncsi_echo_resolver": "192.0.2.53",
                    "ncsi_event_delay": 5,
                    "ncsi_interval": 300,
                    "ncsi_interval_disconnected": 30,
                    "ncsi_timeout": 5,
                    "ncsi_url": "http://ncsi.example.net/ncsi.txt",
                    "tray_type": "default",
                    "unbound_log_queries": False,
                    "unbound_use_syslog": True,
                },
            },
        },
        "filters": [
            {"domain": "corp.example.com", "resolvers": ["10.20.0.53", "10.20.1.53"]},
            {"rule": "10.20.0.0/16", "resolvers": ["10.20.0.53"]},
            {"resolvers": ["192.0.2.53", "198.51.100.53"]},
        ],
    }


def for_new_device(template):
    """A copy of the account's template for one device. The template names no device, so
    the keys that tie a policy to one device, the persistent settings key and the user
    identifier, are made here when the template leaves them out."""
    policy = copy.deepcopy(template)
    cfg = policy.get("cfg")
    if isinstance(cfg, dict):
        if cfg.get("persistent") is None:
            cfg["persistent"] = {"key": "ps-" + secrets.token_hex(8)}
        runtime = cfg.get("runtime")
        if isinstance(runtime, dict) and runtime.get("user") is None:
            runtime["user"] = "usr-" + secrets.token_hex(8)
    return policy

"""The one account this server holds: install keys, enrolled devices and their policies."""

import copy
import secrets
import threading

from . import policy as policies


class Account:
    """Every operation takes the lock: device requests and control requests arrive on
    threads of their own."""

    def __init__(self, install_keys=(), device_keys=(), template=None):
        self._lock = threading.Lock()
        self._install_keys = list(dict.fromkeys(install_keys))
        self._template = copy.deepcopy(template if template is not None else policies.default_policy())
        self._devices = {}
        for key in device_keys:
            self._add_device(key, None, None, None, None)

    def _add_device(self, key, name, device_type, version, install_key):
        self._devices[key] = {
            "name": name,
            "type": device_type,
            "version": version,
            "install_key": install_key,
            "policy": policies.for_new_device(self._template),
            "configured": 0,
        }

    def enrol(self, install_key, name, device_type, version):
        """The new device's key, or None when the install key isn't one of the account's.
        An install key enrols any number of devices, as one key serves a whole fleet."""
        with self._lock:
            if install_key not in self._install_keys:
                return None
            key = secrets.token_hex(16)
            self._add_device(key, name, device_type, version, install_key)
            return key

    def configure(self, device_key, location_name):
        """The device's policy as answered, or None for a key the account doesn't know.
        A location that the device asks for by name comes first, since the agent takes
        the first location's tag as its own."""
        with self._lock:
            device = self._devices.get(device_key)
            if device is None:
                return None
            device["configured"] += 1
            result = copy.deepcopy(device["policy"])
        runtime = (result.get("cfg") or {}).get("runtime") or {}
        locations = runtime.get("locations")
        if location_name and isinstance(locations, list):
            wanted = [loc for loc in locations if loc.get("name") == location_name]
            if wanted:
                runtime["locations"] = wanted[:1] + [loc for loc in locations if loc is not wanted[0]]
        return result

    def has_identity(self, user, location_tag):
        """Whether a device of the account has this user identifier in its policy, with a
        location of this tag: the identity the provider puts on its queries."""
        with self._lock:
            for device in self._devices.values():
                runtime = ((device["policy"].get("cfg") or {}).get("runtime")) or {}
                if runtime.get("user") != user:
                    continue
                if any(loc.get("tag") == location_tag for loc in runtime.get("locations") or []):
                    return True
        return False

    def add_keys(self, install_keys=(), device_keys=()):
        with self._lock:
            for key in install_keys:
                if key not in self._install_keys:
                    self._install_keys.append(key)
            for key in device_keys:
                if key not in self._devices:
                    self._add_device(key, None, None, None, None)

    def remove_keys(self, install_keys=(), device_keys=()):
        """Revoking a device key is how a real account makes the next configuration
        "Unauthorized"."""
        revoked = set(install_keys)
        with self._lock:
            self._install_keys = [k for k in self._install_keys if k not in revoked]
            for key in device_keys:
                self._devices.pop(key, None)

    def set_policy(self, policy, device_key=None):
        """With a device key the policy is that device's, exactly as given; without, it is
        the template for devices enrolled from now on. Returns False for an unknown device."""
        policies.validate(policy)
        with self._lock:
            if device_key is None:
                self._template = copy.deepcopy(policy)
                return True
            device = self._devices.get(device_key)
            if device is None:
                return False
            device["policy"] = copy.deepcopy(policy)
            return True

    def snapshot(self):
        with self._lock:
            return {
                "install_keys": list(self._install_keys),
                "devices": copy.deepcopy(self._devices),
                "template": copy.deepcopy(self._template),
            }

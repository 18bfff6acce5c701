"""The two JSON-RPC 2.0 exchanges: enrolment on "/api/register" and configuration on
"/api/device"."""

import json

from .faults import UNAUTHORIZED_CODE

PATHS = {"/api/register": "account_add_device", "/api/device": "device_configure"}

PARSE_ERROR = -32700
INVALID_REQUEST = -32600
METHOD_NOT_FOUND = -32601
INVALID_PARAMS = -32602


def method_for_path(path):
    return PATHS.get(path.split("?", 1)[0])


def reply(request, result=None, error=None):
    """The agent sends an "id" with enrolment only, so the reply echoes one only when the
    request had one."""
    message = {"jsonrpc": "2.0"}
    if isinstance(request, dict) and "id" in request:
        message["id"] = request["id"]
    if error is not None:
        message["error"] = error
    else:
        message["result"] = result
    return message


def error(code, message, data=None):
    body = {"code": code, "message": message}
    if data is not None:
        body["data"] = data
    return body


def unauthorized(code=UNAUTHORIZED_CODE):
    return error(code, "Unauthorized")


class _Invalid(Exception):
    pass


def _text(container, key, where, required=True):
    value = container.get(key)
    if value is None and not required:
        return None
    if not isinstance(value, str):
        raise _Invalid(f"{where}.{key}: must be a string")
    return value


def answer(method, body, account):
    """The reply to a request body that arrived on the path of `method`."""
    try:
        request = json.loads(body.decode("utf-8"))
    except (UnicodeDecodeError, ValueError):
        return reply(None, error=error(PARSE_ERROR, "Parse error"))
    if (
        not isinstance(request, dict)
        or request.get("jsonrpc") != "2.0"
        or not isinstance(request.get("method"), str)
    ):
        return reply(request, error=error(INVALID_REQUEST, "Invalid Request"))
    if request["method"] != method:
        return reply(request, error=error(METHOD_NOT_FOUND, "Method not found", request["method"]))
    params = request.get("params")
    try:
        if not isinstance(params, dict):
            raise _Invalid("params: must be an object")
        if method == "account_add_device":
            return _enrol(request, params, account)
        return _configure(request, params, account)
    except _Invalid as problem:
        return reply(request, error=error(INVALID_PARAMS, "Invalid params", str(problem)))


def _enrol(request, params, account):
    install_key = _text(params, "key", "params")
    name = _text(params, "name", "params")
    device_type = _text(params, "type", "params", required=False)
    version = _text(params, "version", "params", required=False)
    device_key = account.enrol(install_key, name, device_type, version)
    if device_key is None:
        return reply(request, error=unauthorized())
    return reply(request, {"device": device_key, "name": name, "type": device_type or "Tarn"})


def _configure(request, params, account):
    device = params.get("device")
    if not isinstance(device, dict):
        raise _Invalid("params.device: must be an object")
    device_key = _text(device, "key", "params.device")
    location = params.get("location")
    name = None
    if location is not None:
        if not isinstance(location, dict):
            raise _Invalid("params.location: must be an object")
        name = _text(location, "name", "params.location", required=False)
    result = account.configure(device_key, name)
    if result is None:
        return reply(request, error=unauthorized())
    return reply(request, result)

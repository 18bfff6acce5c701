"""The log of every request the device port received, for tests to read back."""

import datetime
import json
import threading


class Recorder:
    def __init__(self, path=None):
        self._lock = threading.Lock()
        self._records = []
        self._next = 1
        # Line-buffered and flushed per record, so that a reader of the file sees each
        # request as soon as it came in, also when the server is killed.
        self._file = open(path, "a", encoding="utf-8", buffering=1) if path else None

    def add(self, method, path, headers, body, fault):
        text = body.decode("utf-8", errors="replace")
        try:
            parsed = json.loads(text)
        except ValueError:
            parsed = None
        record = {
            "method": method,
            "path": path,
            "headers": headers,
            "body": text,
            "json": parsed,
            "rpc_method": parsed.get("method") if isinstance(parsed, dict) else None,
            "fault": fault,
            "time": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="milliseconds"),
        }
        with self._lock:
            record["seq"] = self._next
            self._next += 1
            self._records.append(record)
            if self._file:
                self._file.write(json.dumps(record, sort_keys=True) + "\n")
        return record

    def since(self, seq=0):
        with self._lock:
            return [dict(r) for r in self._records if r["seq"] > seq]

    def clear(self):
        """Forgets what the control interface shows; sequence numbers go on, so that a
        reader using `since` never sees a number twice. The file keeps everything."""
        with self._lock:
            count = len(self._records)
            self._records.clear()
            return count

    def close(self):
        with self._lock:
            if self._file:
                self._file.close()
                self._file = None

"""Injected faults of one reference-server instance, kept apart from the services.

A rule is a JSON object; POST /instances/<id>/faults takes one rule or a list.
Rules are tried in the order added; the first that matches a request answers
it and uses up one of its count; a rule whose count runs out is dropped.

Match keys (all optional):
  "path":   exact request path
  "method": request method ("POST")
  "contains":  text (UTF-8) that the request body must contain, e.g.
               "GetPublicKeyRequest" to pick one message of a shared path
  "nth":    fire only on the nth matching request (1-based), counted from
            when the rule was added; earlier matches pass through untouched
  "times":  how many requests the rule answers (default 1; 0 = no limit)

Answer keys (all optional; without status/body/location/mtom the normal
service answer is sent, with the delivery keys applied to it):
  "status":        any status code (default 200, or 302 with "location")
  "body":          text (UTF-8) of the body; "body_b64": raw bytes instead
  "content_type":  Content-Type of the answer (default SOAP 1.2; null = none)
  "headers":       extra headers [[name, value], ...]
  "location":      Location header (status 302 unless "status" says otherwise)
  "mtom":          {"boundary": str, "start": content id (default "<root>"),
                    "parts": [{"content_id", "content_type", "body" | "body_b64"}]}
                   -> a multipart/related answer whose root part is the body
  "fill":          {"marker": str (default "@FILL@"), "size": n, "char": str
                    (default "A")}: every occurrence of the marker in the body
                   becomes n copies of char, so that a large answer is given
                   by its size rather than sent through JSON

Delivery keys (all optional):
  "delay_ms":       wait this long before answering (no bytes sent meanwhile)
  "body_delay_ms":  send the headers, then wait this long before the body
  "chunks":         chunked transfer encoding split into these sizes (the rest,
                    if any, as one last chunk)
  "chunk_delay_ms": pause between the writes of the body's chunks
  "close_after":    close the connection after this many bytes of the answer
  "drop":           close the connection without answering (after delay_ms)
  "reset":          end with a TCP reset (RST) instead of a close: alone, in
                    place of an answer (after delay_ms); with close_after,
                    after that many bytes of the answer
  "trickle_ms":     send the answer one byte per write, pausing this long
                    between bytes
  "stall_after":    send this many bytes of the answer, then pause for
                    "stall_ms" (default 60000) before sending the rest

Not a rule: the HTTP listener can be shut and reopened on the same port
through the instance's config, {"listening": {"http": false}} and later
{"listening": {"http": true}}, so that connections are refused meanwhile
("https" likewise).

Delays end early when the instance is deleted, so no thread outlives them.
"""
import base64
import threading
from dataclasses import dataclass
from typing import List, Optional

from service_api import Reply, SOAP_CONTENT_TYPE


@dataclass
class Delivery:
    delay_ms: int = 0
    body_delay_ms: Optional[int] = None
    chunks: Optional[List[int]] = None
    chunk_delay_ms: Optional[int] = None
    close_after: Optional[int] = None
    drop: bool = False
    reset: bool = False
    trickle_ms: Optional[int] = None
    stall_after: Optional[int] = None
    stall_ms: int = 60000


class FaultRule:
    def __init__(self, data: dict):
        if not isinstance(data, dict):
            raise ValueError("a fault rule is a JSON object")
        self.data = data
        self.path = data.get("path")
        self.method = data.get("method")
        contains = data.get("contains")
        self.contains = None if contains is None else str(contains).encode("utf-8")
        self.nth = data.get("nth")
        times = data.get("times", 1)
        self.remaining = None if times in (0, None) else int(times)
        self.seen = 0
        self.delivery = Delivery(
            delay_ms=int(data.get("delay_ms", 0) or 0),
            body_delay_ms=data.get("body_delay_ms"),
            chunks=data.get("chunks"),
            chunk_delay_ms=data.get("chunk_delay_ms"),
            close_after=data.get("close_after"),
            drop=bool(data.get("drop", False)),
            reset=bool(data.get("reset", False)),
            trickle_ms=None if data.get("trickle_ms") is None else int(data["trickle_ms"]),
            stall_after=None if data.get("stall_after") is None else int(data["stall_after"]),
            stall_ms=int(data.get("stall_ms", 60000)),
        )
        if self.delivery.trickle_ms is not None and self.delivery.trickle_ms < 0:
            raise ValueError("trickle_ms must not be negative")
        if self.delivery.stall_after is not None and self.delivery.stall_after < 0:
            raise ValueError("stall_after must not be negative")
        fill = data.get("fill")
        if fill is not None:
            if not isinstance(fill, dict) or int(fill.get("size", -1)) < 0 or not str(fill.get("char", "A")):
                raise ValueError("fill: {\"marker\", \"size\" >= 0, \"char\"}")
        if self.delivery.chunks is not None:
            self.delivery.chunks = [int(c) for c in self.delivery.chunks]
            if any(c <= 0 for c in self.delivery.chunks):
                raise ValueError("chunk sizes must be positive")

    def matches(self, req) -> bool:
        if self.path is not None and req.path != self.path:
            return False
        if self.method is not None and req.method != self.method:
            return False
        if self.contains is not None and self.contains not in req.body:
            return False
        self.seen += 1
        if self.nth is not None and self.seen != int(self.nth):
            return False
        return True

    def use(self) -> bool:
        """Counts one use; True when the rule is used up."""
        if self.remaining is None:
            return False
        self.remaining -= 1
        return self.remaining <= 0

    def reply(self) -> Optional[Reply]:
        s = self.data
        if not any(k in s for k in ("status", "body", "body_b64", "location", "mtom")):
            return None
        if "body_b64" in s:
            body = base64.b64decode(s["body_b64"])
        else:
            body = str(s.get("body", "")).encode("utf-8")
        if "fill" in s:
            fill = s["fill"]
            marker = str(fill.get("marker", "@FILL@")).encode("utf-8")
            body = body.replace(marker, str(fill.get("char", "A")).encode("utf-8") * int(fill["size"]))
        headers = [(str(k), str(v)) for k, v in s.get("headers", [])]
        status = int(s.get("status", 302 if "location" in s else 200))
        if "location" in s:
            headers.append(("Location", str(s["location"])))
        content_type = s.get("content_type", SOAP_CONTENT_TYPE)
        if "mtom" in s:
            body, content_type = mtom_body(body, s["mtom"], s.get("content_type"))
        return Reply(status=status, body=body, content_type=content_type, headers=headers)


def mtom_body(root: bytes, mtom: dict, content_type: Optional[str]):
    boundary = mtom.get("boundary", "MIMEBoundary_refserver")
    start = mtom.get("start", "<root>")
    delim = b"--" + boundary.encode("latin-1")
    out = [b"\r\n", delim, b"\r\n",
           b"Content-Type: application/xop+xml; charset=utf-8; type=\"application/soap+xml\"\r\n",
           b"Content-Transfer-Encoding: binary\r\n",
           b"Content-ID: " + start.encode("latin-1") + b"\r\n\r\n", root]
    for part in mtom.get("parts", []):
        data = base64.b64decode(part["body_b64"]) if "body_b64" in part \
            else str(part.get("body", "")).encode("utf-8")
        out += [b"\r\n", delim, b"\r\n",
                b"Content-Type: " + part.get("content_type", "application/octet-stream").encode("latin-1") + b"\r\n",
                b"Content-Transfer-Encoding: binary\r\n",
                b"Content-ID: " + part.get("content_id", "<part>").encode("latin-1") + b"\r\n\r\n", data]
    out += [b"\r\n", delim, b"--\r\n"]
    if content_type is None:
        content_type = ('multipart/related; type="application/xop+xml"; boundary="%s"; '
                        'start="%s"; start-info="application/soap+xml"' % (boundary, start))
    return b"".join(out), content_type


class FaultList:
    def __init__(self):
        self.lock = threading.Lock()
        self.rules: List[FaultRule] = []

    def add(self, items):
        if isinstance(items, dict):
            items = [items]
        if not isinstance(items, list):
            raise ValueError("faults: a rule object or a list of them")
        rules = [FaultRule(s) for s in items]
        with self.lock:
            self.rules.extend(rules)
        return len(rules)

    def clear(self):
        with self.lock:
            self.rules.clear()

    def take(self, req) -> Optional[FaultRule]:
        with self.lock:
            for rule in self.rules:
                if rule.matches(req):
                    if rule.use():
                        self.rules.remove(rule)
                    return rule
        return None

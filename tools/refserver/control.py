"""Control port of the reference server: JSON over HTTP on loopback.

  POST   /instances                {config}      -> {"id", "http_port", "https_port"}
  DELETE /instances/<id>                         -> {"deleted": true}
  POST   /instances/<id>/config    {config}      -> {"ok": true}
  POST   /instances/<id>/faults    rule | [rules] -> {"added": n}
  DELETE /instances/<id>/faults                  -> {"ok": true}
  GET    /instances/<id>/requests                -> [{"method", "path", "headers",
                                                      "body" (base64), "tls", "connection"}]
  GET    /instances/<id>/state/<field>           -> JSON of that InstanceState field
  POST   /render   {"answer": name, "args": {}}  -> text/xml of answers.<name>(**args)

config keys are InstanceState fields (tools/refserver/service_api.py) and the
service paths "policy_service_url", "sts_url", "drv_comm_url"; other keys go
to state.extra.
"""
import importlib
import json
import threading
import traceback
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

import core


class ControlServer(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, registry, port=0):
        self.registry = registry
        super().__init__(("127.0.0.1", port), _Handler)


class _Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.0"

    def log_message(self, fmt, *args):
        pass

    def _send(self, status, payload, content_type="application/json"):
        if isinstance(payload, str):
            data = payload.encode("utf-8")
        elif isinstance(payload, bytes):
            data = payload
        else:
            data = json.dumps(payload, default=core.json_default).encode("utf-8")
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def _body_json(self):
        n = int(self.headers.get("Content-Length", "0") or 0)
        raw = self.rfile.read(n) if n else b""
        if not raw.strip():
            return {}
        return json.loads(raw.decode("utf-8"))

    def _instance(self, parts):
        try:
            inst = self.server.registry.get(int(parts[1]))
        except (ValueError, IndexError):
            inst = None
        if inst is None:
            self._send(404, {"error": "no such instance"})
        return inst

    def _route(self, method):
        parts = [p for p in self.path.split("?")[0].split("/") if p]
        try:
            if parts == ["instances"] and method == "POST":
                inst = self.server.registry.create(self._body_json())
                return self._send(200, {"id": inst.id, "http_port": inst.http.port,
                                        "https_port": inst.https.port})
            if parts == ["render"] and method == "POST":
                req = self._body_json()
                answers = importlib.import_module("answers")
                text = getattr(answers, req["answer"])(**req.get("args", {}))
                return self._send(200, text, "text/xml; charset=utf-8")
            if len(parts) >= 2 and parts[0] == "instances":
                inst = self._instance(parts)
                if inst is None:
                    return
                rest = parts[2:]
                if rest == [] and method == "DELETE":
                    self.server.registry.delete(inst.id)
                    return self._send(200, {"deleted": True})
                if rest == ["config"] and method == "POST":
                    inst.configure(self._body_json())
                    return self._send(200, {"ok": True})
                if rest == ["faults"] and method == "POST":
                    return self._send(200, {"added": inst.faults.add(self._body_json())})
                if rest == ["faults"] and method == "DELETE":
                    inst.faults.clear()
                    return self._send(200, {"ok": True})
                if rest == ["requests"] and method == "GET":
                    return self._send(200, inst.requests_json())
                if len(rest) == 2 and rest[0] == "state" and method == "GET":
                    with inst.lock:
                        if not hasattr(inst.state, rest[1]):
                            return self._send(404, {"error": "no such field"})
                        text = json.dumps(getattr(inst.state, rest[1]), default=core.json_default)
                    return self._send(200, text)
            self._send(404, {"error": "unknown control path"})
        except (ValueError, KeyError, TypeError, AttributeError, ImportError) as exc:
            self._send(400, {"error": "%s: %s" % (type(exc).__name__, exc)})
        except Exception as exc:
            traceback.print_exc()
            self._send(500, {"error": "%s: %s" % (type(exc).__name__, exc)})

    def do_GET(self):
        self._route("GET")

    def do_POST(self):
        self._route("POST")

    def do_DELETE(self):
        self._route("DELETE")


def serve_in_thread(server):
    t = threading.Thread(target=server.serve_forever, daemon=True, name="control")
    t.start()
    return t

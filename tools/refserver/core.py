"""HTTP/HTTPS core of the reference server.

One Instance is one simulated access-management server: a plain HTTP and an
HTTPS listener on fresh loopback ports, its own InstanceState, fault rules and
request log. Every connection gets a thread of its own and an id (so a test
can see keep-alive reuse); every request is recorded before it is answered.
Answers go out in one write with TCP_NODELAY set, so that timings measured
against this server are not distorted by Nagle and delayed ACKs.
"""
import base64
import dataclasses
import datetime
import importlib
import itertools
import os
import selectors
import shutil
import socket
import ssl
import struct
import sys
import tempfile
import threading
import traceback

from service_api import InstanceState, Reply, Request, SOAP_CONTENT_TYPE
import faults as faults_mod

# Service paths an instance answers by default; the config may move them.
DEFAULT_PATHS = {
    "policy_service_url": "/wls/WLSPolicyService.actv",
    "sts_url": "/wls/STSServer.actv",
    "drv_comm_url": "/zeb/Drv-Comm.actv",
}
# path key -> (module, class) of the service, imported lazily.
SERVICES = {
    "policy_service_url": ("policy_service", "PolicyService"),
    "sts_url": ("token_service", "TokenService"),
    "drv_comm_url": ("device_service", "DeviceService"),
}

MAX_HEADER_BYTES = 64 * 1024
IDLE_TIMEOUT_S = 30.0
HANDSHAKE_TIMEOUT_S = 10.0

REASONS = {
    200: "OK", 201: "Created", 202: "Accepted", 204: "No Content",
    301: "Moved Permanently", 302: "Found", 303: "See Other", 307: "Temporary Redirect",
    400: "Bad Request", 401: "Unauthorized", 403: "Forbidden", 404: "Not Found",
    405: "Method Not Allowed", 500: "Internal Server Error", 502: "Bad Gateway",
    503: "Service Unavailable",
}

_connection_ids = itertools.count(1)


# --------------------------------------------------------------------------
# TLS certificates, self-signed EC P-256. By default one per process, for a
# host name that deliberately does not match 127.0.0.1. An instance made with
# the config key "certificate_names" (a list of DNS names or IP literals) gets
# one of its own for those names, so that a client that trusts it can check the
# name; its PEM text is then kept in the instance's extra as "certificate_pem".
_cert_lock = threading.Lock()
_cert_paths = None


def _make_certificate(names):
    """(cert path, key path, PEM text) of a new self-signed certificate for names."""
    import ipaddress
    from cryptography import x509
    from cryptography.hazmat.primitives import hashes, serialization
    from cryptography.hazmat.primitives.asymmetric import ec
    from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

    key = ec.generate_private_key(ec.SECP256R1())
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, names[0])])
    alt_names = []
    for n in names:
        # An IP literal is listed as an address and, for clients that only
        # compare DNS names, as a DNS name too.
        try:
            alt_names.append(x509.IPAddress(ipaddress.ip_address(n)))
        except ValueError:
            pass
        alt_names.append(x509.DNSName(n))
    now = datetime.datetime.now(datetime.timezone.utc)
    cert = (x509.CertificateBuilder()
            .subject_name(name).issuer_name(name)
            .public_key(key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(now - datetime.timedelta(days=1))
            .not_valid_after(now + datetime.timedelta(days=30))
            .add_extension(x509.SubjectAlternativeName(alt_names), critical=False)
            .add_extension(x509.ExtendedKeyUsage([ExtendedKeyUsageOID.SERVER_AUTH]), critical=False)
            # Trusted as its own root by a client that wants a checkable chain.
            .add_extension(x509.BasicConstraints(ca=True, path_length=None), critical=True)
            .add_extension(x509.KeyUsage(digital_signature=True, content_commitment=False, key_encipherment=False,
                                         data_encipherment=False, key_agreement=False, key_cert_sign=True,
                                         crl_sign=False, encipher_only=False, decipher_only=False), critical=True)
            .sign(key, hashes.SHA256()))
    folder = tempfile.mkdtemp(prefix="refserver-cert-")
    import atexit
    atexit.register(shutil.rmtree, folder, True)
    cert_path = os.path.join(folder, "cert.pem")
    key_path = os.path.join(folder, "key.pem")
    pem = cert.public_bytes(serialization.Encoding.PEM)
    with open(cert_path, "wb") as f:
        f.write(pem)
    with open(key_path, "wb") as f:
        f.write(key.private_bytes(serialization.Encoding.PEM,
                                  serialization.PrivateFormat.PKCS8,
                                  serialization.NoEncryption()))
    return cert_path, key_path, pem.decode("ascii")


def certificate_files():
    global _cert_paths
    with _cert_lock:
        if _cert_paths is None:
            cert_path, key_path, _ = _make_certificate(["refserver.invalid"])
            _cert_paths = (cert_path, key_path)
        return _cert_paths


def server_tls_context(files=None):
    cert_path, key_path = files or certificate_files()
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.minimum_version = ssl.TLSVersion.TLSv1_2
    ctx.load_cert_chain(cert_path, key_path)
    return ctx


# --------------------------------------------------------------------------
# XML of a received body.
def _xml_parser():
    from lxml import etree
    return etree.XMLParser(resolve_entities=False, no_network=True, huge_tree=False,
                           remove_blank_text=False)


def _multipart_root(body: bytes, content_type: str):
    """The root part of a multipart/related body, or None."""
    boundary = None
    for param in content_type.split(";")[1:]:
        k, _, v = param.strip().partition("=")
        if k.strip().lower() == "boundary":
            boundary = v.strip().strip('"')
    if not boundary:
        return None
    delim = b"--" + boundary.encode("latin-1")
    pieces = body.split(delim)
    if len(pieces) < 2:
        return None
    part = pieces[1]
    head, sep, content = part.partition(b"\r\n\r\n")
    if not sep:
        return None
    if content.endswith(b"\r\n"):
        content = content[:-2]
    return content


def parse_xml(body: bytes, content_type: str):
    """lxml root of the SOAP envelope in body (plain or MTOM root part), else None."""
    try:
        from lxml import etree
    except ImportError:
        return None
    data = body
    if "multipart/related" in (content_type or "").lower():
        data = _multipart_root(body, content_type)
        if data is None:
            return None
    if not data.lstrip().startswith(b"<"):
        return None
    try:
        return etree.fromstring(data.lstrip(), _xml_parser())
    except Exception:
        return None


def soap_fault_bytes(code: str, reason: str) -> bytes:
    from xml.sax.saxutils import escape
    return ('<?xml version="1.0" encoding="utf-8"?>'
            '<soap:Envelope xmlns:soap="http://www.w3.org/2003/05/soap-envelope">'
            '<soap:Body><soap:Fault><soap:Code><soap:Value>soap:%s</soap:Value></soap:Code>'
            '<soap:Reason><soap:Text xml:lang="en">%s</soap:Text></soap:Reason>'
            '</soap:Fault></soap:Body></soap:Envelope>' % (code, escape(reason))).encode("utf-8")


# --------------------------------------------------------------------------
# State from JSON config.
def _field_types():
    return {f.name: f for f in dataclasses.fields(InstanceState)}


def _decode_value(current, value):
    # Byte fields take a text (UTF-8) or {"base64": "..."}.
    if isinstance(current, (bytes, bytearray)):
        if isinstance(value, dict) and "base64" in value:
            return base64.b64decode(value["base64"])
        if isinstance(value, str):
            return value.encode("utf-8")
    return value


def apply_config(state: InstanceState, config: dict, paths: dict):
    """Sets state fields (and service paths) named by config; unknown keys go to extra."""
    fields = _field_types()
    for key, value in (config or {}).items():
        if key in paths:
            paths[key] = str(value)
        elif key in fields:
            setattr(state, key, _decode_value(getattr(state, key), value))
        else:
            state.extra[key] = value


def json_default(obj):
    if isinstance(obj, (bytes, bytearray)):
        return base64.b64encode(bytes(obj)).decode("ascii")
    if dataclasses.is_dataclass(obj):
        return dataclasses.asdict(obj)
    if isinstance(obj, (set, tuple)):
        return list(obj)
    return repr(obj)


# --------------------------------------------------------------------------
class _ConnectionClosed(Exception):
    pass


class _Connection:
    """Reads HTTP/1.1 requests from one socket and answers them."""

    def __init__(self, instance, sock, tls):
        self.instance = instance
        self.sock = sock
        self.tls = tls
        self.id = next(_connection_ids)
        self.buf = b""

    # reading ---------------------------------------------------------------
    def _recv(self):
        data = self.sock.recv(65536)
        if not data:
            raise _ConnectionClosed()
        if hasattr(socket, "TCP_QUICKACK"):
            try:
                self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)
            except OSError:
                pass
        self.buf += data

    def _read_until(self, marker, limit):
        while True:
            idx = self.buf.find(marker)
            if idx >= 0:
                out, self.buf = self.buf[:idx], self.buf[idx + len(marker):]
                return out
            if len(self.buf) > limit:
                raise _ConnectionClosed()
            self._recv()

    def _read_exact(self, n):
        while len(self.buf) < n:
            self._recv()
        out, self.buf = self.buf[:n], self.buf[n:]
        return out

    def read_request(self):
        head = self._read_until(b"\r\n\r\n", MAX_HEADER_BYTES)
        lines = head.decode("latin-1").split("\r\n")
        while lines and not lines[0]:
            lines.pop(0)
        if not lines:
            raise _ConnectionClosed()
        parts = lines[0].split(" ")
        if len(parts) != 3:
            raise _ConnectionClosed()
        method, target, version = parts
        headers = []
        for line in lines[1:]:
            k, sep, v = line.partition(":")
            if sep:
                headers.append((k.strip(), v.strip()))
        hmap = {k.lower(): v for k, v in headers}
        if "chunked" in hmap.get("transfer-encoding", "").lower():
            body = b""
            while True:
                size_line = self._read_until(b"\r\n", 1024).split(b";")[0].strip()
                size = int(size_line, 16)
                if size == 0:
                    self._read_until(b"\r\n", MAX_HEADER_BYTES)
                    break
                body += self._read_exact(size)
                self._read_exact(2)
        else:
            body = self._read_exact(int(hmap.get("content-length", "0") or 0))
        conn_hdr = hmap.get("connection", "").lower()
        if version == "HTTP/1.0":
            keep = "keep-alive" in conn_hdr
        else:
            keep = "close" not in conn_hdr
        path = target
        ctype = hmap.get("content-type", "")
        req = Request(method=method, path=path, headers=headers, body=body, tls=self.tls,
                      connection=self.id)
        req.xml = parse_xml(body, ctype)
        return req, keep

    # writing ---------------------------------------------------------------
    def send(self, data: bytes):
        if data:
            self.sock.sendall(data)

    def serve(self):
        try:
            self.sock.settimeout(IDLE_TIMEOUT_S)
            while not self.instance.stopped.is_set():
                req, keep = self.read_request()
                self.instance.record(req)
                keep = self.instance.answer(self, req, keep)
                if not keep:
                    break
        except (_ConnectionClosed, OSError, ValueError, ssl.SSLError):
            pass
        except Exception:
            traceback.print_exc()
        finally:
            self.close()

    def reset(self):
        """Closes with a TCP reset: linger on, time 0, so no FIN is sent."""
        try:
            raw = self.sock
            if isinstance(raw, ssl.SSLSocket):
                raw = socket.socket(fileno=raw.detach())
                self.sock = raw
            raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            raw.close()
        except OSError:
            pass

    def close(self):
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        try:
            self.sock.close()
        except OSError:
            pass


def build_response(status, body, content_type, headers, keep, chunked=False):
    lines = ["HTTP/1.1 %d %s" % (status, REASONS.get(status, "Status"))]
    names = {k.lower() for k, _ in headers}
    if content_type is not None and "content-type" not in names:
        lines.append("Content-Type: " + content_type)
    for k, v in headers:
        lines.append("%s: %s" % (k, v))
    if chunked:
        lines.append("Transfer-Encoding: chunked")
    elif "content-length" not in names:
        lines.append("Content-Length: %d" % len(body))
    lines.append("Connection: " + ("keep-alive" if keep else "close"))
    return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")


class _Listener:
    def __init__(self, instance, tls, port=0, cert_files=None):
        self.instance = instance
        self.tls = tls
        self.sock = socket.create_server(("127.0.0.1", port), backlog=64)
        self.sock.setblocking(False)
        self.port = self.sock.getsockname()[1]
        self.ctx = server_tls_context(cert_files) if tls else None
        self.cert_files = cert_files
        self.closed = False
        self.halt = threading.Event()
        self.thread = threading.Thread(target=self._loop, daemon=True,
                                       name="listen-%d-%s" % (instance.id, "https" if tls else "http"))
        self.thread.start()

    def _loop(self):
        sel = selectors.DefaultSelector()
        sel.register(self.sock, selectors.EVENT_READ)
        try:
            while not self.instance.stopped.is_set() and not self.halt.is_set():
                if not sel.select(timeout=0.2):
                    continue
                try:
                    client, _ = self.sock.accept()
                except (BlockingIOError, InterruptedError):
                    continue
                except OSError:
                    break
                client.setblocking(True)
                client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                t = threading.Thread(target=self._client, args=(client,), daemon=True)
                t.start()
        finally:
            sel.close()
            self.sock.close()

    def shut(self):
        """Stops accepting and closes the listening socket before returning."""
        self.closed = True
        self.halt.set()
        self.thread.join(timeout=2.0)

    def _client(self, client):
        sock = client
        if self.tls:
            try:
                client.settimeout(HANDSHAKE_TIMEOUT_S)
                sock = self.ctx.wrap_socket(client, server_side=True)
            except (OSError, ssl.SSLError):
                client.close()
                return
        conn = _Connection(self.instance, sock, self.tls)
        if not self.instance.track(conn):
            conn.close()
            return
        try:
            conn.serve()
        finally:
            self.instance.untrack(conn)


class Instance:
    def __init__(self, instance_id, config=None, http_port=0, https_port=0):
        self.id = instance_id
        self.state = InstanceState()
        self.paths = dict(DEFAULT_PATHS)
        self.lock = threading.RLock()          # guards state, services, log
        self.requests = []
        self.faults = faults_mod.FaultList()
        self.services = {}
        self.stopped = threading.Event()
        self.connections = set()
        apply_config(self.state, config or {}, self.paths)
        cert_files = None
        names = self.state.extra.get("certificate_names")
        if names:
            cert_path, key_path, pem = _make_certificate([str(n) for n in names])
            cert_files = (cert_path, key_path)
            self.state.extra["certificate_pem"] = pem
        self.http = _Listener(self, tls=False, port=http_port)
        try:
            self.https = _Listener(self, tls=True, port=https_port, cert_files=cert_files)
        except Exception:
            self.stopped.set()
            raise

    # bookkeeping -------------------------------------------------------------
    def track(self, conn):
        with self.lock:
            if self.stopped.is_set():
                return False
            self.connections.add(conn)
            return True

    def untrack(self, conn):
        with self.lock:
            self.connections.discard(conn)

    def record(self, req):
        with self.lock:
            self.requests.append(req)

    def configure(self, config):
        config = dict(config or {})
        listening = config.pop("listening", None)
        if listening is not None:
            if not isinstance(listening, dict):
                raise ValueError('listening: {"http": bool, "https": bool}')
            for which, on in listening.items():
                if which not in ("http", "https"):
                    raise ValueError("listening: http or https")
                self.set_listening(which, bool(on))
        with self.lock:
            apply_config(self.state, config, self.paths)

    def stop(self):
        self.stopped.set()
        with self.lock:
            conns = list(self.connections)
        for c in conns:
            c.close()

    def requests_json(self):
        with self.lock:
            return [{"method": r.method, "path": r.path, "headers": [list(h) for h in r.headers],
                     "body": base64.b64encode(r.body).decode("ascii"), "tls": r.tls,
                     "connection": r.connection} for r in self.requests]

    # answering -------------------------------------------------------------
    def _service_for(self, path):
        for key, p in self.paths.items():
            if p == path:
                return key
        return None

    def dispatch(self, req) -> Reply:
        key = self._service_for(req.path)
        if key is None:
            return Reply(status=404, body=b"Not Found", content_type="text/plain")
        module_name, class_name = SERVICES[key]
        with self.lock:
            service = self.services.get(key)
            if service is None:
                try:
                    module = importlib.import_module(module_name)
                    service = getattr(module, class_name)(self.state)
                except Exception as exc:
                    return Reply(status=500, body=soap_fault_bytes(
                        "Receiver", "service %s unavailable: %s" % (class_name, exc)))
                self.services[key] = service
            try:
                reply = service.handle(req)
            except Exception as exc:
                traceback.print_exc()
                return Reply(status=500, body=soap_fault_bytes("Receiver", "service error: %s" % exc))
        if isinstance(reply, Reply):
            return reply
        return Reply(status=500, body=soap_fault_bytes("Receiver", "service gave no Reply"))

    def answer(self, conn, req, keep) -> bool:
        """Answers req on conn; returns whether the connection stays open."""
        rule = self.faults.take(req)
        if rule is None:
            reply = self.dispatch(req)
            return self._write(conn, reply, keep, faults_mod.Delivery())
        reply = rule.reply()
        if rule.delivery.delay_ms and self.stopped.wait(rule.delivery.delay_ms / 1000.0):
            return False
        if rule.delivery.reset and rule.delivery.close_after is None:
            conn.reset()
            return False
        if rule.delivery.drop:
            return False
        if reply is None:
            reply = self.dispatch(req)
        return self._write(conn, reply, keep, rule.delivery)

    def _write(self, conn, reply, keep, delivery) -> bool:
        body = reply.body if isinstance(reply.body, bytes) else str(reply.body).encode("utf-8")
        if delivery.close_after is not None:
            keep = False
        chunked = delivery.chunks is not None
        head = build_response(reply.status, body, reply.content_type, list(reply.headers),
                              keep, chunked)
        if chunked:
            pieces = []
            rest = body
            for size in delivery.chunks:
                if not rest:
                    break
                pieces.append(rest[:int(size)])
                rest = rest[int(size):]
            if rest:
                pieces.append(rest)
            payload = [b"%x\r\n%s\r\n" % (len(p), p) for p in pieces] + [b"0\r\n\r\n"]
        else:
            payload = [body]
        if delivery.close_after is not None:
            conn.send((head + b"".join(payload))[:int(delivery.close_after)])
            if delivery.reset:
                conn.reset()
            return False
        if delivery.trickle_ms is not None or delivery.stall_after is not None:
            return self._write_slowly(conn, head + b"".join(payload), keep, delivery)
        gap = (delivery.chunk_delay_ms or 0) / 1000.0
        if delivery.body_delay_ms is not None:
            conn.send(head)
            if self.stopped.wait(delivery.body_delay_ms / 1000.0):
                return False
        else:
            payload[0] = head + payload[0]
        if not gap:
            conn.send(b"".join(payload))
            return keep
        for i, piece in enumerate(payload):
            if i > 0 and self.stopped.wait(gap):
                return False
            conn.send(piece)
        return keep


    def _write_slowly(self, conn, data, keep, delivery) -> bool:
        """Byte by byte (trickle_ms) and/or with one pause (stall_after)."""
        start = 0
        if delivery.stall_after is not None:
            cut = min(int(delivery.stall_after), len(data))
            self._write_trickled(conn, data[:cut], delivery.trickle_ms)
            if self.stopped.wait(delivery.stall_ms / 1000.0):
                return False
            start = cut
        self._write_trickled(conn, data[start:], delivery.trickle_ms)
        return keep

    def _write_trickled(self, conn, data, trickle_ms):
        if trickle_ms is None:
            conn.send(data)
            return
        for i in range(len(data)):
            if i > 0 and trickle_ms and self.stopped.wait(trickle_ms / 1000.0):
                raise OSError("instance stopped")
            conn.send(data[i:i + 1])

    # listeners ---------------------------------------------------------------
    def set_listening(self, which, on):
        """Shuts the listener (connections are refused) or reopens it on its port."""
        attr = "https" if which == "https" else "http"
        current = getattr(self, attr)
        if on and current.closed:
            setattr(self, attr, _Listener(self, tls=(attr == "https"), port=current.port,
                                          cert_files=current.cert_files))
        elif not on and not current.closed:
            current.shut()


class Registry:
    """All live instances of this server process."""

    def __init__(self):
        self.lock = threading.Lock()
        self.instances = {}
        self.next_id = itertools.count(1)

    def create(self, config):
        inst = Instance(next(self.next_id), config)
        with self.lock:
            self.instances[inst.id] = inst
        return inst

    def get(self, instance_id):
        with self.lock:
            return self.instances.get(instance_id)

    def delete(self, instance_id):
        with self.lock:
            inst = self.instances.pop(instance_id, None)
        if inst:
            inst.stop()
        return inst is not None

    def stop_all(self):
        with self.lock:
            insts = list(self.instances.values())
            self.instances.clear()
        for inst in insts:
            inst.stop()

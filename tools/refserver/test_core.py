"""Self-test of the reference server's core, faults and control port.

Run from tools/refserver: /usr/bin/python3 -m unittest -v test_core
Everything runs on loopback, on free ports, and is stopped at the end.
"""
import base64
import http.client
import json
import socket
import ssl
import threading
import time
import unittest

import control
import core

ENVELOPE = (b'<?xml version="1.0" encoding="utf-8"?><soap:Envelope '
            b'xmlns:soap="http://www.w3.org/2003/05/soap-envelope"><soap:Body><x/></soap:Body></soap:Envelope>')


class CoreTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.registry = core.Registry()
        cls.server = control.ControlServer(cls.registry)
        control.serve_in_thread(cls.server)
        cls.port = cls.server.server_address[1]

    @classmethod
    def tearDownClass(cls):
        cls.server.shutdown()
        cls.server.server_close()
        cls.registry.stop_all()

    # helpers ---------------------------------------------------------------
    def control(self, method, path, body=None):
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
        data = json.dumps(body).encode() if body is not None else None
        conn.request(method, path, body=data)
        resp = conn.getresponse()
        text = resp.read()
        conn.close()
        return resp.status, (json.loads(text) if text else None)

    def setUp(self):
        status, info = self.control("POST", "/instances", {"cancels": ["a"]})
        self.assertEqual(status, 200)
        self.id, self.http_port, self.https_port = info["id"], info["http_port"], info["https_port"]

    def tearDown(self):
        self.control("DELETE", "/instances/%d" % self.id)

    def faults(self, rules):
        status, _ = self.control("POST", "/instances/%d/faults" % self.id, rules)
        self.assertEqual(status, 200)

    def post(self, path="/wls/STSServer.actv", conn=None, body=ENVELOPE, timeout=10):
        own = conn is None
        if own:
            conn = http.client.HTTPConnection("127.0.0.1", self.http_port, timeout=timeout)
        try:
            conn.request("POST", path, body=body, headers={"Content-Type": "application/soap+xml; charset=utf-8"})
            resp = conn.getresponse()
            data = resp.read()
        finally:
            if own:
                conn.close()
        return resp, data

    def requests(self):
        return self.control("GET", "/instances/%d/requests" % self.id)[1]

    # tests -----------------------------------------------------------------
    def test_state_and_config(self):
        self.assertEqual(self.control("GET", "/instances/%d/state/cancels" % self.id), (200, ["a"]))
        self.control("POST", "/instances/%d/config" % self.id, {"cancels": [], "act_bytes": "xyz"})
        self.assertEqual(self.control("GET", "/instances/%d/state/cancels" % self.id)[1], [])
        self.assertEqual(self.control("GET", "/instances/%d/state/act_bytes" % self.id)[1],
                         base64.b64encode(b"xyz").decode())
        self.assertEqual(self.control("GET", "/instances/%d/state/nothing" % self.id)[0], 404)
        self.assertEqual(self.control("GET", "/instances/999999/requests")[0], 404)

    def test_requests_are_recorded_with_connection_ids(self):
        self.faults({"status": 200, "body": "<a/>", "times": 3})
        conn = http.client.HTTPConnection("127.0.0.1", self.http_port, timeout=10)
        self.post(conn=conn)
        self.post(conn=conn)
        conn.close()
        self.post()
        reqs = self.requests()
        self.assertEqual(len(reqs), 3)
        self.assertEqual(reqs[0]["connection"], reqs[1]["connection"])
        self.assertNotEqual(reqs[1]["connection"], reqs[2]["connection"])
        self.assertEqual(base64.b64decode(reqs[0]["body"]), ENVELOPE)
        self.assertIn(["Content-Type", "application/soap+xml; charset=utf-8"], reqs[0]["headers"])
        self.assertFalse(reqs[0]["tls"])

    def test_unknown_path_is_404(self):
        resp, _ = self.post("/nowhere")
        self.assertEqual(resp.status, 404)

    def test_nth_and_times(self):
        self.faults([{"nth": 2, "status": 503, "body": "second"},
                     {"times": 2, "status": 200, "body": "counted"}])
        bodies = [self.post()[1] for _ in range(4)]
        self.assertEqual(bodies[0], b"counted")
        self.assertEqual(bodies[1], b"second")
        self.assertEqual(bodies[2], b"counted")
        self.assertNotIn(bodies[3], (b"counted", b"second"))  # rules used up: the service answers

    def test_redirect_and_content_type(self):
        self.faults({"location": "https://h:1/p", "body": "", "content_type": "text/plain"})
        resp, _ = self.post()
        self.assertEqual(resp.status, 302)
        self.assertEqual(resp.getheader("Location"), "https://h:1/p")
        self.assertEqual(resp.getheader("Content-Type"), "text/plain")

    def test_chunked_answer(self):
        self.faults({"status": 200, "body": "0123456789", "chunks": [3, 3], "chunk_delay_ms": 20})
        resp, data = self.post()
        self.assertEqual(resp.getheader("Transfer-Encoding"), "chunked")
        self.assertEqual(data, b"0123456789")

    def test_mtom_answer(self):
        self.faults({"status": 200, "body": "<root/>", "mtom": {"boundary": "BB", "start": "<r>",
                     "parts": [{"content_id": "<p>", "body_b64": base64.b64encode(b"\x00\x01").decode()}]}})
        resp, data = self.post()
        self.assertIn("multipart/related", resp.getheader("Content-Type"))
        self.assertIn("application/soap+xml", resp.getheader("Content-Type"))
        self.assertTrue(data.startswith(b"\r\n--BB\r\n"))
        self.assertIn(b"<root/>", data)
        self.assertIn(b"\x00\x01", data)
        self.assertTrue(data.endswith(b"--BB--\r\n"))

    def test_close_after_and_drop(self):
        self.faults([{"status": 200, "body": "x" * 100, "close_after": 130}, {"drop": True}])
        with self.assertRaises((http.client.HTTPException, ConnectionError)):
            self.post()
        with self.assertRaises((http.client.HTTPException, ConnectionError)):
            self.post()

    def test_delays_do_not_block_others_and_end_with_the_instance(self):
        self.faults({"delay_ms": 5000, "path": "/slow", "status": 200, "body": "late"})
        before = threading.active_count()
        with self.assertRaises(socket.timeout):
            self.post("/slow", timeout=0.3)
        start = time.monotonic()
        self.assertEqual(self.post("/nowhere")[0].status, 404)  # served meanwhile
        self.assertLess(time.monotonic() - start, 1.0)
        self.control("DELETE", "/instances/%d" % self.id)
        deadline = time.monotonic() + 2.0
        while threading.active_count() > before - 2 and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertLessEqual(threading.active_count(), before)
        self.setUp()  # tearDown deletes an instance

    def test_body_delay_sends_headers_first(self):
        self.faults({"status": 404, "body": "gone", "body_delay_ms": 3000})
        sock = socket.create_connection(("127.0.0.1", self.http_port), timeout=5)
        sock.sendall(b"POST /wls/STSServer.actv HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n")
        start = time.monotonic()
        head = sock.recv(4096)
        self.assertLess(time.monotonic() - start, 1.5)
        self.assertTrue(head.startswith(b"HTTP/1.1 404"))
        self.assertTrue(head.endswith(b"\r\n\r\n"))
        sock.close()

    def test_tls_listener(self):
        self.faults({"status": 200, "body": "<secure/>"})
        ctx = ssl.create_default_context()
        ctx.check_hostname = False
        ctx.verify_mode = ssl.CERT_NONE
        conn = http.client.HTTPSConnection("127.0.0.1", self.https_port, timeout=10, context=ctx)
        resp, data = self.post(conn=conn)
        conn.close()
        self.assertEqual(data, b"<secure/>")
        self.assertTrue(self.requests()[0]["tls"])

    def test_certificate_names_give_an_instance_a_certificate_of_its_own(self):
        status, info = self.control("POST", "/instances", {"certificate_names": ["127.0.0.1", "printer.test"]})
        self.assertEqual(status, 200)
        try:
            status, extra = self.control("GET", "/instances/%d/state/extra" % info["id"])
            self.assertEqual(status, 200)
            pem = extra["certificate_pem"]
            self.assertTrue(pem.startswith("-----BEGIN CERTIFICATE-----"))
            self.control("POST", "/instances/%d/faults" % info["id"], {"status": 200, "body": "<named/>"})
            # A client that trusts exactly that certificate checks the name 127.0.0.1 and succeeds.
            ctx = ssl.create_default_context(cadata=pem)
            conn = http.client.HTTPSConnection("127.0.0.1", info["https_port"], timeout=10, context=ctx)
            resp, data = self.post(conn=conn)
            conn.close()
            self.assertEqual(data, b"<named/>")
            # The process-wide certificate is another one, for another name.
            conn = http.client.HTTPSConnection("127.0.0.1", self.https_port, timeout=10, context=ctx)
            with self.assertRaises(ssl.SSLError):
                self.post(conn=conn)
            conn.close()
        finally:
            self.control("DELETE", "/instances/%d" % info["id"])
        status, extra = self.control("GET", "/instances/%d/state/extra" % self.id)
        self.assertNotIn("certificate_pem", extra)

    def test_xml_is_parsed_for_plain_and_mtom_bodies(self):
        req = core.Request("POST", "/", [], ENVELOPE, False, 1)
        self.assertEqual(core.parse_xml(ENVELOPE, "application/soap+xml").tag,
                         "{http://www.w3.org/2003/05/soap-envelope}Envelope")
        mtom = b"\r\n----MIMEBoundaryX\r\ncontent-id: <0.X@example.org>\r\n\r\n" + ENVELOPE + b"\r\n----MIMEBoundaryX--\r\n"
        root = core.parse_xml(mtom, 'multipart/related; type="application/xop+xml"; boundary=--MIMEBoundaryX; start="<0.X>"')
        self.assertIsNotNone(root)
        self.assertIsNone(core.parse_xml(b"<a>", "text/xml"))
        self.assertIsNone(core.parse_xml(b"not xml", "text/xml"))
        self.assertIsNone(req.xml)

    def test_contains_picks_a_message_on_a_shared_path(self):
        self.faults({"contains": "<second/>", "status": 200, "body": "picked"})
        self.assertNotEqual(self.post(body=ENVELOPE)[1], b"picked")
        self.assertEqual(self.post(body=ENVELOPE.replace(b"<x/>", b"<second/>"))[1], b"picked")

    def test_fill_makes_a_large_body_from_its_size(self):
        self.faults({"status": 200, "body": "<a>@FILL@</a><b>@FILL@</b>", "fill": {"size": 3 * 1024 * 1024}})
        resp, data = self.post()
        self.assertEqual(int(resp.getheader("Content-Length")), len(data))
        self.assertEqual(data, b"<a>" + b"A" * (3 * 1024 * 1024) + b"</a><b>" + b"A" * (3 * 1024 * 1024) + b"</b>")
        self.faults({"status": 200, "body": "[#]", "fill": {"marker": "#", "size": 4, "char": "xy"}})
        self.assertEqual(self.post()[1], b"[xyxyxyxy]")

    def _raw_exchange(self, timeout=5):
        sock = socket.create_connection(("127.0.0.1", self.http_port), timeout=timeout)
        sock.sendall(b"POST /wls/STSServer.actv HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n")
        return sock

    def test_reset_before_and_after_bytes(self):
        self.faults([{"reset": True}, {"status": 200, "body": "x" * 100, "close_after": 40, "reset": True}])
        sock = self._raw_exchange()
        with self.assertRaises(ConnectionResetError):
            sock.recv(4096)
            sock.recv(4096)
        sock.close()
        sock = self._raw_exchange()
        got = b""
        with self.assertRaises(ConnectionResetError):
            while True:
                chunk = sock.recv(4096)
                if not chunk:
                    break
                got += chunk
        sock.close()
        self.assertTrue(got.startswith(b"HTTP/1.1 200") or got == b"")
        self.assertLessEqual(len(got), 40)

    def test_trickle_sends_one_byte_per_write(self):
        self.faults({"status": 200, "body": "0123456789", "trickle_ms": 5})
        sock = self._raw_exchange()
        pieces = []
        while True:
            chunk = sock.recv(4096)
            if not chunk:
                break
            pieces.append(chunk)
            time.sleep(0.02)  # the server is slower than this reader: reads stay small
            if b"".join(pieces).endswith(b"0123456789"):
                break
        sock.close()
        data = b"".join(pieces)
        self.assertTrue(data.startswith(b"HTTP/1.1 200"))
        self.assertTrue(data.endswith(b"\r\n\r\n0123456789"))
        self.assertGreater(len(pieces), len(data) // 8)

    def test_stall_after_pauses_mid_answer_then_sends_the_rest(self):
        self.faults({"status": 200, "body": "0123456789", "stall_after": 5, "stall_ms": 600})
        sock = self._raw_exchange()
        first = sock.recv(4096)
        self.assertEqual(first, b"HTTP/")
        sock.settimeout(0.3)
        with self.assertRaises(socket.timeout):
            sock.recv(4096)
        sock.settimeout(5)
        rest = b""
        while not rest.endswith(b"0123456789"):
            chunk = sock.recv(4096)
            if not chunk:
                break
            rest += chunk
        sock.close()
        self.assertTrue((first + rest).endswith(b"\r\n\r\n0123456789"))

    def test_listening_off_refuses_connections_and_on_listens_again(self):
        status, _ = self.control("POST", "/instances/%d/config" % self.id, {"listening": {"http": False}})
        self.assertEqual(status, 200)
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", self.http_port), timeout=5).close()
        self.control("POST", "/instances/%d/config" % self.id, {"listening": {"http": True}})
        self.assertEqual(self.post("/nowhere")[0].status, 404)
        self.assertNotIn("listening", self.control("GET", "/instances/%d/state/extra" % self.id)[1])
        status, _ = self.control("POST", "/instances/%d/config" % self.id, {"listening": {"ftp": False}})
        self.assertEqual(status, 400)

    def test_bad_fault_rules_are_refused(self):
        status, _ = self.control("POST", "/instances/%d/faults" % self.id, {"chunks": [0]})
        self.assertEqual(status, 400)
        status, _ = self.control("POST", "/instances/%d/faults" % self.id, "text")
        self.assertEqual(status, 400)
        for bad in ({"fill": {"size": -1}}, {"fill": "big"}, {"trickle_ms": -1}, {"stall_after": -2}):
            status, _ = self.control("POST", "/instances/%d/faults" % self.id, bad)
            self.assertEqual(status, 400, bad)


if __name__ == "__main__":
    unittest.main()

#!/usr/bin/env python3
"""Real traces for the trace viewer's tests: runs the real Quorvantis.dll
(qvhost under Wine) against the reference server in a set of scenarios and
keeps, for each, the trace the add-in wrote and what the server saw.

    scenarios.py --build BUILD --out DIR [--control-port-file FILE] [--only a,b]

For every scenario NAME it writes DIR/NAME.log (the trace, DebugLevel=5, as
the add-in wrote it) and DIR/NAME.json: qvhost's exit code and output, the
result code of each entry call as qvhost printed it, and the secrets of the
exchange taken from the server's side (passwords, digests, SDL/SDL2 answers,
the Basic payload, HMAC keys, CipherData, assertion IDs), so that a test can
check the viewer's redaction against values it did not compute itself.

The server is the CTest fixture's (its control port in FILE, by default
BUILD/refserver.port); without one, a reference server of our own is started
on a free loopback port and stopped at the end. Everything runs on loopback.
"""
import argparse
import base64
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.abspath(os.path.join(HERE, "..", ".."))

USER = "alice"
DOMAIN = "LAB"
POLICY = [{"Info": "Trace test", "AuthType": m, "EnableCredentialCache": "true"}
          for m in ("Basic2", "Basic", "SDL2", "SDL", "NTLM")]
POLICY_PATH = "/wls/WLSPolicyService.actv"
DRV_PATH = "/zeb/Drv-Comm.actv"
ZEB_NS = "urn:orvel:zeb:drvcomm"
WLS_NS = "urn:orvel:zeb:wls"

# Each scenario: qvhost options, the user's password on the server, the
# password the host types, ini extras, fault rules (a function of the
# instance's ports) and the entry results qvhost must report.
SCENARIOS = {
    # One success per mechanism. Passwords hold XML specials and a non-ASCII
    # letter where the mechanism carries them, so that redaction is tested on
    # escaped and code-page text as well.
    "ok-basic2": dict(mech="Basic2", password="Bas2&<S3cr\u00e9t>", ),
    "ok-basic": dict(mech="Basic", password="BasicS3cret-71"),
    "ok-sdl": dict(mech="SDL", password="SdlS3cret-58", auth_flags=4),
    "ok-sdl2": dict(mech="SDL2", password="Sdl2S3cret-93", auth_flags=4),
    "ok-ntlm": dict(mech="NTLM", password="NtlmS3cret-26", auth_flags=1),
    # The host types a wrong password: Authentication fails with
    # ZEB_ERROR_FAULT_FAILED_AUTHENTICATION.
    "wrong-password": dict(mech="Basic2", password="RightPassw0rd-11", typed="Wr0ngPassw0rd-12",
                           expect={"Authentication": 0xD5070102}),
    # The device service answers every GetACT with a fault.
    "server-fault": dict(mech="Basic2", password="FaultS3cret-44", act_count=1,
                         faults=lambda p: [{"path": DRV_PATH, "contains": "GetACTRequest", "times": 0,
                                            "status": 500, "body": fault_xml(
                                                "soap:Receiver", "zeb:RoleMappingDataError", ZEB_NS,
                                                "No role is mapped to this user.")}],
                         expect={"GetACT": 0xD5070303}),
    # The policy service never answers within Timeout: three attempts
    # (RetryCount 2), then ZEB_ERROR_WINHTTP_TIMEOUT.
    "timeout": dict(mech="Basic2", password="TimeoutS3cret-35", ini={"Timeout": "1000", "RetryCount": "2"},
                    faults=lambda p: [{"path": POLICY_PATH, "delay_ms": 2500, "times": 0}],
                    expect={"GetPolicy": 0xD5020001}),
    # The policy service redirects to HTTPS; the rest of the session is secure.
    "redirect": dict(mech="Basic2", password="RedirS3cret-62",
                     faults=lambda p: [{"path": POLICY_PATH, "times": 1,
                                        "location": "https://127.0.0.1:%d%s" % (p["https_port"], POLICY_PATH)}]),
    # The server forgets the HMAC key before the second GetACT: both GetACT
    # calls fetch the public key and resend with a new key.
    "key-exchange": dict(mech="Basic2", password="KeyS3cret-87",
                         faults=lambda p: [{"path": DRV_PATH, "contains": "GetACTRequest", "nth": 3,
                                            "status": 500, "body": fault_xml(
                                                "soap:Receiver", "zeb:GetActErrorRequestHmacKey", ZEB_NS,
                                                "The server holds no HMAC key for this client.")}]),
    # GetACT as an MTOM exchange (EnableMTOM=1).
    "mtom": dict(mech="Basic2", password="MtomS3cret-50", ini={"EnableMTOM": "1"}),
    # Four host threads at once, each with a session of its own.
    "threads4": dict(mech="Basic2", password="ThreadS3cret-19", threads=4),
}


def fault_xml(code, subcode, namespace, reason):
    return ('<?xml version="1.0" encoding="utf-8"?>'
            '<soap:Envelope xmlns:soap="http://www.w3.org/2003/05/soap-envelope"><soap:Body><soap:Fault>'
            '<soap:Code><soap:Value>%s</soap:Value><soap:Subcode><soap:Value xmlns:%s="%s">%s</soap:Value>'
            '</soap:Subcode></soap:Code><soap:Reason><soap:Text xml:lang="en">%s</soap:Text></soap:Reason>'
            '</soap:Fault></soap:Body></soap:Envelope>' % (code, subcode.split(":")[0], namespace, subcode, reason))


# --------------------------------------------------------------------------
# The reference server's control port.
class Control:
    def __init__(self, port):
        self.base = "http://127.0.0.1:%d" % port

    def call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode("utf-8")
        req = urllib.request.Request(self.base + path, data=data, method=method,
                                     headers={"Content-Type": "application/json"})
        with urllib.request.urlopen(req, timeout=30) as resp:
            return json.loads(resp.read().decode("utf-8"))


def start_own_server(folder):
    """A reference server in control mode; (process, control port)."""
    port_file = os.path.join(folder, "control.port")
    log = open(os.path.join(folder, "refserver.log"), "wb")
    proc = subprocess.Popen([sys.executable, os.path.join(SOURCE, "tools", "refserver", "refserver.py"),
                             "--control-port-file", port_file], stdin=subprocess.DEVNULL, stdout=log,
                            stderr=subprocess.STDOUT)
    log.close()
    for _ in range(200):
        if os.path.exists(port_file) and open(port_file).read().strip():
            return proc, int(open(port_file).read())
        if proc.poll() is not None:
            break
        time.sleep(0.05)
    proc.kill()
    proc.wait()
    raise RuntimeError("the reference server did not start")


def win_path(path):
    return "Z:" + path.replace("/", "\\")


# --------------------------------------------------------------------------
# Secrets as the server saw them.
def _texts(body, element):
    """Texts of every <prefix:element>...</prefix:element> in a request body."""
    pattern = r"<(?:[\w.-]+:)?%s\b[^>]*>(.*?)</(?:[\w.-]+:)?%s>" % (element, element)
    return re.findall(pattern, body, re.S)


def server_secrets(control, instance, password, typed, mech):
    """[{"kind", "text" | "b64"}] of every secret the exchanges carried."""
    secrets = []

    def add(kind, text=None, raw=None):
        if text:
            secrets.append({"kind": kind, "text": text})
        if raw:
            secrets.append({"kind": kind, "b64": base64.b64encode(raw).decode("ascii")})

    add("password", typed)
    if typed != password:
        add("password", password)
    if mech in ("SDL", "SDL2"):
        # The password digest SDL and SDL2 hand back to the host.
        add("password digest", hashlib.md5(typed.encode("latin-1", "replace")).hexdigest())
    for req in control.call("GET", "/instances/%d/requests" % instance):
        body = base64.b64decode(req["body"]).decode("utf-8", "replace")
        for data in _texts(body, "AuthenticationData"):
            compact = re.sub(r"\s+", "", data)
            raw = base64.b64decode(compact)
            if raw.startswith(b"SDLChallengeRequest") or raw.startswith(b"NTLMSSP\x00\x01"):
                continue  # the first legs name the user only
            add("authentication data (Base64)", compact)
            add("authentication data", raw=raw)
            text = raw.decode("latin-1")
            if mech in ("SDL", "SDL2"):
                add("SDL answer digest", text.split(" ")[-1])
        for data in _texts(body, "CipherData"):
            add("CipherData", re.sub(r"\s+", "", data))
    for assertion_id in control.call("GET", "/instances/%d/state/assertions" % instance):
        add("assertion ID", assertion_id)
    for key in control.call("GET", "/instances/%d/state/hmac_keys" % instance).values():
        add("HMAC key", raw=base64.b64decode(key))
    return secrets


# --------------------------------------------------------------------------
STEP = re.compile(r"^(?:\[(\d+)\] )?(Initialize|Open|GetPolicy|Authentication|GetACT)\s+-> 0x([0-9a-f]{8})",
                  re.M)


def run_scenario(name, spec, control, build, out):
    password = spec["password"]
    typed = spec.get("typed", password)
    created = control.call("POST", "/instances", {
        "users": {USER: {"password": password, "domain": DOMAIN}}, "policy": POLICY})
    instance = created["id"]
    ports = {"http_port": created["http_port"], "https_port": created["https_port"]}
    try:
        if "faults" in spec:
            control.call("POST", "/instances/%d/faults" % instance, spec["faults"](ports))
        work = tempfile.mkdtemp(prefix="qvtrace-")
        trace = os.path.join(work, "trace.log")
        ini = os.path.join(work, "trace.ini")
        settings = {"PortNo": ports["http_port"], "SecurePortNo": ports["https_port"], "Timeout": "10000",
                    "DebugLevel": "5", "DebugFile": win_path(trace)}
        settings.update(spec.get("ini", {}))
        with open(ini, "w", newline="") as f:
            f.write("[Quorvantis]\r\n" + "".join("%s=%s\r\n" % kv for kv in settings.items()))
        args = [os.path.join(SOURCE, "scripts", "wine-run"), "qvhost.exe", "--ini", win_path(ini),
                "--address", "127.0.0.1", "--mech", spec["mech"], "--user", USER, "--password", typed,
                "--domain", DOMAIN, "--subject", "printer-" + name,
                "--auth-flags", str(spec.get("auth_flags", 0)), "--act-count", str(spec.get("act_count", 2)),
                "--threads", str(spec.get("threads", 1))]
        env = dict(os.environ, QV_BUILD_DIR=build)
        started = time.time()
        proc = subprocess.run(args, cwd=os.path.join(build, "bin"), env=env, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
        elapsed = time.time() - started
        output = proc.stdout.decode("utf-8", "replace")
        results = [{"thread": int(m.group(1) or 1), "call": m.group(2), "code": int(m.group(3), 16)}
                   for m in STEP.finditer(output)]
        with open(trace, "rb") as f:
            data = f.read()
        with open(os.path.join(out, name + ".log"), "wb") as f:
            f.write(data)
        info = {"name": name, "mech": spec["mech"], "exit_code": proc.returncode, "output": output,
                "results": results, "expect": {k: v for k, v in spec.get("expect", {}).items()},
                "threads": spec.get("threads", 1), "ini": spec.get("ini", {}), "elapsed_s": round(elapsed, 3),
                "secrets": server_secrets(control, instance, password, typed, spec["mech"]),
                "user": USER, "domain": DOMAIN, "ports": ports}
        with open(os.path.join(out, name + ".json"), "w") as f:
            json.dump(info, f, indent=1)
        os.remove(trace)
        os.remove(ini)
        os.rmdir(work)
        return info
    finally:
        control.call("DELETE", "/instances/%d" % instance)


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--build", required=True)
    p.add_argument("--out", required=True)
    p.add_argument("--control-port-file")
    p.add_argument("--only", help="comma-separated scenario names")
    args = p.parse_args(argv)
    build = os.path.abspath(args.build)
    os.makedirs(args.out, exist_ok=True)
    names = args.only.split(",") if args.only else list(SCENARIOS)

    port_file = args.control_port_file or os.path.join(build, "refserver.port")
    own = None
    folder = tempfile.mkdtemp(prefix="qvtrace-server-")
    try:
        if os.path.exists(port_file) and open(port_file).read().strip():
            control = Control(int(open(port_file).read()))
        else:
            own, port = start_own_server(folder)
            control = Control(port)
        failed = 0
        for name in names:
            info = run_scenario(name, SCENARIOS[name], control, build, args.out)
            codes = ", ".join("%s%s=0x%08X" % ("[%d]" % r["thread"] if info["threads"] > 1 else "", r["call"],
                                                r["code"]) for r in info["results"])
            print("%-15s exit %d in %.1f s: %s" % (name, info["exit_code"], info["elapsed_s"], codes))
            # A scenario that did not go the way it was set up is no test input.
            expected_exit = 1 if info["expect"] else 0
            wrong = [r for r in info["results"] if r["code"] != info["expect"].get(r["call"], 0)]
            if info["exit_code"] != expected_exit or wrong or not info["results"]:
                failed += 1
                print("  unexpected outcome:\n" + info["output"], file=sys.stderr)
        return 1 if failed else 0
    finally:
        if own is not None:
            own.terminate()
            try:
                own.wait(timeout=10)
            except subprocess.TimeoutExpired:
                own.kill()
                own.wait()
        for f in os.listdir(folder):
            os.remove(os.path.join(folder, f))
        os.rmdir(folder)


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Reference access-management server for tests and demos.

Test mode (scripts/refserver-ctl):
    refserver.py --control-port-file FILE
  serves the control port (control.py) on a free loopback port, written to
  FILE, until killed; tests create instances through it.

Standalone mode (demo, integrators):
    refserver.py --http-port N --https-port M [--users FILE|JSON]
                 [--policy JSON] [--wls-namespace URI] [--zeb-namespace URI]
  runs one instance (0 = a free port) and prints "http_port=N https_port=M".
"""
import argparse
import json
import os
import signal
import sys
import threading

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import control  # noqa: E402
import core  # noqa: E402


def _json_or_file(text):
    if text is None:
        return None
    if os.path.isfile(text):
        with open(text, "r", encoding="utf-8") as f:
            return json.load(f)
    return json.loads(text)


def _write_atomically(path, text):
    tmp = path + ".tmp%d" % os.getpid()
    with open(tmp, "w") as f:
        f.write(text)
    os.replace(tmp, path)


def _standalone_instance(args, registry):
    """One instance on the requested ports (0 = free)."""
    config = {}
    users = _json_or_file(args.users)
    if users is not None:
        config["users"] = users
    policy = _json_or_file(args.policy)
    if policy is not None:
        config["policy"] = policy
    if args.wls_namespace:
        config["wls_namespace"] = args.wls_namespace
    if args.zeb_namespace:
        config["zeb_namespace"] = args.zeb_namespace
    inst = core.Instance(1, config, http_port=args.http_port or 0, https_port=args.https_port or 0)
    registry.instances[inst.id] = inst
    return inst


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--control-port-file")
    p.add_argument("--control-port", type=int, default=0)
    p.add_argument("--http-port", type=int)
    p.add_argument("--https-port", type=int)
    p.add_argument("--users")
    p.add_argument("--policy")
    p.add_argument("--wls-namespace")
    p.add_argument("--zeb-namespace")
    args = p.parse_args(argv)

    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *a: stop.set())
    signal.signal(signal.SIGINT, lambda *a: stop.set())

    # The certificate is made once per process; start on it now so that the
    # first instance does not wait for it.
    threading.Thread(target=core.certificate_files, daemon=True, name="certificate").start()

    registry = core.Registry()
    server = None
    if args.control_port_file or args.http_port is None:
        server = control.ControlServer(registry, args.control_port)
        control.serve_in_thread(server)
        if args.control_port_file:
            _write_atomically(args.control_port_file, "%d\n" % server.server_address[1])
        else:
            print("control_port=%d" % server.server_address[1], flush=True)
    if args.http_port is not None or args.https_port is not None:
        inst = _standalone_instance(args, registry)
        print("http_port=%d https_port=%d" % (inst.http.port, inst.https.port), flush=True)
    try:
        while not stop.wait(0.5):
            pass
    finally:
        if server is not None:
            server.shutdown()
            server.server_close()
        registry.stop_all()
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Local configuration server for tests and the demo.

Answers JSON-RPC 2.0 over HTTP POST the way the controller's server does:
  get_config  {"heat_meter": id}  -> the meter's entry of config["meters"] (or {})
  get_config2                     -> config["get_config2"] (or [])
  put_all_current_values, put_current_value, put_one_value -> true
The configuration file is re-read for every request, so a test may change it while
the daemon runs. Every request body is appended, as received, to the --log file
(one line each). --garbage N answers the first N requests with text that is not JSON.
"""
import argparse
import http.server
import json
import os
import sys
import threading


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--config", required=True)
    parser.add_argument("--log", default=None)
    parser.add_argument("--port-file", default=None,
                        help="written with the port number once the server listens (--port 0: any free port)")
    parser.add_argument("--garbage", type=int, default=0)
    args = parser.parse_args()

    lock = threading.Lock()
    state = {"garbage_left": args.garbage}

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, fmt, *a):  # keep stderr quiet
            pass

        def do_POST(self):
            length = int(self.headers.get("Content-Length") or 0)
            body = self.rfile.read(length).decode("utf-8", "replace")
            with lock:
                if args.log:
                    with open(args.log, "a", encoding="utf-8") as log:
                        log.write(body.rstrip("\n") + "\n")
                garbage = state["garbage_left"] > 0
                if garbage:
                    state["garbage_left"] -= 1
            if garbage:
                self.reply(b"this is not json")
                return
            try:
                request = json.loads(body)
            except ValueError:
                self.reply(b'{"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error"}}')
                return
            try:
                with open(args.config, encoding="utf-8") as f:
                    config = json.load(f)
            except (OSError, ValueError):
                config = {}
            method = request.get("method")
            params = request.get("params") or {}
            if method == "get_config":
                result = config.get("meters", {}).get(str(params.get("heat_meter", "")), {})
            elif method == "get_config2":
                result = config.get("get_config2", [])
            elif method in ("put_all_current_values", "put_current_value", "put_one_value"):
                result = True
            else:
                self.reply(json.dumps({"jsonrpc": "2.0", "id": request.get("id"),
                                       "error": {"code": -32601, "message": "Method not found"}}).encode())
                return
            self.reply(json.dumps({"jsonrpc": "2.0", "id": request.get("id"), "result": result},
                                  ensure_ascii=False).encode("utf-8"))

        def reply(self, data):
            self.send_response(200)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(data)))
            self.end_headers()
            self.wfile.write(data)

    server = http.server.ThreadingHTTPServer(("127.0.0.1", args.port), Handler)
    server.daemon_threads = True
    if args.port_file:
        tmp = args.port_file + ".tmp"
        with open(tmp, "w", encoding="utf-8") as f:
            f.write("%d\n" % server.server_address[1])
        os.replace(tmp, args.port_file)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())

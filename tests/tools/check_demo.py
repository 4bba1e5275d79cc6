#!/usr/bin/env python3
"""Runs tavlo-demo against its own server at its highest speed, where its paced main queue
is always behind and catches up (exit 0, the hits in rank order, a drained queue file), then
against a port where nothing listens, waiting no time (exit 1, the hits left in the queue
file), and against a collector answering 404 (exit 1, every hit dropped); tavlo-queue lists
each file. Usage: check_demo.py TAVLO_DEMO TAVLO_QUEUE"""
import http.server
import os
import re
import subprocess
import sys
import tempfile
import threading

failures = []


def check(condition, message):
    if not condition:
        failures.append(message)


def run(*command):
    result = subprocess.run(command, capture_output=True, timeout=60)
    check(result.returncode >= 0, "%s crashed with signal %d" % (command, -result.returncode))
    return result.returncode, result.stdout.decode("utf-8", "replace") + result.stderr.decode("utf-8", "replace")


def queue_listing(queue_tool, output):
    found = re.search(r"^queue file: (\S+)$", output, re.MULTILINE)
    check(found, "the demo does not say where its queue file is:\n" + output)
    return (found.group(1),) + run(queue_tool, "list", found.group(1)) if found else (None, None, "")


def main():
    demo, queue_tool = sys.argv[1:3]
    with tempfile.TemporaryDirectory(prefix="tavlo-demo-check.") as work:
        data = os.path.join(work, "embedded")
        status, output = run(demo, "--speed", "1000", "--data-dir", data)
        ranks = re.findall(r"^ +[0-9.]+s  streaming +(poll, play|poll, pause|play|pause|stop) +(\d+) ", output, re.M)
        check(status == 0 and "OK: every expected hit arrived" in output and
              "summary: 11 hits sent (3 audience, 8 streaming), 0 dropped, 0 still queued" in output and
              ranks == [("play", "1"), ("poll, play", "2"), ("poll, play", "3"), ("pause", "4"),
                        ("poll, pause", "5"), ("play", "6"), ("poll, play", "7"), ("stop", "8")],
              "against its own server:\n" + output)
        path, status, listing = queue_listing(queue_tool, output)
        check(path == os.path.join(data, "TavloDemo/TavloCache/requests.ser") and status == 0 and
              re.search(r": 0 elements$|^still to send: 0 of", listing, re.M) and
              "serial tavlo-demo, streaming: 8 queued, 8 sent, 0 dropped" in listing,
              "the drained queue %s: %s" % (path, listing))

        status, output = run(demo, "--collector", "http://127.0.0.1:1", "--wait", "0", "--speed", "1000",  # refused
                             "--data-dir", os.path.join(work, "unreachable"))
        check(status == 1 and "0 hits sent" in output and "11 still queued" in output and
              "FAILED: hits are still waiting" in output, "with no collector:\n" + output)
        status, listing = queue_listing(queue_tool, output)[1:]
        check(status == 0 and "11 elements: 3 audience, 8 streaming" in listing and
              "serial tavlo-demo, audience: 3 queued, 0 sent, 0 dropped" in listing and
              '"cmsSN" = "Night Train"' in listing and '"c" = "home"' in listing, "the waiting hits:\n" + listing)
        # A collector that answers 404 to everything takes every hit, yet none counts as sent.
        class NotFound(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.send_response(404)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *args):
                pass

        refusing = http.server.ThreadingHTTPServer(("127.0.0.1", 0), NotFound)
        threading.Thread(target=refusing.serve_forever, daemon=True).start()
        status, output = run(demo, "--collector", "http://127.0.0.1:%d" % refusing.server_address[1], "--wait", "5",
                             "--speed", "1000", "--data-dir", os.path.join(work, "refusing"))
        refusing.shutdown()
        check(status == 1 and "0 hits sent" in output and "11 dropped (11 HTTP status)" in output and
              "dropped: a streaming hit, HTTP status 404" in output and "FAILED: hits were dropped" in output,
              "against a collector answering 404:\n" + output)
        # The local collector, with the demo itself sending to it.
        collector = subprocess.Popen([demo, "--serve", "0"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        try:
            first = collector.stdout.readline().decode("utf-8", "replace")
            found = re.search(r"at (http://127\.0\.0\.1:\d+) ", first)
            check(found, "the collector does not say where it serves: " + first)
            if found:
                status, output = run(demo, "--collector", found.group(1), "--speed", "1000",
                                     "--data-dir", os.path.join(work, "served"))
                check(status == 0, "the demo against the local collector:\n" + output)
        finally:
            collector.terminate()
            served = first + collector.communicate(timeout=30)[0].decode("utf-8", "replace")
        check(collector.returncode == 0 and "11 hits received" in served and
              re.search(r"streaming +stop +8 ", served), "the local collector:\n" + served)
    for failure in failures:
        print("FAIL: " + failure)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()

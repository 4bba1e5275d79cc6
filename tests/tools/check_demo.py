#!/usr/bin/env python3
"""Runs tavlo-demo three ways and checks what it prints, its exit status and the queue file
it leaves behind:
  1. against its embedded server, in accelerated time: every expected hit, exit 0, an
     empty queue file that tavlo-queue reads;
  2. against a collector of this script's own (Python's http.server, an independent
     server): exit 0, and the collector received the same hits the demo printed;
  3. against a port where nothing listens, waiting no time: exit 1, the hits left in the
     queue file, which tavlo-queue lists, and a damaged copy it reports as damaged.
Usage: check_demo.py TAVLO_DEMO TAVLO_QUEUE"""
import http.server
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import urllib.parse

failures = []


def check(condition, message):
    if not condition:
        failures.append(message)
    return condition


def run(command, timeout=60):
    result = subprocess.run(command, capture_output=True, timeout=timeout)
    # A negative status is a signal: the program crashed, whatever it printed.
    check(result.returncode >= 0, "%s crashed with signal %d" % (command, -result.returncode))
    return result.returncode, result.stdout.decode("utf-8", "replace"), result.stderr.decode("utf-8", "replace")


def queue_file_of(output):
    found = re.search(r"^queue file: (\S+)$", output, re.MULTILINE)
    check(found is not None, "the demo does not say where its queue file is:\n" + output)
    return found.group(1) if found else None


# The lines of the streaming hits, in rank order: event and rank.
STREAMING = [("play", 1), ("poll, play", 2), ("poll, play", 3), ("pause", 4), ("poll, pause", 5), ("play", 6),
             ("poll, play", 7), ("stop", 8)]


def check_embedded(demo, queue_tool, data):
    status, output, errors = run([demo, "--data-dir", data])
    check(status == 0, "the demo against its own server exits %d:\n%s\n%s" % (status, output, errors))
    for screen in ("home", "catalogue / films", "player / films / Night Train"):
        check(re.search(r"^ +[0-9.]+s  audience +screen +%s$" % re.escape(screen), output, re.MULTILINE),
              "no audience line for %r:\n%s" % (screen, output))
    ranks = re.findall(r"^ +[0-9.]+s  streaming +(poll, play|poll, pause|play|pause|stop) +(\d+) ", output, re.MULTILINE)
    check([(event, int(rank)) for event, rank in ranks] == STREAMING,
          "streaming lines %r, expected %r:\n%s" % (ranks, STREAMING, output))
    for line in ("summary: 11 hits sent (3 audience, 8 streaming), 0 dropped, 0 still queued",
                 "OK: every expected hit arrived"):
        check(line in output, "the output lacks %r:\n%s" % (line, output))
    queue_file = queue_file_of(output)
    check(queue_file == os.path.join(data, "TavloDemo", "TavloCache", "requests.ser"),
          "the queue file %r is not under --data-dir %r" % (queue_file, data))
    check(os.path.isdir(os.path.join(data, "tavlo", "secure-store")), "no device identifier under " + data)
    if queue_file:
        status, listing, errors = run([queue_tool, "list", queue_file])
        check(status == 0 and "0 elements" in listing,
              "tavlo-queue on the drained queue exits %d: %s %s" % (status, listing, errors))


class Collector(http.server.BaseHTTPRequestHandler):
    """Authorises any serial and collects hits, as the real servers do, and keeps the paths."""
    received = []

    def do_GET(self):
        Collector.received.append(self.path)
        path = urllib.parse.urlsplit(self.path).path
        if path.startswith("/m/web/"):
            body = b"OK"
        else:
            host = "http://127.0.0.1:%d/m/web/" % self.server.server_address[1]
            body = ("access=full|host=%s|cmsVI=7" % host).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args):
        pass


def check_collector(demo, data):
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Collector)
    thread = threading.Thread(target=server.serve_forever, daemon=True)
    thread.start()
    try:
        base = "http://127.0.0.1:%d" % server.server_address[1]
        status, output, errors = run([demo, "--collector", base, "--speed", "40", "--serial", "my-serial",
                                      "--data-dir", data])
    finally:
        server.shutdown()
    check(status == 0, "the demo against a collector exits %d:\n%s\n%s" % (status, output, errors))
    check("cannot be checked from here; every hit was sent and answered" in output,
          "the demo does not say it cannot check the collector:\n" + output)
    hits = [path for path in Collector.received if path.startswith("/m/web/my-serial?")]
    check(len(hits) == 11, "the collector received %d hits, not 11: %r" % (len(hits), Collector.received))
    check(output.count("-> answered 200") == len(Collector.received),
          "the demo does not print each exchange with its answer:\n" + output)
    ranks = [urllib.parse.parse_qs(urllib.parse.urlsplit(p).query).get("cmsRK", [None])[0] for p in hits]
    check([r for r in ranks if r] == [str(i) for i in range(1, 9)], "ranks at the collector: %r" % ranks)


def check_unreachable(demo, queue_tool, data):
    with socket.socket() as probe:  # a port nothing listens on once the probe is closed
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    status, output, errors = run([demo, "--collector", "http://127.0.0.1:%d" % port, "--wait", "0", "--speed", "40",
                                  "--data-dir", data])
    check(status == 1, "the demo with no collector exits %d, not 1:\n%s\n%s" % (status, output, errors))
    check("0 hits sent" in output and "11 still queued" in output and "FAILED: hits are still waiting" in output,
          "the summary does not report the hits waiting:\n" + output)
    queue_file = queue_file_of(output)
    if not queue_file:
        return
    status, listing, errors = run([queue_tool, "list", queue_file])
    check(status == 0 and "11 elements: 3 audience, 8 streaming" in listing,
          "tavlo-queue on the demo's waiting hits exits %d:\n%s\n%s" % (status, listing[:2000], errors))
    check('"cmsSN" = "Night Train"' in listing and '"c" = "home"' in listing,
          "the listing lacks the demo's parameters:\n" + listing[:2000])

    damaged = os.path.join(data, "damaged.ser")
    with open(queue_file, "rb") as source, open(damaged, "wb") as copy:
        content = source.read()
        copy.write(content[: len(content) * 2 // 3])
    status, _, errors = run([queue_tool, "validate", damaged])
    check(status == 1 and errors.strip(), "tavlo-queue validate on a cut copy exits %d: %r" % (status, errors))
    status, _, errors = run([queue_tool, "list", damaged])
    check(status == 1 and errors.strip(), "tavlo-queue list on a cut copy exits %d: %r" % (status, errors))


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    demo, queue_tool = sys.argv[1:]
    work = tempfile.mkdtemp(prefix="tavlo-demo-check.")
    try:
        check_embedded(demo, queue_tool, os.path.join(work, "embedded"))
        check_collector(demo, os.path.join(work, "collector"))
        check_unreachable(demo, queue_tool, os.path.join(work, "unreachable"))
    finally:
        shutil.rmtree(work, ignore_errors=True)
    for failure in failures:
        print("FAIL: " + failure)
    if failures:
        sys.exit(1)
    print("tavlo-demo: its hits, its collector mode and the queue file it leaves behind check out")


if __name__ == "__main__":
    main()

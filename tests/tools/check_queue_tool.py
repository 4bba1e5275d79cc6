#!/usr/bin/env python3
"""Reads a queue file of known content with Python's plistlib, then with tavlo-queue, whose
JSON Python's json module reads (readers independent of the library); runs tavlo-queue on a
damaged copy and with wrong arguments. Usage: check_queue_tool.py TAVLO_QUEUE WRITER"""
import json
import os
import plistlib
import subprocess
import sys
import tempfile

failures = []


def check(condition, message):
    if not condition:
        failures.append(message)


def run(*args, env=None):
    result = subprocess.run(args, capture_output=True, env=env, timeout=30)
    check(result.returncode >= 0, "%s crashed with signal %d" % (args, -result.returncode))
    return result.returncode, result.stdout.decode("utf-8"), result.stderr.decode("utf-8", "replace")


def main():
    tool, writer = sys.argv[1:3]
    with tempfile.TemporaryDirectory(prefix="tavlo-queue-check.") as folder:
        path = os.path.join(folder, "requests.ser")
        subprocess.run([writer, path], check=True)
        with open(path, "rb") as f:
            sound = f.read()

        # Our writer matches libplist byte for byte (TavloKeyedArchiveTest), and both share our
        # epoch; a strict reader of its own sees a genuine NSKeyedArchiver archive, dates from 2001.
        archive = plistlib.loads(sound, fmt=plistlib.FMT_BINARY)
        objects = archive["$objects"]
        streaming, audience = (objects[u.data] for u in objects[archive["$top"]["root"].data]["NS.objects"][:2])
        check((archive["$archiver"], archive["$version"], objects[0]) == ("NSKeyedArchiver", 100000, "$null") and
              objects[streaming["TavloRequest_creationDate"].data]["NS.time"] == 1700000000.5 - 978307200 and
              objects[audience["TavloRequest_creationDate"].data]["NS.time"] == 0, "plistlib read %r" % archive)

        status, text, _ = run(tool, "list", path)
        for expected in ("3 elements: 1 audience, 1 streaming, 1 clear-cache marker", "\"ml1\" = \"caf\u00e9\"",
                         "2023-11-14T22:13:20.500Z (1700000000.5)", "2001-01-01T00:00:00Z (978307200)",
                         "partial id audience (9223372036854775807)", "mode restricted (1), host", "cmsVI \"31337\""):
            check(status == 0 and expected in text, "the listing lacks %r:\n%s" % (expected, text))
        report = json.loads(run(tool, "list", "--json", path)[1])  # strict: invalid UTF-8 or JSON raises
        streaming, audience, marker = report["requests"]
        check(report["valid"] and report["problems"] == [] and marker == {"index": 2, "kind": "marker"} and
              audience["taggerID"]["partialID"] == 2**63 - 1, "the JSON report %r" % report)
        got = [streaming[k] for k in ("sendingMode", "fails", "created", "lastFail", "taggerID", "parameters")]
        check(got == ["disconnected", -2, {"iso8601": "2023-11-14T22:13:20.500Z", "epoch": 1700000000.5}, None,
                      {"serial": "serial-9", "partialID": 3, "streaming": True}, {"c": "home", "ml1": "caf\u00e9"}],
              "the JSON streaming request %r" % got)
        status, text, _ = run(tool, "validate", path)
        check(status == 0 and "valid, 3 elements" in text, "validate of the sound file: %d %r" % (status, text))

        # A damaged file: validate says why in one line; list shows what can still be read.
        with open(path, "wb") as f:
            f.write(sound.replace(b"TavloClearCache", b"TavloClearCachX"))
        status, _, errors = run(tool, "validate", path)
        reason = "1 of 3 archived elements could not be decoded"
        check(status == 1 and errors.count("\n") == 1 and reason in errors, "validate %d %r" % (status, errors))
        status, text, errors = run(tool, "list", path)
        check(status == 1 and reason in errors and text.count(" request\n") == 2, "damaged: list %r" % text)
        for missing, reason in ((path + ".absent", "No such file"), (folder, "not a regular file")):
            status, _, errors = run(tool, "validate", missing)
            check(status == 1 and reason in errors, "validate %s: %d %r" % (missing, status, errors))

        for args in ((), ("list",), ("validate", "a", "--json"), ("frobnicate",), ("path", "a", "b")):
            status, _, errors = run(tool, *args)
            check(status == 2 and "usage:" in errors, "%r: exit %d" % (args, status))
        environment = {k: v for k, v in os.environ.items() if k not in ("XDG_DATA_HOME", "HOME")}
        data = os.path.join(folder, "data")
        home = {"XDG_DATA_HOME": "relative", "HOME": "/home/v"}  # a relative one is not taken
        for variables, name, expected in (({"XDG_DATA_HOME": data}, "a/b\tc", data + "/a_b_c"),
                                          ({"XDG_DATA_HOME": data}, "..", data + "/unnamed-application"),
                                          (home, "App", "/home/v/.local/share/App")):
            status, text, _ = run(tool, "path", name, env={**environment, **variables})
            check(status == 0 and text == expected + "/TavloCache/requests.ser\n", "path %r printed %r" % (name, text))
    for failure in failures:
        print("FAIL: " + failure)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()

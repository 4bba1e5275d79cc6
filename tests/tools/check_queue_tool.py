#!/usr/bin/env python3
"""Runs tavlo-queue on a queue file of known content and on damaged and hostile copies of
it, and checks exit statuses, the listing, and the JSON with Python's own json module (an
independent reader). Usage: check_queue_tool.py TAVLO_QUEUE WRITER"""
import json
import os
import subprocess
import sys
import tempfile

failures = []


def fnv1a64(data):
    value = 14695981039346656037
    for byte in data:
        value = ((value ^ byte) * 1099511628211) % (1 << 64)
    return value


def check(condition, message):
    if not condition:
        failures.append(message)
    return condition


def run(tool, *args, env=None):
    result = subprocess.run([tool, *args], capture_output=True, env=env, timeout=30)
    # A negative status is a signal: the tool crashed, whatever it printed.
    check(result.returncode >= 0, "%s crashed with signal %d" % (args, -result.returncode))
    return result


def parse_json(result, what):
    try:
        return json.loads(result.stdout.decode("utf-8"))  # strict: invalid UTF-8 raises too
    except (UnicodeDecodeError, ValueError) as error:
        check(False, "%s: the JSON does not parse: %s\n%r" % (what, error, result.stdout[:2000]))
        return None


def check_sound_file(tool, path):
    listed = run(tool, "list", path)
    text = listed.stdout.decode("utf-8")
    check(listed.returncode == 0, "list of the sound file exits %d: %r" % (listed.returncode, listed.stderr))
    for expected in ("3 elements: 1 audience, 1 streaming, 1 clear-cache marker", "#0 streaming request",
                     "#1 audience request", "#2 clear-cache marker", "sending mode    disconnected (2)",
                     "2023-11-14T22:13:20.500Z (1700000000.5)", "2001-01-01T00:00:00Z (978307200)",
                     "mode restricted (1), host \"https://c.example/m/web/serial-9\"", "cmsVI \"31337\"",
                     "partial id audience (9223372036854775807)", "\"ml1\" = \"caf\u00e9\"", "fails           -2"):
        check(expected in text, "the listing lacks %r:\n%s" % (expected, text))

    # A journal of this very file names hits already sent; one of another file is ignored.
    with open(path, "rb") as queue:
        fingerprint = fnv1a64(queue.read())
    for journal_fingerprint, expected in ((fingerprint, True), (fingerprint ^ 1, False)):
        with open(path + ".sent", "wb") as journal:
            journal.write(b"TvloSnt1" + journal_fingerprint.to_bytes(8, "little") + (1).to_bytes(4, "little"))
        said = "already sent" in run(tool, "list", path).stdout.decode("utf-8")
        check(said == expected, "a journal of %s file %s" % ("this" if expected else "another",
                                                             "is not shown" if expected else "is shown"))
    os.remove(path + ".sent")

    report = parse_json(run(tool, "list", "--json", path), "sound file")
    if report is None:
        return
    check(report["valid"] is True and report["readable"] is True and report["problems"] == [],
          "sound file reported as %r" % {k: report[k] for k in ("valid", "readable", "problems")})
    check([r["kind"] for r in report["requests"]] == ["streaming", "audience", "marker"],
          "kinds %r" % [r["kind"] for r in report["requests"]])
    streaming, audience, marker = report["requests"]
    expected_streaming = {
        "sendingMode": "disconnected", "sendingModeValue": 2, "status": "new", "fails": -2,
        "created": {"iso8601": "2023-11-14T22:13:20.500Z", "epoch": 1700000000.5}, "lastFail": None,
        "serial": "serial-9", "taggerID": {"serial": "serial-9", "partialID": 3, "streaming": True},
        "parameters": {"c": "home", "ml1": "caf\u00e9"},
    }
    for key, value in expected_streaming.items():
        check(streaming.get(key) == value, "streaming %s is %r, not %r" % (key, streaming.get(key), value))
    auth = streaming["auth"]
    check(auth["access"]["mode"] == "restricted" and auth["access"]["host"] == "https://c.example/m/web/serial-9"
          and auth["access"]["firstHitSent"] is False and auth["session"]["cmsVI"] == "31337",
          "streaming auth %r" % auth)
    check(audience["taggerID"]["partialID"] == 2**63 - 1 and audience["sendingMode"] == "live",
          "audience request %r" % audience)
    check(marker == {"index": 2, "kind": "marker"}, "marker %r" % marker)

    validated = run(tool, "validate", path)
    check(validated.returncode == 0 and b"valid, 3 elements" in validated.stdout,
          "validate of the sound file: %d %r %r" % (validated.returncode, validated.stdout, validated.stderr))


def check_damaged_files(tool, folder, sound):
    # name: (contents, still readable, elements listed, words of the reason)
    cases = {
        "empty": (b"", False, 0, "empty archive"),
        "truncated": (sound[: len(sound) // 2], False, 0, "damaged binary property list"),
        "garbage text": (b"this is not a queue file\n" * 20, False, 0, "not a binary property list"),
        "garbage after header": (b"bplist00" + bytes(range(256)) * 4, False, 0, "damaged binary property list"),
        "unknown class": (sound.replace(b"TavloClearCache", b"TavloClearCachX"), True, 2,
                          "1 of 3 archived elements could not be decoded"),
        "not a keyed archive": (sound.replace(b"NSKeyedArchiver", b"NSKeyedArchivor"), False, 0,
                                "unsupported archiver"),
    }
    for name, (contents, readable, count, reason) in cases.items():
        path = os.path.join(folder, name.replace(" ", "-") + ".ser")
        with open(path, "wb") as f:
            f.write(contents)

        validated = run(tool, "validate", path)
        lines = validated.stderr.decode("utf-8", "replace").splitlines()
        check(validated.returncode == 1, "%s: validate exits %d" % (name, validated.returncode))
        check(len(lines) == 1 and reason in lines[0], "%s: validate says %r, expected one line with %r"
              % (name, lines, reason))

        listed = run(tool, "list", path)
        check(listed.returncode == 1 and reason.encode() in listed.stderr,
              "%s: list exits %d with %r" % (name, listed.returncode, listed.stderr))
        report = parse_json(run(tool, "list", path, "--json"), name)
        if report is not None:
            check(report["valid"] is False and report["readable"] is readable and report["count"] == count
                  and len(report["requests"]) == count and any(reason in p for p in report["problems"]),
                  "%s: JSON report %r" % (name, report))
    # What the unknown class left is still listed in full.
    listed = run(tool, "list", os.path.join(folder, "unknown-class.ser"))
    check(b"#0 streaming request" in listed.stdout and b"#1 audience request" in listed.stdout,
          "a partly damaged file must still list what it holds:\n%s" % listed.stdout.decode())

    for name, path, reason in (("missing", os.path.join(folder, "absent.ser"), "No such file"),
                               ("a folder", folder, "not a regular file")):
        validated = run(tool, "validate", path)
        check(validated.returncode == 1 and reason.encode() in validated.stderr,
              "%s: validate %d %r" % (name, validated.returncode, validated.stderr))


def check_hostile_strings(tool, folder, sound):
    # Same-length replacements inside one-byte-per-character strings keep the file sound:
    # a terminal escape sequence as a parameter value, and a serial of control characters,
    # quotes and bytes that are not UTF-8.
    hostile = sound.replace(b"\x54home", b"\x54\x1b[2J").replace(b"\x58serial-9", b"\x58s\xffr\xc3\"\\\n\x01")
    check(hostile != sound and len(hostile) == len(sound), "the sample file changed shape; update this test")
    path = os.path.join(folder, "hostile.ser")
    with open(path, "wb") as f:
        f.write(hostile)

    report = parse_json(run(tool, "list", "--json", path), "hostile strings")
    if report is not None:
        streaming = report["requests"][0]
        check(streaming["parameters"]["c"] == "\x1b[2J", "escape sequence value %r" % streaming["parameters"])
        check(streaming["serial"] == "s\ufffdr\ufffd\"\\\n\x01", "damaged serial read as %r" % streaming["serial"])

    listed = run(tool, "list", path)
    check(listed.returncode == 0, "hostile strings: list exits %d %r" % (listed.returncode, listed.stderr))
    text = listed.stdout
    controls = [c for c in text if c < 0x20 and c != 0x0A]
    check(not controls, "raw control bytes reach the terminal: %r" % bytes(controls))
    check(b'"\\u001B[2J"' in text and b'"s\\xFFr\\xC3\\"\\\\\\n\\u0001"' in text,
          "hostile strings are not shown escaped:\n%s" % text.decode("utf-8", "replace"))


def check_usage_and_path(tool, folder):
    for args in ((), ("list",), ("list", "a", "b"), ("validate", "a", "--json"), ("frobnicate",), ("list", "-x", "a"),
                 ("path", "a", "b")):
        result = run(tool, *args)
        check(result.returncode == 2 and b"usage:" in result.stderr, "%r: exit %d" % (args, result.returncode))

    base = {k: v for k, v in os.environ.items() if k not in ("XDG_DATA_HOME", "HOME")}
    data = os.path.join(folder, "data")
    # environment, argument, printed path
    cases = (
        ({"XDG_DATA_HOME": data}, ("MyApp",), data + "/MyApp/TavloCache/requests.ser"),
        ({"XDG_DATA_HOME": data}, (), data + "/unnamed-application/TavloCache/requests.ser"),
        ({"XDG_DATA_HOME": data}, ("a/b\tc",), data + "/a_b_c/TavloCache/requests.ser"),
        ({"XDG_DATA_HOME": data}, ("..",), data + "/unnamed-application/TavloCache/requests.ser"),
        ({"XDG_DATA_HOME": "relative", "HOME": "/home/viewer"}, ("App",),
         "/home/viewer/.local/share/App/TavloCache/requests.ser"),
    )
    for environment, args, expected in cases:
        result = run(tool, "path", *args, env={**base, **environment})
        check(result.returncode == 0 and result.stdout.decode() == expected + "\n",
              "path %r with %r printed %r" % (args, environment, result.stdout))


def main():
    tool, writer = sys.argv[1], sys.argv[2]
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "requests.ser")
        subprocess.run([writer, path], check=True)
        with open(path, "rb") as f:
            sound = f.read()
        check_sound_file(tool, path)
        check_damaged_files(tool, folder, sound)
        check_hostile_strings(tool, folder, sound)
        check_usage_and_path(tool, folder)
    if failures:
        print("FAIL:\n" + "\n".join(failures))
        sys.exit(1)
    print("tavlo-queue: OK")


if __name__ == "__main__":
    main()

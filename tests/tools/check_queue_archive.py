#!/usr/bin/env python3
"""Reads a queue archive written by the library with Python's plistlib, an independent
reader of binary property lists, and checks that it is a genuine NSKeyedArchiver archive
holding the expected records under their exact keys. PLISTUTIL, still given, is unused:
plistlib reads the file strictly. Usage: check_queue_archive.py WRITER [PLISTUTIL]"""
import os
import plistlib
import subprocess
import sys
import tempfile

failures = []


def check(condition, message):
    if not condition:
        failures.append(message)


def main():
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "requests.ser")
        subprocess.run([sys.argv[1], path], check=True)
        with open(path, "rb") as f:
            archive = plistlib.loads(f.read(), fmt=plistlib.FMT_BINARY)
    objects = archive["$objects"]
    check((archive.get("$archiver"), archive.get("$version"), objects[0]) == ("NSKeyedArchiver", 100000, "$null"),
          "$archiver, $version, or $objects not starting with $null")

    def deref(value):
        return objects[value.data] if isinstance(value, plistlib.UID) else value

    def class_of(record):
        info = deref(record["$class"])
        check(info["$classes"][0] == info["$classname"] and info["$classes"][-1] == "NSObject", "class %r" % info)
        return info["$classname"]

    root = deref(archive["$top"]["root"])
    streaming, audience, marker = [deref(u) for u in root["NS.objects"]]
    check([class_of(r) for r in (root, streaming, audience, marker)] == ["NSMutableArray", "TavloRequest",
          "TavloRequest", "TavloClearCache"] and set(marker) == {"$class"}, "the root, its elements, the marker")
    check((streaming["TavloRequest_requestType"], streaming["TavloRequest_sendingMode"],
           deref(streaming.get("TavloRequest_serial")), streaming["TavloRequest_numberOfFails"] % 2**64) ==
          (1, 2, "serial-9", 2**64 - 2), "type, mode, serial or fail count")
    # The renewal flag has two underscores in its key, which readers of these files expect.
    check(streaming["TavloRequest__shouldRenewSession"] is True and "TavloRequest_shouldRenewSession" not in streaming,
          "the renewal flag's key")
    created = deref(streaming["TavloRequest_creationDate"])
    check(class_of(created) == "NSDate" and abs(created["NS.time"] - (1700000000.5 - 978307200)) < 1e-6, "the date")
    check(deref(audience["TavloRequest_creationDate"])["NS.time"] == 0, "2001-01-01 must be NS.time 0")
    check(deref(streaming["TavloRequest_lastFail"]) == "$null", "a nil date must reference $null")
    parameters = deref(streaming["TavloRequest_parameters"])
    check(class_of(parameters) == "NSDictionary" and {deref(k): deref(v) for k, v in zip(
        parameters["NS.keys"], parameters["NS.objects"])} == {"c": "home", "ml1": "caf\u00e9"}, "the parameters")
    tagger = deref(streaming["TavloRequest__taggerID"])
    check((class_of(tagger), deref(tagger["TavloTaggerID_serial"]), tagger["TavloTaggerID_partialID"],
           tagger["TavloTaggerID_isStreamTagger"]) == ("TavloTaggerID", "serial-9", 3, 1), "tagger id %r" % tagger)
    check(deref(audience["TavloRequest__taggerID"])["TavloTaggerID_partialID"] == 2**63 - 1, "audience partial id")
    auth = deref(streaming["TavloRequest_auth"])
    access = deref(auth["TavloAuth_currentAccess"])
    check(deref(deref(auth["TavloAuth_currentSession"])["TavloSesion_cmsVI"]) == "31337", "the session's key")
    check((access["TavloAccess_accessMode"], deref(access["TavloAccess_host"]),
           access["TavloAccess_firstHitSuccessfullySent"]) == (1, "https://c.example/m/web/serial-9", False), "access")
    for failure in failures:
        print("FAIL: " + failure)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Reads a queue archive written by the library with Python's own plistlib, an
independent implementation of the binary property-list format, and checks that it is a
genuine NSKeyedArchiver archive with the expected records. Also checks that plistutil
can print it. Usage: check_queue_archive.py WRITER PLISTUTIL"""
import os
import plistlib
import subprocess
import sys
import tempfile


def fail(message):
    print("FAIL: " + message)
    sys.exit(1)


def main():
    writer, plistutil = sys.argv[1], sys.argv[2]
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "requests.ser")
        subprocess.run([writer, path], check=True)
        with open(path, "rb") as f:
            raw = f.read()
        if not raw.startswith(b"bplist00"):
            fail("not a binary property list")
        archive = plistlib.loads(raw)
        printed = subprocess.run([plistutil, "-i", path, "-o", os.path.join(folder, "out.xml")], check=True)
        with open(os.path.join(folder, "out.xml"), "rb") as f:
            xml = f.read().decode()
        if printed.returncode != 0 or "$archiver" not in xml or "TavloRequest_parameters" not in xml:
            fail("plistutil does not show the archive's structure")

    if archive.get("$archiver") != "NSKeyedArchiver" or archive.get("$version") != 100000:
        fail("wrong $archiver or $version: %r %r" % (archive.get("$archiver"), archive.get("$version")))
    objects = archive["$objects"]
    if objects[0] != "$null":
        fail("$objects does not start with $null")
    root_uid = archive["$top"]["root"]
    if not isinstance(root_uid, plistlib.UID):
        fail("$top.root is not a UID")

    def deref(value):
        return objects[value.data] if isinstance(value, plistlib.UID) else value

    def class_of(obj):
        info = deref(obj["$class"])
        if info["$classes"][0] != info["$classname"] or info["$classes"][-1] != "NSObject":
            fail("bad class dictionary %r" % info)
        return info["$classname"]

    root = deref(root_uid)
    if class_of(root) != "NSMutableArray":
        fail("root is %s, not NSMutableArray" % class_of(root))
    items = [deref(u) for u in root["NS.objects"]]
    if [class_of(i) for i in items] != ["TavloRequest", "TavloRequest", "TavloClearCache"]:
        fail("unexpected elements %r" % [class_of(i) for i in items])

    streaming, audience, marker = items
    if set(marker) != {"$class"}:
        fail("the marker must hold no fields: %r" % marker)
    if streaming["TavloRequest_requestType"] != 1 or streaming["TavloRequest_sendingMode"] != 2:
        fail("wrong type or mode")
    if streaming["TavloRequest__shouldRenewSession"] is not True:
        fail("renewal flag not written under the two-underscore key")
    if "TavloRequest_shouldRenewSession" in streaming:
        fail("renewal flag must not be written under the one-underscore key")
    if streaming["TavloRequest_numberOfFails"] not in (-2, 2**64 - 2):
        fail("fail count %r" % streaming["TavloRequest_numberOfFails"])
    created = deref(streaming["TavloRequest_creationDate"])
    if class_of(created) != "NSDate" or abs(created["NS.time"] - (1700000000.5 - 978307200)) > 1e-6:
        fail("creation date %r" % created)
    if deref(audience["TavloRequest_creationDate"])["NS.time"] != 0:
        fail("2001-01-01 must be NS.time 0")
    if deref(streaming["TavloRequest_lastFail"]) != "$null":
        fail("a nil date must reference $null")

    params = deref(streaming["TavloRequest_parameters"])
    if class_of(params) != "NSDictionary":
        fail("parameters are %s" % class_of(params))
    decoded = {deref(k): deref(v) for k, v in zip(params["NS.keys"], params["NS.objects"])}
    if decoded != {"c": "home", "ml1": "caf\u00e9"}:
        fail("parameters %r" % decoded)

    tagger = deref(streaming["TavloRequest__taggerID"])
    if (class_of(tagger), deref(tagger["TavloTaggerID_serial"]), tagger["TavloTaggerID_partialID"],
            tagger["TavloTaggerID_isStreamTagger"]) != ("TavloTaggerID", "serial-9", 3, 1):
        fail("tagger id %r" % tagger)
    audience_tagger = deref(audience["TavloRequest__taggerID"])
    if audience_tagger["TavloTaggerID_partialID"] != 2**63 - 1:
        fail("audience partial id %r" % audience_tagger["TavloTaggerID_partialID"])

    auth = deref(streaming["TavloRequest_auth"])
    session = deref(auth["TavloAuth_currentSession"])
    access = deref(auth["TavloAuth_currentAccess"])
    if deref(session["TavloSesion_cmsVI"]) != "31337":
        fail("session %r" % session)
    if (access["TavloAccess_accessMode"], deref(access["TavloAccess_host"]),
            access["TavloAccess_firstHitSuccessfullySent"]) != (1, "https://c.example/m/web/serial-9", False):
        fail("access %r" % access)
    if deref(audience["TavloRequest_auth"])["TavloAuth_currentAccess"] != auth["TavloAuth_currentAccess"]:
        fail("a shared access must be archived once")
    print("queue archive read by plistlib: OK")


if __name__ == "__main__":
    main()

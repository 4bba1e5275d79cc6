#!/usr/bin/env python3
"""Does the test suite still catch the faults that matter? Applies each one-line fault
below to the sources, one at a time, rebuilds, runs the suite until its first failure,
restores the source, and reports which faults the suite caught. docs/testing.md says when
to run it.

  scripts/mutation-check.py                 every fault, in build-mutation/
  scripts/mutation-check.py throttle codes  only the faults named
  scripts/mutation-check.py --list          the faults, without running anything

Exits 1 when a fault goes uncaught (or the unchanged suite fails), 0 otherwise.
"""
import pathlib
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build-mutation"

# name, file, the line's text as it stands (it must occur exactly once), the fault.
FAULTS = [
    ("schedule", "src/streaming/TavloStreamingTagger.cpp",
     "seconds == 10 || seconds == 20 || seconds == 40", "seconds == 10 || seconds == 30 || seconds == 40"),
    ("schedule-minutes", "src/streaming/TavloStreamingTagger.cpp",
     "return seconds % 60 == 0;", "return seconds % 30 == 0;"),
    ("codes", "src/streaming/TavloStreamingTagger.cpp", "      return 7;", "      return 8;"),
    ("level-crossover", "src/streaming/TavloStreamingTagger.cpp",
     'addParam(level3_, "cmsS1", parameters);', 'addParam(level1_, "cmsS1", parameters);'),
    ("previous-position", "src/streaming/TavloStreamingTagger.cpp",
     "count >= 2 ? positions_[count - 2] : 0", "count >= 2 ? positions_[count - 1] : 0"),
    ("throttle", "src/streaming/TavloStreamingTagger.cpp",
     "constexpr double kThrottlePeriod = 1.0;", "constexpr double kThrottlePeriod = 2.0;"),
    ("escaping", "src/util/TavloText.cpp",
     "c == '.' || c == '_' || c == '~';", "c == '.' || c == '_';"),
    ("utf16-cut", "src/util/TavloText.cpp",
     "const size_t width = *c >= 0x10000 ? 2 : 1;", "const size_t width = 1;"),
    ("sort-order", "src/request/TavloRequest.cpp",
     "return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));",
     "return x < y;"),
    ("network-name", "src/request/TavloRequest.cpp",
     'networkStatus == 2 ? "Wifi" : "GSM"', 'networkStatus == 2 ? "WiFi" : "GSM"'),
    ("timestamp", "src/request/TavloRequest.cpp",
     "  return static_cast<int64_t>(seconds);", "  return static_cast<int64_t>(seconds + 0.5);"),
    ("stop-rank", "src/request/TavloRequest.cpp",
     "current == INT64_MAX ? current : current + 1", "current"),
    ("archive-keys", "src/request/TavloRequest.cpp",
     'kSerialKey = "TavloRequest_serial";', 'kSerialKey = "TavloRequest_Serial";'),
    ("access-rules", "src/auth/TavloAccess.cpp",
     "  if (requestType == 1) return true;", "  if (requestType == 0) return true;"),
    ("retry-interval", "src/agent/TavloAgent.cpp",
     "constexpr double kRetryInterval = 60;", "constexpr double kRetryInterval = 30;"),
    ("queue-cap", "src/agent/TavloAgent.cpp",
     "constexpr size_t kMaximumQueueLength = 500;", "constexpr size_t kMaximumQueueLength = 501;"),
    ("c-release", "src/c/tavlo_c.cpp",
     "      release_(userData_);", "      (void)userData_;"),  # every C callback's release
]


def run(command, **options):
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, **options)


def build():
    result = run(["cmake", "--build", str(BUILD), "--parallel", "2"])
    return result.returncode == 0, result.stdout + result.stderr


def first_failure():
    """None when the whole suite passes, else the name of the first test that failed."""
    result = run(["ctest", "--test-dir", str(BUILD), "--parallel", "2", "--timeout", "120",
                  "--stop-on-failure", "-E", "tavlo_(installed_package|debian_packages|api_reference)"])
    if result.returncode == 0:
        return None
    for line in result.stdout.splitlines():
        if "***" in line or "(Failed)" in line or "(Timeout)" in line:
            return line.split(":", 1)[-1].strip().split(" ")[0]
    return "the test run"


def main(arguments):
    if "--list" in arguments:
        for name, path, _, _ in FAULTS:
            print(f"{name:18} {path}")
        return 0
    chosen = [fault for fault in FAULTS if not arguments or fault[0] in arguments]
    unknown = set(arguments) - {fault[0] for fault in FAULTS}
    if unknown:
        print("unknown faults:", ", ".join(sorted(unknown)))
        return 2

    for name, path, original, _ in chosen:
        count = (ROOT / path).read_text().count(original)
        if count != 1:
            print(f"{name}: the line to change occurs {count} times in {path}; update this script")
            return 2

    if not (BUILD / "CMakeCache.txt").exists():
        configured = run(["cmake", "-S", str(ROOT), "-B", str(BUILD), "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                          "-DTAVLO_BUILD_BENCH=OFF"])
        if configured.returncode != 0:
            print(configured.stdout + configured.stderr)
            return 1
    built, log = build()
    if not built:
        print(log)
        return 1
    baseline = first_failure()
    if baseline:
        print(f"the unchanged suite fails ({baseline}): fix that first")
        return 1

    missed = []
    for name, path, original, fault in chosen:
        source = ROOT / path
        text = source.read_text()
        started = time.monotonic()
        try:
            source.write_text(text.replace(original, fault))
            built, _ = build()
            caught_by = first_failure() if built else "the compiler"
        finally:
            source.write_text(text)
        verdict = f"caught by {caught_by}" if caught_by else "NOT CAUGHT"
        print(f"{name:18} {verdict}  ({time.monotonic() - started:.0f} s)", flush=True)
        if not caught_by:
            missed.append(name)
    build()  # leave the build matching the sources
    print(f"{len(chosen) - len(missed)} of {len(chosen)} faults caught")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

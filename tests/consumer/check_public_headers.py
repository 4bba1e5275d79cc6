#!/usr/bin/env python3
"""Checks the headers an application gets: each one compiles alone in C++17 and C++20,
and none names a type that only the library's own sources define. Prints what including
each one costs, in preprocessed lines, beside the standard headers it needs alone: the
difference is what Tavlo itself adds to every file that includes it, and stays small.

Usage: check_public_headers.py SOURCE_DIR GENERATED_INCLUDE_DIR CXX
"""
import pathlib
import re
import subprocess
import sys
import tempfile

# Lines a header may add beyond the standard headers it includes (its own and those of
# the other public headers it includes).
OWN_LINES_BUDGET = 2000

DEFINITION = re.compile(r"^\s*(?:class|struct|enum(?:\s+class)?)\s+(?:TAVLO_EXPORT\s+)?(Tavlo\w+)\b[^;(]*[:{]", re.M)
ALIAS = re.compile(r"^\s*using\s+(Tavlo\w+)\s*=", re.M)
STANDARD_INCLUDE = re.compile(r'^\s*#\s*include\s*<([^>]+)>', re.M)
OWN_INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.M)


def defined_names(paths):
    names = set()
    for path in paths:
        text = path.read_text()
        names.update(DEFINITION.findall(text))
        names.update(ALIAS.findall(text))
    return names


def without_comments(text):
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.S)
    return re.sub(r"//[^\n]*", "", text)


def code_only(text):
    """The text without comments and string literals, where a name would be used."""
    return re.sub(r'"(?:\\.|[^"\\])*"', '""', without_comments(text))


def preprocessed_lines(cxx, std, includes, source):
    with tempfile.NamedTemporaryFile("w", suffix=".cpp") as file:
        file.write(source)
        file.flush()
        result = subprocess.run([cxx, f"-std={std}", "-E", *includes, file.name],
                                capture_output=True, text=True, check=True)
        return result.stdout.count("\n")


def main():
    root, generated, cxx = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3]
    roots = [root / "include", generated, root / "testkit" / "include"]
    headers = {}
    for base in roots:
        for path in sorted(base.rglob("*.h")):
            headers[str(path.relative_to(base))] = path
    includes = [f"-I{base}" for base in roots]

    internal = defined_names(root.glob("src/**/*.h")) - defined_names(headers.values())
    failures = []
    with tempfile.TemporaryDirectory() as work:
        for name, path in headers.items():
            code = code_only(path.read_text())
            named = sorted(n for n in internal if re.search(rf"\b{n}\b", code))
            if named:
                failures.append(f"{name} names the library's internal {', '.join(named)}")
            for std in ("c++17", "c++20"):
                source = pathlib.Path(work) / "alone.cpp"
                source.write_text(f'#include "{name}"\n')
                result = subprocess.run([cxx, f"-std={std}", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
                                         *includes, str(source)], capture_output=True, text=True)
                if result.returncode != 0:
                    failures.append(f"{name} does not compile alone in {std}:\n{result.stderr}")

        floors = {}
        print(f"{'header':55} {'lines':>8} {'standard':>9} {'Tavlo':>6}   (g++ -E, C++20)")
        for name in headers:
            standard = set()
            pending, seen = [name], set()
            while pending:
                current = pending.pop()
                if current in seen or current not in headers:
                    continue
                seen.add(current)
                text = without_comments(headers[current].read_text())
                standard.update(STANDARD_INCLUDE.findall(text))
                pending.extend(OWN_INCLUDE.findall(text))
            whole = preprocessed_lines(cxx, "c++20", includes, f'#include "{name}"\n')
            key = tuple(sorted(standard))
            if key not in floors:  # many headers need the same standard ones
                floors[key] = preprocessed_lines(cxx, "c++20", includes, "".join(f"#include <{h}>\n" for h in key))
            floor = floors[key]
            print(f"{name:55} {whole:8} {floor:9} {whole - floor:6}")
            if whole - floor > OWN_LINES_BUDGET:
                failures.append(f"{name} adds {whole - floor} lines beyond the standard headers it needs "
                                f"(at most {OWN_LINES_BUDGET})")

    for failure in failures:
        print("FAIL:", failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

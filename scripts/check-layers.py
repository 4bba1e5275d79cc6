#!/usr/bin/env python3
"""Checks that the folders of src/ include one another downwards only.

The allowed includes are declared once, in the "layers" block of docs/architecture.md,
so that the page and this check cannot drift apart. The script reads every
`#include "<folder>/..."` line under src/, prints the folder graph it found, and fails
(exit status 1) on
  - an include that the declared layers do not allow, naming the file and line;
  - a cycle between folders, whether or not the declaration allows its edges;
  - a folder of src/ that the declaration does not name, or a declared folder that
    does not exist (a new folder must be given its place on purpose);
  - a declaration that is itself cyclic or names an unknown folder.
Includes of the public API ("tavlo/...") and of headers beside the includer or generated
by the build (no folder) are always allowed.

    scripts/check-layers.py [repository root]
"""

import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')
BLOCK_START = "```layers"
PUBLIC_API = "tavlo"


def read_declaration(page):
    """Answers {folder: set of folders it may include} from the page's layers block."""
    lines = page.read_text(encoding="utf-8").splitlines()
    try:
        start = lines.index(BLOCK_START)
    except ValueError:
        sys.exit(f"check-layers: {page} has no {BLOCK_START} block")
    allowed = {}
    for number, line in enumerate(lines[start + 1:], start + 2):
        if line.startswith("```"):
            return allowed
        text = line.split("#", 1)[0].strip()
        if not text:
            continue
        folder, _, below = text.partition(":")
        folder = folder.strip()
        if not folder or folder in allowed:
            sys.exit(f"check-layers: {page}:{number}: folder missing or declared twice: {line!r}")
        allowed[folder] = set(below.split())
    sys.exit(f"check-layers: {page}: the {BLOCK_START} block is not closed")


def read_includes(src, folders):
    """Answers [(from folder, to folder, file, line number, include text)] for includes
    that name a folder other than the includer's own."""
    found = []
    for path in sorted(src.rglob("*")):
        if path.suffix not in (".h", ".cpp", ".c", ".in") or not path.is_file():
            continue
        relative = path.relative_to(src)
        if len(relative.parts) < 2:
            continue
        owner = relative.parts[0]
        for number, line in enumerate(path.read_text(encoding="utf-8", errors="replace").splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            target = match.group(1).split("/")
            if len(target) < 2 or target[0] in (owner, PUBLIC_API):
                continue
            found.append((owner, target[0], f"src/{relative}", number, match.group(1)))
    return found


def find_cycles(graph):
    """Answers the strongly connected components with more than one folder (Tarjan)."""
    index, low, stack, on_stack, components = {}, {}, [], set(), []
    counter = [0]

    def visit(node):
        index[node] = low[node] = counter[0]
        counter[0] += 1
        stack.append(node)
        on_stack.add(node)
        for successor in sorted(graph.get(node, ())):
            if successor not in index:
                visit(successor)
                low[node] = min(low[node], low[successor])
            elif successor in on_stack:
                low[node] = min(low[node], index[successor])
        if low[node] == index[node]:
            component = []
            while True:
                member = stack.pop()
                on_stack.discard(member)
                component.append(member)
                if member == node:
                    break
            if len(component) > 1 or node in graph.get(node, ()):
                components.append(sorted(component))

    for node in sorted(graph):
        if node not in index:
            visit(node)
    return components


def shortest_loop(edges, members, allowed):
    """Answers one shortest cycle inside `members` as a list of folders, first == last,
    through an edge the declaration forbids where there is one: that edge is the likely slip."""
    candidates = sorted((target in allowed.get(owner, set()), owner, target)
                        for owner in members for target in edges.get(owner, ()) if target in members)
    best = None
    for _, owner, target in candidates:
        # Breadth-first from target back to owner, inside the component.
        previous, frontier = {target: None}, [target]
        while frontier and owner not in previous:
            following = []
            for node in frontier:
                for successor in sorted(edges.get(node, ())):
                    if successor in members and successor not in previous:
                        previous[successor] = node
                        following.append(successor)
            frontier = following
        path, node = [], owner
        while node is not None:
            path.append(node)
            node = previous[node]
        loop = [owner] + path[::-1]
        if target not in allowed.get(owner, set()):
            return loop
        if best is None or len(loop) < len(best):
            best = loop
    return best


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).resolve().parent.parent)
    src = root / "src"
    page = root / "docs" / "architecture.md"
    allowed = read_declaration(page)
    folders = {path.name for path in src.iterdir() if path.is_dir()}
    problems = []

    for folder in sorted(folders - allowed.keys()):
        problems.append(f"src/{folder} is not declared in {page.relative_to(root)}")
    for folder in sorted(allowed.keys() - folders):
        problems.append(f"{page.relative_to(root)} declares {folder}, which src/ does not have")
    for folder, below in sorted(allowed.items()):
        for other in sorted(below - allowed.keys()):
            problems.append(f"{page.relative_to(root)}: {folder} may include {other}, which is not declared")
    for cycle in find_cycles(allowed):
        problems.append(f"the declared layers are cyclic: {' <-> '.join(cycle)}")

    includes = read_includes(src, folders)
    graph = {}
    for owner, target, path, number, text in includes:
        graph.setdefault(owner, {}).setdefault(target, []).append((path, number, text))
        if target not in folders:
            problems.append(f'{path}:{number}: #include "{text}" names no folder of src/')
        elif owner in allowed and target not in allowed[owner]:
            problems.append(f'{path}:{number}: #include "{text}": {owner} may not include {target}')

    edges = {owner: set(targets) for owner, targets in graph.items()}
    for component in find_cycles(edges):
        loop = shortest_loop(edges, set(component), allowed)
        problems.append(f"include cycle between {', '.join(component)}, for one: {' -> '.join(loop)}")
        for owner, target in zip(loop, loop[1:]):
            sites = graph[owner][target]
            problems.extend(f'  {path}:{number}: #include "{text}"' for path, number, text in sites[:3])
            if len(sites) > 3:
                problems.append(f"  ... and {len(sites) - 3} more from {owner} to {target}")

    print("src/ folder graph (folder -> folders it includes, with the number of includes):")
    for folder in sorted(folders):
        targets = graph.get(folder, {})
        edges = ", ".join(f"{target} ({len(sites)})" for target, sites in sorted(targets.items()))
        print(f"  {folder:<10} -> {edges or '(nothing)'}")
    sys.stdout.flush()
    if problems:
        print("check-layers: FAILED", file=sys.stderr)
        for problem in problems:
            print(f"  {problem}", file=sys.stderr)
        return 1
    print("check-layers: every include goes down the declared layers; no cycle")
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Checks that no tool includes another tool's headers.

Each folder tools/aov-*/ is one tool. What two tools share lives below them
(tools/common/, session/, the library, the simulator); a tool that includes a
header found only in another tool's folder has grown a sideways dependency.
An include names the tool it comes from when its path, as written, is found
under that tool's folder and not under the including tool's own.

    python3 scripts/check-tool-includes.py [ROOT]   (default: this checkout)
"""

import pathlib
import re
import sys

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*[<"]([^">]+)[">]', re.M)
SOURCES = (".c", ".cpp", ".h")


def files_of(folder):
    return [p for p in sorted(folder.rglob("*")) if p.is_file() and p.suffix in SOURCES]


def owners(path, headers):
    """The tools whose folders hold a file that `path` (as included) names."""
    return {tool for tool, names in headers.items()
            if any(name == path or name.endswith("/" + path) for name in names)}


def violations(root):
    tools = sorted(p for p in (root / "tools").glob("aov-*") if p.is_dir())
    headers = {t.name: [p.relative_to(t).as_posix() for p in files_of(t) if p.suffix == ".h"]
               for t in tools}
    found = []
    for tool in tools:
        for source in files_of(tool):
            text = source.read_text(errors="replace")
            for match in INCLUDE.finditer(text):
                path = match.group(1)
                from_tools = owners(path, headers)
                if from_tools and tool.name not in from_tools:
                    line = text.count("\n", 0, match.start()) + 1
                    found.append(f"{source.relative_to(root).as_posix()}:{line}: includes {path} "
                                 f"of {', '.join(sorted(from_tools))}")
    return found


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parents[1])
    if not (root / "tools").is_dir():
        sys.exit(f"check-tool-includes: no tools/ folder under {root}")
    found = violations(root.resolve())
    for line in found:
        print(line, file=sys.stderr)
    if found:
        print("a tool includes another tool's headers: move what they share below them "
              "(tools/common/, session/)", file=sys.stderr)
        return 1
    print("tool includes: no tool includes another tool's headers")
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env bash
# Prints the size of the test code against the code it tests: non-blank,
# non-comment lines of tests/ and of src/, and their ratio.
#   scripts/test-size.sh          one line: "test size: T test lines / S code lines = R %"
#   scripts/test-size.sh --check  also exits 1 when R is outside 25-35 %
set -euo pipefail
cd "$(dirname "$0")/.."
python3 - "${1:-}" <<'PY'
import pathlib, re, sys

CODE = {".cpp": "c", ".cc": "c", ".h": "c", ".hpp": "c", ".c": "c", ".in": "c",
        ".py": "hash", ".sh": "hash", ".cmake": "hash"}

def kind(path):
    if path.name == "CMakeLists.txt":
        return "hash"
    if path.suffix == ".in" and not path.name.endswith((".h.in", ".hpp.in")):
        return None
    return CODE.get(path.suffix)

def count(path, style):
    n, in_block = 0, False
    for line in path.read_text(errors="replace").splitlines():
        s = line.strip()
        if style == "hash":
            if s and not s.startswith("#"):
                n += 1
            continue
        if in_block:
            if "*/" in s:
                in_block = False
                s = s.split("*/", 1)[1].strip()
            else:
                continue
        if s.startswith("/*"):
            if "*/" not in s:
                in_block = True
                continue
            s = s.split("*/", 1)[1].strip()
        if s and not s.startswith("//"):
            n += 1
    return n

def tree(root):
    total = 0
    for p in sorted(pathlib.Path(root).rglob("*")):
        if p.is_file() and "corpus" not in p.parts:
            style = kind(p)
            if style:
                total += count(p, style)
    return total

tests, code = tree("tests"), tree("src")
ratio = 100.0 * tests / code if code else 0.0
print(f"test size: {tests} test lines / {code} code lines = {ratio:.1f} %")
if sys.argv[1] == "--check" and not 25.0 <= ratio <= 35.0:
    print("test size: outside 25-35 %")
    sys.exit(1)
PY

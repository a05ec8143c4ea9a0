#!/usr/bin/env bash
# Counts the lines that the producer's own sources (not tests, not generated
# files) preprocess to, from a build's compile_commands.json: preprocessed-lines.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build-lines}
cmake -S . -B "$dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DLORUN_CHECK_HEADERS=OFF >/dev/null
python3 - "$dir/compile_commands.json" "$PWD" <<'PY'
import json, shlex, subprocess, sys
entries, root = json.load(open(sys.argv[1])), sys.argv[2]
total, files, heaviest = 0, 0, []
for e in entries:
    source = e["file"]
    if not source.startswith(root) or "/tests/" in source or "/build" in source[len(root):]:
        continue
    args = shlex.split(e["command"]) if "command" in e else e["arguments"]
    if "-o" in args:
        i = args.index("-o"); del args[i:i + 2]
    args = [a for a in args if a != "-c"] + ["-E", "-P"]
    out = subprocess.run(args, cwd=e["directory"], capture_output=True, text=True, check=True).stdout
    lines = out.count("\n")
    total += lines; files += 1; heaviest.append((lines, source[len(root) + 1:]))
print(f"{files} source files preprocess to {total:,} lines")
for lines, name in sorted(heaviest, reverse=True)[:8]:
    print(f"  {lines:>9,}  {name}")
PY

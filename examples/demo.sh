#!/usr/bin/env bash
# Starts tqdbsim on a free port and runs the quick start, then the ruleset
# example, the statistics report, the administration and the operations
# examples, and the tqdb command's example, against it.
# Called by `make demo` after the build; TQ_BUILD_DIR picks another build dir.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${TQ_BUILD_DIR:-build}
sim="$build/bin/tqdbsim"
[ -x "$sim" ] || { echo "demo: $sim is not built" >&2; exit 1; }

# python3 from PATH when its modules were built, else any built interpreter.
python=""
if command -v python3 >/dev/null 2>&1; then
  ver=$(python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])')
  if ls "$build/python$ver"/TQDBv17_1*.so >/dev/null 2>&1; then
    python=python3
  fi
fi
if [ -z "$python" ]; then
  for dir in "$build"/python*/; do
    ver=${dir%/}; ver=${ver##*/python}
    ls "$dir"TQDBv17_1*.so >/dev/null 2>&1 || continue
    for cand in "python$ver" "$HOME/.pyenv/versions/$ver"*/bin/python; do
      if command -v "$cand" >/dev/null 2>&1 &&
         [ "$("$cand" -c 'import sys; print("%d.%d" % sys.version_info[:2])' 2>/dev/null)" = "$ver" ]; then
        python=$cand
        break 2
      fi
    done
  done
fi
[ -n "$python" ] || { echo "demo: no built Python module found in $build" >&2; exit 1; }
ver=$("$python" -c 'import sys; print("%d.%d" % sys.version_info[:2])')

log=$(mktemp)
"$sim" --port 0 --user admin:admin >"$log" 2>&1 &
sim_pid=$!
cleanup() {
  kill "$sim_pid" 2>/dev/null || true
  wait "$sim_pid" 2>/dev/null || true
  rm -f "$log"
}
trap cleanup EXIT

port=""
for _ in $(seq 100); do
  port=$(sed -n 's/^tqdbsim listening on .*:\([0-9][0-9]*\)$/\1/p' "$log")
  [ -n "$port" ] && break
  kill -0 "$sim_pid" 2>/dev/null || break
  sleep 0.1
done
if [ -z "$port" ]; then
  echo "demo: tqdbsim did not start:" >&2
  cat "$log" >&2
  exit 1
fi

echo "demo: tqdbsim on 127.0.0.1:$port, Python $ver"
status=0
for example in quickstart ruleset stats_report admin operations; do
  [ "$example" = quickstart ] || echo
  PYTHONPATH="$build/python$ver" "$python" "examples/$example.py" 127.0.0.1 "$port" || {
    status=$?
    break
  }
done
if [ "$status" = 0 ] && [ "${ver%%.*}" = 3 ]; then  # the tqdb command is Python 3 only
  echo
  PYTHONPATH="$build/python$ver:." TQDB_PYTHON="$python" examples/tqdb_cli.sh 127.0.0.1 "$port" ||
    status=$?
fi
exit "$status"

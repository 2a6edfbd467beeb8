#!/usr/bin/env bash
# Installs the tree as a new user would on a machine with no package index:
# `pip install .` into a fresh venv of each Python 3 named, and Python 2.7's
# own pip (19.2) into a fresh --target directory; then imports the package and
# the modules from the install, checks the files against the wheel's RECORD,
# runs the simulator the package carries, through the tqdb command on 3.x.
# `make install-check` runs it: 2 to 5 minutes on two cores (one CMake build
# of the library and simulator, then the modules per interpreter).
#   tests/packaging/check_install.sh [X.Y ...]      default: 2.7 3.8 3.13
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
versions=${*:-2.7 3.8 3.13}
work=$(mktemp -d "${TMPDIR:-/tmp}/tqdb-install-check.XXXXXX")
trap 'rm -rf "$work"' EXIT
export PIP_NO_INDEX=1 PIP_DISABLE_PIP_VERSION_CHECK=1 PIP_NO_CACHE_DIR=1 PYTHONDONTWRITEBYTECODE=1
unset PYTHONPATH TQDB_BUILD_DIR TQDBSIM
start=$SECONDS

# The files a clone holds once the tree is committed: tracked and new, not
# ignored, not deleted.
src=$work/src
mkdir "$src"
(cd "$root" && git ls-files -z --cached --others --exclude-standard |
   while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done |
   tar --null -T - -cf -) | tar -xf - -C "$src"

interpreter() {
  local found
  for found in "$(pyenv root 2>/dev/null)/versions/$1".*/bin/python "$(command -v "python$1")"; do
    [ -x "$found" ] && { echo "$found"; return; }
  done
  echo "no Python $1" >&2; return 1
}

failed=0
fail() { echo "FAIL $*"; failed=1; }

# check VERSION PYTHON SITE BIN: the install under SITE (on the path of PYTHON)
check() {
  local v=$1 py=$2 site=$3 bin=$4 sim
  # Away from the sources, so that only the installed package can be found.
  sim=$(cd "$work" && SITE=$site PYTHONPATH=$site "$py" -c '
import base64, glob, hashlib, os, tqdb, TQDBv17_1, TQvindelv17_1, TQdefsv17_1
site = os.environ["SITE"]
for m in (tqdb, TQDBv17_1, TQvindelv17_1, TQdefsv17_1):
    assert m.__file__.startswith(site), m.__file__
# The installed files are the ones the wheel recorded.
record, = glob.glob(os.path.join(site, "tqdb_client-*.dist-info", "RECORD"))
for line in open(record):
    name, digest, size = line.strip().rsplit(",", 2)
    if digest and not name.startswith(".."):
        data = open(os.path.join(site, name), "rb").read()
        got = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=")
        assert digest == "sha256=" + got.decode() and int(size) == len(data), name
print(os.path.join(os.path.dirname(tqdb.__file__), "bin", "tqdbsim"))') ||
    { fail "$v: import or RECORD"; return; }
  "$sim" --help >/dev/null || fail "$v: $sim --help"
  ldd "$sim" | grep -q "libtqdb.so.17 => $site/" || fail "$v: $sim does not load the installed libtqdb"
  [ -x "$bin/tqdb" ] || fail "$v: no tqdb command in $bin"
  if [ "${v%%.*}" = 3 ] && [ -e "$src/tqdb/cli.py" ]; then
    # The command finds the simulator the package carries.
    (cd "$work" && "$bin/tqdb" sim -- --help >/dev/null) || fail "$v: tqdb sim -- --help"
  fi
  echo "ok   $v: import tqdb and the modules, RECORD, tqdbsim --help, the tqdb command ($((SECONDS - start))s)"
}

for v in $versions; do
  py=$(interpreter "$v") || { failed=1; continue; }
  log=$work/pip-$v.log
  if [ "$v" = 2.7 ]; then
    # pip 19 knows no backend-path: the backend comes from PYTHONPATH, which
    # build isolation would replace.
    if PYTHONPATH=$src/pybuild "$py" -m pip install --no-build-isolation \
         --target "$work/t$v" "$src" >"$log" 2>&1; then
      check "$v" "$py" "$work/t$v" "$work/t$v/bin"
    else
      tail -30 "$log"; fail "$v: pip install --target"
    fi
  else
    "$py" -m venv "$work/v$v"
    if "$work/v$v/bin/python" -m pip install "$src" >"$log" 2>&1; then
      check "$v" "$work/v$v/bin/python" \
        "$("$work/v$v/bin/python" -c 'import sysconfig; print(sysconfig.get_paths()["platlib"])')" \
        "$work/v$v/bin"
    else
      tail -30 "$log"; fail "$v: pip install in a venv"
    fi
  fi
done
echo "install check: $((SECONDS - start))s"
exit $failed

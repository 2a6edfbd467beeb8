#!/usr/bin/env bash
# The tqdb command against an appliance, as a shell script drives it.
#
#     examples/tqdb_cli.sh HOST PORT [USER]
#
# The password comes from TQDB_PASSWORD (default "admin", the simulator's),
# never from the command line. Adds a customer by path, lists the ruleset
# branch, shows the busiest net objects and a query as CSV, dumps a backup,
# and shows how a script tells a refusal (exit 1) from a lost appliance
# (exit 3). TQDB_PYTHON picks the interpreter (default python3).
set -euo pipefail
[ $# -ge 2 ] || { sed -n '4p' "$0" >&2; exit 2; }
export TQDB_HOST=$1 TQDB_PORT=$2 TQDB_USER=${3:-admin}
export TQDB_PASSWORD=${TQDB_PASSWORD:-admin}
tqdb() { "${TQDB_PYTHON:-python3}" -m tqdb "$@"; }

tqdb info | head -4
echo
tqdb objects list /customers >/dev/null 2>&1 || tqdb objects add /customers >/dev/null
customer=/customers/acme-$$
tqdb objects add "$customer" -m "new customer" >/dev/null
tqdb objects list /customers
echo
echo "busiest net objects:"
tqdb stats top -n 3
echo
echo "NetObject-1, bytes per day (CSV, first lines):"
tqdb stats query --csv "SELECT date, field, value FROM stat_totals
                        WHERE path = 'NetObject-1' AND field = 'BYTES_IN' ORDER BY date" | head -4
echo
backup=$(tqdb --json backup dump --resource ruleset | sed 's/.*"backup": "\([^"]*\)".*/\1/')
echo "ruleset backed up as $backup"
echo
status=0
tqdb objects rm /customers/nobody 2>/dev/null || status=$?
echo "removing an object that is not there: exit $status (1: refused)"
status=0
TQDB_PASSWORD=wrong tqdb info 2>/dev/null || status=$?
echo "a wrong password: exit $status (3: no connection)"

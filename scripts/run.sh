#!/usr/bin/env bash
# The project's main job: builds Ostrel and its example service, starts
# ostrel-kvd on a free local port, runs a scripted client session against it
# (puts, gets, a list, a delete, an error case, a short bench), shows the log
# lines the service wrote, stops it with SIGTERM and checks that it ended.
# Exits non-zero on any failure.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
dir="$root/build-run"
cmake -S "$root" -B "$dir" -G Ninja -DOSTREL_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)" --target ostrel-kvd ostrel-kv >/dev/null
kvd="$dir/examples/ostrel-kvd"
kv="$dir/examples/ostrel-kv"

work=$(mktemp -d)
out="$work/kvd.out"
kvd_pid=""
cleanup() {
  [ -z "$kvd_pid" ] || kill "$kvd_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n$ %s\n' "$*"; }
expect() { # expected-output command...
  local want=$1; shift
  step "ostrel-kv ${*}"
  local got status=0
  got=$("$kv" --port "$port" "$@") || status=$?
  printf '%s\n' "$got"
  if [ "$got" != "$want" ]; then
    echo "run: expected \"$want\" (exit status $status)" >&2
    exit 1
  fi
}

echo "== starting ostrel-kvd (pid file and logs in $work)"
ZURN_LOG_LEVEL=INFO "$kvd" --port 0 --pid-dir "$work" --log-dir "$work" >"$out" 2>&1 &
kvd_pid=$!
for _ in $(seq 100); do
  grep -q 'listening on' "$out" 2>/dev/null && break
  kill -0 "$kvd_pid" 2>/dev/null || { cat "$out"; echo "run: ostrel-kvd did not start" >&2; exit 1; }
  sleep 0.1
done
cat "$out"
port=$(sed -n 's/.*listening on [0-9.]*:\([0-9]*\).*/\1/p' "$out")
[ -n "$port" ] || { echo "run: no port announced" >&2; exit 1; }
echo "pid file: $(cat "$work/qmv_ns_ostrel-kvd.pid")"

expect ok put city Lisbon
expect ok put river Tagus
expect ok put bridge "25 de Abril"
expect Lisbon get city
expect 3 count
expect $'bridge=25 de Abril\ncity=Lisbon\nriver=Tagus' list
expect ok del river
expect 'error 0x90018: Can not find specified item(node,element).' get river
expect 2 count
step "ostrel-kv bench --clients 4 --requests 500"
"$kv" --port "$port" bench --clients 4 --requests 500

echo
echo "== stopping ostrel-kvd with SIGTERM"
kill -TERM "$kvd_pid"
status=0
wait "$kvd_pid" || status=$?
kvd_pid=""
tail -n 1 "$out"
if [ "$status" != 0 ]; then
  echo "run: ostrel-kvd ended with status $status" >&2
  exit 1
fi
echo
echo "== the service's log ($work/ostrel-kvd.log):"
cat "$work/ostrel-kvd.log"
echo
echo "== the library's log, last lines ($work/ostrel.log):"
tail -n 8 "$work/ostrel.log"
echo
echo "run: the service started, answered every request as expected and stopped cleanly"

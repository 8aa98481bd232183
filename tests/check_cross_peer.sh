#!/bin/sh
# Cross-built and native processes talk to each other over loopback: the
# key-value service of one build serves the client of the other, both ways,
# so serializer packets and netbase traffic cross between a process of the
# target's byte order (under emulation) and one of the build machine's.
#
#   check_cross_peer.sh TARGET_KVD TARGET_KV NATIVE_KVD NATIVE_KV EMULATOR [ARGS...]
#
# Every reply is compared with what the client must print; the service must
# stop cleanly (exit 0) on SIGTERM.
set -eu
target_kvd=$1 target_kv=$2 native_kvd=$3 native_kv=$4
shift 4
emulator="$*"
tmp=$(mktemp -d)
server_pid=""
cleanup() {
  [ -z "$server_pid" ] || kill -KILL "$server_pid" 2>/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT
export ZURN_LOG_DIR="$tmp"
failures=0
checks=0

expect() { # label, expected output, command...
  label=$1 want=$2
  shift 2
  checks=$((checks + 1))
  got=$("$@" 2>&1) || true
  if [ "$got" != "$want" ]; then
    echo "FAIL $label: expected [$want], got [$got]"
    failures=$((failures + 1))
  fi
}

# A value of 3000 bytes: longer than the first segment netbase sends with the header.
long_value=$(printf '%03000d' 7)

exchange() { # name, server kind, client kind (target or native)
  name=$1
  if [ "$2" = target ]; then server="$emulator $target_kvd"; else server="$native_kvd"; fi
  if [ "$3" = target ]; then client="$emulator $target_kv"; else client="$native_kv"; fi
  mkdir -p "$tmp/$name"
  : >"$tmp/$name/server.out" # exists before the background start opens it
  # shellcheck disable=SC2086 # the emulator command splits into its words
  $server --port 0 --pid-dir "$tmp/$name" >"$tmp/$name/server.out" 2>&1 &
  server_pid=$!
  port=""
  tries=0
  while [ -z "$port" ]; do
    port=$(sed -n 's/^ostrel-kvd: listening on [^ ]*:\([0-9][0-9]*\).*/\1/p' "$tmp/$name/server.out" || true)
    if [ -z "$port" ]; then
      if ! kill -0 "$server_pid" 2>/dev/null || [ "$tries" -ge 600 ]; then
        echo "FAIL $name: the service did not start:"; cat "$tmp/$name/server.out"
        return 1
      fi
      tries=$((tries + 1))
      sleep 0.1
    fi
  done
  c="$client --port $port"
  # shellcheck disable=SC2086
  {
    expect "$name put" "ok" $c put alpha "one two"
    expect "$name put long" "ok" $c put big "$long_value"
    expect "$name put empty" "ok" $c put empty ""
    expect "$name get" "one two" $c get alpha
    expect "$name get long" "$long_value" $c get big
    expect "$name count" "3" $c count
    expect "$name list" "$(printf 'alpha=one two\nbig=%s\nempty=' "$long_value")" $c list
    expect "$name del" "ok" $c del alpha
    expect "$name count after del" "2" $c count
    checks=$((checks + 1))
    if ! $c bench --clients 3 --requests 60 >"$tmp/$name/bench.out" 2>&1; then
      echo "FAIL $name bench:"; cat "$tmp/$name/bench.out"
      failures=$((failures + 1))
    fi
  }
  kill -TERM "$server_pid"
  status=0
  wait "$server_pid" || status=$?
  server_pid=""
  checks=$((checks + 1))
  if [ "$status" != 0 ]; then
    echo "FAIL $name: the service exited with $status on SIGTERM:"; cat "$tmp/$name/server.out"
    failures=$((failures + 1))
  fi
}

exchange target-serves-native target native
exchange native-serves-target native target
echo "cross-peer exchange: $checks checks, $failures failed"
[ "$failures" = 0 ]

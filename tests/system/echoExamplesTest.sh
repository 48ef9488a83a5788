#!/usr/bin/env bash
# echoExamplesTest.sh FOLDER [EMULATOR ...]: the echo daemon of that folder,
# detached, sends back what its client and a stranger send over every transport
# of this machine, logs what is no message, and ends on SIGTERM.
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source=scripts/daemons.sh
. "$top/scripts/daemons.sh"
programs=$1
emulator=("${@:2}")

work=$(mktemp -d)
daemon=
end()
{
    [ -z "$daemon" ] || hasEnded "$daemon" || kill -9 "$daemon"
    rm -rf "$work"
}
trap end EXIT
mkdir "$work/log" "$work/clientLog"
export TOLV_ERRORLOG=$work/log TOLV_TRACE_DIR=$work
# A detached process has no other place where a sanitizer could complain.
export ASAN_OPTIONS=${ASAN_OPTIONS-}:log_path=$work/sanitizer
export TSAN_OPTIONS=${TSAN_OPTIONS-}:log_path=$work/sanitizer
export UBSAN_OPTIONS=${UBSAN_OPTIONS-}:log_path=$work/sanitizer

fail()
{
    printf '%s\n' "$*"
    cat "$work/echo.trace"
    exit 1
}

port=$(freePort)
"${emulator[@]}" "$programs/echoDaemon" "$work" "$port"
await 20 test -e "$work/echo.ready" || fail "the daemon does not serve"
read -r daemon transports <"$work/echo.ready"
[[ " $transports " == *' tcp '* && " $transports " == *' unix '* ]] ||
    fail "serves only: $transports"

# Nothing but a program's own bytes, repeated to some megabytes.
file=$work/file
for _ in {1..30}
do
    cat "$programs/echoDaemon"
done >"$file"
read -ra names <<<"$transports"
streams=()
for name in "${names[@]}"
do
    [[ $name == udp* ]] || streams+=("$name")
done

# thereAndBack SIZE TRANSPORT ...: the file in messages of that size.
thereAndBack()
{
    local size=$1 name
    shift
    TOLV_ERRORLOG=$work/clientLog "${emulator[@]}" "$programs/echoClient" \
        -s "$size" "$work" "$port" "$file" "$@" || fail "the client failed"
    for name in "$@"
    do
        cmp "$file" "$work/echo.$name" || fail "$name changed the file"
        [ "$(grep -oE '[0-9A-F]{8}, [0-9]+\.[0-9]{6}, ' \
            "$work/profile.$name.csv" | wc -l)" -eq 5 ] ||
            fail "not one profile of five checkpoints over $name"
        rm "$work/echo.$name" "$work/profile.$name.csv"
    done
}
thereAndBack 8192 "${names[@]}"
thereAndBack 60001 "${names[@]}"
thereAndBack 10000000 "${streams[@]}" # more than a socket holds

say()
{
    python3 "$top/tools/tolvwire.py" "$@"
}
for address in "tcp:127.0.0.1:$port" "udp:127.0.0.1:$port" \
    "unix:$work/echo.socket"
do
    say send "$address" --id 77 --type 3 --aux 5 --flags 0x21 --body hello \
        --reply --count 2 --json >"$work/reply" || fail "no reply: $address"
    [ "$(grep -c '"id": 77, "type": 3, "subType": 0, "aux": 5, "flags": 33,.*"body": "68656c6c6f"' "$work/reply")" -eq 2 ] ||
        fail "$(cat "$work/reply")"
done

[ -z "$(ls "$work/log")" ] || fail "errors logged: $(ls "$work/log")"

logs()
{
    [ "$(find "$work/log" -name 'entry.*' | wc -l)" -eq "$1" ]
}
python3 - "$port" <<'END' || fail "a peer without manners stays connected"
import socket
import sys
place = ("127.0.0.1", int(sys.argv[1]))
with socket.create_connection(place, timeout=20) as peer:
    peer.sendall(b"no message, but long enough for one")
    try:
        assert peer.recv(1) == b""
    except ConnectionResetError:
        pass
END
await 20 logs 1 || fail "no entry for what was no message"
# Over UDP all peers have one service, which stays.
python3 - "$port" <<'END'
import socket
import sys
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as peer:
    for data in (b"no message, but long enough for one", b""):
        peer.sendto(data, ("127.0.0.1", int(sys.argv[1])))
END
await 20 logs 2 || fail "no entry for the datagram"
say send "udp:127.0.0.1:$port" --reply --time-out 20 >/dev/null ||
    fail "no UDP any more"
"${emulator[@]}" "$programs/showErrorLog" "$work"/log/entry.* |
    grep -q 'Invalid Message received' || fail "the log does not tell why"

# A connection that stays open does not hold the daemon up.
exec 9<>"/dev/tcp/127.0.0.1/$port"
kill "$daemon"
await 40 hasEnded "$daemon" || fail "SIGTERM does not end the daemon"
exec 9<&-
[ ! -e "$work/echo.ready" ] || fail "the daemon was not orderly"
[ ! -e "$work/echo.socket" ] || fail "the socket's file is left"
grep -q 'stopped after messages' "$work/echo.trace" || fail "cut short"
! grep . "$work"/sanitizer.* 2>/dev/null || fail "a sanitizer complains"

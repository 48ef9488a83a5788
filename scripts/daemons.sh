# shellcheck shell=bash
# For scripts that start daemons: a port, and waiting with a limit.

# freePort: a port that is free over TCP and UDP on both loopback addresses.
# Below those that the system gives to clients, so that none of them takes it
# before the daemon does.
freePort()
{
    python3 - <<'END'
import random
import socket

ADDRESSES = [(socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")]


def is_free(port):
    """Whether all four sockets can be bound; an address that the machine
    lacks is no obstacle."""
    for family, host in ADDRESSES:
        for kind in (socket.SOCK_STREAM, socket.SOCK_DGRAM):
            try:
                with socket.socket(family, kind) as sock:
                    sock.bind((host, port))
            except OSError:
                if family == socket.AF_INET:
                    return False
    return True


print(next(port for port in iter(lambda: random.randrange(20000, 32000), 0)
           if is_free(port)))
END
}

# await SECONDS COMMAND [ARGUMENT ...]: until the command succeeds; fails when
# it has not by then.
await()
{
    local end=$((SECONDS + $1))
    shift
    until "$@"
    do
        [ "$SECONDS" -le "$end" ] || return 1
        sleep 0.02
    done
}

# hasEnded PROCESS: it is gone, or waits only for its parent to notice.
hasEnded()
{
    ! grep -qs '^State:[[:space:]][^ZX]' "/proc/$1/status"
}

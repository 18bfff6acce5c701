# A world of its own for the end-to-end test and the demo: a network namespace with a default
# route on one end of a veth pair, a private /etc/resolv.conf, the network's own resolver and a
# corporate resolver on loopback addresses, and a system root for the programs' fixed paths.
# Nothing of the machine's own network, DNS or services is touched. Sourced, not run.
#
# world_enter "$0" "$@"   re-runs the calling script inside new network and mount namespaces
# world_up DIR            builds the world below DIR (once inside)
# world_route_down/up     removes and adds the default route
# world_lookup NAME       the first IPv4 address the machine's resolver gives, or "none"

WORLD_NETWORK_DNS=127.0.0.30      # the network's own resolver, as DHCP gave it
WORLD_CORPORATE_DNS=127.0.0.20    # the corporate resolver of the split-horizon rule
WORLD_FILTER_DNS=127.0.0.10       # the service's filtering resolver (tools/devserver)
WORLD_PROXY=127.0.0.153           # where the provider serves
WORLD_PIDS=()

world_say() { printf '==> %s\n' "$*" >&2; }

world_enter() {
    if [ -n "${MORVANE_IN_WORLD:-}" ]; then
        return 0
    fi
    if [ "$(id -u)" -ne 0 ]; then
        world_say "needs root for a network namespace of its own"
        exit 77
    fi
    if ! unshare --net --mount --fork true 2>/dev/null; then
        world_say "this machine refuses new network and mount namespaces"
        exit 77
    fi
    MORVANE_IN_WORLD=1 exec unshare --net --mount --fork --propagation private -- "$@"
}

world_stop() {
    local pid
    for pid in "${WORLD_PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${WORLD_PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
    WORLD_PIDS=()
}

world_up() {
    WORLD_DIR=$1
    mkdir -p "$WORLD_DIR"
    ip link set lo up
    # A veth pair, both ends here: the kernel may have no dummy interfaces, veth it always has.
    ip link add eth0 type veth peer name eth1
    ip addr add 10.77.0.2/24 dev eth0
    ip link set eth1 up
    ip link set eth0 up
    ip route add default via 10.77.0.1 dev eth0
    # The machine's resolver configuration as DHCP would have left it, private to this world.
    printf '# written by the network\nnameserver %s\nsearch lan.example\n' "$WORLD_NETWORK_DNS" \
        >"$WORLD_DIR/resolv.conf.original"
    cp "$WORLD_DIR/resolv.conf.original" "$WORLD_DIR/resolv.conf"
    mount --bind "$WORLD_DIR/resolv.conf" /etc/resolv.conf
    # The programs' fixed places, /run/morvanecloud and /var/lib/morvanecloud, private to this
    # world: they run here as they do on a machine, with nothing of the host's below them. No
    # system bus and no systemd show here either, so the switch takes /etc/resolv.conf and the
    # agent starts the provider itself, as on a machine without systemd.
    mount -t tmpfs -o mode=0755 world-run /run
    mount -t tmpfs -o mode=0755 world-var-lib /var/lib
    world_responder network "$WORLD_NETWORK_DNS" --default 10.30.0.1
    world_responder corporate "$WORLD_CORPORATE_DNS" --zone corp.example.com=10.20.0.7 \
        --zone intra.example.net=10.20.0.8
}

# world_responder NAME ADDRESS ARGS...: a small resolver on ADDRESS:53 logging to NAME.log.
world_responder() {
    local name=$1 address=$2
    shift 2
    python3 "$(dirname "${BASH_SOURCE[0]}")/dnsresponder.py" --listen "$address:53" \
        --log "$WORLD_DIR/$name.log" "$@" >"$WORLD_DIR/$name.out" 2>&1 &
    WORLD_PIDS+=($!)
    world_wait_for "grep -q LISTENING '$WORLD_DIR/$name.out'" 10 || {
        cat "$WORLD_DIR/$name.out" >&2
        return 1
    }
}

world_route_down() { ip route del default via 10.77.0.1 dev eth0; }
world_route_up() { ip route add default via 10.77.0.1 dev eth0; }

# world_tunnel_up N / world_tunnel_down N: a VPN client's tunnel tunN with an address.
world_tunnel_up() {
    ip tuntap add dev "tun$1" mode tun
    ip addr add "10.8.$1.2/24" dev "tun$1"
    ip link set "tun$1" up
}
world_tunnel_down() { ip link del "tun$1"; }

world_lookup() {
    local answer
    answer=$(getent ahostsv4 "$1" 2>/dev/null | awk 'NR == 1 { print $1 }')
    echo "${answer:-none}"
}

# world_wait_for COMMAND SECONDS: true once COMMAND succeeds, false after SECONDS.
world_wait_for() {
    local deadline=$((SECONDS + $2))
    while [ $SECONDS -lt $deadline ]; do
        if eval "$1" >/dev/null 2>&1; then return 0; fi
        sleep 0.2
    done
    return 1
}

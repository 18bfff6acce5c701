#!/usr/bin/env bash
# The product doing its job, from end to end, in a network namespace of its own:
# tools/devserver (device server and filtering resolver), a corporate resolver, the network's
# own resolver, the provider as root, and the agent as a plain user. The machine's own resolver
# (getaddrinfo through /etc/resolv.conf, private to the namespace) must answer by the policy,
# a VPN and a lost default route must switch the proxy off and their end on again, a changed
# policy must reach the provider at the next reconnect, the external address must be learnt
# from the filtering resolver, a user's quit must restore DNS, and nothing may be left broken
# when a program dies.
#
#   tests/e2e/endtoend.sh BUILD_DIR [--demo]
#
# Exit status 0 passed, 1 failed, 77 skipped (no root or no namespaces here). --demo prints
# what it does and what the machine answers at each step.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/world.sh"
world_enter "$0" "$@"

build=$(cd "${1:?build folder}" && pwd)
demo=0
[ "${2:-}" = "--demo" ] && demo=1
root=$(cd "$here/../.." && pwd)
agent_bin="$build/apps/morvanecloud/morvanecloud"
provider_bin="$build/apps/morvanecloud-dnsproxy/morvanecloud-dnsproxy"
for program in "$agent_bin" "$provider_bin"; do
    [ -x "$program" ] || { world_say "not built: $program"; exit 1; }
done

W=$(mktemp -d /tmp/morvane-e2e.XXXXXX)
chmod 755 "$W"
failures=0
provider_pid=
agent_pid=
cleanup() {
    [ -n "$agent_pid" ] && kill "$agent_pid" 2>/dev/null
    [ -n "$provider_pid" ] && kill "$provider_pid" 2>/dev/null
    world_stop
    if [ $failures -ne 0 ] || [ $demo -eq 1 ]; then
        world_say "logs are in $W"
    else
        rm -rf "$W"
    fi
}
trap cleanup EXIT

pass() { printf '    ok    %s\n' "$*"; }
fail() { printf '    FAIL  %s\n' "$*"; failures=$((failures + 1)); }
show() { [ $demo -eq 1 ] && printf '    %s\n' "$*"; return 0; }
# expect_lookup NAME ADDRESS WHAT SECONDS: the machine's resolver answers NAME with ADDRESS.
expect_lookup() {
    if world_wait_for "[ \"\$(world_lookup $1)\" = $2 ]" "${4:-20}"; then
        pass "$3: $1 -> $2"
    else
        fail "$3: $1 -> $(world_lookup "$1"), expected $2"
    fi
}
dns_settings() { grep -v '^#' /etc/resolv.conf | tr '\n' ' '; }

# The agent runs as nobody, who may not be able to reach a build folder below a private home
# or checkout: it runs from a copy, with the provider's bundle beside it as it expects.
if ! setpriv --reuid=65534 --regid=65534 --clear-groups test -x "$agent_bin"; then
    mkdir -p "$W/agent"
    cp -a "$agent_bin" "$(dirname "$agent_bin")/SystemExtensions" "$W/agent/"
    chmod -R a+rX "$W/agent"
    agent_bin=$W/agent/morvanecloud
fi

world_say "building the world in $W"
world_up "$W" || exit 1
home=$W/home/e2e
mkdir -p "$home"
chown -R 65534:65534 "$home"
chmod 755 "$W/home"
show "system DNS before: $(dns_settings)"

# The namespace is ours, so the device server takes 8443 (the install command accepts ports of
# at most four digits).
# The account's policy: corporate names to the corporate resolver, everything else to the
# service's filtering resolver, which blocks blocked.example.com for this account's devices.
# The most specific rule wins whatever the order; the service's resolver comes first because
# the agent asks the policy's first resolver for the external address.
cat >"$W/policy.json" <<JSON
{"cfg": {"runtime": {"locations": [{"name": "Roaming", "tag": "loc-e2e"}],
                     "reconfigure": 0,
                     "tarn": {"interfaces_to_ignore": ["e2e-vpn-client"], "log_level": "production"}}},
 "filters": [{"resolvers": ["$WORLD_FILTER_DNS"]},
             {"domain": "corp.example.com", "resolvers": ["$WORLD_CORPORATE_DNS"]}]}
JSON
python3 "$root/tools/devserver/devserver" --port 8443 --work-dir "$W/devserver" --install-key e2e-key \
    --policy "$W/policy.json" --dns-address "$WORLD_FILTER_DNS" --dns-port 53 \
    --dns-answer www.example.org=198.51.100.10 --dns-answer intra.example.net=198.51.100.11 \
    >"$W/devserver.out" 2>"$W/devserver.log" &
WORLD_PIDS+=($!)
world_wait_for "grep -q '^LISTENING' '$W/devserver.out'" 30 || { cat "$W/devserver.log"; exit 1; }
read -r _ _ port control _ <"$W/devserver.out"

world_say "the network's own resolver answers everything before the switch"
expect_lookup blocked.example.com 10.30.0.1 "before"

world_say "starting the provider as root on $WORLD_PROXY:53"
start_provider() {
    "$provider_bin" --listen "$WORLD_PROXY:53" >>"$W/provider.log" 2>&1 &
    provider_pid=$!
    world_wait_for "[ -S /run/morvanecloud/dnsproxy.control ]" 20 || fail "the provider's control socket"
}
start_provider

as_user() {
    setpriv --reuid=65534 --regid=65534 --clear-groups env -u SUDO_COMMAND -u XDG_CONFIG_HOME \
        -u XDG_DATA_HOME -u XDG_CACHE_HOME -u XDG_RUNTIME_DIR -u DBUS_SESSION_BUS_ADDRESS -u DISPLAY \
        -u MORVANECLOUD_SYSROOT HOME="$home" QT_QPA_PLATFORM=offscreen "$@"
}
world_say "enrolling as the user: morvanecloud RPC_URL=https://127.0.0.1:$port INSTALL_KEY=e2e-key"
(cd "$home" && as_user PWD="$home" "$agent_bin" RPC_URL="https://127.0.0.1:$port" INSTALL_KEY=e2e-key \
    ALLOW_WEAK_KEY=true >"$W/install.log" 2>&1) || fail "the install command (see install.log)"
[ -s "$home/.local/share/MorvaneCloud/device.json" ] && pass "enrolled, policy stored" || fail "no device.json"

start_agent() {
    (cd / && as_user env -u PWD "$agent_bin" >>"$W/agent.log" 2>&1) &
    agent_pid=$!
}
world_say "starting the agent as the user"
start_agent
proxy_enabled() {
    as_user "$agent_bin" --status 2>/dev/null | grep -q 'DNS proxy: *enabled'
}
world_wait_for proxy_enabled 60 && pass "the agent enabled the proxy" || fail "the proxy was not enabled"
show "system DNS with the proxy: $(dns_settings)"
expect_lookup blocked.example.com 192.0.2.80 "blocked by the policy"
expect_lookup www.corp.example.com 10.20.0.7 "corporate name from the corporate resolver"
expect_lookup www.example.org 198.51.100.10 "ordinary name from the filtering resolver"
if grep -q 'www.example.org' "$W/network.log" 2>/dev/null; then
    fail "the network's own resolver was asked while the proxy was on"
else
    pass "the network's own resolver was not asked"
fi

# The filtering resolver answers "-.-" with the address it was asked from: the agent learns its
# external address from a real query at the connected event and stores it.
if world_wait_for "as_user '$agent_bin' --status | grep -q 'External address:  127\.'" 60; then
    pass "the external address learnt from the filtering resolver: $(as_user "$agent_bin" --status | sed -n 's/^External address: *//p')"
else
    fail "no external address stored"
fi

world_say "a VPN: tunnel tun0 with an address and a running client"
world_tunnel_up 0
cp /bin/sleep "$W/e2e-vpn-client"
"$W/e2e-vpn-client" 600 &
vpn_pid=$!
expect_lookup blocked.example.com 10.30.0.1 "VPN up: the machine's DNS is as before" 60
kill "$vpn_pid" 2>/dev/null; wait "$vpn_pid" 2>/dev/null
world_tunnel_down 0
expect_lookup blocked.example.com 192.0.2.80 "VPN gone: filtering again" 120

# The agent asks the server for its policy when the network connects, when a VPN ends and when
# its files are edited; a polling tick with a usable policy on disk asks nothing. So a changed
# policy reaches the provider with the next of those events: here the route coming back.
world_say "a changed policy on the server, then the default route removed and added"
expect_lookup intra.example.net 198.51.100.11 "intra.example.net before the change"
python3 - "$control" "$home/.local/share/MorvaneCloud/device.json" "$home/.local/share/MorvaneCloud/config.json" <<'PY'
import http.client, json, sys
# The device's policy as the server gave it (its user and keys kept), with one rule more.
policy = json.load(open(sys.argv[2]))["result"]
policy["filters"].append({"domain": "intra.example.net", "resolvers": ["127.0.0.20"]})
device = json.load(open(sys.argv[3]))["result"]["device"]
connection = http.client.HTTPConnection("127.0.0.1", int(sys.argv[1]), timeout=10)
connection.request("POST", "/policy", json.dumps({"policy": policy, "device": device}),
                   {"Content-Type": "application/json"})
assert connection.getresponse().status == 200
PY
world_route_down
expect_lookup blocked.example.com 10.30.0.1 "offline: the machine's DNS is as before" 60
world_route_up
expect_lookup blocked.example.com 192.0.2.80 "online: filtering again" 60
expect_lookup intra.example.net 10.20.0.8 "the changed policy reached the provider at the reconnect" 60

world_say "kill -9 of the agent: filtering stays on, it is the provider's job"
kill -9 "$agent_pid"; wait "$agent_pid" 2>/dev/null; agent_pid=
expect_lookup blocked.example.com 192.0.2.80 "agent killed: still filtering" 5

world_say "the user quits the agent"
passes=$(grep -c 'Reconfiguring NETWORK EXTENSION' "$W/agent.log")
start_agent
# Quit once the new agent's first pass is under way: a quit must win over the start's own save.
world_wait_for "[ \$(grep -c 'Reconfiguring NETWORK EXTENSION' '$W/agent.log') -gt $passes ]" 60 || true
as_user "$agent_bin" --quit >>"$W/agent.log" 2>&1
wait "$agent_pid" 2>/dev/null; agent_pid=
expect_lookup blocked.example.com 10.30.0.1 "after the user's quit: DNS as before" 30
cmp -s /etc/resolv.conf "$W/resolv.conf.original" && pass "resolv.conf byte for byte as before" \
    || fail "resolv.conf differs from the original"

world_say "kill -9 of the provider while it filters"
start_agent
world_wait_for proxy_enabled 60 || true
expect_lookup blocked.example.com 192.0.2.80 "filtering before the kill" 30
kill -9 "$provider_pid"; wait "$provider_pid" 2>/dev/null; provider_pid=
# What systemd does after the unit's main process dies: ExecStopPost=, then a restart.
"$provider_bin" --cleanup >>"$W/provider.log" 2>&1 || fail "--cleanup"
cmp -s /etc/resolv.conf "$W/resolv.conf.original" && pass "provider killed: resolv.conf restored" \
    || fail "provider killed: resolv.conf not restored"
show "system DNS after: $(dns_settings)"

if [ $failures -ne 0 ]; then
    world_say "$failures checks failed"
    for log in provider agent install devserver; do
        echo "---- $log.log (last lines)"; tail -n 40 "$W/$log.log" 2>/dev/null
    done
    exit 1
fi
world_say "all checks passed"

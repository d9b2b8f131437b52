#!/usr/bin/env bash
# The walk-through on a fresh machine: installs what is missing, builds, starts cas-sim,
# brimlet-server and brimlet-agent under a private install root, registers the simulated CVM,
# tests its login, and stops everything it started.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

bash scripts/setup.sh
# An optimised tree (shared with scripts/bench.sh), and only the programs the demo runs: the
# throughput it shows is the product's, and no test binary is built.
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-release -j "$(nproc)" \
  --target cas-sim brimlet-server brimlet-agent brimlet-cli h3ccas

export BRIMLET_ROOT
BRIMLET_ROOT=$(mktemp -d /tmp/brimlet-demo-XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  echo "Demo files are in $BRIMLET_ROOT"
}
trap cleanup EXIT

wait_for() {  # wait_for FILE: until the program has written its ready file
  for _ in $(seq 1 200); do [ -s "$1" ] && return 0; sleep 0.05; done
  echo "timed out waiting for $1" >&2
  return 1
}
json_get() { python3 -c "import json,sys; print(json.load(open(sys.argv[1]))[sys.argv[2]])" "$@"; }
step() { printf '\n== %s\n' "$*"; }

bin=$repo/build-release/bin
step "Starting cas-sim with the default world"
"$bin/cas-sim" --world sim/cas/worlds/default.json --listen 127.0.0.1:0 --cvd-listen 127.0.0.1:0 \
  --ready-file "$BRIMLET_ROOT/sim.json" --data "$BRIMLET_ROOT/sim" --log "$BRIMLET_ROOT/sim.log" &
pids+=($!)
wait_for "$BRIMLET_ROOT/sim.json"
sim_port=$(json_get "$BRIMLET_ROOT/sim.json" http_port)
echo "CVM simulator on 127.0.0.1:$sim_port"

step "Starting brimlet-server; enrolling this agent and an administrator"
"$bin/brimlet-server" --listen 127.0.0.1:0 --data "$BRIMLET_ROOT/server" \
  --ready-file "$BRIMLET_ROOT/server.json" 2>>"$BRIMLET_ROOT/server.err" &
pids+=($!)
wait_for "$BRIMLET_ROOT/server.json"
server_port=$(json_get "$BRIMLET_ROOT/server.json" port)
etc=$BRIMLET_ROOT/etc/opt/quorvex/brimlet5
mkdir -p "$etc"
echo "demo-agent" > "$etc/host_id"
key=$("$bin/brimlet-server" enroll --data "$BRIMLET_ROOT/server" --host-id demo-agent)
cat > "$etc/agent.json" <<CONF
{
  "listen": "127.0.0.1:0",
  "backup_server": {"host": "127.0.0.1", "port": $server_port, "ssl": false, "access_key": "$key"},
  "host_id_file": "$etc/host_id",
  "modules": ["$repo/build-release/lib/h3ccas.module.json"]
}
CONF
chmod 600 "$etc/agent.json"
# The CLI's own key may register and remove CVMs and pools; only its owner may read it.
admin_key=$("$bin/brimlet-server" enroll --data "$BRIMLET_ROOT/server" --host-id demo-admin \
  --role admin)
(umask 077 && cat > "$etc/cli.json" <<CONF
{
  "backup_server": {"host": "127.0.0.1", "port": $server_port, "ssl": false,
                    "access_key": "$admin_key"}
}
CONF
)
echo "Backup server on 127.0.0.1:$server_port"

step "Starting brimlet-agent with the CAS module"
"$bin/brimlet-agent" --ready-file "$BRIMLET_ROOT/agent.json" 2>>"$BRIMLET_ROOT/agent.err" &
pids+=($!)
wait_for "$BRIMLET_ROOT/agent.json"
echo "Agent on 127.0.0.1:$(json_get "$BRIMLET_ROOT/agent.json" port)"

# operator FIELD GROUP: a field of the world's first operator in (or, with !GROUP, outside) a group.
operator() {
  python3 -c "import json,sys; w=json.load(open('sim/cas/worlds/default.json')); \
g=sys.argv[2]; pick=(lambda o: o['group_id'] != int(g[1:])) if g[0] == '!' else (lambda o: o['group_id'] == int(g)); \
print(next(o[sys.argv[1]] for o in w['operators'] if pick(o)))" "$1" "$2"
}

step "brimlet cvm add (password read from stdin, never from argv)"
operator password 1 |
  "$bin/brimlet" cvm add --name lab --host 127.0.0.1 --port "$sim_port" \
    --username "$(operator login_name 1)" --password-stdin
operator password '!1' |
  "$bin/brimlet" cvm add --name lab-auditor --host 127.0.0.1 --port "$sim_port" \
    --username "$(operator login_name '!1')" --password-stdin

step "brimlet cvm list"
"$bin/brimlet" cvm list

step "brimlet cvm test lab"
"$bin/brimlet" cvm test lab

step "brimlet cvm test lab-auditor (not an administrator: expected to fail)"
"$bin/brimlet" cvm test lab-auditor || echo "(exit status $?)"

step "brimlet --json cvm test lab"
"$bin/brimlet" --json cvm test lab

step "brimlet ls lab (the CVK hosts)"
"$bin/brimlet" ls lab

step "brimlet ls lab host cvk01"
"$bin/brimlet" ls lab host cvk01

step "brimlet ls lab vms cvk01"
"$bin/brimlet" ls lab vms cvk01

step "brimlet ls lab pools cvk01"
"$bin/brimlet" ls lab pools cvk01

step "brimlet ls lab volumes cvk01 defaultpool"
"$bin/brimlet" ls lab volumes cvk01 defaultpool

step "brimlet ls lab vswitches cvk01"
"$bin/brimlet" ls lab vswitches cvk01

step "brimlet ls lab profiles"
"$bin/brimlet" ls lab profiles

step "brimlet search lab vms 01"
"$bin/brimlet" search lab vms 01

step "brimlet verify lab WEB01 db01 nosuchvm (one name is missing: expected to fail)"
"$bin/brimlet" verify lab WEB01 db01 nosuchvm || echo "(exit status $?)"

#!/usr/bin/env bash
# The walk-through on a fresh machine: installs what is missing, builds, starts cas-sim,
# brimlet-server and brimlet-agent under a private install root (every port picked free), registers
# the simulated CVM, tests its login, browses it, backs up the VMs of one CVK in full with live
# progress, lets their guests write, backs them up again incrementally, restores both points of
# each VM's chain to new VMs and ends with a table proving every restored disk equal to its source
# at that point. Exits non-zero when any disk differs; stops everything it started.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

bash scripts/setup.sh
# An optimised tree (shared with scripts/bench.sh), and only the programs the demo runs: the
# throughput it shows is the product's, and no test binary is built.
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-release -j "$(nproc)" \
  --target cas-sim brimlet-server brimlet-agent brimlet-servant brimlet-cli h3ccas libcvd

export BRIMLET_ROOT
BRIMLET_ROOT=$(mktemp -d /tmp/brimlet-demo-XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  # The disk images and the pool take gigabytes; the logs and configuration stay to be read.
  rm -rf "$BRIMLET_ROOT/sim/disks" "$BRIMLET_ROOT/pool"
  echo "Demo logs are in $BRIMLET_ROOT"
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
# The demo's bookkeeping (backup sets, digests at each point, restores) and its closing table.
export BRIMLET=$bin/brimlet DEMO_STATE=$BRIMLET_ROOT/demo-state.json
cat > "$BRIMLET_ROOT/demo.py" <<'PY'
import json, os, subprocess, sys, urllib.parse, urllib.request

root, state_file = os.environ["BRIMLET_ROOT"], os.environ["DEMO_STATE"]
sim = "http://127.0.0.1:%d" % json.load(open(os.path.join(root, "sim.json")))["http_port"]


def control(method, path, body=None):  # the simulator's control API
    data = None if body is None else json.dumps(body).encode()
    req = urllib.request.Request(sim + path, data=data, method=method,
                                 headers={"Content-Type": "application/json"})
    with urllib.request.urlopen(req, timeout=600) as answer:
        return json.load(answer)


def load():
    if not os.path.exists(state_file):
        return {"sets": [], "points": {}, "restores": {}}
    with open(state_file) as f:
        return json.load(f)


def save(state):
    with open(state_file + ".new", "w") as f:
        json.dump(state, f, indent=1)
    os.replace(state_file + ".new", state_file)


def disks_of(vm):
    for host in control("GET", "/sim/world").get("hosts", []):
        for v in host.get("vms", []):
            if v["name"] == vm:
                disks = [d for d in v.get("disks", []) if d.get("device", "disk") == "disk"]
                return sorted(disks, key=lambda d: d["device_name"])
    sys.exit("no VM '%s' in the simulator" % vm)


def digests(vm):  # device -> {path, sha256, bytes}, from the simulator itself
    out = {}
    for d in disks_of(vm):
        answer = control("GET", "/sim/disks/digest?" + urllib.parse.urlencode({"disk": d["path"]}))
        out[d["device_name"]] = {"path": d["path"], "sha256": answer["sha256"],
                                 "bytes": answer["length"]}
    return out


def point(name, *vms):  # after a backup: each VM's new set and its disks' digests now
    state = load()
    for vm in vms:
        listed = subprocess.run([os.environ["BRIMLET"], "--json", "sets", "list", "--vm", vm],
                                check=True, capture_output=True, text=True).stdout
        new = [r["uuid"] for r in json.loads(listed) if r["uuid"] not in state["sets"]]
        if len(new) != 1:
            sys.exit("%s: %d new backup sets, one expected" % (vm, len(new)))
        state["sets"].append(new[0])
        disks = digests(vm)
        state["points"].setdefault(name, {})[vm] = {"set": new[0], "disks": disks}
        print("%s: backup set %s; SHA-256 now: %s" % (vm, new[0], ", ".join(
            "%s %s" % (dev, d["sha256"][:16]) for dev, d in disks.items())))
    save(state)


def writes(*vms):  # guest writes, some across 64 KiB blocks, and zeros over the first MiB
    seed = 1000
    for vm in vms:
        for d in disks_of(vm):
            size = d["size_mib"] << 20
            for offset, length in ((8 << 20, 2 << 20), (size // 2 + 4096, (1 << 20) + 512)):
                seed += 1
                control("POST", "/sim/disks/write", {"disk": d["path"], "offset": offset,
                                                     "length": length, "seed": seed})
            control("POST", "/sim/disks/write", {"disk": d["path"], "offset": 0,
                                                 "length": 1 << 20, "pattern": "byte", "byte": 0})
            print("%s %s: 3 MiB + 512 bytes of new data, 1 MiB of zeros" % (vm, d["device_name"]))


def set_of(name, vm):
    print(load()["points"][name][vm]["set"])


def restored(name, vm, new_vm, seconds):
    state = load()
    state["restores"].setdefault(name, {})[vm] = {"vm": new_vm, "seconds": float(seconds),
                                                  "disks": digests(new_vm)}
    save(state)


def table():
    state, rows, bad = load(), [], 0
    head = ("VM", "DISK", "POINT", "SIZE", "SOURCE SHA-256", "RESTORED SHA-256", "MB/S", "RESULT")
    for name, vms in state["points"].items():
        for vm, at in vms.items():
            back = state["restores"].get(name, {}).get(vm, {"disks": {}, "seconds": 0})
            total = sum(d["bytes"] for d in at["disks"].values())
            speed = "%.0f" % (total / 1e6 / back["seconds"]) if back["seconds"] else "-"
            for dev, d in at["disks"].items():
                got = back["disks"].get(dev, {}).get("sha256", "")
                equal = got == d["sha256"]
                bad += not equal
                rows.append((vm, dev, name, "%d MiB" % (d["bytes"] >> 20), d["sha256"][:16],
                             got[:16] or "(missing)", speed, "equal" if equal else "DIFFERENT"))
    widths = [max(len(r[i]) for r in [head] + rows) for i in range(len(head))]
    for r in [head] + rows:
        print("  ".join(c.ljust(w) for c, w in zip(r, widths)).rstrip())
    if bad or not rows:
        sys.exit("%d of %d restored disks differ from their source" % (bad, len(rows)))
    print("Every restored disk equals its source at the point restored (SHA-256 of all its bytes).")
    print("MB/S: the VM's disk bytes over its whole restore, the CVM's tasks (a second each) "
          "included.")


globals()[sys.argv[1]](*sys.argv[2:])
PY
demo() { python3 "$BRIMLET_ROOT/demo.py" "$@"; }
step "Starting cas-sim with the default world"
"$bin/cas-sim" --world sim/cas/worlds/default.json --listen 127.0.0.1:0 --cvd-listen 127.0.0.1:0 \
  --ready-file "$BRIMLET_ROOT/sim.json" --data "$BRIMLET_ROOT/sim" --log "$BRIMLET_ROOT/sim.log" &
pids+=($!)
wait_for "$BRIMLET_ROOT/sim.json"
sim_port=$(json_get "$BRIMLET_ROOT/sim.json" http_port)
cvd_port=$(json_get "$BRIMLET_ROOT/sim.json" cvd_port)
echo "CVM simulator on 127.0.0.1:$sim_port, its disk service on 127.0.0.1:$cvd_port"

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

# The servants: their configuration, and the disk-service library where the module loads it.
mkdir -p "$etc/h3c-cas/servant" "$BRIMLET_ROOT/opt/quorvex/brimlet5/cvdsdk/1.0.0"
cat > "$etc/h3c-cas/servant/svc.conf" <<CONF
{"modules": ["$repo/build-release/lib/h3ccas.module.json"], "log_file": "$BRIMLET_ROOT/servant.log"}
CONF
ln -sf "$repo/build-release/lib/libcvd.so" "$BRIMLET_ROOT/opt/quorvex/brimlet5/cvdsdk/1.0.0/"

step "Starting brimlet-agent with the CAS module"
# The CVKs' disk service (port 8192 of each CVK) is the simulator's, on its own port.
CVD_SIM_ADDRESS_MAP="*=127.0.0.1:$cvd_port" \
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

step "brimlet pool add demo (a folder of this machine)"
"$bin/brimlet" pool add --name demo --url "file://$BRIMLET_ROOT/pool"

vms=(app01 test01)
step "brimlet backup lab --host cvk02 --pool demo --full (${vms[*]}, live progress)"
"$bin/brimlet" backup lab --host cvk02 --pool demo --full --interval 0.5
demo point full "${vms[@]}"

step "The guests write (through the simulator's control API)"
demo writes "${vms[@]}"

step "brimlet backup lab --host cvk02 --pool demo (incremental: only what changed)"
"$bin/brimlet" backup lab --host cvk02 --pool demo --interval 0.5
demo point inc "${vms[@]}"

step "brimlet sets list --cvm lab"
"$bin/brimlet" sets list --cvm lab

step "brimlet sets verify --all --pool demo (every object read and checked, nothing written)"
"$bin/brimlet" sets verify --all --pool demo --interval 0.5

for point in full inc; do
  for vm in "${vms[@]}"; do
    set_uuid=$(demo set_of "$point" "$vm")
    step "brimlet restore $set_uuid --name $vm-$point ($vm as at its $point backup, to a new VM)"
    start=$(date +%s.%N)
    "$bin/brimlet" restore "$set_uuid" --name "$vm-$point" --interval 0.5
    end=$(date +%s.%N)
    demo restored "$point" "$vm" "$vm-$point" "$(awk "BEGIN {print $end - $start}")"
  done
done

step "The restored disks against their source at each point"
demo table

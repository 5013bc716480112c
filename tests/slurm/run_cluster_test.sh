#!/usr/bin/env bash
# Starts a one-node Slurm cluster on this machine (munge and Slurm state in a temporary folder, free ports on
# 127.0.0.1), converts the real recordings with tools/slurm/convert.sbatch as a job array, and checks every task
# against a local run of the same vundrel: the same bytes where vundrel succeeds, an entry in failed.txt and no
# photon file where it fails. Needs root. Exits 77 (skipped) where the daemons cannot start or there are no
# recordings. Usage: run_cluster_test.sh VUNDREL SOURCE_DIR DATA_DIR
set -uo pipefail
vundrel=$(realpath "$1") source=$(realpath "$2") data=$3 # the list holds absolute paths: tasks run elsewhere
skip() { echo "SKIP: $*"; exit 77; }
tmp=$(mktemp -d /tmp/vundrel_slurm_XXXXXX)
pids=()
show_logs() {
    for log in "$tmp"/*.log "$tmp"/work/*.out; do
        [ -f "$log" ] && { echo "---- $log"; tail -n 40 "$log"; }
    done
}
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2> /dev/null; done
    for pid in "${pids[@]}"; do wait "$pid" 2> /dev/null; done
    rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; show_logs; exit 1; }

[ -d "$data" ] || skip "no recordings: $data is absent"
data=$(realpath "$data")
[ "$(id -u)" = 0 ] || skip "slurmd must be started as root"
export PATH=$(dirname "$vundrel"):$PATH:/usr/sbin
for program in munged slurmctld slurmd sbatch sinfo; do
    command -v "$program" > /dev/null || skip "$program is not installed (tools/setup.sh installs slurm-wlm and munge)"
done

# A fresh key and a munged of our own on its own socket.
dd if=/dev/urandom of="$tmp/munge.key" bs=1024 count=1 status=none && chmod 400 "$tmp/munge.key"
munged -F -f --key-file="$tmp/munge.key" --socket="$tmp/munge.sock" --pid-file="$tmp/munged.pid" \
    --log-file="$tmp/munged.log" --seed-file="$tmp/munged.seed" > "$tmp/munged.out.log" 2>&1 &
pids+=($!)

# Two ports that are free now: bound to port 0 together, so that they differ.
read -r ctld_port node_port < <(/usr/bin/python3 -c 'import socket; s = [socket.socket() for _ in "ab"]
[x.bind(("127.0.0.1", 0)) for x in s]; print(*(x.getsockname()[1] for x in s))')
node=$(hostname -s)
mkdir -p "$tmp/state" "$tmp/spool" "$tmp/work" "$tmp/out" "$tmp/local"
export SLURM_CONF=$tmp/slurm.conf
# Authentication and credentials by munge, no accounting: Slurm's defaults.
cat > "$SLURM_CONF" << EOF
ClusterName=vundreltest
SlurmctldHost=$node(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$node_port
SlurmUser=root
AuthInfo=socket=$tmp/munge.sock
StateSaveLocation=$tmp/state
SlurmdSpoolDir=$tmp/spool
SlurmctldPidFile=$tmp/slurmctld.pid
SlurmdPidFile=$tmp/slurmd.pid
SlurmctldLogFile=$tmp/slurmctld.log
SlurmdLogFile=$tmp/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
MailProg=/bin/true
ReturnToService=2
NodeName=$node NodeAddr=127.0.0.1 NodeHostname=$node CPUs=$(nproc) State=UNKNOWN
PartitionName=test Nodes=$node Default=YES MaxTime=INFINITE State=UP
EOF
for i in $(seq 50); do [ -S "$tmp/munge.sock" ] && break; sleep 0.1; done
[ -S "$tmp/munge.sock" ] || { show_logs; skip "munged did not start"; }
slurmctld -D -i -f "$SLURM_CONF" > "$tmp/slurmctld.out.log" 2>&1 &
pids+=($!)
slurmd -D -f "$SLURM_CONF" > "$tmp/slurmd.out.log" 2>&1 &
pids+=($!)
for i in $(seq 60); do
    state=$(sinfo -h -n "$node" -o %T 2> /dev/null)
    [ "$state" = idle ] && break
    for pid in "${pids[@]}"; do kill -0 "$pid" 2> /dev/null || { show_logs; skip "a daemon did not start"; }; done
    sleep 0.5
done
[ "$state" = idle ] || fail "node $node is \"$state\", not idle, 30 s after the start"
echo "cluster up: node $node, slurmctld on port $ctld_port, slurmd on $node_port"

ls "$data"/*.tpx3 > "$tmp/list.txt"
count=$(wc -l < "$tmp/list.txt")
[ "$count" -gt 0 ] || skip "no .tpx3 recordings in $data"
cd "$tmp/work" || exit 1
timeout 600 sbatch --wait --array=1-"$count" "$source/tools/slurm/convert.sbatch" "$tmp/list.txt" "$tmp/out" -T
echo "sbatch --wait ended with status $? (tasks whose recording vundrel refuses fail)"

expected_failures=0
for i in $(seq "$count"); do
    input=$(sed -n "${i}p" "$tmp/list.txt")
    name=$(basename "$input" .tpx3)
    if vundrel -i "$input" -o "$tmp/local/$name.kavotphot" -T > /dev/null 2>&1; then
        cmp "$tmp/local/$name.kavotphot" "$tmp/out/$name.kavotphot" || fail "task $i ($name) differs from the local run"
    else
        expected_failures=$((expected_failures + 1))
        [ ! -e "$tmp/out/$name.kavotphot" ] || fail "task $i ($name) left a photon file although vundrel fails"
        grep -qxF "$(printf '%s\t%s' "$i" "$input")" "$tmp/out/failed.txt" || fail "task $i ($name) is not in failed.txt"
    fi
done
listed=$(cat "$tmp/out/failed.txt" 2> /dev/null | wc -l)
[ "$expected_failures" -lt "$count" ] || fail "vundrel converted none of the recordings"
[ "$listed" -eq "$expected_failures" ] || fail "failed.txt lists $listed tasks, $expected_failures expected"
[ -z "$(find "$tmp/out" -name '.*')" ] || fail "temporary files were left in the output folder"
echo "slurm: $((count - expected_failures)) recordings converted alike on the cluster and locally; $expected_failures refused by vundrel, listed in failed.txt"

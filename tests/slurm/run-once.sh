#!/usr/bin/env bash
# Runs docs/slurm-matrix.sh once as a real job array: a Slurm of its own on this one machine (controller and
# node daemon on loopback, state and keys in a temporary folder), a small grid in four tasks, merged and compared
# with the grid run whole. Needs root on Debian; everything it started is gone afterwards.
#
#   tests/slurm/run-once.sh PATH/TO/udtlab
set -euo pipefail

udtlab=$(realpath "${1:?the udtlab program}")
script=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../../docs/slurm-matrix.sh")
grid="--loss 1,5,10 --rtt 20,100 --users 2 --seconds 30"

missing=()
command -v slurmctld >/dev/null || missing+=(slurmctld)
command -v slurmd >/dev/null || missing+=(slurmd)
command -v munged >/dev/null || missing+=(munge)
if [ "${#missing[@]}" != 0 ]
then
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends slurm-wlm munge >/dev/null
    # A package just installed may have started its service, which nobody asked for. One that was here before is
    # somebody's and stays: ours has sockets, ports and keys of its own.
    for service in "${missing[@]}"; do service "$service" stop >/dev/null 2>&1 || true; done
fi

work=$(mktemp -d)
chmod 755 "$work"
node=$(hostname -s)
pids=()
job=
clean_up()
{
    if [ -n "$job" ]; then scancel "$job" 2>/dev/null || true; fi
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT

install -d -o munge -g munge -m 755 "$work/munge"
dd if=/dev/urandom of="$work/munge/key" bs=1024 count=1 status=none
chown munge: "$work/munge/key"
chmod 400 "$work/munge/key"
runuser -u munge -- munged --foreground --key-file="$work/munge/key" --socket="$work/munge/socket" \
    --pid-file="$work/munge/pid" --seed-file="$work/munge/seed" >"$work/munged.log" 2>&1 &
pids+=($!)

mkdir -p "$work/state" "$work/spool" "$work/jobs"
# Two ports that nobody listens on.
free_ports()
{
    local port found=()
    for port in $(shuf -i 20000-29999 -n 50)
    do
        if ! (: <"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then found+=("$port"); fi
        if [ "${#found[@]}" = 2 ]; then break; fi
    done
    echo "${found[@]}"
}
read -r controller_port node_port <<<"$(free_ports)"

cat >"$work/slurm.conf" <<END
ClusterName=udtlab
SlurmctldHost=$node(127.0.0.1)
SlurmUser=root
SlurmctldPort=$controller_port
SlurmdPort=$node_port
CommunicationParameters=NoCtldInAddrAny,NoInAddrAny
AuthType=auth/munge
AuthInfo=socket=$work/munge/socket
CredType=cred/munge
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd.pid
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
MpiDefault=none
ReturnToService=2
SchedulerType=sched/backfill
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
NodeName=$node NodeAddr=127.0.0.1 CPUs=$(nproc) State=UNKNOWN
PartitionName=all Nodes=$node Default=YES MaxTime=INFINITE State=UP
END
export SLURM_CONF=$work/slurm.conf

for _ in $(seq 50); do [ -S "$work/munge/socket" ] && break; sleep 0.1; done
slurmctld -D >"$work/slurmctld.log" 2>&1 &
pids+=($!)
slurmd -D -N "$node" >"$work/slurmd.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do sinfo -h -o %t 2>/dev/null | grep -q idle && break; sleep 0.2; done
if ! sinfo -h -o %t | grep -q idle
then
    tail -n 20 "$work/slurmctld.log" "$work/slurmd.log" >&2
    exit 1
fi
echo "slurm $(sinfo --version | cut -d' ' -f2), node $(sinfo -h -o '%D x %c CPUs, %t')"

cd "$work/jobs"
job=$(UDTLAB=$udtlab GRID=$grid sbatch --parsable --array=1-4 --export=ALL "$script")
echo "submitted job array $job"
for _ in $(seq 300)
do
    [ -n "$(squeue -h -j "$job" 2>/dev/null)" ] || break
    sleep 0.2
done
if [ -n "$(squeue -h -j "$job" 2>/dev/null)" ]
then
    echo "the job array has not ended in a minute" >&2
    exit 1
fi
scontrol show job "$job" | grep -E 'ArrayTaskId=|JobState=|RunTime=' | sed 's/  */ /g'

# shellcheck disable=SC2086  # a list of words
"$udtlab" matrix $grid --csv whole.csv >/dev/null
"$udtlab" matrix --merge matrix-"$job"-*.csv --csv merged.csv >/dev/null
cmp whole.csv merged.csv
echo "four tasks, merged: the same $(wc -c <merged.csv) bytes as the whole grid"

#!/bin/sh
# run_nack.sh RECEIVER SENDER: runs both over loopback; fails unless both were content.
set -eu
receiver=$1 sender=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

>"$dir/receiver" # there before the loop below reads it
"$receiver" >>"$dir/receiver" &
pid=$!
port=
while [ -z "$port" ]
do
    kill -0 "$pid" || { cat "$dir/receiver"; exit 1; }
    port=$(sed -n 's/^port \([0-9]*\)$/\1/p' "$dir/receiver")
    [ -n "$port" ] || sleep 0.05
done

rc=0
"$sender" "$port" || rc=$?
wait "$pid" || rc=$?
cat "$dir/receiver"
exit "$rc"

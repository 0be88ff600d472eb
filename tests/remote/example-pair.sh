#!/usr/bin/env bash
# Runs the example service and client as two programs over an ipc:// socket
# in a private folder; the client's exit status is the test's. The service
# ends when the client says goodbye, or after 30 s.
set -u
service=$1
client=$2
folder=$(mktemp -d /tmp/zvremote-example-XXXXXX)
trap 'kill "$pid" 2>/dev/null; rm -rf "$folder"' EXIT
address="ipc://$folder/tally"
"$service" "$address" 30 &
pid=$!
timeout 30 "$client" "$address"
status=$?
wait "$pid"
exit $status

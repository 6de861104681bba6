#!/bin/sh
# request.sh URL: asks pelkin for a URL (a GET) and prints the answer's body.
set -u
pelkinctl get "$1" --timeout 10
status=$?
case $status in
2) echo "request.sh: pelkin does not run" >&2 ;;
3) echo "request.sh: no answer in time" >&2 ;;
esac
exit $status

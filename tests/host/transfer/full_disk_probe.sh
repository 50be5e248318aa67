#!/usr/bin/env bash
# The probe of full_disk.sh: an unprivileged run is skipped visibly (exit 77
# with the reason), never run half-way or counted as passed. As root, the
# probe is run as the unprivileged user 65534.
#
#   full_disk_probe.sh PLUGHOST
set -u
script=$(cd "$(dirname "$0")" && pwd)/full_disk.sh
if [ "$(id -u)" -eq 0 ]; then
  out=$(setpriv --reuid 65534 --regid 65534 --clear-groups bash "$script" "$1" 2>&1)
else
  out=$(bash "$script" "$1" 2>&1)
fi
status=$?
if [ "$status" -ne 77 ] || [ "$out" != "SKIP: mounting a tmpfs needs root; running as uid $( [ "$(id -u)" -eq 0 ] && echo 65534 || id -u)" ]; then
  echo "FAIL: exit $status, output: $out" >&2
  exit 1
fi
echo "probe: an unprivileged run is skipped with its reason"

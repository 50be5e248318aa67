# shellcheck shell=bash
# Shared by the mount test scripts (sourced, never run): skip and fail end the
# script (exit 77 and 1), the FUSE probe, and whether a path is mounted.

skip() {
  echo "SKIP: $*"
  exit 77
}

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# Skips the script unless a mount can be made here.
require_fuse() {
  [ -c /dev/fuse ] || skip "/dev/fuse does not exist"
  { [ -r /dev/fuse ] && [ -w /dev/fuse ]; } || skip "/dev/fuse is not usable by $(id -un)"
  if [ "$(id -u)" != 0 ] && ! command -v fusermount3 >/dev/null; then
    skip "not root and no fusermount3"
  fi
}

mounted() { awk -v m="$1" '$5 == m { found = 1 } END { exit !found }' /proc/self/mountinfo; }

# shellcheck shell=bash
# Shared by the test scripts (sourced, never run): a failure counter and
# absolute paths for arguments, since the scripts change directories.

# fail MESSAGE...: reports a failed check and counts it in $failures.
failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# absolute PATH: PATH as an absolute path.
absolute() {
  echo "$(cd "$(dirname "$1")" && pwd)/$(basename "$1")"
}

#!/bin/bash
# libmemory.so exports the eight entry points and nothing else: the shared
# layer linked into it stays private.
#   memory_exports.sh LIBRARY
set -euo pipefail
library=$1
expected="BindLogger
FreeP
GetAuthFields
GetAuthType
GetOptFields
GetProtocol
GetSupportProtocol
UnbindLogger"
actual=$(nm -D --defined-only "$library" | awk '{print $3}' | sort)
if [[ "$actual" != "$expected" ]]; then
  echo "exports of $library differ from the eight entry points:" >&2
  diff <(echo "$expected") <(echo "$actual") >&2 || true
  exit 1
fi
# Nothing undefined may be satisfied by a shared layer elsewhere in the process.
if nm -D --undefined-only "$library" | grep -E 'RFC3339|SuperProtocol|JsonObject|GetAERRORA|NewUUID' >&2; then
  echo "$library expects shared-layer symbols from outside" >&2
  exit 1
fi
echo "ok: $library exports exactly the eight entry points"

#!/usr/bin/env bash
# plughost running another plug-in does not also map liblocaldisk.so: the
# tool takes the shared layer from a static archive and loads every plug-in
# with dlopen. Checked twice: plughost has no NEEDED entry for it, and the
# dynamic loader's own log (LD_DEBUG=files) of `plughost --plugin
# libmemory.so info` and `df` never opens it. The same log of the default
# plug-in must show it, so that a probe that sees nothing is caught.
#
#   plugin_isolation.sh PLUGHOST MEMORY_PLUGIN [PENDING]
#
# PENDING names a library of the tool that still links liblocaldisk.so; while
# it does, a mapping is reported as a skip (exit 77) naming it, not a pass.
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../support/script.sh"
plughost=$1
memory=$2
pending=${3:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-isolation.XXXXXX")
trap 'rm -rf "$work"' EXIT
mapped=()

if ! command -v readelf >/dev/null; then
  echo "SKIP: readelf is not installed" >&2
  exit 77
fi
if readelf -d "$plughost" | grep -q 'NEEDED.*liblocaldisk'; then
  mapped+=("readelf -d: NEEDED $(readelf -d "$plughost" | grep -o 'liblocaldisk[^]]*')")
fi

# loader_log NAME ARGS...: runs plughost with the loader's file log on.
loader_log() {
  local name=$1
  shift
  LD_DEBUG=files LD_DEBUG_OUTPUT="$work/$name.ld" "$plughost" --root "$work" "$@" \
    >"$work/$name.out" 2>"$work/$name.err"
  rc=$?
  cat "$work/$name.ld".* >"$work/$name.log" 2>/dev/null
}

for command in info df; do
  loader_log "memory-$command" --plugin "$memory" "$command"
  [ "$rc" -eq 0 ] || fail "--plugin libmemory.so $command: exit $rc: $(cat "$work/memory-$command.err")"
  grep -q 'protocol: memory\|^total' "$work/memory-$command.out" ||
    fail "--plugin libmemory.so $command printed: $(cat "$work/memory-$command.out")"
  grep -q 'file=.*libmemory\.so' "$work/memory-$command.log" ||
    fail "$command: the loader log does not show libmemory.so being opened"
  if grep -q 'file=.*liblocaldisk' "$work/memory-$command.log"; then
    mapped+=("$command: $(grep -m1 'file=.*liblocaldisk' "$work/memory-$command.log" | sed 's/^ *[0-9]*: *//')")
  fi
done

# The probe sees a mapping when there is one.
loader_log localdisk info
[ "$rc" -eq 0 ] || fail "info with the default plug-in: exit $rc"
grep -q 'file=.*liblocaldisk' "$work/localdisk.log" ||
  fail "the loader log of the default plug-in does not show liblocaldisk.so: the probe is blind"

if [ ${#mapped[@]} -gt 0 ]; then
  if [ -n "$pending" ]; then
    printf 'mapped: %s\n' "${mapped[@]}" >&2
    echo "SKIP: $pending still links liblocaldisk.so" >&2
    [ "$failures" -eq 0 ] && exit 77
  else
    for line in "${mapped[@]}"; do fail "liblocaldisk.so is mapped: $line"; done
  fi
fi

if [ "$failures" -ne 0 ]; then
  echo "$failures failure(s)" >&2
  exit 1
fi
echo "plugin isolation: ok"

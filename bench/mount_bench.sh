#!/usr/bin/env bash
# Benchmark of plughost mount against the same directory used directly
# (native) and through libfuse's passthrough_ll example, built here from the
# libfuse3-dev examples, as the in-run peer. Workloads:
#   read of a large file, warm (page cache kept) and cold (caches dropped);
#   write of a large file, without and with fsync;
#   create of many empty files;
#   ls -l of many files, warm and cold;
#   cat of many 4 KiB files, warm and cold.
# Each figure is the median of BENCH_RUNS runs that alternate between the
# three places in an order that changes from run to run, each on fresh
# mounts; ratios compare runs of this one invocation only. Not part of
# the test suite (it needs minutes and ~3 GiB of disk). Needs root for the
# cold figures (drop_caches); without it they are warm too, and say so.
#
#   bench/mount_bench.sh [PLUGHOST [PLUGIN]]
# Environment: BENCH_SIZE_MB (1024), BENCH_FILES (10000), BENCH_RUNS (6),
#   BENCH_MOUNT_OPTIONS (extra options for plughost mount), BENCH_ONLY (a
#   space-separated list of workload names, e.g. "create ls_warm"; all by default).
set -euo pipefail
export LC_ALL=C

here=$(cd "$(dirname "$0")/.." && pwd)
plughost=${1:-$here/build/default/plughost}
plugin=${2:-$(dirname "$plughost")/liblocaldisk.so}
size_mb=${BENCH_SIZE_MB:-1024}
files=${BENCH_FILES:-10000}
runs=${BENCH_RUNS:-6}
read -r -a mount_options <<<"${BENCH_MOUNT_OPTIONS:-}"
examples=/usr/share/doc/libfuse3-dev/examples

die() {
  echo "mount_bench: $*" >&2
  exit 2
}
[ -x "$plughost" ] || die "no plughost at $plughost (build it, or pass its path)"
[ -f "$plugin" ] || die "no plug-in at $plugin"
[ -c /dev/fuse ] || die "/dev/fuse is missing"
[ -f "$examples/passthrough_ll.c" ] || die "$examples/passthrough_ll.c is missing (libfuse3-dev)"

work=$(mktemp -d "${TMPDIR:-/tmp}/mount_bench.XXXXXX")
root=$work/root
mnt=$work/mnt
pt=$work/pt
mkdir -p "$root" "$mnt" "$pt" "$work/cache"

mounted() { awk -v m="$1" '$5 == m { found = 1 } END { exit !found }' /proc/self/mountinfo; }
unmount() {
  local i
  if mounted "$1"; then fusermount3 -u "$1" 2>/dev/null || umount "$1" 2>/dev/null || true; fi
  for i in $(seq 50); do
    mounted "$1" || return 0
    sleep 0.1
  done
  umount -l "$1" 2>/dev/null || true
}
cleanup() {
  unmount "$mnt"
  unmount "$pt"
  rm -rf "$work"
}
trap cleanup EXIT

# --- the peer, built here ------------------------------------------------------------
# shellcheck disable=SC2046 # pkg-config prints several words on purpose
cc -O2 -Wall -o "$work/passthrough_ll" "$examples/passthrough_ll.c" $(pkg-config --cflags --libs fuse3)

cold=yes
{ sync && echo 3 >/proc/sys/vm/drop_caches; } 2>/dev/null || cold=no
drop_caches() {
  sync
  if [ "$cold" = yes ]; then echo 3 >/proc/sys/vm/drop_caches; fi
}

mount_places() {
  "$plughost" --plugin "$plugin" --root "$root" mount "$mnt" --cache-dir "$work/cache" \
    "${mount_options[@]}"
  # The example's own defaults: 86400 s timeouts, kernel cache kept.
  "$work/passthrough_ll" -o source="$root" "$pt"
  if ! mounted "$mnt" || ! mounted "$pt"; then die "a mount failed"; fi
}
remount() {
  unmount "$mnt"
  unmount "$pt"
  mount_places
}

now() { date +%s.%N; }
# Seconds a command takes.
timed() {
  local start end
  start=$(now)
  "$@" >/dev/null
  end=$(now)
  awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f\n", b - a }'
}

# --- workloads: each gets the base directory; "prepare" runs untimed first ------------
big_mb=$size_mb
prepare_read() { [ -f "$root/big" ] || head -c $((big_mb << 20)) /dev/urandom >"$root/big"; }
do_read() { cat "$1/big" >/dev/null; }
# Written and created entries get a name of their own in every run: removed
# behind the mounts' backs, an old name could still be in a kernel cache.
do_write() { dd if=/dev/zero of="$1/written.$tag" bs=1M count="$big_mb" status=none; }
do_write_fsync() {
  dd if=/dev/zero of="$1/written.$tag" bs=1M count="$big_mb" conv=fsync status=none
}
do_create() {
  mkdir "$1/created.$tag"
  (cd "$1/created.$tag" && seq -f 'c%05g' "$files" | xargs touch)
}
prepare_many() {
  [ -d "$root/many" ] && return
  mkdir "$root/many"
  (cd "$root/many" && seq -f 'f%05g' "$files" | xargs touch)
}
do_ls() { ls -l "$1/many" >/dev/null; }
prepare_small() {
  [ -d "$root/small" ] && return
  mkdir "$root/small"
  head -c $((4096 * files)) /dev/urandom | (cd "$root/small" && split -b 4096 -a 6 -d - s)
}
do_cat() { find "$1/small" -type f -print0 | xargs -0 cat >/dev/null; }

# workload: prepare-function do-function mode(warm|cold|fresh) unit(MB|files)
workloads=(
  "read_warm:prepare_read:do_read:warm:MB"
  "read_cold:prepare_read:do_read:cold:MB"
  "write:true:do_write:fresh:MB"
  "write_fsync:true:do_write_fsync:fresh:MB"
  "create:true:do_create:fresh:files"
  "ls_warm:prepare_many:do_ls:warm:files"
  "ls_cold:prepare_many:do_ls:cold:files"
  "cat_warm:prepare_small:do_cat:warm:files"
  "cat_cold:prepare_small:do_cat:cold:files"
)
declare -A label=(
  [read_warm]="${size_mb} MiB read, warm" [read_cold]="${size_mb} MiB read, cold"
  [write]="${size_mb} MiB write, no fsync" [write_fsync]="${size_mb} MiB write + fsync"
  [create]="create ${files} empty files" [ls_warm]="ls -l of ${files} files, warm"
  [ls_cold]="ls -l of ${files} files, cold" [cat_warm]="cat ${files} x 4 KiB, warm"
  [cat_cold]="cat ${files} x 4 KiB, cold"
)

declare -A times
base_of() {
  case $1 in
    native) echo "$root" ;;
    plughost) echo "$mnt" ;;
    passthrough) echo "$pt" ;;
  esac
}

# The six orders of the three places. Run i takes the i-th (cyclically):
# over six runs each place comes first, and right after each other place,
# equally often.
orders=("native plughost passthrough" "passthrough plughost native"
  "plughost passthrough native" "native passthrough plughost"
  "passthrough native plughost" "plughost native passthrough")

# passthrough_ll keeps a descriptor open per inode it has seen.
ulimit -n "$(ulimit -Hn)" 2>/dev/null || true
mount_places
if [ -n "${BENCH_ONLY:-}" ]; then
  chosen=()
  for entry in "${workloads[@]}"; do
    case " $BENCH_ONLY " in *" ${entry%%:*} "*) chosen+=("$entry") ;; esac
  done
  [ "${#chosen[@]}" -gt 0 ] || die "BENCH_ONLY names no workload: $BENCH_ONLY"
  workloads=("${chosen[@]}")
fi
for entry in "${workloads[@]}"; do
  IFS=: read -r name prepare run mode _ <<<"$entry"
  for i in $(seq "$runs"); do
    # The order changes from run to run: a run inherits what the one before
    # it left behind (on this VM, memory freed in the last seconds is quick
    # to take again, older free memory has to come back from the host first).
    for where in ${orders[(i - 1) % 6]}; do
      base=$(base_of "$where")
      tag=$name.$where.$i
      "$prepare"
      # Fresh mounts for every run: passthrough_ll holds a descriptor per
      # inode it has seen, and the figures must not depend on earlier runs.
      remount
      case $mode in
        cold) drop_caches ;;
        warm) "$run" "$base" ;;  # the untimed run that warms the caches
        fresh)
          # Created directories stay until the end: on an ext4 without a
          # journal every inode allocation within a minute of a mass delete
          # scans past each recently freed inode, which would measure the
          # delete before, not the creates (native creates ran 5x slower).
          rm -rf "$root"/written.*
          sync
          ;;
      esac
      t=$(timed "$run" "$base")
      times[$name,$where]="${times[$name,$where]:-} $t"
    done
  done
done

dump_times() { for k in "${!times[@]}"; do echo "# $k:${times[$k]}"; done | sort; }
# The middle value; for an even count the mean of the two middle ones.
median() {
  tr ' ' '\n' | grep -v '^$' | sort -g |
    awk '{ v[NR] = $1 } END { m = int((NR + 1) / 2); printf "%.6f\n", NR % 2 ? v[m] : (v[m] + v[m + 1]) / 2 }'
}
# Throughput as a fraction of native: native time / time (higher is better).
fraction() { awk -v n="$1" -v t="$2" 'BEGIN { printf "%.2f", n / t }'; }

echo
echo "plughost mount benchmark: median of ${runs}; ${size_mb} MiB, ${files} files;" \
  "cold = caches dropped and fresh mounts: ${cold}; mount options: ${mount_options[*]:-(none)}"
echo
echo "| workload | native s | plughost s | passthrough_ll s | plughost / native | passthrough_ll / native | plughost vs passthrough_ll |"
echo "|---|---|---|---|---|---|---|"
for entry in "${workloads[@]}"; do
  IFS=: read -r name _ _ _ _ <<<"$entry"
  n=$(median <<<"${times[$name,native]}")
  m=$(median <<<"${times[$name,plughost]}")
  p=$(median <<<"${times[$name,passthrough]}")
  printf '| %s | %.3f | %.3f | %.3f | %s | %s | %s |\n' "${label[$name]}" "$n" "$m" "$p" \
    "$(fraction "$n" "$m")" "$(fraction "$n" "$p")" "$(fraction "$p" "$m")"
done
echo
[ -z "${BENCH_VERBOSE:-}" ] || dump_times
echo "(fractions of native: higher is better; the last column > 1 means plughost is faster)"

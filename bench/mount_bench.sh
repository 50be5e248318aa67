#!/usr/bin/env bash
# Benchmark of plughost mount: sequential write and read of a large file and
# stat of many files, through the mount vs directly on the root directory vs
# libfuse's passthrough example (built here from the libfuse3-dev examples).
# Each figure is the best of several runs; ratios compare runs of this one
# invocation only. Not part of the test suite (it needs minutes and ~3 GiB).
#
#   bench/mount_bench.sh [PLUGHOST [PLUGIN]]
# Environment: BENCH_SIZE_MB (default 1024), BENCH_FILES (10000), BENCH_RUNS (3).
set -euo pipefail
export LC_ALL=C

here=$(cd "$(dirname "$0")/.." && pwd)
plughost=${1:-$here/build/default/plughost}
plugin=${2:-$(dirname "$plughost")/liblocaldisk.so}
size_mb=${BENCH_SIZE_MB:-1024}
files=${BENCH_FILES:-10000}
runs=${BENCH_RUNS:-3}
examples=/usr/share/doc/libfuse3-dev/examples

[ -x "$plughost" ] || { echo "no plughost at $plughost (build it, or pass its path)" >&2; exit 2; }
[ -f "$plugin" ] || { echo "no plug-in at $plugin" >&2; exit 2; }
[ -c /dev/fuse ] || { echo "/dev/fuse is missing" >&2; exit 2; }
[ -f "$examples/passthrough.c" ] || { echo "$examples/passthrough.c is missing (libfuse3-dev)" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/mount_bench.XXXXXX")
root=$work/root
mnt=$work/mnt
pt=$work/pt
mkdir -p "$root" "$mnt" "$pt" "$work/cache"

mounted() { awk -v m="$1" '$5 == m { found = 1 } END { exit !found }' /proc/self/mountinfo; }
unmount() {
  if mounted "$1"; then fusermount3 -u "$1" 2>/dev/null || umount -l "$1" 2>/dev/null || true; fi
}
cleanup() {
  unmount "$mnt"
  unmount "$pt"
  rm -rf "$work"
}
trap cleanup EXIT

# --- helpers built here ----------------------------------------------------------
cp "$examples/passthrough.c" "$examples/passthrough_helpers.h" "$work/"
cc -O2 -Wall -o "$work/passthrough" "$work/passthrough.c" $(pkg-config --cflags --libs fuse3)
cat >"$work/tools.c" <<'C'
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec + t.tv_nsec / 1e9;
}

/* tools write FILE MB | read FILE | stat DIR N: prints elapsed seconds. */
int main(int argc, char** argv) {
  static char buffer[1 << 20];
  double start = now();
  if (argc == 4 && strcmp(argv[1], "write") == 0) {
    memset(buffer, 0x5a, sizeof buffer);
    int fd = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return perror(argv[2]), 1;
    for (long i = 0; i < atol(argv[3]); ++i) {
      buffer[0] = (char)i;
      if (write(fd, buffer, sizeof buffer) != (ssize_t)sizeof buffer) return perror("write"), 1;
    }
    if (close(fd) != 0) return perror("close"), 1;
  } else if (argc == 3 && strcmp(argv[1], "read") == 0) {
    int fd = open(argv[2], O_RDONLY);
    if (fd < 0) return perror(argv[2]), 1;
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) {
    }
    if (n < 0) return perror("read"), 1;
    close(fd);
  } else if (argc == 4 && strcmp(argv[1], "stat") == 0) {
    char path[4096];
    struct stat st;
    for (long i = 0; i < atol(argv[3]); ++i) {
      snprintf(path, sizeof path, "%s/f%05ld", argv[2], i);
      if (stat(path, &st) != 0) return perror(path), 1;
    }
  } else {
    return fprintf(stderr, "usage\n"), 2;
  }
  printf("%.6f\n", now() - start);
  return 0;
}
C
cc -O2 -Wall -o "$work/tools" "$work/tools.c"

drop_caches() {
  sync
  echo 3 >/proc/sys/vm/drop_caches 2>/dev/null || true
}
cold=yes
{ sync && echo 3 >/proc/sys/vm/drop_caches; } 2>/dev/null || cold=no

mount_plughost() {
  "$plughost" --plugin "$plugin" --root "$root" mount "$mnt" --cache-dir "$work/cache"
}
mount_passthrough() {
  "$work/passthrough" -o default_permissions "$pt"
}

# One figure on one path prefix; the mounts are fresh for every run so that
# no kernel cache of an earlier run helps.
run_write() { # BASE
  drop_caches
  "$work/tools" write "$1/big" "$size_mb"
}
run_read() { # BASE
  drop_caches
  "$work/tools" read "$1/big"
}
run_stat() { # BASE
  drop_caches
  "$work/tools" stat "$1/many" "$files"
}

remount() {
  unmount "$mnt"
  unmount "$pt"
  mount_plughost
  mount_passthrough
}

mkdir -p "$root/many"
for i in $(seq 0 $((files - 1))); do printf '' >"$root/many/$(printf 'f%05d' "$i")"; done

declare -A result
# Runs alternate between the three places, so that a change of the machine's
# load during the benchmark affects all of them alike.
for figure in write read stat; do
  for i in $(seq "$runs"); do
    for where in direct plughost passthrough; do
      case $where in
        direct) base=$root ;;
        plughost) base=$mnt ;;
        passthrough) base=$pt$root ;;
      esac
      remount
      t=$("run_$figure" "$base")
      best=${result[$figure,$where]:-}
      if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then
        result[$figure,$where]=$t
      fi
    done
  done
done
unmount "$mnt"
unmount "$pt"

rate() { awk -v mb="$size_mb" -v t="$1" 'BEGIN { printf "%.0f MB/s", mb * 1.048576 / t }'; }
per() { awk -v n="$files" -v t="$1" 'BEGIN { printf "%.1f us/stat", t * 1e6 / n }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo
echo "plughost mount benchmark: ${size_mb} MiB file, ${files} files, best of ${runs}, page cache dropped before each run: ${cold}"
echo
echo "| figure | direct | plughost mount | passthrough example | mount vs passthrough (>1 = faster) | mount vs direct |"
echo "|---|---|---|---|---|---|"
for figure in write read stat; do
  d=${result[$figure,direct]} m=${result[$figure,plughost]} p=${result[$figure,passthrough]}
  if [ "$figure" = stat ]; then
    fmt=per
    label="stat of $files files"
  else
    fmt=rate
    label="sequential $figure of ${size_mb} MiB"
  fi
  echo "| $label | $($fmt "$d") | $($fmt "$m") | $($fmt "$p") | $(ratio "$p" "$m") | $(ratio "$d" "$m") |"
done

#!/usr/bin/env bash
# Runs the in-VM test programs (tests/vm/*_vmtest.cpp) of one build inside a Linux VM
# under QEMU, where real kernel drivers provide the devices they talk to: i2c-stub
# behind i2c-dev (/dev/i2c-0, a chip at 0x50) and QEMU's "edu" PCI device. The build's
# commands (tools/tarnreg) go along in /tarn/bin, for tests that run them as users do.
#
# Usage: scripts/vm-test.sh [options] PRESET|BUILD_DIR
#   PRESET            a preset name: the build is build/PRESET under the source tree
#   BUILD_DIR         or the build directory itself
# Options:
#   --only NAME       run only the test program NAME (repeatable), e.g. --only PciTransport_vmtest
#   --tool NAME       carry the command BUILD_DIR/tools/NAME into the VM as /tarn/bin/NAME
#                     (repeatable; a missing one is an error). Without --tool, every
#                     command built in BUILD_DIR/tools is carried.
#   --gtest-filter F  pass --gtest_filter=F to every test program
#   --shell           boot the same VM but give an interactive shell instead of running tests
#   --keep            keep the temporary directory (initramfs, /init, log) and print its path
#   --timeout S       hard limit for the whole VM run in seconds (default 600, env TARN_VM_TIMEOUT)
#   --test-timeout S  limit per test program inside the VM (default 300, env TARN_VM_TEST_TIMEOUT)
# Environment: TARN_VM_KERNEL=/boot/vmlinuz-X picks the kernel (modules from /lib/modules/X).
#
# Exit status: 0 all test programs passed; 1 a test failed, the VM did not finish or the
# build is incomplete (the VM log is printed); 77 the VM cannot run on this machine
# (QEMU, a kernel with the needed modules, static busybox or cpio missing); 2 usage error.

set -u -o pipefail

readonly SOURCE_DIR="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
readonly MARK='@@TARN-VM'

say() { printf 'vm-test: %s\n' "$*"; }
cannot_run() {
  say "cannot run the VM tier here: $*"
  say "(scripts/install-deps.sh installs qemu-system-x86, linux-image-amd64, busybox-static and cpio)"
  exit 77
}
usage() {
  sed -n '2,/^$/p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//' >&2
  exit 2
}

only=()
tools=()
gtest_filter=''
shell_mode=0
keep=0
vm_timeout="${TARN_VM_TIMEOUT:-600}"
test_timeout="${TARN_VM_TEST_TIMEOUT:-300}"
target=''
while [ $# -gt 0 ]; do
  case "$1" in
    --only) [ $# -ge 2 ] || usage; only+=("$2"); shift 2 ;;
    --tool) [ $# -ge 2 ] || usage; tools+=("$2"); shift 2 ;;
    --gtest-filter) [ $# -ge 2 ] || usage; gtest_filter="$2"; shift 2 ;;
    --shell) shell_mode=1; shift ;;
    --keep) keep=1; shift ;;
    --timeout) [ $# -ge 2 ] || usage; vm_timeout="$2"; shift 2 ;;
    --test-timeout) [ $# -ge 2 ] || usage; test_timeout="$2"; shift 2 ;;
    -h|--help) usage ;;
    -*) say "unknown option $1"; usage ;;
    *) [ -z "$target" ] || usage; target="$1"; shift ;;
  esac
done
[ -n "$target" ] || usage
for n in "$vm_timeout" "$test_timeout"; do
  [[ "$n" =~ ^[1-9][0-9]*$ ]] || { say "timeouts are whole seconds, got '$n'"; exit 2; }
done
# The filter ends up in the VM's /init script: keep it to gtest's own alphabet.
if [ -n "$gtest_filter" ] && ! [[ "$gtest_filter" =~ ^[A-Za-z0-9_.*?:/-]+$ ]]; then
  say "unsupported characters in gtest filter '$gtest_filter'"
  exit 2
fi

if [ -d "$target" ]; then
  build_dir="$(cd "$target" && pwd)"
else
  [[ "$target" =~ ^[A-Za-z0-9_-]+$ ]] || { say "'$target' is neither a directory nor a preset name"; exit 2; }
  build_dir="$SOURCE_DIR/build/$target"
fi
if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  say "no configured build in $build_dir (cmake --preset <name> && cmake --build --preset <name>)"
  exit 1
fi
label="$(basename "$build_dir")"

# ---- what this machine must provide -------------------------------------------------
qemu="$(command -v qemu-system-x86_64 || true)"
[ -n "$qemu" ] || cannot_run "qemu-system-x86_64 is not installed"
command -v cpio >/dev/null || cannot_run "cpio is not installed"
command -v timeout >/dev/null || cannot_run "timeout (coreutils) is not installed"
busybox=''
for b in /bin/busybox /usr/bin/busybox; do
  # It runs inside the VM without any library, so it must be the static build.
  if [ -x "$b" ] && ! ldd "$b" >/dev/null 2>&1; then busybox="$b"; break; fi
done
[ -n "$busybox" ] || cannot_run "no statically linked busybox (package busybox-static)"

module_file() {  # $1 module dir, $2 path relative to it without suffix; prints the file found
  local f
  for f in "$1/$2.ko" "$1/$2.ko.xz" "$1/$2.ko.zst" "$1/$2.ko.gz"; do
    [ -r "$f" ] && { printf '%s\n' "$f"; return 0; }
  done
  return 1
}

kernel=''
moddir=''
if [ -n "${TARN_VM_KERNEL:-}" ]; then
  candidates=("$TARN_VM_KERNEL")
else
  mapfile -t candidates < <(ls -1 /boot/vmlinuz-* 2>/dev/null | sort -rV)
fi
for k in "${candidates[@]}"; do
  version="${k##*/vmlinuz-}"
  d="/lib/modules/$version"
  if [ -r "$k" ] && module_file "$d" kernel/drivers/i2c/i2c-dev >/dev/null &&
     module_file "$d" kernel/drivers/i2c/i2c-stub >/dev/null; then
    kernel="$k"
    moddir="$d"
    break
  fi
done
[ -n "$kernel" ] || cannot_run "no readable /boot/vmlinuz-* with i2c-dev and i2c-stub modules in /lib/modules (package linux-image-amd64)"

# ---- the test programs --------------------------------------------------------------
tests=()
if [ "${#only[@]}" -gt 0 ]; then
  for name in "${only[@]}"; do
    [ -x "$build_dir/tests/vm/$name" ] || { say "no test program $build_dir/tests/vm/$name"; exit 1; }
    tests+=("$build_dir/tests/vm/$name")
  done
else
  for f in "$build_dir"/tests/vm/*_vmtest; do
    [ -x "$f" ] && tests+=("$f")
  done
fi
if [ "$shell_mode" = 0 ] && [ "${#tests[@]}" -eq 0 ]; then
  say "no in-VM test programs in $build_dir/tests/vm; build them first (cmake --build --preset $label)"
  exit 1
fi

# ---- the commands the in-VM tests run (tarnreg) ---------------------------------------
tool_files=()
if [ "${#tools[@]}" -gt 0 ]; then
  for name in "${tools[@]}"; do
    [[ "$name" =~ ^[A-Za-z0-9_.-]+$ ]] || { say "unsupported command name '$name'"; exit 2; }
    if [ ! -x "$build_dir/tools/$name" ]; then
      say "no command $build_dir/tools/$name; build it first (cmake --build --preset $label --target $name)"
      exit 1
    fi
    tool_files+=("$build_dir/tools/$name")
  done
else
  for f in "$build_dir"/tools/*; do
    [ -f "$f" ] && [ -x "$f" ] && [[ "$(basename "$f")" =~ ^[A-Za-z0-9_.-]+$ ]] && tool_files+=("$f")
  done
fi

work="$(mktemp -d "${TMPDIR:-/tmp}/tarn-vm.XXXXXX")" || { say "cannot create a temporary directory"; exit 1; }
cleanup() {
  if [ "$keep" = 1 ]; then say "kept $work"; else rm -rf -- "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM
root="$work/root"
mkdir -p "$root"/{bin,dev,proc,sys,tmp,modules,tests,tarn/bin}

# ---- initramfs contents -------------------------------------------------------------
cp "$busybox" "$root/bin/busybox"

declare -A copied_libs=()
lib_dirs=()
copy_library() {  # $1 absolute path as the loader will look for it
  local lib="$1" dir
  [ -n "${copied_libs[$lib]:-}" ] && return 0
  dir="$(dirname "$lib")"
  mkdir -p "$root$dir"
  # The build's own libraries carry their debug info (libtarnregfile.so is 30 MB in the
  # asan build): the whole initramfs sits in the guest's memory twice while it unpacks.
  if command -v objcopy >/dev/null; then
    objcopy --strip-debug "$lib" "$root$lib" || return 1
  else
    cp -L "$lib" "$root$lib" || return 1
  fi
  copied_libs[$lib]=1
  case " ${lib_dirs[*]-} " in *" $dir "*) ;; *) lib_dirs+=("$dir") ;; esac
}

copy_program() {  # $1 program on the host, $2 destination inside the VM
  local prog="$1" dest="$2" line lib
  if command -v objcopy >/dev/null; then
    objcopy --strip-debug "$prog" "$root$dest" || return 1
  else
    cp "$prog" "$root$dest" || return 1
  fi
  chmod 755 "$root$dest"
  # Every shared library the program needs, at the path the loader will look for it.
  while IFS= read -r line; do
    case "$line" in
      *"not found"*) say "$prog: missing library: $line"; return 1 ;;
      *"=> /"*) lib="${line#*=> }"; lib="${lib%% (*}" ;;
      /*) lib="${line%% (*}" ;;
      *) continue ;;  # the vDSO has no file
    esac
    lib="${lib#"${lib%%[![:space:]]*}"}"
    copy_library "$lib" || { say "cannot copy $lib for $prog"; return 1; }
  done < <(ldd "$prog" 2>&1 | sed 's/^[[:space:]]*//')
}

test_names=()
for t in "${tests[@]}"; do
  name="$(basename "$t")"
  [[ "$name" =~ ^[A-Za-z0-9_.-]+$ ]] || { say "unsupported test program name '$name'"; exit 1; }
  copy_program "$t" "/tests/$name" || exit 1
  test_names+=("$name")
done
tool_names=()
for f in "${tool_files[@]+"${tool_files[@]}"}"; do
  copy_program "$f" "/tarn/bin/$(basename "$f")" || exit 1
  tool_names+=("$(basename "$f")")
done

# Data that in-VM tests read through TARN_SOURCE_DIR "/tests/vm/data/..." is found at the same path.
if [ -d "$SOURCE_DIR/tests/vm/data" ]; then
  mkdir -p "$root$SOURCE_DIR/tests/vm"
  cp -r "$SOURCE_DIR/tests/vm/data" "$root$SOURCE_DIR/tests/vm/" || exit 1
fi

# Kernel modules with their dependencies, in load order, decompressed for insmod.
module_order=()
add_module() {  # $1 path relative to the module dir, e.g. kernel/drivers/i2c/i2c-stub.ko
  local rel="$1" base deps dep file
  base="${rel%.ko*}"
  case " ${module_order[*]-} " in *" $base "*) return 0 ;; esac
  deps="$(awk -F': *' -v m="$rel" '$1 == m { print $2 }' "$moddir/modules.dep" 2>/dev/null)"
  for dep in $(printf '%s\n' $deps | tac); do add_module "$dep" || return 1; done
  file="$(module_file "$moddir" "$base")" || { say "module $base missing in $moddir"; return 1; }
  case "$file" in
    *.xz) xz -dc "$file" ;;
    *.zst) zstd -dcq "$file" ;;
    *.gz) gzip -dc "$file" ;;
    *) cat "$file" ;;
  esac > "$root/modules/$(basename "$base").ko" || { say "cannot unpack $file"; return 1; }
  module_order+=("$base")
}
for m in i2c-dev i2c-stub; do
  rel="$(cd "$moddir" && ls kernel/drivers/i2c/$m.ko* | head -n 1)"
  add_module "$rel" || exit 1
done
insmod_lines=''
for base in "${module_order[@]}"; do
  m="$(basename "$base")"
  args=''
  [ "$m" = i2c-stub ] && args=' chip_addr=0x50'
  insmod_lines+="insmod /modules/$m.ko$args || echo \"$MARK setup-error insmod $m failed\""$'\n'
done

library_path="$(IFS=:; echo "${lib_dirs[*]-}")"
command_list="$(IFS=,; echo "${tool_names[*]-}")"
filter_arg=''
[ -n "$gtest_filter" ] && filter_arg=" --gtest_filter=$gtest_filter"

{
  cat <<EOF
#!/bin/busybox sh
# PID 1 of the test VM: mount the kernel file systems, load the drivers, run the tests, power off.
/bin/busybox mkdir -p /sbin /usr/bin /usr/sbin
/bin/busybox --install -s
export PATH=/bin:/sbin:/usr/bin:/usr/sbin:/tarn/bin
export LD_LIBRARY_PATH='$library_path'
export TARN_VM=1
export HOME=/tmp
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/shm
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
# /tmp stays part of the initramfs (itself a tmpfs): a build under /tmp was packed there with
# its libraries and test data, at the paths the programs look for them.
mkdir -p /tmp
chmod 1777 /tmp
$insmod_lines
dmesg -n 1
cd /tmp
EOF
  if [ "$shell_mode" = 1 ]; then
    cat <<'EOF'
echo "Test VM shell. Test programs are in /tests, commands (tarnreg) in /tarn/bin; leave with: poweroff -f"
setsid cttyhack sh
poweroff -f
EOF
  else
    cat <<EOF
# The firmware leaves terminal escapes at the start of the console line.
echo
echo "$MARK begin kernel=\$(uname -r) programs=${#test_names[@]} commands=$command_list"
for t in ${test_names[*]}; do
  echo "$MARK run \$t"
  timeout -s KILL $test_timeout /tests/\$t --gtest_color=no$filter_arg 2>&1
  echo "$MARK result \$t \$?"
done
echo "$MARK end"
echo "$MARK dmesg-begin"
dmesg | tail -n 40
echo "$MARK dmesg-end"
poweroff -f
EOF
  fi
} > "$root/init"
chmod 755 "$root/init"

(cd "$root" && find . -print0 | cpio --null -o -H newc --quiet) > "$work/initramfs.cpio" ||
  { say "cannot build the initramfs"; exit 1; }

# The initramfs is unpacked into memory next to its own image: the asan build's programs
# and libraries (about 180 MB) do not fit a 512 MB guest.
# no_timer_check: on a loaded host the emulated CPU can be too slow for the kernel's boot-time
# check that the timer interrupt arrives through the IO-APIC, and the guest then panics with
# "IO-APIC + timer doesn't work" before any test runs; the timer itself works.
qemu_cmd=("$qemu" -accel tcg -m 1024 -smp 1 -nographic -no-reboot -nic none -device edu
          -kernel "$kernel" -initrd "$work/initramfs.cpio"
          -append "console=ttyS0 panic=-1 quiet loglevel=3 no_timer_check")

if [ "$shell_mode" = 1 ]; then
  say "booting $kernel with an interactive shell (leave with: poweroff -f)"
  "${qemu_cmd[@]}"
  exit $?
fi

# ---- boot, run, judge ---------------------------------------------------------------
log="$work/vm.log"
say "$label: booting $(basename "$kernel") under QEMU (TCG) with ${#test_names[@]} test program(s)${command_list:+ and $command_list}"
start_ns="$(date +%s%N)"
timeout --kill-after=10 "$vm_timeout" "${qemu_cmd[@]}" </dev/null >"$log" 2>&1
qemu_rc=$?
end_ns="$(date +%s%N)"
elapsed="$(awk -v a="$start_ns" -v b="$end_ns" 'BEGIN { printf "%.1f", (b - a) / 1e9 }')"
tr -d '\r' <"$log" >"$log.txt"
# The latest log stays next to the test programs for a look after the run.
cp "$log.txt" "$build_dir/tests/vm/vm-test.log" 2>/dev/null || true

print_log() {
  say "----- VM log ($log) -----"
  cat "$log.txt"
  say "----- end of VM log -----"
}

failed=0
if [ "$qemu_rc" -eq 124 ] || [ "$qemu_rc" -eq 137 ]; then
  say "the VM did not finish within $vm_timeout s"
  failed=1
elif [ "$qemu_rc" -ne 0 ]; then
  say "QEMU exited with status $qemu_rc"
  failed=1
fi
if ! grep -q "^$MARK begin " "$log.txt"; then
  say "the VM never reached the test runner"
  failed=1
fi
if grep -q "^$MARK setup-error" "$log.txt"; then
  grep "^$MARK setup-error" "$log.txt" | sed "s/^$MARK /vm-test: /"
  failed=1
fi
for name in "${test_names[@]}"; do
  result="$(grep "^$MARK result $name " "$log.txt" | tail -n 1 | awk '{ print $4 }')"
  # gtest's closing line for this program, e.g. "[  PASSED  ] 5 tests."
  summary="$(awk -v m="$MARK run $name" -v e="$MARK result $name " \
    'index($0, m) == 1 { on = 1; s = ""; next } index($0, e) == 1 { on = 0 } on && /^\[  (PASSED|FAILED|SKIPPED) +\] [0-9]+ tests?[,.]/ { s = s " " $0 } END { print s }' "$log.txt")"
  if [ -z "$result" ]; then
    say "  FAIL $name (no result: the VM stopped while it ran or before)"
    failed=1
  elif [ "$result" != 0 ]; then
    say "  FAIL $name (exit $result)$summary"
    failed=1
  else
    say "  pass $name$summary"
  fi
done
if ! grep -q "^$MARK end" "$log.txt"; then failed=1; fi

if [ "$failed" != 0 ]; then
  print_log
  say "$label: FAILED (boot+run ${elapsed} s)"
  exit 1
fi
say "$label: all ${#test_names[@]} test program(s) passed (boot+run ${elapsed} s)"
exit 0

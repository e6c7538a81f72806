#!/usr/bin/env bash
# The main job: the whole path of a logical write, on a shipped system description.
#
# Installs what is missing, builds tarnagent and tarnreg (amd64 preset), then:
#   - starts tarnagent on examples/systems/demo.json: chip "cpld" on the mock transport,
#     chip "psu0" on the PCI transport over a regular file standing in for its BAR;
#   - publishes the system status (tarnreg status), and the agent builds both chips;
#   - writes logical fields and a register through tarnreg, over the agent's control socket;
#   - shows desired against applied values (tarnreg shadow diff) and the register values
#     the writes produced (tarnreg read/dump over the same mock file and BAR file);
#   - withdraws one chip from the status, and stops the agent (SIGTERM).
# Everything lives in a private directory: the shared-memory root, the runtime directory and
# the two "devices" (/tmp/tarnagent-demo, named in the description).
set -eu
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset amd64 >/dev/null
cmake --build --preset amd64 -j "${JOBS:-2}" --target tarnreg tarnagent

tarnreg=build/amd64/tools/tarnreg
tarnagent=build/amd64/agent/tarnagent
system=examples/systems/demo.json
demo=/tmp/tarnagent-demo

rm -rf "$demo"
mkdir -m 700 "$demo"
truncate -s 4096 "$demo/psu0-resource0"   # the BAR of chip psu0: its bytes are the registers
shm=(--root "$demo/shm")
run=(--runtime-dir "$demo/run")

show() {
  echo "\$ tarnreg $*"
  "$tarnreg" "$@"
  echo
}

agent=
cleanup() {
  if [ -n "$agent" ] && kill -0 "$agent" 2>/dev/null; then kill -TERM "$agent"; wait "$agent" || true; fi
}
trap cleanup EXIT

echo "== system description $system"
"$tarnagent" --check "$system"
echo

echo "== start tarnagent (control socket in $demo/run, shared memory in $demo/shm)"
"$tarnagent" --runtime-dir "$demo/run" --shm-root "$demo/shm" "$system" &
agent=$!
for _ in $(seq 100); do [ -S "$demo/run/control.sock" ] && break; sleep 0.05; done
show agent chips "${run[@]}"

echo "== publish the system status: the profile in use, both chips present"
show status "${shm[@]}" --system demo profile demo_profile 1.0
show status "${shm[@]}" --system demo add cpld 1 demo_profile
show status "${shm[@]}" --system demo add psu0 2 demo_profile
for _ in $(seq 100); do
  "$tarnreg" agent chips "${run[@]}" --json | grep -q '"ready":false' || break
  sleep 0.05
done
show agent chips "${run[@]}"

echo "== what the chips' initial values put in the registers"
show --map examples/maps/demo_chip.csv --mock --mock-file "$demo/cpld-registers.csv" read global_control
show --map examples/maps/power_monitor.csv --pci "$demo/psu0-resource0" read config

echo "== logical writes through the agent"
show field write cpld leds green 0x3c "${run[@]}"
show field write cpld leds amber 0x81 "${run[@]}"
show field read cpld leds green "${run[@]}"
show reg write psu0 monitor 0xb "${run[@]}"
show reg read psu0 monitor "${run[@]}"
show agent call cpld fieldGetLastWritten fans duty "${run[@]}"

echo "== desired against applied, per physical field"
show shadow diff cpld "${run[@]}"
show shadow diff psu0 "${run[@]}"

echo "== the registers the writes produced"
show --map examples/maps/demo_chip.csv --mock --mock-file "$demo/cpld-registers.csv" read led_control
show --map examples/maps/power_monitor.csv --pci "$demo/psu0-resource0" dump

echo "== a bad request is refused and changes nothing"
"$tarnreg" field write cpld leds green 0x100 "${run[@]}" || true
echo

echo "== withdraw chip psu0 from the status"
show status "${shm[@]}" --system demo remove psu0
for _ in $(seq 100); do
  "$tarnreg" agent chips "${run[@]}" --json | grep -q '"name":"psu0","physicalFields":5,"ready":false' && break
  sleep 0.05
done
show agent chips "${run[@]}"

echo "== stop tarnagent"
kill -TERM "$agent"
status=0
wait "$agent" || status=$?
agent=
echo "tarnagent exited with status $status"
exit "$status"

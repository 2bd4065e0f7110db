# What the cases of the virtual machine share. A case runs in a folder of its own, which is the
# current one. It fails with its last line as the reason: through "fail", or a command that fails.
set -e

fail() {
  echo "$*"
  exit 1
}

# A line for whoever reads the result: a figure, or what was seen.
note() { echo "note: $*"; }

# await SECONDS WORD…: until the command succeeds.
await() {
  local left=$(($1 * 10))
  shift
  until "$@" >/dev/null 2>&1; do
    left=$((left - 1))
    [ $left -gt 0 ] || fail "waited in vain for: $*"
    usleep 100000
  done
}

# start NAME COMMAND…: in the background, with its output in NAME.log and its id in $NAME.
start() {
  local name=$1
  shift
  "$@" >"$name.log" 2>&1 </dev/null &
  eval "$name=$!"
}

# handset [OPTION…]: a simulated handset in ./handset.
handset() {
  start zvksim zvksim --root handset --firmware-size 20000 --trace trace.log "$@"
  await 10 grep -q ready zvksim.log
}

# service ROOT: the daemon on that root folder.
service() {
  BTHAL_ROOT=$1 start daemon android.hardware.bluetooth@1.1-service.zvkbtlinux
  ctl() { bthalctl --root "$BTHAL_TEST_ROOT" --wait 20 "$@"; }
  BTHAL_TEST_ROOT=$1
}

# What the cases of the virtual machine share. A case runs in a folder of its own, which is the
# current one. It fails with its last line as the reason: through "fail", or a command that fails.
case $- in *i*) ;; *) set -e ;; esac  # a shell of somebody's goes on

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

service_program=/usr/libexec/bthal/android.hardware.bluetooth@1.1-service.zvkbtlinux

# service ROOT [NAME]: the daemon on that root folder, its log in NAME.log (daemon.log); "ctl" is bthalctl on it.
service() {
  service_root=$1
  BTHAL_ROOT=$1 start "${2:-daemon}" $service_program
}
ctl() { bthalctl --root "$service_root" --wait 20 "$@"; }

# now: seconds since the machine's start.
now() { cut -d' ' -f1 /proc/uptime; }
since() { echo "$(now) $1" | awk '{ printf "%.1f", $1 - $2 }'; }

# bluez [COMMAND…]: BlueZ, and its client, or the command that runs it, which is told things by "bt" and heard by
# "hear".
bluez() {
  [ $# -gt 0 ] || set -- bluetoothctl
  mkdir -p /run/dbus
  rm -rf /run/dbus/*
  rm -rf /var/lib/bluetooth/*
  # BlueZ answers "busy" to whoever powers an adapter on while it does so by itself.
  printf '[Policy]\nAutoEnable=false\n' >/etc/bluetooth/main.conf
  start dbus dbus-daemon --system --nofork --nopidfile
  await 5 [ -S /run/dbus/system_bus_socket ]
  start bluetoothd /usr/libexec/bluetooth/bluetoothd --nodetach
  mkfifo client.in
  start bluetoothctl sh -c 'exec stdbuf -oL "$@" <client.in' client "$@"
  exec 7>client.in
  heard=0
}

# bt WORD…: a command for the client. What is heard after it counts only.
bt() {
  heard=$(wc -c <bluetoothctl.log)
  echo "$(now) $*" >>commands.log
  echo "$*" >&7
}

hears() { tail -c +$((heard + 1)) bluetoothctl.log | grep -q "$@"; }

# hear SECONDS PATTERN: the client prints it.
hear() { await "$1" hears "$2"; }

gatt_peer=5A:56:4B:AD:00:04
gatt_value=5a564b00-51d0-4a56-8e00-000000000002

# A round of what a user does, on the adapter that BlueZ has.
bluez_round() {
  bt power on
  hear 20 'Changing power on succeeded'
  bt scan on
  hear 20 'Discovery started'
  # BlueZ hides an advertiser that says of itself neither limited nor general discoverable: ZVK Beacon.
  for name in 'ZVK Loop' 'ZVK Sensor' 'ZVK GATT'; do hear 20 "Device .* $name"; done
  bt scan off
  hear 20 'Discovery stopped'
  bt connect $gatt_peer
  hear 20 'Connection successful'
  hear 20 'ServicesResolved: yes'
  bt menu gatt
  bt select-attribute $gatt_value
  hear 20 'service0.*char'
  bt notify on
  hear 20 'Notify started'
  bt "write \"0x5A 0x56 0x4B $1\""
  hear 20 'Value:'  # a notification
  bt read
  hear 20 "5a 56 4b $(printf %02x "$1")"
  bt notify off
  hear 20 'Notify stopped'
  bt back
  bt disconnect $gatt_peer
  hear 20 'Successful disconnected'
  bt 'remove "*"'
  hear 20 'Device has been removed'
  bt power off
  hear 20 'Changing power off succeeded'
}

# bluez_rounds COUNT: that many rounds, and a note of what one took.
bluez_rounds() {
  local round began
  bt list
  hear 20 'Controller .* \[default\]'
  began=$(now)
  for round in $(seq "$1"); do bluez_round "$round"; done
  note "$1 rounds, each $(echo "$(since "$began") $1" | awk '{ printf "%.2f", $1 / $2 }') s"
}

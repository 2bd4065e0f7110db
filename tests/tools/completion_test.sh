#!/usr/bin/env bash
# The completion of bash, called as bash calls it: what each line offers at its end.
# usage: completion_test.sh BTHALCTL
set -uo pipefail  # no -e: an interactive shell has none
program=$1
source <("$program" completion bash)
compopt() { :; }  # works within a completion only
folder=$(mktemp -d "${TMPDIR:-/tmp}/bthal-completion-XXXXXX")
trap 'rm -rf "$folder"' EXIT
cd "$folder" || exit 1
mkdir "a folder"
touch file.hcd
status=0

# offers "LINE" WORD…: exactly these, in any order. A line that ends with a blank begins a new word.
offers() {
  local line=${1//=/ = }  # as bash cuts it
  shift
  read -ra COMP_WORDS <<<"$line"
  case $line in *' ') COMP_WORDS+=('') ;; esac
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=(left over)
  _bthalctl "$program" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  local got wanted
  got=$(printf '%s\n' ${COMPREPLY[@]+"${COMPREPLY[@]}"} | sort)
  wanted=$(printf '%s\n' "$@" | sort)
  [ "$got" = "$wanted" ] && return
  printf '"%s" offers:\n%s\nbut wanted is:\n%s\n' "$line" "$got" "$wanted"
  status=1
}

# Commands, below options and their values too, and those below a command.
offers 'bthalctl resi' residency
offers 'bthalctl --wait 3 --no-holder resi' residency
offers 'bthalctl --wait=3 resi' residency
offers 'bthalctl ewp ' on off watch
offers 'bthalctl --root ewp doc' doctor
offers 'bthalctl doctor doc'

# Options of the command, or of the program before it.
offers 'bthalctl --' --help --root --wait --no-holder
offers 'bthalctl ewp on --i' --interval
offers 'bthalctl serve-h4 --' --help --pty --unix --tcp --vhci
offers 'bthalctl ccc watch --1' --1-0

# Values: choices, sections of the report, names of HCI commands, files, folders.
offers 'bthalctl capture -f ' pcapng btsnoop monitor
offers 'bthalctl capture --format=b' btsnoop
offers 'bthalctl capture --format=b -n=2 --forma' --format
offers 'bthalctl loopback --pattern ' random control counter
offers 'bthalctl debug --section firm' firmware
offers 'bthalctl debug --section firmware hist' history
offers 'bthalctl debug --section firmware --li' --list
offers 'bthalctl cmd read_bd' read_bd_addr
offers 'bthalctl cmd reset read_bd'
offers 'bthalctl completion ' bash zsh fish
offers 'bthalctl prepare-root --firmware f' file.hcd
offers 'bthalctl prepare-root ' 'a folder'
offers 'bthalctl prepare-root --address 11'
BTHAL_ROOT=$folder offers "bthalctl --root a" 'a folder'

# A root folder where a service runs, as far as its name in the folder tells.
mkdir -p run/bthal
touch 'run/bthal/android.hardware.bluetooth@1.1::IBluetoothHci:default'
BTHAL_ROOT=$folder offers "bthalctl --root ${folder%??????}" "$folder"

# What the last scan has heard; text from the air is never run.
printf '%s\n' 'ZVK Loop' 'ZVK $(touch run.txt)' C2:56:4B:AD:00:02 >run/bthal/heard_peers
BTHAL_ROOT=$folder offers 'bthalctl echo ' 'ZVK Loop' 'ZVK $(touch run.txt)' C2:56:4B:AD:00:02
offers "bthalctl --root $folder read-name C" C2:56:4B:AD:00:02
[ ! -e run.txt ] || { echo "a name was run" && status=1; }
exit $status

#!/bin/sh
# Lists the ports of wexd, watches them, pulses an output, and is refused by an input: with wexctl, and
# with busctl where only systemd is at hand.
#
# Usage: ports.sh OUTPUT INPUT    (numbers of ports)
set -eu
output=$1 input=$2

wexctl list

# All changes from now on, one line each; `--json` has them for programs.
changes=$(mktemp)
wexctl monitor >"$changes" &
monitor=$!
trap 'kill "$monitor"; rm -f "$changes"' EXIT
until grep -q watching "$changes"; do sleep 0.1; done

wexctl pulse "$output" 200ms --wait
until grep -q "sequence done" "$changes"; do sleep 0.1; done
cut -d' ' -f3- "$changes"

# What was refused shows in the exit status, and by name on standard error.
wexctl set "$input" on || echo "port $input refused: status $?"

# The same through the bus. A call that was refused has a status, too.
call() {
  busctl --system call com.norv.IOControl.State /com/norv/IOControl/State com.norv.IOControl.State "$@"
}
call GetState u "$output"
call StartActionSequence 'uba(bi)' "$output" false 2 true 200 false 1
call SetState ub "$input" true || echo "port $input refused again"

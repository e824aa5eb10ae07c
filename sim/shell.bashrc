# What a shell on the simulated device starts with; see sim/shell.py.
PS1='\[\e[1;32m\]wexd device\[\e[0m\] \w \$ '
[ -z "${NO_COLOR:-}" ] || PS1='wexd device \w \$ '
HISTFILE=
. /etc/bash_completion.d/wexctl

# The daemon is not this shell's to end: it runs in a namespace of its own.
restart-wexd() {
  : >/run/restart-wexd
  while [ -e /run/restart-wexd ]; do
    sleep 0.05
  done
}

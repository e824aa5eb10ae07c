# bash completion for wexctl; port names come from the running daemon.

_wexctl_ports() {
  wexctl complete-ports 2>/dev/null
}

# The options of a verb, given the words up to here with a blank behind.
_wexctl_options() {
  case $1 in
    'list '*) echo --json --columns ;;
    'get '* | 'drop '* | 'connectors '* | 'status '*) echo --json ;;
    'check '*) echo --here --json ;;
    'supervised show '* | 'supervised ranges '* | 'supervised read '*) echo --json ;;
    'legacy get '*) echo --json ;;
    'active '* | 'name '*) echo --side ;;
    'run '*) echo --virtual --wait ;;
    'pulse '*) echo --wait ;;
    'monitor '*) echo --initial --quiet --count --idle-timeout --timeout --json --format ;;
    'wait '*) echo --daemon --timeout ;;
    ' ') echo --help-all --version ;;
  esac
  echo --help
}

_wexctl() {
  local cur=${COMP_WORDS[COMP_CWORD]} words=() word value=''
  local verbs='list get set toggle direction active name usage virtual run pulse stop wait drop refresh supervised
    status connectors monitor legacy check describe'
  local candidates=''

  # Options may stand anywhere, and do not count.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [ -n "$value" ]; then
      value=''
    elif [ "$word" = --side ]; then
      value=side
    elif [[ $word != -* ]]; then
      words+=("$word")
    fi
  done
  local position=${#words[@]} verb=${words[0]:-}

  COMPREPLY=()
  if [ -n "$value" ]; then
    candidates='input output'
  elif [[ $cur == -* ]]; then
    candidates=$(_wexctl_options "${words[*]} ")
  elif [ "$verb" = supervised ] || [ "$verb" = legacy ]; then
    if [ "$position" -eq 1 ]; then
      [ "$verb" = supervised ] && candidates='show on off ranges read' || candidates='get set'
    elif [ "$position" -eq 2 ]; then
      candidates=$(_wexctl_ports)
    elif [ "$position" -eq 3 ] && [ "${words[1]}" = ranges ]; then
      candidates='open closed short cut'
    elif [ "$position" -eq 3 ] && [ "$verb" = legacy ]; then
      candidates='IOPort.Direction IOPort.Usage Input.Name Input.Trig Output.Name Output.Active
        Output.Button Output.PulseTime Output.Mode Output.DelayTime'
    fi
  elif [ "$position" -eq 0 ]; then
    candidates=$verbs
  elif [ "$verb" = check ]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    return
  elif [ "$verb" = drop ] || [ "$verb" = monitor ] ||
    [ "$verb" = toggle ]; then
    candidates=$(_wexctl_ports)
  elif [ "$position" -eq 1 ]; then
    case $verb in
      get | set | direction | active | name | usage | virtual | run | pulse | stop | wait)
        candidates=$(_wexctl_ports) ;;
      connectors) candidates='video audio all' ;;
    esac
  elif [ "$position" -eq 2 ]; then
    case $verb in
      set | virtual | stop) candidates='on off' ;;
      wait) candidates='on off open closed short cut' ;;
      direction) candidates='input output' ;;
      active) candidates='open closed' ;;
    esac
  fi
  local IFS=$'\n'
  mapfile -t COMPREPLY < <(compgen -W "$(printf '%s\n' "$candidates" | tr -s ' \n' '\n')" -- "$cur")
}

complete -F _wexctl wexctl

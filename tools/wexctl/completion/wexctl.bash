# bash completion for wexctl, which is asked for everything.

# Sets words to what is typed up to the cursor, and taken to how much of the last of them bash leaves
# as it is: it takes a word apart at each = and :, and completes the last piece.
__wexctl_words() {
  local line=${COMP_LINE:0:COMP_POINT} rest piece i
  words=()
  taken=0
  for ((i = 0; i <= COMP_CWORD; i++)); do
    piece=${COMP_WORDS[i]}
    rest=${line#"${line%%[![:space:]]*}"}
    [ "$i" -lt "$COMP_CWORD" ] || piece=$rest
    if [ "$i" -gt 0 ] && [ -n "$piece" ] && [ "$rest" = "$line" ]; then
      __wexctl_mean "${words[-1]}"
      taken=${#meant}
      words[-1]+=$piece
    else
      taken=0
      words+=("$piece")
    fi
    case $i$piece in
      "$COMP_CWORD"[=:]) taken=$((taken + 1)) ;;
    esac
    line=${rest#"$piece"}
  done
}

# Sets meant to a word as it is meant, without the quotes that are typed.
__wexctl_mean() {
  meant=$1
  case $meant in
    \'*) meant=${meant//\'/} ;;
    \"*) meant=${meant//\"/} ;;
    *) meant=${meant//\\/} ;;
  esac
}

_wexctl() {
  local words taken meant typed=() word candidates candidate

  __wexctl_words
  for word in "${words[@]:1}"; do
    __wexctl_mean "$word"
    typed+=("$meant")
  done
  mapfile -t candidates < <(wexctl complete "${typed[@]}" 2>/dev/null)
  COMPREPLY=()
  if [ "${candidates[0]-}" = :files ]; then
    mapfile -t COMPREPLY < <(compgen -f -- "${typed[-1]}")
    compopt -o filenames 2>/dev/null
    return
  fi
  for candidate in "${candidates[@]}"; do
    candidate=${candidate%%$'\t'*}
    COMPREPLY+=("${candidate:taken}")
  done
  # Blanks are quoted as those of file names are, which would quote the sign of a port that waits for
  # its state, too.
  case ${COMPREPLY[*]} in
    *=)
      compopt -o nospace 2>/dev/null
      case ${words[-1]} in
        [\'\"]*) ;;
        *) mapfile -t COMPREPLY < <(printf '%q\n' "${COMPREPLY[@]}") ;;
      esac
      ;;
    *[\ \'\"]*) compopt -o filenames 2>/dev/null ;;
  esac
}

complete -F _wexctl wexctl

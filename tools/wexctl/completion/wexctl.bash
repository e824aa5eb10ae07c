# bash completion for wexctl, which is asked for everything.

_wexctl() {
  local words=("${COMP_WORDS[@]:1:COMP_CWORD}") candidates candidate
  local last=$((${#words[@]} - 1))

  # The word as it is meant, without the quotes that are typed.
  case ${words[last]} in
    \'* | \"*) words[last]=${words[last]:1} ;;
    *) words[last]=${words[last]//\\/} ;;
  esac
  mapfile -t candidates < <(wexctl complete "${words[@]}" 2>/dev/null)
  COMPREPLY=()
  if [ "${candidates[0]-}" = :files ]; then
    mapfile -t COMPREPLY < <(compgen -f -- "${words[last]}")
    compopt -o filenames 2>/dev/null
    return
  fi
  for candidate in "${candidates[@]}"; do
    COMPREPLY+=("${candidate%%$'\t'*}")
  done
  # Blanks are quoted as those of file names are.
  case ${COMPREPLY[*]} in
    *[\ \'\"]*) compopt -o filenames 2>/dev/null ;;
  esac
}

complete -F _wexctl wexctl

# Tab completion of vornctl for bash.

# The names of the running launcher's nodes, one a line, quoted for the shell.
# A busy launcher is not waited for.
_vornctl_nodes() {
  local name
  while IFS= read -r -d '' name; do
    printf '%q\n' "$name"
  done < <("$1" --connect-timeout 1s --timeout 1s "${@:2}" names --null \
    2>/dev/null)
}

_vornctl() {
  local program=$1 current=$2 previous=$3
  local options="--launch-file --timeout --connect-timeout --socket
    --trust-any-user --color --quiet --help"
  local commands="status start stop restart enable disable wait monitor top
    ping names completion help"
  local command="" word launch_file=() i
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    case $word in
      --launch-file)
        launch_file=(--launch-file "${COMP_WORDS[++i]}")
        ;;
      --timeout | --connect-timeout | --socket | --color) ((i++)) ;;
      -*) ;;
      *)
        command=$word
        break
        ;;
    esac
  done
  COMPREPLY=()
  case $previous in
    --launch-file | --socket)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    --color)
      mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$current")
      return
      ;;
    --state)
      mapfile -t COMPREPLY < <(compgen -W "running stopped disabled restarted" \
        -- "$current")
      return
      ;;
    --timeout | --connect-timeout | --for) return ;;
    -o | --columns)
      local begin=${current%"${current##*,}"}
      mapfile -t COMPREPLY < <(compgen -P "$begin" -W "node state pid uptime
        started policy required executable" -- "${current##*,}")
      compopt -o nospace 2>/dev/null
      return
      ;;
  esac
  case $command in
    "") options+=" --version" ;;
    status) options+=" --json --plain --no-header --columns" ;;
    start | restart) options+=" --all" ;;
    stop | disable) options+=" --all --yes" ;;
    enable) options+=" --all --now" ;;
    wait) options+=" --state --for" ;;
    monitor) options+=" --json" ;;
    names) options+=" --null" ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    return
  fi
  case $command in
    "") mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current") ;;
    completion)
      mapfile -t COMPREPLY < <(compgen -W "bash zsh fish" -- "$current")
      ;;
    status | start | stop | restart | enable | disable | wait | monitor | top)
      local name
      while IFS= read -r name; do
        [[ $name == "$current"* ]] && COMPREPLY+=("$name")
      done < <(_vornctl_nodes "$program" "${launch_file[@]}")
      # bash puts back only what stands behind the last colon.
      if [[ $current == *:* && $COMP_WORDBREAKS == *:* ]]; then
        local colons=${current%"${current##*:}"}
        COMPREPLY=("${COMPREPLY[@]#"$colons"}")
      fi
      ;;
  esac
}

complete -F _vornctl vornctl

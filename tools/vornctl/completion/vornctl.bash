# Tab completion of vornctl for bash.

# Prints the names of the running launcher's nodes, a NUL after each, for the
# words of a command line up to the one to complete. A busy launcher is not
# waited for.
_vornctl_nodes() {
  local program=$1 options=() word i
  shift
  local words=("$@")
  for ((i = 0; i < ${#words[@]}; i++)); do
    case ${words[i]} in
      --launch-file=* | --socket=* | --trust-any-user)
        options+=("${words[i]}")
        ;;
      --launch-file | --socket) options+=("${words[i]}=${words[++i]}") ;;
    esac
  done
  for ((i = 0; i < ${#options[@]}; i++)); do
    word=${options[i]}
    # As far as quotes go that people write around names of files.
    word=${word//[\"\']/}
    word=${word//\\/}
    options[i]=${word/=\~\//=$HOME/}
  done
  "${program/#\~\//$HOME/}" --connect-timeout 1s --timeout 1s "${options[@]}" \
    names --null 2>/dev/null
}

# _vornctl_offer_nodes CURRENT KEPT PROGRAM WORD... offers the nodes that begin
# with CURRENT, quoted as that is, and are not among the words. KEPT is the part
# of CURRENT that bash does not replace. No quotes keep a name from the history
# expansion of "!" in double quotes, nor safely in $'...'. A name that looks like
# an option follows "--".
_vornctl_offer_nodes() {
  local current=$1 kept=$2 name quoted dashes=
  shift 2
  _vornctl_has_dashes "$@" || dashes='-- '
  while IFS= read -r -d '' name; do
    case $current in
      [\"\']*) [[ $name != *[[:cntrl:]]* && $dashes$name != '-- -'* ]] || continue ;;
    esac
    case $current in
      \'*)
        [[ $name != *\'* ]] || continue
        quoted="'$name"
        ;;
      \"*)
        [[ $name != *!* ]] || continue
        quoted=${name//\\/\\\\}
        quoted=${quoted//\"/\\\"}
        quoted=${quoted//\$/\\\$}
        quoted="\"${quoted//\`/\\\`}"
        ;;
      *)
        printf -v quoted %q "$name"
        [[ $quoted != \$\'*!* ]] || continue
        [[ $name != -* ]] || quoted=$dashes$quoted
        ;;
    esac
    [[ $quoted == "$current"* ]] || continue
    _vornctl_has_word "$name" "$@" || COMPREPLY+=("${quoted#"$kept"}")
  done < <(_vornctl_nodes "$@")
}

# _vornctl_has_dashes WORD... succeeds if "--" ends the options.
_vornctl_has_dashes() {
  local word
  for word in "$@"; do
    [[ $word != -- ]] || return 0
  done
  return 1
}

# _vornctl_has_word NAME WORD... succeeds if one of the words is this name,
# in any of the usual quotes.
_vornctl_has_word() {
  local name=$1 quoted word
  printf -v quoted %q "$name"
  for word in "${@:2}"; do
    case $word in
      "$quoted" | "'$name'" | "\"$name\"") return 0 ;;
    esac
  done
  return 1
}

# _vornctl_offer CURRENT KEPT WORD... offers the words that begin with CURRENT.
_vornctl_offer() {
  local word
  for word in "${@:3}"; do
    [[ $word != "$1"* ]] || COMPREPLY+=("${word#"$2"}")
  done
}

# _vornctl_offer_value OPTION CURRENT KEPT COMMAND offers values for an option of
# the command; false if it takes none.
_vornctl_offer_value() {
  local option=$1 current=$2 kept=$3 command=$4
  case $option in
    # bash's own, for files
    --launch-file | --log | --output | --socket) compopt -o default ;;
    --color) _vornctl_offer "$current" "$kept" auto always never ;;
    --state)
      _vornctl_offer "$current" "$kept" running ready stopped disabled restarted succeeded
      ;;
    --fail-on) _vornctl_offer "$current" "$kept" error warning note ;;
    --print) _vornctl_offer "$current" "$kept" resolved timeline stop-timeout ;;
    --format)
      local formats=(text json sarif github)
      [[ $command != graph ]] || formats=(dot mermaid svg)
      [[ $command != health ]] || formats=(plain json nagios)
      [[ $command != metrics ]] || formats=(prometheus openmetrics)
      _vornctl_offer "$current" "$kept" "${formats[@]}"
      ;;
    --timeout | --connect-timeout | --for | --unit | --hook | --ignore | -n | --lines | --reason | --since) ;;
    -o | --columns)
      if [[ $command == report || $command == metrics ]]; then
        compopt -o default
        return
      fi
      local columns=(node state pid uptime started policy required executable
        restarts last_exit cpu memory stale ready wide)
      local before=${current%"${current##*,}"}
      _vornctl_offer "$current" "$kept" "${columns[@]/#/"$before"}"
      compopt -o nospace
      ;;
    *) return 1 ;;
  esac
}

# Prints the command among these words, if there is one.
_vornctl_command() {
  while [[ $# -gt 0 ]]; do
    case $1 in
      --launch-file | --log | --timeout | --connect-timeout | --socket | --color) shift ;;
      -*) ;;
      *)
        printf %s "$1"
        return
        ;;
    esac
    shift
  done
}

_vornctl() {
  local options=(--launch-file --log --timeout --connect-timeout --socket
    --trust-any-user --color --quiet --help)
  # bash breaks words at characters such as : and =, too; here they are whole.
  local words=() rest=${COMP_LINE:0:COMP_POINT} i
  for ((i = 0; i <= COMP_CWORD; i++)); do
    local word=${COMP_WORDS[i]} blanks=${rest%%[![:space:]]*}
    rest=${rest#"$blanks"}
    [[ $i -lt $COMP_CWORD ]] || word=$rest
    if [[ $i -eq 0 || -n $blanks ]]; then
      words+=("$word")
    else
      words[-1]+=$word
    fi
    rest=${rest#"$word"}
  done
  local current=${words[-1]}
  unset 'words[-1]'
  local previous=${words[-1]} kept=${current%"$2"} command
  command=$(_vornctl_command "${words[@]:1}")

  COMPREPLY=()
  if [[ $current == --*=* ]]; then
    _vornctl_offer_value "${current%%=*}" "${current#*=}" \
      "${kept#"${current%%=*}="}" "$command"
    return
  fi
  ! _vornctl_offer_value "$previous" "$current" "$kept" "$command" || return
  case $command in
    "") options+=(--version) ;;
    status) options+=(--json --plain --no-header --failed --columns) ;;
    start | restart) options+=(--all --reason) ;;
    stop | disable) options+=(--all --yes --reason) ;;
    enable) options+=(--all --now --reason) ;;
    wait) options+=(--state --for) ;;
    monitor) options+=(--json) ;;
    ps) options+=(--ports --json) ;;
    orphans) options+=(--json --kill --yes) ;;
    history) options+=(--json --lines --since) ;;
    logs) options+=(--follow --lines --since --previous) ;;
    health) options+=(--for --format) ;;
    names) options+=(--null) ;;
    report) options+=(--output --since --with-environment) ;;
    metrics) options+=(--output --format) ;;
    check)
      options+=(--format --fail-on --print --ignore --host --no-host --list)
      ;;
    graph) options+=(--format) ;;
    diff) options+=(--running --json) ;;
    apply) options+=(--unit --for --hook) ;;
    doctor) options+=(--json) ;;
  esac
  if [[ $current == -* ]] && ! _vornctl_has_dashes "${words[@]}"; then
    _vornctl_offer "$current" "$kept" "${options[@]}"
    return
  fi
  case $command in
    "")
      _vornctl_offer "$current" "$kept" status start stop restart enable \
        disable wait monitor top why history ps orphans logs health ping names report metrics apply check \
        graph diff import doctor completion help
      ;;
    check | graph | diff | apply) compopt -o default ;;
    import)
      compopt -o default
      [[ $previous != import ]] ||
        _vornctl_offer "$current" "$kept" supervisord systemd process-compose
      ;;
    completion) _vornctl_offer "$current" "$kept" bash zsh fish ;;
    status | start | stop | restart | enable | disable | wait | monitor | top | why | history | ps | logs)
      _vornctl_offer_nodes "$current" "$kept" "${words[@]}"
      ;;
  esac
}

complete -F _vornctl vornctl

# Completion of gx-ssh and gx-ssh-peer for bash.

# Offers the options among $2..., or file names.
_gx_ssh_offer() {
  local current=$1
  shift
  case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W "$*" -- "$current") ;;
    *) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
  esac
}

_gx_ssh() {
  local current=${COMP_WORDS[COMP_CWORD]} word index
  # The words after -- are a command: complete them as such.
  for ((index = 1; index < COMP_CWORD; index++)); do
    [[ ${COMP_WORDS[index]} == -- ]] || continue
    if declare -F _command_offset >/dev/null; then
      _command_offset $((index + 1))
    elif ((COMP_CWORD == index + 1)); then
      mapfile -t COMPREPLY < <(compgen -c -- "$current")
    fi
    return
  done
  word=${COMP_WORDS[COMP_CWORD - 1]}
  case $word in
    --peer-dir) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
    --print) mapfile -t COMPREPLY < <(compgen -W "addr port json env ssh-config none" -- "$current") ;;
    --log-format) mapfile -t COMPREPLY < <(compgen -W "text json" -- "$current") ;;
    --run) mapfile -t COMPREPLY < <(compgen -c -- "$current") ;;
    --target | --connect-timeout | --keepalive | --keepalive-count | --listen | -L | --connect | --name | \
      --ready-fd | --stats | --allow | --bring-dir) COMPREPLY=() ;;
    *) _gx_ssh_offer "$current" -W --stdio --run --local --target --module --raw --connect-timeout --keepalive \
      --keepalive-count --reconnect --allow-channel-list --bring --bring-dir --bring-once --allow --peer-dir \
      --listen -L --user-only --connect --print --name --json --port-file --probe --background --ready-fd \
      --log-file --log-format --stats -q --quiet -v --verbose --version -h --help -- ;;
  esac
}

_gx_ssh_peer() {
  case ${COMP_WORDS[COMP_CWORD - 1]} in
    --allow | --target | --connect-timeout | --max-connections | --idle-timeout | --keepalive | \
      --keepalive-count | --dns-max-age | --dns-refresh) COMPREPLY=() ;;
    *) _gx_ssh_offer "${COMP_WORDS[COMP_CWORD]}" --allow --allow-any --target --connect-timeout \
      --max-connections --idle-timeout --keepalive --keepalive-count --dns-cache --dns-max-age --dns-refresh \
      --raw --no-confine -q --quiet -v --verbose --version -h --help ;;
  esac
}

complete -o filenames -F _gx_ssh gx-ssh
complete -o filenames -F _gx_ssh_peer gx-ssh-peer

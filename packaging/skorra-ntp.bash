# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Completion of the commands and options of skorra-ntp in bash.

_skorra_ntp() {
  local current=$2 before=$3 command='' word words=''
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      sync | serve | demo)
        command=$word
        break
        ;;
    esac
  done
  COMPREPLY=()
  case $before in
    --log-level) words='0 1 2' ;;
    --timeout | --listen | --offset | --delay | --jitter | --loss | --seed) return ;;
    *)
      case $command in
        sync)
          if [[ $current != -* ]]; then
            declare -F _known_hosts_real >/dev/null && _known_hosts_real -- "$current"
            return
          fi
          words='-h --help --json --timeout --log-level'
          ;;
        serve) words='-h --help --listen --offset --delay --jitter --loss --seed' ;;
        demo) words='-h --help' ;;
        *) words='sync serve demo -h --help --version' ;;
      esac
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _skorra_ntp skorra-ntp

# Completion of dockhandctl for bash. It asks the daemon for device numbers.

_dockhandctl_devices() {
  dockhandctl --timeout 1 list --all 2>/dev/null
}

_dockhandctl() {
  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' position=0 i choices=''
  local commands='status list info label uuid usb-version type capacity mount-point kernel-name is-open files open close
    prepare repair rescan notify observer watch call doctor'
  COMPREPLY=()

  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      --timeout | --at | --observer-id | --ignore) ((i++)) ;;
      -*) ;;
      *)
        if [ -z "$command" ]; then
          command=${COMP_WORDS[i]}
        else
          ((position++))
        fi
        ;;
    esac
  done

  case $previous in
    --at)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -d -- "$word")
      return
      ;;
    --timeout | --observer-id | --ignore) return ;;
  esac

  if [[ $word == -* ]]; then
    choices='--help --timeout'
    case $command in
      '') choices+=' --version' ;;
      status | list) choices+=' --all --json' ;;
      info | label | uuid | usb-version | type | capacity | mount-point | kernel-name | is-open | files)
        choices+=' --json'
        ;;
      open) choices+=' --again --at --pvr' ;;
      close) choices+=' --safe' ;;
      prepare | call) choices+=' --yes' ;;
      watch) choices+=' --json --observer-id --xrite' ;;
      doctor) choices+=' --json --ignore' ;;
    esac
  else
    case $command:$position in
      :*) choices=$commands ;;
      info:0 | label:0 | uuid:0 | usb-version:0 | type:0 | capacity:0 | mount-point:0 | kernel-name:0 | is-open:0 | \
        files:0 | open:0 | close:0 | prepare:0 | repair:0) choices=$(_dockhandctl_devices) ;;
      notify:0) choices='added removed xrite-added xrite-removed' ;;
      observer:0) choices='add remove' ;;
      observer:1) choices='added removed' ;;
      call:0) choices=$(dockhandctl call --help 2>/dev/null | sed -n 's/^  \([A-Z][A-Za-z]*\).*/\1/p') ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$word")
}

complete -F _dockhandctl dockhandctl

# Completion of zarn for bash.

_zarn_options() {
  zarn "$@" --help 2>/dev/null | sed -nE 's/^ +((-[a-z],)?--[a-z-]+).*/\1/p' | tr ',' '\n'
}

_zarn_urls() {
  zarn ls --json 2>/dev/null | sed -n 's/.*"state":"listening".*"url":"\([^"]*\)".*/\1/p'
}

_zarn() {
  local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
  local line="${COMP_LINE:0:COMP_POINT}" words subcommand=""
  # A url is one word for us, though bash breaks it at ':'.
  line="${line##* }"
  COMPREPLY=()
  if ((COMP_CWORD > 1)); then subcommand="${COMP_WORDS[1]}"; fi
  case "$subcommand" in
    "") words="serve send ping bench ls env log --help --version" ;;
    serve | send | ping | bench | ls | env | log)
      case "$previous" in
        --file)
          mapfile -t COMPREPLY < <(compgen -f -- "$current")
          return
          ;;
        --level)
          mapfile -t COMPREPLY < <(compgen -W "ERROR WARN INFO DEBUG" -- "$current")
          return
          ;;
        --as | --type | --tag | --data | --replies | --timeout | --count | -c | --size | -s | \
          --interval | -i | --spin | --sizes | --seconds | --window | --max-queue | \
          --grep | --function | --since | --until)
          return
          ;;
      esac
      words="$(_zarn_options "$subcommand")"
      if [[ "$subcommand" == log && "$current" != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
      fi
      case "$subcommand:$line" in
        ls:* | env:* | *:-*) ;;
        *) words="$(_zarn_urls)" ;;
      esac
      ;;
    *) return ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$line")
  # What is before the last ':' stands on the line already.
  if [[ "$line" == *:* && "$COMP_WORDBREAKS" == *:* ]]; then
    COMPREPLY=("${COMPREPLY[@]#"${line%"${line##*:}"}"}")
  fi
}

complete -F _zarn zarn

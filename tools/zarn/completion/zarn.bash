# Completion of zarn for bash.

_zarn_options() {
  zarn "$@" --help 2>/dev/null | sed -nE 's/^ +((-[a-z],)?--[a-z-]+).*/\1/p' | tr ',' '\n'
}

_zarn_urls() {
  zarn ls --json 2>/dev/null | sed -n 's/.*"state":"listening".*"url":"\([^"]*\)".*/\1/p'
}

_zarn_segments() {
  zarn shm ls --json 2>/dev/null | sed -n 's/.*"name":"\([^"]*\)".*/\1/p'
}

# zarn db FILE VERB, zarn kv DIR VERB, zarn shm VERB NAME; the words are left in `words`.
_zarn_store() {
  local -A verbs=([db]="get set rm ls import export" [kv]="get put rm dump" [shm]="ls rm info")
  local subcommand="$1" at="$2" place=3
  if [[ "$subcommand" == shm ]]; then place=2; fi
  if ((at == place)); then
    words="${verbs[$subcommand]}"
  elif ((at > place)) && [[ "$current" == -* ]]; then
    words="$(_zarn_options "${COMP_WORDS[@]:1:place}")"
  elif [[ "$subcommand" == shm ]]; then
    words="$(_zarn_segments)"
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}

_zarn() {
  local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
  local line="${COMP_LINE:0:COMP_POINT}" words subcommand=""
  # A url is one word for us, though bash breaks it at ':'.
  line="${line##* }"
  COMPREPLY=()
  if ((COMP_CWORD > 1)); then subcommand="${COMP_WORDS[1]}"; fi
  case "$subcommand" in
    "") words="serve send ping bench ls stat env log db kv shm rest --help --version" ;;
    serve | send | ping | bench | ls | stat | env | log | rest)
      case "$previous" in
        --file | --setting | --password-file | --key | --cert | --ca | --client-ca)
          mapfile -t COMPREPLY < <(compgen -f -- "$current")
          return
          ;;
        --level)
          mapfile -t COMPREPLY < <(compgen -W "ERROR WARN INFO DEBUG" -- "$current")
          return
          ;;
        --as | --type | --tag | --data | --replies | --timeout | --count | -c | --size | -s | \
          --interval | -i | --spin | --sizes | --seconds | --window | --max-queue | --server-name | \
          --grep | --function | --since | --until | --user | --watch)
          return
          ;;
      esac
      words="$(_zarn_options "$subcommand")"
      if [[ "$subcommand" == log && "$current" != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
      fi
      case "$subcommand:$line" in
        ls:* | env:* | rest:http* | *:-*) ;;
        stat:*) words="all $(_zarn_urls | sed 's,.*//,,')" ;;
        *) words="$(_zarn_urls)" ;;
      esac
      ;;
    db | kv | shm)
      words=""
      _zarn_store "$subcommand" "$COMP_CWORD"
      if [[ "$words" == "" ]]; then return; fi
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

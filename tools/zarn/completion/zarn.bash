# Completion of zarn for bash.

_zarn_options() {
  zarn "$@" --help 2>/dev/null | sed -nE 's/^ +((-[A-Za-z],)?--[a-z-]+).*/\1/p' | tr ',' '\n'
}

_zarn_urls() {
  zarn ls --json 2>/dev/null | sed -n 's/.*"state":"listening".*"url":"\([^"]*\)".*/\1/p'
}

_zarn_segments() {
  zarn shm ls --json 2>/dev/null | sed -n 's/.*"name":"\([^"]*\)".*/\1/p'
}

# Offers those of the words that begin as `typed` does. Others may have named what they stand for:
# compgen -W would run what such a name asks for, and so would the command line without quotes.
_zarn_offer() {
  local typed="$1" word
  shift
  for word; do
    printf -v word %q "$word"
    if [[ "$word" == "$typed"* ]]; then COMPREPLY+=("$word"); fi
  done
}

_zarn_offer_files() {
  compopt -o filenames 2>/dev/null # which are then quoted
  mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

# zarn db FILE VERB, zarn kv DIR VERB, zarn shm VERB NAME; the words are left in `words`.
_zarn_store() {
  local subcommand="$1" at="$2" place=3
  if [[ "$subcommand" == shm ]]; then place=2; fi
  if ((at == place)); then
    case "$subcommand" in
      db) words=(get set rm ls import export) ;;
      kv) words=(get put rm dump) ;;
      shm) words=(ls rm info) ;;
    esac
  elif ((at > place)) && [[ "$current" == -* ]]; then
    mapfile -t words < <(_zarn_options "${COMP_WORDS[@]:1:place}")
  elif [[ "${COMP_WORDS[place]}" == @(ls|dump) ]]; then
    return # these take options only
  elif [[ "$subcommand" == shm ]]; then
    mapfile -t words < <(_zarn_segments)
  else
    _zarn_offer_files "$current"
  fi
}

_zarn() {
  local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
  local line="${COMP_LINE:0:COMP_POINT}" words=() subcommand=""
  # A url is one word for us, though bash breaks it at ':'.
  line="${line##* }"
  COMPREPLY=()
  if ((COMP_CWORD > 1)); then subcommand="${COMP_WORDS[1]}"; fi
  case "$subcommand" in
    "") words=(serve send ping bench ls stat env log db kv shm rest --help --version) ;;
    serve | send | ping | bench | ls | stat | env | log | rest)
      case "$previous" in
        --file | --setting | --password-file | --key | --cert | --ca | --client-ca)
          _zarn_offer_files "$current"
          return
          ;;
        --level)
          _zarn_offer "$current" ERROR WARN NOTICE INFO DEBUG
          return
          ;;
        --as | --type | --tag | --data | --replies | --timeout | --count | -c | --size | -s | \
          --interval | -i | --spin | --sizes | --seconds | --window | --max-queue | --server-name | \
          --grep | --function | --since | --until | --user | --watch)
          return
          ;;
      esac
      if [[ "$subcommand" == log && "$current" != -* ]]; then
        _zarn_offer_files "$current"
        return
      fi
      mapfile -t words < <(_zarn_options "$subcommand")
      case "$subcommand:$line" in
        ls:* | env:* | rest:* | *:-*) ;;
        stat:*) mapfile -t words < <(echo all && _zarn_urls | sed 's,.*//,,') ;;
        *) mapfile -t words < <(_zarn_urls) ;;
      esac
      ;;
    db | kv | shm) _zarn_store "$subcommand" "$COMP_CWORD" ;;
    *) return ;;
  esac
  if ((${#words[@]} == 0)); then return; fi
  _zarn_offer "$line" "${words[@]}"
  # What is before the last ':' stands on the line already.
  if [[ "$line" == *:* && "$COMP_WORDBREAKS" == *:* ]]; then
    COMPREPLY=("${COMPREPLY[@]#"${line%"${line##*:}"}"}")
  fi
}

complete -F _zarn zarn

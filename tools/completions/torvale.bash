# Completion of torvale for bash.
_torvale()
{
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command=${COMP_WORDS[1]} options=""
  if [ "$COMP_CWORD" -eq 1 ]; then
    COMPREPLY=($(compgen -W "run check describe explain --help --version" -- "$word"))
    return
  fi
  case $before in
    --threads|--seed|--memory|--separator) return ;;
    --out|--figures) COMPREPLY=($(compgen -d -- "$word")); return ;;
    --format) COMPREPLY=($(compgen -W "text json" -- "$word")); return ;;
    --json|--html|--tables|--list|--log|--data|--library) COMPREPLY=($(compgen -f -- "${word#*=}")); return ;;
  esac
  case $command in
    run) options="--data --library --separator --json --log --no-color --out --html --figures --tables --list --threads --seed --memory --strict --quiet --timing" ;;
    check) options="--data --library --separator --json --log --no-color --statements --format" ;;
    describe) options="--library --separator" ;;
    explain) return ;;
  esac
  if [[ $word == -* ]]; then
    COMPREPLY=($(compgen -W "$options --help" -- "$word"))
  else
    COMPREPLY=($(compgen -f -- "$word"))
  fi
}
complete -o filenames -F _torvale torvale

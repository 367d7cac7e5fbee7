# bash completion for wayfolio                               -*- shell-script -*-
#
# The program itself says what fits: "wayfolio __complete -- WORD..." gets the
# words after "wayfolio" (the last one being typed) and prints a mode line
# ("words", "names", "files", "directories" or "nothing"), then one candidate
# a line. Track and folder names come from the library the command line
# names (--library, else the default one), which is only read.

# Splits the line up to the cursor into words as the shell will see them:
# quotes and backslashes removed, a leading "~/" expanded; the last element
# is the word being typed (empty after a space).
_wayfolio_words() {
  local line=$1 word="" quote="" c i
  _wayfolio_split=()
  local started=""
  for ((i = 0; i < ${#line}; i++)); do
    c=${line:i:1}
    if [[ $quote == "'" ]]; then
      if [[ $c == "'" ]]; then quote=""; else word+=$c; fi
    elif [[ $quote == '"' ]]; then
      if [[ $c == '"' ]]; then quote=""
      elif [[ $c == '\' && ${line:i+1:1} == [\"\\\$\`] ]]; then word+=${line:i+1:1}; ((i++))
      else word+=$c; fi
    elif [[ $c == '\' ]]; then
      word+=${line:i+1:1}; ((i++)); started=1
    elif [[ $c == "'" || $c == '"' ]]; then
      quote=$c; started=1
    elif [[ $c == [[:space:]] ]]; then
      if [[ -n $started ]]; then _wayfolio_split+=("$word"); fi
      word=""; started=""
    else
      word+=$c; started=1
    fi
  done
  _wayfolio_split+=("$word")
  for i in "${!_wayfolio_split[@]}"; do
    [[ ${_wayfolio_split[i]} == '~/'* ]] && _wayfolio_split[i]=$HOME/${_wayfolio_split[i]:2}
  done
}

_wayfolio() {
  local -a _wayfolio_split reply
  _wayfolio_words "${COMP_LINE:0:COMP_POINT}"
  local program=${_wayfolio_split[0]}
  local typed=${_wayfolio_split[${#_wayfolio_split[@]} - 1]}
  mapfile -t reply < <("$program" __complete -- "${_wayfolio_split[@]:1}" 2>/dev/null)
  local mode=${reply[0]}
  reply=("${reply[@]:1}")
  COMPREPLY=()
  case $mode in
    files) compopt -o default; return ;;
    directories) compopt -o dirnames; return ;;
    names) compopt -o filenames ;;  # lets the shell quote spaces and the like
  esac
  # The shell replaces only the part after the last "=" or ":" of the word.
  local cut=""
  [[ $typed == *[=:]* ]] && cut=${typed%"${typed##*[=:]}"}
  local candidate
  for candidate in "${reply[@]}"; do
    COMPREPLY+=("${candidate#"$cut"}")
  done
  # A folder ("2024/") goes on with its contents, so no space after it.
  if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]]; then compopt -o nospace; fi
}

complete -F _wayfolio wayfolio

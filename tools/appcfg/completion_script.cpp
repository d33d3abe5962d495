// The scripts that shells load. All only hand what was typed to `appcfg complete`, and show what it
// prints; when that ends with code 10, the shell completes a file name itself.
#include "tools/appcfg/completion.h"

namespace AppCfgTool {
namespace {

// bash breaks words at colons, which stand behind a namespace in a key: they are put together again
// for appcfg (at an equals sign, too: --role=user are three words), and what stands before the last
// colon is taken off the answers, because bash keeps it. What the user typed as quotes and
// backslashes is not part of the key. Answers are quoted, for brackets are patterns, unless the
// user opened a quote: bash closes that one itself.
const char* const kBash = R"sh(# bash completion for appcfg: source <(appcfg completion bash)
_appcfg() {
  local -a words=()
  local i piece joined=0 quoted=0
  for ((i = 1; i <= COMP_CWORD; i++)); do
    piece=${COMP_WORDS[i]}
    if [[ $piece == "=" ]]; then
      ((i < COMP_CWORD)) || words+=("")
    elif [[ $piece == : && ${#words[@]} -gt 0 ]]; then
      words[${#words[@]}-1]+=:
      joined=1
    elif ((joined)); then
      words[${#words[@]}-1]+=$piece
      joined=0
    else
      words+=("$piece")
    fi
  done
  ((${#words[@]} > 0)) || words=("")
  local current=${words[${#words[@]}-1]}
  [[ $current == [\'\"]* ]] && quoted=1
  for i in "${!words[@]}"; do
    piece=${words[i]//[\'\"]/}
    words[i]=${piece//\\/}
  done
  current=${words[${#words[@]}-1]}

  COMPREPLY=()
  local answers status
  answers=$(command appcfg complete -- "${words[@]}" 2>/dev/null)
  status=$?
  if ((status == 10)); then
    compopt -o default 2>/dev/null
    return 0
  fi
  local kept=
  [[ $current == *:* && $COMP_WORDBREAKS == *:* && $quoted == 0 ]] && kept=${current%:*}:
  local answer
  while IFS= read -r answer; do
    [[ -n $answer ]] || continue
    answer=${answer#"$kept"}
    ((quoted)) || printf -v answer %q "$answer"
    COMPREPLY+=("$answer")
  done <<<"$answers"
  return 0
}
complete -F _appcfg appcfg
)sh";

// zsh reads the script in two ways: as a file of completion functions, whose text is then the
// function's first call, or by "source".
const char* const kZsh = R"sh(#compdef appcfg
# zsh completion for appcfg: source <(appcfg completion zsh)
_appcfg() {
  local -a typed answers
  local answered
  typed=("${(@Q)words[2,CURRENT]}")
  answered=$(command appcfg complete -- "${typed[@]}" 2>/dev/null)
  if (( $? == 10 )); then
    _files
    return
  fi
  answers=("${(@f)answered}")
  answers=("${(@)answers:#}")
  (( ${#answers} )) && compadd -U -a answers
}
if [[ ${funcstack[1]} == _appcfg ]]; then
  _appcfg "$@"
else
  compdef _appcfg appcfg
fi
)sh";

// fish quotes by itself what it inserts, and leaves out what does not begin like the word. The word that
// is being typed comes with its quotes and backslashes, which are not part of the key.
const char* const kFish = R"sh(# fish completion for appcfg: appcfg completion fish | source
function __appcfg_answers
    set -l words (commandline -opc)
    set -e words[1]
    set -l current (commandline -ct | string replace -ra '[\\\\\'"]' '')
    set -l answers (command appcfg complete -- $words "$current" 2>/dev/null)
    if test $status -eq 10
        __fish_complete_path (commandline -ct)
    else if set -q answers[1]
        printf '%s\n' $answers
    end
end
complete -c appcfg -f -a '(__appcfg_answers)'
)sh";

}  // namespace

std::string completionScript(const std::string& shell) {
  if (shell == "bash") return kBash;
  if (shell == "fish") return kFish;
  return shell == "zsh" ? kZsh : "";
}

}  // namespace AppCfgTool

# Completion of plx in bash; what it does not know are files.
_plx() {
    local IFS=$'\n'
    [[ ${COMP_WORDS[COMP_CWORD-1]} == = ]] && return # a value, behind the word that it is split from
    mapfile -t COMPREPLY < <(plx __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
    [[ ${#COMPREPLY[@]} == 1 && ${COMPREPLY[0]} == *= ]] && compopt -o nospace
}
complete -o default -F _plx plx

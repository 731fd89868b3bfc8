# Completion of plx in fish; what it does not know are files.
function __plx_complete
    set -l words (commandline -opc) (commandline -ct)
    plx __complete $words[2..-1] 2>/dev/null
end
complete -c plx -a '(__plx_complete)'

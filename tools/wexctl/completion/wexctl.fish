# fish completion for wexctl, which is asked for everything.

function __wexctl_complete
    # The word as it is meant, without the quotes that are typed.
    set -l typed (commandline -ct | string replace -r '^[\'"]' '' | string replace -a '\\' '')
    set -l words (commandline -opc) "$typed"
    set -l answers (wexctl complete $words[2..-1] 2>/dev/null)
    if test "$answers[1]" = :files
        __fish_complete_path (commandline -ct)
    else
        printf '%s\n' $answers
    end
end

complete -c wexctl -f -a '(__wexctl_complete)'

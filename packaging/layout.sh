# Tells an installed quarn-run and quarn-inbox where their programs and their boxes are. A checkout uses
# sim/layout.sh instead. The script that sources this file sets $home, which is PREFIX/lib/quarn.
# shellcheck shell=bash disable=SC2034,SC2154 # variables that only the sourcing script reads or sets

run_command=quarn-run
inbox_command=quarn-inbox
what_run_does='Runs the daemon'
tools=$(realpath "$home/../../bin")
daemon_program=$home/quarn
default_config=$home/quarn_default.cfg
version=@PROJECT_VERSION@

# simctl has the same rule. The XDG rules do not allow a relative $XDG_STATE_HOME.
default_box='' scenario_boxes=''
state=${XDG_STATE_HOME-}
[[ $state = /* ]] || state=${HOME:+$HOME/.local/state}
if [ -n "$state" ]; then
    default_box=$state/quarn/box
    scenario_boxes=$state/quarn/scenarios
fi
# shellcheck disable=SC2016 # the variable is for the reader
default_box_text='"quarn/box" in $XDG_STATE_HOME, or in ~/.local/state'

tool_prefix=''
tool_prefix_text=''

# Prints how a user calls a program of $tools: the name if the shell finds this program by its name,
# otherwise the path, quoted for the shell.
shown() { # NAME
    if [ "$(type -P "$1")" -ef "$tools/$1" ]; then echo "$1"
    else printf '%q\n' "$tools/$1"; fi
}

shown_inbox=$(shown quarn-inbox)

prepare_programs() { :; } # they are installed

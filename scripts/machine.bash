# shellcheck shell=bash disable=SC2034,SC2154
# What scripts/private-machine and scripts/booted-machine share. Each of them runs several times, each time one step
# further in: `step` names the variable that says which, as PRIVATE_MACHINE_STEP.

# Who became root by way of su may lack the folders of the administrator's programs.
PATH=$PATH:/usr/sbin:/sbin

fail() {
    echo "${script##*/}: $*" >&2
    exit 125
}

# A killed process 1 can be waited for only when every process of its machine is gone.
take_down() { # SIGNAL_NUMBER
    exec 2>/dev/null # the shell would report the death that it caused
    [[ -z ${!-} ]] || kill -KILL "$!" || true
    wait || true
    leave "$((128 + $1))"
}

# Asks the real machine's /proc, by whose ids both the keeper and process 1 know each other.
own_status() { # FIELD
    local field value
    while read -r field value; do
        [[ $field != "$1:" ]] || own_status=$value
    done </proc/self/status
}

# The process that unshare(1) has become, in new namespaces: waits for process 1 and takes it down on a signal. The first
# process that it forks becomes process 1, so it must not use any other program. Ends with leave(), which each script has.
keep() { # COMMAND...
    local own_status status=0
    trap 'take_down 1' HUP
    trap 'take_down 2' INT
    trap 'take_down 3' QUIT
    trap 'take_down 15' TERM
    # A shell's background processes lose their input and ignore Ctrl-C; both are given back. In the foreground, the shell
    # would not act on a signal before the command ends.
    own_status Pid
    env --default-signal=INT,QUIT "$step=inside" MACHINE_KEEPER="$own_status" setpriv --pdeathsig KILL "$@" <&0 &
    wait "$!" || status=$?
    leave "$status"
}

# The keeper may have been killed before this process had asked to die with it.
require_keeper() {
    local own_status
    own_status PPid
    [[ $own_status == "$MACHINE_KEEPER" ]] || fail "interrupted"
    # Those of the real machine name its folders and sockets.
    unset MACHINE_KEEPER "$step" XDG_RUNTIME_DIR XDG_SESSION_ID DBUS_SESSION_BUS_ADDRESS NOTIFY_SOCKET
}

# Fails with `text` and the last line that FUNCTION printed, when a step of it fails.
must() { # TEXT FUNCTION
    local status problem
    # Not as a condition: the shell would then go on after a step of it that failed.
    set +e
    problem=$(
        set -e
        "$2" 2>&1
    )
    status=$?
    set -e
    ((status == 0)) || fail "$1 (${problem##*$'\n'})"
}

# Not in this shell's own place: it stays as the one that reaps. Its remarks on how the command died, an exit status
# already, are kept off the command's error output.
run_and_exit() { # COMMAND...
    local status=0 errors
    { (exec -- "$@" 2>&"$errors" {errors}>&-) || status=$?; } {errors}>&2 2>/dev/null
    exit "$status"
}

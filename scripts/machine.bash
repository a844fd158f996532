# shellcheck shell=bash disable=SC2034,SC2154
# What scripts/private-machine and scripts/booted-machine share. Each of them runs several times, each time one step
# further in: `step` names the variable that says which, as PRIVATE_MACHINE_STEP.

# After su(1) the PATH may lack the folders of the administrator's programs.
PATH=$PATH:/usr/sbin:/sbin

fail() {
    echo "${script##*/}: $*" >&2
    exit 125
}

# wait(2) for a killed process 1 returns only when every process of its PID namespace is gone.
take_down() { # SIGNAL_NUMBER
    exec 2>/dev/null # the shell would report the killed process
    [[ -z ${!-} ]] || kill -KILL "$!" || true
    wait || true
    leave "$((128 + $1))"
}

# From the real machine's /proc: the keeper and process 1 know each other by these pids.
own_status() { # FIELD
    local field value
    while read -r field value; do
        [[ $field != "$1:" ]] || own_status=$value
    done </proc/self/status
}

# The process that unshare(1) has become, in new namespaces: waits for process 1 and kills it on a signal. The first process
# that it forks becomes process 1, so it must not run any other program before. Ends with leave(), which each script has.
keep() { # COMMAND...
    local own_status status=0
    trap 'take_down 1' HUP
    trap 'take_down 2' INT
    trap 'take_down 3' QUIT
    trap 'take_down 15' TERM
    # A shell gives its background processes /dev/null as input and ignores SIGINT and SIGQUIT in them; both are restored.
    # With a foreground command, the shell would not act on a signal before the command ends.
    own_status Pid
    env --default-signal=INT,QUIT "$step=inside" MACHINE_KEEPER="$own_status" setpriv --pdeathsig KILL "$@" <&0 &
    wait "$!" || status=$?
    leave "$status"
}

# The keeper may have been killed before PR_SET_PDEATHSIG was set.
require_keeper() {
    local own_status
    own_status PPid
    [[ $own_status == "$MACHINE_KEEPER" ]] || fail "interrupted"
    # These name folders and sockets of the real machine.
    unset MACHINE_KEEPER "$step" XDG_RUNTIME_DIR XDG_SESSION_ID DBUS_SESSION_BUS_ADDRESS NOTIFY_SOCKET
}

# Fails with TEXT and the last line that FUNCTION printed, when a command in it fails.
must() { # TEXT FUNCTION
    local status problem
    # Not as a condition, in which the shell ignores errexit.
    set +e
    problem=$(
        set -e
        "$2" 2>&1
    )
    status=$?
    set -e
    ((status == 0)) || fail "$1 (${problem##*$'\n'})"
}

# Without exec: this shell stays, to reap processes. Its messages about a killed command are discarded; the exit status
# tells.
run_and_exit() { # COMMAND...
    local status=0 errors
    { (exec -- "$@" 2>&"$errors" {errors}>&-) || status=$?; } {errors}>&2 2>/dev/null
    exit "$status"
}

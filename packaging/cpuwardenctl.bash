# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Completion of bash(1) for cpuwardenctl(8).
_cpuwardenctl() {
    local words=''
    case $COMP_CWORD:${COMP_WORDS[1]-} in
        1:*) words='prepare check status metrics --help --version' ;;
        2:prepare) words=--owner ;;
        3:prepare) words=$(compgen -u) ;;
        2:check) words=--launch ;;
        2:status) words=--json ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _cpuwardenctl cpuwardenctl

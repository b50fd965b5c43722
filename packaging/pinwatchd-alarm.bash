# shellcheck shell=bash
# Completion of pinwatchd-alarm for bash: commands, options, and the sections that have an alarm.

_pinwatchd_alarm() {
    local word=$2 index file=() words=() section
    if [ "$3" = --file ]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
    fi
    for ((index = 1; index < COMP_CWORD; ++index)); do
        case ${COMP_WORDS[index]} in
        --file) file=(--file "${COMP_WORDS[++index]}") ;;
        -*) ;;
        *) words+=("${COMP_WORDS[index]}") ;;
        esac
    done
    if [[ $word = -* ]] && [ ${#words[@]} -lt 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W "--file --wait --all --help --version" -- "$word")
    elif [ ${#words[@]} -eq 0 ]; then
        mapfile -t COMPREPLY < <(compgen -W "raise clear show" -- "$word")
    elif [ "${words[0]}" = show ]; then
        return
    elif [ ${#words[@]} -eq 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W "ALARM1 ALARM2" -- "${word^^}")
    elif [ ${#words[@]} -eq 1 ]; then
        while read -r section; do
            section=${section#[} section=${section%]}
            [[ $section != "$word"* ]] || COMPREPLY+=("$(printf %q "$section")")
        done < <(pinwatchd-alarm "${file[@]}" show 2>/dev/null | grep '^\[')
    fi
}
complete -F _pinwatchd_alarm pinwatchd-alarm

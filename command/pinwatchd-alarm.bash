# shellcheck shell=bash
# Completion of pinwatchd-alarm for bash: commands, options, and the sections that have an alarm.

_pinwatchd_alarm() {
    local part index line=() file=() words=() section
    # Bash divides words at ":" and "=" as well.
    for part in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
        if [[ ${#line[@]} -gt 1 && ($part = [:=]* || ${line[-1]} = *[:=]) ]]; then
            line[-1]+=$part
        else
            line+=("$part")
        fi
    done
    local word=${line[-1]} options="--file --wait --all --quiet --timeout --no-wait --help --version"
    for ((index = 1; index < ${#line[@]} - 1; ++index)); do
        case ${line[index]} in
        --file) file=(--file "${line[++index]}") ;;
        --file=*) file=("${line[index]}") ;;
        --timeout) ((++index)) ;;
        --) options= ;;
        -*) ;;
        *) words+=("${line[index]}") ;;
        esac
    done
    if [[ ${line[-2]} = --file || $word = --file=* ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "${word#--file=}")
        return
    fi
    if [[ $options && $word = -* ]] && [ ${#words[@]} -lt 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
    elif [ ${#words[@]} -eq 0 ]; then
        mapfile -t COMPREPLY < <(compgen -W "raise clear show check test" -- "$word")
    elif [[ ${words[0]} = @(show|check|test) ]]; then
        return
    elif [ ${#words[@]} -eq 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W "ALARM1 ALARM2" -- "${word^^}")
    elif [ ${#words[@]} -eq 1 ]; then
        local quote="" before=${word%"${word##*[:=]}"}
        # In quotes a section stands as it is, and is not divided.
        [[ $word != [\"\']* ]] || quote=${word:0:1} before=
        while IFS= read -r section; do
            section=${section#[} section=${section%]}
            if [ "$quote" ]; then section=$quote$section; else printf -v section %q "$section"; fi
            [[ $section != "$word"* ]] || COMPREPLY+=("${section#"$before"}")
        done < <(timeout 2 pinwatchd-alarm "${file[@]}" show 2>/dev/null | grep '^\[')
    fi
}
complete -F _pinwatchd_alarm pinwatchd-alarm

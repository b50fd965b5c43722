# shellcheck shell=bash
# Completion of pinwatchd-alarm for bash: commands, options, and the sections that have an alarm.

_pinwatchd_alarm() {
    local line word last="" at=() words=() known=() kept each
    # Not COMP_WORDS, which bash divides at ":" as well. The dot makes a word of an empty one.
    # shellcheck disable=SC2162 # a blank behind a backslash belongs to its word
    read -a line <<<"${COMP_LINE:0:COMP_POINT}."
    for word in "${line[@]:1:${#line[@]}-2}"; do
        [ "$last" != --file ] || at=(--file "$word")
        [[ $last = --@(file|timeout) || $word = -* ]] || words+=("$word")
        last=$word
    done
    case "$last ${#words[@]} ${words[0]-}" in
    --file*) compopt -o default ;;
    *" 0 ") known=(raise clear show check test) ;;
    *" 1 raise" | *" 1 clear")
        mapfile -t known < <(timeout 2 pinwatchd-alarm "${at[@]}" show 2>/dev/null |
            sed -n 's/^\[\(.*\)]$/\1/p')
        ;;
    *" 2 raise" | *" 2 clear") known=(ALARM1 ALARM2) ;;
    esac
    word=${line[-1]%.}
    [[ $word != -* ]] || known+=(--file --wait --all --quiet --timeout --no-wait --help --version)
    kept=${word%"${word##*[:=]}"} # by bash, to which only what follows is the word
    for each in "${known[@]}"; do
        [[ ${each^^} != "${word^^}"* ]] || COMPREPLY+=("$(printf %q "${each:${#kept}}")")
    done
}
complete -F _pinwatchd_alarm pinwatchd-alarm

# The summary that ./run prints at its end, and its verdict. Sourced by ./run.
#
# Uses the variables of ./run and run_watch.sh. Adds one word to $wrong for each failure.
# shellcheck shell=bash disable=SC2154

wrong=()

row() { # NAME VALUE [UNIT]
    printf '  %-26s %15s%s\n' "$1" "$2" "${3:+ $3}"
}

files_text() { # COUNT
    if [ "$1" = 1 ]; then echo "1 file"; else echo "$1 files"; fi
}

# The figures of the run, by the names that "expect" uses.
declare -A figure=()

summarise() {
    local restarts delivered decoded=0 missing same
    mapfile -t files < <(captured_files)
    mapfile -t captures < <(printf '%s\n' "${files[@]%/*}" | sort -u)
    # The modem keeps this number over restarts of the daemon. It is exact even after a kill.
    delivered=$(delivered_so_far)
    restarts=$(cat "$box/modem/restarts" 2>/dev/null)
    if [ ${#files[@]} -gt 0 ]; then
        decoded=$("$tools/muxz" cat "${files[@]}" 2>/dev/null | wc -c; exit "${PIPESTATUS[0]}") || {
            complain "not all of it decodes: $(shown muxz) verify $logs"
            wrong+=(decoding)
        }
    fi
    missing=$((delivered - decoded - recycled_raw))
    figure=([delivered]=$delivered [decoded]=$decoded [missing]=$missing [files]=${#files[@]}
            [captures]=$([ ${#files[@]} = 0 ] && echo 0 || echo ${#captures[@]}) [exceptions]=$exceptions
            [marked]=$(printf '%s\n' "${captures[@]}" | grep -c '_EE$')
            [restarts]=${restarts:-0} [recycled]=$recycled_files [stalls]=$stalls [drops]=$drops)

    printf '\nCaptured:\n'
    [ -z "$restarts" ] || row "restarts of the daemon" "$restarts"
    [ "$exceptions" = 0 ] || row "exceptions of the modem" "$exceptions"
    row "handed over by the modem" "$delivered" bytes
    row "on storage" "$packed" "bytes in $(files_text ${#files[@]})"
    row "decoded from there" "$decoded" bytes
    if [ "$recycled_files" != 0 ]; then
        row "recycled" "$recycled_bytes" "bytes in $(files_text "$recycled_files")"
        [ "$recycled_raw" = 0 ] || row "decoded before that" "$recycled_raw" bytes
    fi
    [ "$recycled_earlier" = 0 ] || row "recycled of earlier runs" "$recycled_earlier" files
    if [ "$recycled_uncounted" = 0 ]; then row missing "$missing" bytes
    else row "missing, or recycled" "$missing" "bytes ($recycled_uncounted files were recycled too soon to be counted)"; fi
    if [ -n "$replay" ]; then
        compare_with_replay "$delivered" "$decoded"
        row "same as $(basename "$replay")" "$same"
    fi
    if [ ${#files[@]} -gt 0 ]; then printf '  in %s\n' "${captures[@]}"; fi
}

# Sets $same. After recycling, the decoded bytes must equal the end of the replayed stream.
compare_with_replay() { # DELIVERED DECODED
    local from=0
    same=yes
    if [ "$recycled_files" != 0 ]; then
        from=$(($1 - $2))
        same="yes, the last $2 bytes"
    elif [ "$1" != "$2" ]; then
        same="no, not as long"
    fi
    if [ "$from" -lt 0 ] || ! cmp -s <("$tools/muxz" cat "${files[@]}" 2>/dev/null) \
        <(tail -c "+$((from + 1))" "$replay" | head -c "$2"); then
        same=no
    fi
    [ "${same%%,*}" = yes ] || wrong+=(replay)
}

# --- The "expect" lines of a scenario ---

expected_line='^[[:space:]]*expect[[:space:]]+(log[[:space:]]+("[^"]*"|[^[:space:]]+)|[a-z]+)[[:space:]]+([!<>]?=|[<>])[[:space:]]+([0-9]+([kMG]|[KMG]i)?)[[:space:]]*$'

bytes_of() { # NUMBER with an optional unit
    local n=${1%%[!0-9]*}
    case ${1#"$n"} in
        k) n=$((n * 1000)) ;; M) n=$((n * 1000000)) ;; G) n=$((n * 1000000000)) ;;
        Ki) n=$((n << 10)) ;; Mi) n=$((n << 20)) ;; Gi) n=$((n << 30)) ;;
    esac
    echo "$n"
}

holds() { # VALUE OPERATOR NUMBER
    case $2 in
        =) [ "$1" -eq "$3" ] ;; '!=') [ "$1" -ne "$3" ] ;;
        '<') [ "$1" -lt "$3" ] ;; '<=') [ "$1" -le "$3" ] ;;
        '>') [ "$1" -gt "$3" ] ;; '>=') [ "$1" -ge "$3" ] ;;
    esac
}

judge() { # SCENARIO
    local line what text operator number is
    grep -Eq '^[[:space:]]*expect[[:space:]]' "$1" || return 0
    printf '\nExpected:\n'
    while IFS= read -r line; do
        [[ ${line%$'\r'} =~ $expected_line ]] || continue
        what=${BASH_REMATCH[1]} text=${BASH_REMATCH[2]//\"/} operator=${BASH_REMATCH[3]} number=${BASH_REMATCH[4]}
        if [ -n "$text" ]; then is=$(cat "$kept_log.old" "$kept_log" 2>/dev/null | grep -acF -- "$text")
        else is=${figure[$what]-}; fi
        if holds "${is:-0}" "$operator" "$(bytes_of "$number")"; then
            printf '  %-60s yes\n' "$what $operator $number"
        else
            printf '  %-60s NO: it is %s\n' "$what $operator $number" "${is:-unknown}"
            wrong+=(expectation)
        fi
    done <"$1"
}

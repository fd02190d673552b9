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
            complain "not all of it decodes: $(shown muxz) verify $quoted_logs"
            wrong+=(decoding)
        }
    fi
    missing=$((delivered - decoded - recycled_raw))
    figure=([delivered]=$delivered [decoded]=$decoded [missing]=$missing [files]=${#files[@]}
            [captures]=$([ ${#files[@]} = 0 ] && echo 0 || echo ${#captures[@]}) [exceptions]=$exceptions
            [marked]=$(printf '%s\n' "${captures[@]}" | grep -c '_EE$')
            [restarts]=${restarts:-0} [recycled]=$recycled_files [stalls]=$stalls [drops]=$drops)

    # Files that are gone and were not counted explain any number.
    if [ "$missing" != 0 ] && [ "$recycled_uncounted$removed_files" = 00 ] && ! names_figure missing; then
        complain "$missing bytes are missing, but no deleted file explains it"
        wrong+=(missing)
    fi

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
    [ "$removed_files" = 0 ] || row "deleted, not recycled" "$removed_files" "$(files_text "$removed_files" | cut -d' ' -f2)"
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

# --- The lines of a scenario ---

# Splits a line into $words as the phone does (SplitLine in sim/console.cpp): quotes may stand anywhere,
# and a carriage return is a blank.
split_line() { # LINE
    local LC_ALL=C rest=$1 word
    word=$'^[ \t\r]*((\"[^\"]*\"|[^ \t\r\"])+)(.*)$'
    words=()
    while [[ $rest =~ $word ]]; do words+=("${BASH_REMATCH[1]//\"/}") rest=${BASH_REMATCH[3]}; done
}

bytes_of() { # NUMBER with an optional unit, of a line that "simctl check" accepts
    local n=${1%%[!0-9]*} factor=1
    case ${1#"$n"} in
        k) factor=1000 ;; M) factor=1000000 ;; G) factor=1000000000 ;;
        Ki) factor=$((1 << 10)) ;; Mi) factor=$((1 << 20)) ;; Gi) factor=$((1 << 30)) ;;
    esac
    echo $((10#${n:-0} * factor))
}

# Prints the bytes that the last line "storage" of a scenario gives, or nothing if there is none.
storage_of() { # SCENARIO
    local line words size=
    while IFS= read -r line || [ -n "$line" ]; do
        split_line "$line"
        [ "${words[0]-}" != storage ] || size=$(bytes_of "${words[1]}")
    done <"$1"
    echo "$size"
}

# Returns 0 if the scenario says what this figure has to be.
names_figure() { # FIGURE
    local line words
    [ -n "$scenario" ] || return 1
    while IFS= read -r line || [ -n "$line" ]; do
        split_line "$line"
        [ "${words[*]:0:2}" != "expect $1" ] || return 0
    done <"$scenario"
    return 1
}

holds() { # VALUE OPERATOR NUMBER
    case $2 in
        =) [ "$1" -eq "$3" ] ;; '!=') [ "$1" -ne "$3" ] ;;
        '<') [ "$1" -lt "$3" ] ;; '<=') [ "$1" -le "$3" ] ;;
        '>') [ "$1" -gt "$3" ] ;; '>=') [ "$1" -ge "$3" ] ;;
        *) return 1 ;;
    esac
}

judge() { # SCENARIO. Each line "expect" is a success or a failure; none is left out.
    local line words what is title='\nExpected:\n'
    while IFS= read -r line || [ -n "$line" ]; do
        split_line "$line"
        [ "${words[0]-}" = expect ] || continue
        # shellcheck disable=SC2059 # the text is a format
        printf "$title"
        title=
        words=("${words[@]:1}")
        if [ "${words[0]-}" = log ] && [ ${#words[@]} = 4 ]; then
            is=$(cat "$kept_log.old" "$kept_log" 2>/dev/null | grep -acF -- "${words[1]}")
            words=("log \"${words[1]}\"" "${words[@]:2}")
        else
            is=${figure[${words[0]:-none}]-}
        fi
        what=${words[*]}
        if [ -z "$is" ] || [ ${#words[@]} != 3 ]; then
            printf '  %-60s NO: cannot be judged\n' "$what"
            wrong+=(expectation)
        elif holds "$is" "${words[1]}" "$(bytes_of "${words[2]}")"; then
            printf '  %-60s yes\n' "$what"
        else
            printf '  %-60s NO: it is %s\n' "$what" "$is"
            wrong+=(expectation)
        fi
    done <"$1"
}

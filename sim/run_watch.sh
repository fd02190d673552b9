# The output of ./run while it runs: a status line, and a line for each important event. Sourced by ./run.
#
# Uses $box, $kept_log, $tools and $storage. $logs is the log folder as seen from outside the box.
# shellcheck shell=bash disable=SC2154,SC2034 # variables that ./run sets, and variables that it reads

declare -A phone=()             # the last known state of the simulated phone
declare -A size_of=()           # last known size in bytes of each log file of this run, by key
declare -A earlier=()           # keys of the log files of earlier runs
seen=$box/modem/seen            # folder with a hard link to each log file of this run, named by key
packed=0 files_there=0          # total bytes and number of the existing log files
recycled_files=0 recycled_bytes=0 recycled_raw=0 recycled_uncounted=0 recycled_earlier=0
removed_files=0                 # log files of this run that somebody else than the daemon deleted
declare -A inode_of=()          # inode of each log file of this run, by key
replaced_files=0                # those of them whose key a newer file has
exceptions=0 stalls=0 drops=0 scenario_fault=
log_at=0 log_inode=''

# --- The terminal ---

# Prints a number of bytes for people: 1234567 is "1.2 MB".
human() { # BYTES
    local n=$1 unit=B fraction='' next
    for next in kB MB GB TB; do
        [ "$n" -ge 1000 ] || break
        fraction=.$((n % 1000 / 100)) n=$((n / 1000)) unit=$next
    done
    echo "$n$fraction $unit"
}

status_shown=
on_terminal=
if [ -t 2 ] && [ -z "${show_log-}" ]; then on_terminal=yes; fi
measure_terminal() { width=$(stty size <&2 2>/dev/null | cut -d' ' -f2); [ "${width:-0}" -gt 0 ] || width=80; }

# The status line is cut to the terminal's width. A carriage return works on every terminal, so no escape
# codes are needed.
clear_status() {
    [ -n "$status_shown" ] || return 0
    # The terminal may have become narrower since.
    printf '\r%*s\r' $((${#status_shown} < width ? ${#status_shown} : width - 1)) '' >&2
    status_shown=
}
show_status() { # TEXT
    local text=${1:0:$((width - 1))} end=${#status_shown}
    [ "$end" -lt "$width" ] || end=$((width - 1)) # the terminal may have become narrower
    printf '\r%s%*s' "$text" $((end > ${#text} ? end - ${#text} : 0)) '' >&2
    status_shown=$text
}
tell() { # TEXT. Control characters are replaced, since clients choose some of the names in it.
    clear_status
    echo "run: ${1//[[:cntrl:]]/?}" >&2
}

# --- The phone ---

# The phone runs in the process of the daemon. If that hangs, each call holds up ./run for $patience seconds.
simctl() { "$tools/simctl" --box "$box" --timeout "${patience-2}" "$@" 2>/dev/null; }

# Reads the state into $phone. Fails while the phone does not answer.
ask_phone() {
    local line
    phone=()
    while IFS= read -r line; do phone[${line%%: *}]=${line#*: }; done < <(simctl state)
    [ -n "${phone[host_sent]-}" ] || { phone=(); return 1; } # no answer, or the last row is missing
    [ -z "$storage" ] || logs=/proc/${phone[pid]}/root$tree
}

phone_does() {
    [ ${#phone[@]} -gt 0 ] || { echo "phone does not answer"; return; }
    local text=${phone[log_mode]#* }
    if [ "${phone[log_device]}" = removed ]; then text="log device removed"
    elif [ "${phone[port_open]}" = no ]; then text="port closed"
    elif [ "${phone[stream]}" = stopped ]; then text="stream stopped"
    elif [ "${phone[at_its_end]}" = yes ]; then text="replay at its end"; fi
    text=${text//[()]/}
    [ "${phone[sprinkled_faults]%% *}" = 0 ] || text+=", ${phone[sprinkled_faults]} faults"
    echo "$text"
}

# --- The log files ---

# The key of a log file does not change when the file and its folder are renamed. The key of
# "QRXMDLog_3_.../QRXMDLog_0_....muxz.tmp" is "3-0".
key_of() { # PATH; sets $key
    [[ $1 =~ /QRXMDLog_([0-9]+)_[^/]*/QRXMDLog_([0-9]+)_[^/]*$ ]] && key=${BASH_REMATCH[1]}-${BASH_REMATCH[2]}
}

# Prints "BYTES INODE PATH" for each log file of this run.
list_files() {
    find "$logs" -type f -path '*/QRXMDLog_*/*.muxz*' -newer "$box/modem/started" -printf '%s %i %p\n' 2>/dev/null
}

# Remembers the log files that exist before the daemon starts: they belong to earlier runs.
note_earlier_files() {
    local path key
    while IFS= read -r path; do
        if key_of "$path"; then earlier[$key]=yes; fi
    done < <(find "$logs" -type f 2>/dev/null)
    rm -rf "$seen" && mkdir "$seen"
}

# Makes a hard link to each file, so that the file can still be read after it has been recycled. A storage
# of limited size is a file system of its own, so this is not possible there; at the end, its files are
# copied, so their inodes change.
scan_files() {
    local size inode path key copied=
    local -A found=()
    if [ -n "$storage" ] && [ "$logs" = "$box$tree" ]; then copied=yes; fi
    packed=0 files_there=0
    while IFS=' ' read -r size inode path; do
        key_of "$path" || continue
        if [ -z "$copied" ]; then
            if [ "${inode_of[$key]-$inode}" != "$inode" ]; then
                replaced_files=$((replaced_files + 1))
                unset "size_of[$key]"
                rm -f "$seen/$key"
            fi
            inode_of[$key]=$inode
        fi
        packed=$((packed + size)) files_there=$((files_there + 1))
        if [ -z "${size_of[$key]-}" ] && [ -z "$storage" ]; then ln "$path" "$seen/$key" 2>/dev/null; fi
        size_of[$key]=$size found[$key]=yes
    done < <(list_files)
    removed_files=$replaced_files
    for key in "${!size_of[@]}"; do [ -n "${found[$key]-}" ] || removed_files=$((removed_files + 1)); done
}

forget_file() { # PATH of a file that has been recycled
    local key size raw
    key_of "$1" || return 0
    recycled_now=$((recycled_now + 1))
    [ -z "${earlier[$key]-}" ] || { recycled_earlier=$((recycled_earlier + 1)); return 0; }
    recycled_files=$((recycled_files + 1))
    if size=$(stat -c %s "$seen/$key" 2>/dev/null) &&
        raw=$("$tools/muxz" cat "$seen/$key" 2>/dev/null | wc -c; exit "${PIPESTATUS[0]}"); then
        recycled_raw=$((recycled_raw + raw))
    else
        size=${size_of[$key]-0} recycled_uncounted=$((recycled_uncounted + 1))
    fi
    recycled_bytes=$((recycled_bytes + size))
    unset "size_of[$key]" "inode_of[$key]"
    rm -f "$seen/$key"
}

# --- The Android log ---

# Errors that a healthy daemon logs too. docs/android-log.md explains them.
harmless='quarn_property_set: rc 0|folder already created|quarn\.cfg failed, errno=No such|failed to get platform data|no modem info|missing modem info|is closed, try reopen|file_io: already close|left tot_read_len|md_time_sync_handle: (wait|stop)|errno = Interrupted|msg fail, close it|receive cmd fail, rc=0|restart quarn'
of_note=' E (QUARN|SIM) |start init quarn|notify_handler: ntfy_code=6|wwanD0MDLog is removed|LogFileRecycler: remove |log buffer stall count|: (write_handler|quarn): drop [0-9]+ bytes'

declare -A last_told=()
# Prints an event, unless the same kind of event occurred in the ten seconds before.
tell_once() { # KIND TEXT
    local kind=.$1 before # a key must not be empty
    before=${last_told[$kind]--10}
    last_told[$kind]=$SECONDS
    [ $((SECONDS - before)) -lt 10 ] || tell "$2"
}

starts=0 recycled_now=0
note_line() { # LINE of the kept log
    local text=${1#* QUARN   : }
    # Clients can write any text into a message of the daemon, so the tag must stand in its column.
    if [[ $1 =~ ^[0-9.:\ -]+\ E\ SIM\ +:\ (.*) ]]; then
        note_fault "${BASH_REMATCH[1]}"
        return 0
    fi
    case $text in
        "start init quarn")
            starts=$((starts + 1))
            [ $starts = 1 ] || tell "the daemon has started anew"
            ;;
        "notify_handler: ntfy_code=6") exceptions=$((exceptions + 1)); tell "exception of the modem" ;;
        *"wwanD0MDLog is removed"*) tell "the modem's log device is removed: the daemon asks for its restart" ;;
        "LogFileRecycler: remove folder "*) tell "recycled: folder ${text##*/}" ;;
        "LogFileRecycler: remove file "*) forget_file "$text" ;;
        # Clients can write into the log. Only digits may reach the arithmetic: bash would execute the
        # command in "a[$(command)]".
        "log buffer stall count: "*)
            [[ $text =~ ^[^:]*:\ ([0-9]+)$ ]] || return 0
            stalls=$((stalls + 10#${BASH_REMATCH[1]}))
            tell_once stall "the ring was full: the modem waits"
            ;;
        "write_handler: drop "* | "quarn: drop "*)
            [[ $text =~ ^[^:]*:\ drop\ ([0-9]+)\ bytes ]] || return 0
            drops=$((drops + 10#${BASH_REMATCH[1]}))
            tell "the daemon dropped ${BASH_REMATCH[1]} bytes"
            ;;
        *) [[ $text =~ $harmless ]] || tell_once "${text//[0-9]/}" "error: $text" ;;
    esac
}

note_fault() { # WHERE: WHY
    local line=${1#*, line }
    case $1 in
        /box/modem/scenario,*) scenario_fault="$scenario, line $line" ;;
        /box/modem/*) scenario_fault=${1#/box/modem/} ;;
        *) tell "${1#after: }" ;;
    esac
}

read_log() { # FILE FROM SIZE
    local line
    while IFS= read -r line; do note_line "$line"; done < <(
        tail -c "+$(($2 + 1))" "$1" 2>/dev/null | head -c $(($3 - $2)) | grep -aE "$of_note"
    )
}

follow_log() {
    local inode size
    read -r inode size < <(stat -c '%i %s' "$kept_log" 2>/dev/null) || return 0
    if [ -n "$log_inode" ] && [ "$inode" != "$log_inode" ]; then
        read_log "$kept_log.old" "$log_at" "$(stat -c %s "$kept_log.old" 2>/dev/null || echo 0)"
        log_at=0
    fi
    log_inode=$inode
    [ "$size" -le "$log_at" ] || read_log "$kept_log" "$log_at" "$size"
    log_at=$size
    case $recycled_now in
        0) ;;
        1) tell "recycled: a file" ;;
        *) tell "recycled: $recycled_now files" ;;
    esac
    recycled_now=0
}

# --- The status line ---

declare -a samples=() # "MILLISECONDS DELIVERED PACKED" of the last eight seconds
milliseconds() { local now=${EPOCHREALTIME//[.,]/}; echo $((now / 1000)); }

delivered_so_far() {
    local n=0
    { read -r n <"$box/modem/delivered"; } 2>/dev/null
    echo $((10#${n:-0}))
}

# Sets $status_line. Must not run in a subshell, since it changes $samples.
make_status() {
    local raw total now first ms ratio=- in=0 out=0 time
    raw=$(delivered_so_far)
    total=$((packed + recycled_bytes))
    now=$(milliseconds)
    samples+=("$now $raw $total")
    while [ ${#samples[@]} -gt 2 ] && [ $((now - ${samples[0]%% *})) -gt 8000 ]; do samples=("${samples[@]:1}"); done
    read -r ms first <<<"${samples[0]}"
    if [ $((now - ms)) -gt 0 ]; then
        in=$(((raw - ${first% *}) * 1000 / (now - ms)))
        out=$(((total - ${first#* }) * 1000 / (now - ms)))
    fi
    [ $total = 0 ] || ratio=$((raw / total)).$((raw * 10 / total % 10))
    printf -v time '%d:%02d' $((SECONDS / 60)) $((SECONDS % 60))
    status_line="$time $(phone_does)  in $(human $in)/s out $(human $((out > 0 ? out : 0)))/s"
    status_line+="  stalls $stalls drops $drops"
    status_line+="  $(human "$raw") > $(human $total) ($ratio)  files $files_there"
}

last_line=0
# Reads the log and the files once. Updates the line on a terminal, or else prints it every eight seconds.
watch() {
    follow_log
    scan_files
    make_status
    if [ -n "$on_terminal" ]; then
        show_status "$status_line"
    elif [ $((SECONDS - last_line)) -ge 8 ]; then
        last_line=$SECONDS
        echo "run: $status_line" >&2
    fi
}

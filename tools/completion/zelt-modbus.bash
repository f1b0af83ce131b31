# bash completion for zelt-modbus                                  -*- shell-script -*-
#
# Commands, options and the choices of an option come from the tool's own --help, so that the completion follows
# the installed tool as it gains commands, options and choices. Only what --help does not spell out as a list
# (the tables of map, the register types, the network interfaces) is written down here.

# The commands, from the "Commands:" block of `zelt-modbus --help`.
_zelt_modbus_commands() {
    "$1" --help 2>/dev/null | sed -n '/^Commands:$/,/^$/s/^  \([a-z][a-z0-9-]*\) .*/\1/p'
}

# The options of one command, one a line: "--name", or "--name VALUE  help text" for one that takes a value.
_zelt_modbus_option_lines() {
    "$1" "$2" --help 2>/dev/null | sed -n -e 's/^  \(--[a-z0-9-]*\)  .*/\1/p' \
        -e 's/^  \(--[a-z0-9-]*\) \([^ ]*\)  *\(.*\)/\1 \2  \3/p'
}

# The choices an option's help text lists, as in "tcp (Modbus TCP) or rtu (...); default: ..." or "with --tls:
# a, b or c": remarks in parentheses, everything after ";" and a leading "label:" aside, at least two single
# words separated by "," or "or". Nothing when the text is no such list.
_zelt_modbus_choices() {
    local text choices choice words
    text=$(printf '%s\n' "$1" | sed -e 's/([^()]*)//g' -e 's/;.*//' -e 's/^.*: //' -e 's/ or /,/g')
    choices=()
    IFS=, read -r -a words <<<"$text"
    for choice in "${words[@]}"; do
        choice=${choice#"${choice%%[! ]*}"}
        choice=${choice%"${choice##*[! ]}"}
        [[ $choice =~ ^[A-Za-z0-9_]+$ ]] || return 0
        choices+=("$choice")
    done
    [ ${#choices[@]} -ge 2 ] && printf '%s\n' "${choices[@]}"
    return 0
}

# Completes the value of option $3 of command $2 of program $1 from the word $4; returns 1 when the option takes
# no value.
_zelt_modbus_value() {
    local program=$1 command=$2 option=$3 cur=$4 line valuename help choices
    line=$(_zelt_modbus_option_lines "$program" "$command" | grep -m1 -- "^$option ")
    [ -n "$line" ] || return 1
    valuename=${line#"$option "}
    valuename=${valuename%%" "*}
    help=${line#"$option $valuename  "}
    case $option in
        --register-type)
            mapfile -t COMPREPLY < <(compgen -W '0 1 2 3 4' -- "$cur")
            ;;
        --tables)
            # A comma-separated list: complete the table after the last comma, keep what comes before it.
            local given=${cur%"${cur##*,}"} table
            mapfile -t COMPREPLY < <(for table in holding input coils discrete; do
                case ",$given" in *",$table,"*) continue ;; esac
                case $given$table in "$cur"*) printf '%s\n' "$given$table" ;; esac
            done)
            compopt -o nospace 2>/dev/null
            ;;
        --interface)
            mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$cur")
            ;;
        *)
            case $valuename in
                FILE | PATH)
                    if declare -F _filedir >/dev/null; then
                        _filedir
                    else
                        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
                    fi
                    ;;
                DIR)
                    if declare -F _filedir >/dev/null; then
                        _filedir -d
                    else
                        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
                    fi
                    ;;
                *)
                    # A list of choices, else a number, an address or a text: nothing to offer.
                    choices=$(_zelt_modbus_choices "$help")
                    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$cur")
                    ;;
            esac
            ;;
    esac
    return 0
}

_zelt_modbus() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local program=${COMP_WORDS[0]} command i
    COMPREPLY=()

    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_zelt_modbus_commands "$program") --help --version" -- "$cur")
        return 0
    fi
    command=${COMP_WORDS[1]}
    case $command in
        -* | help) return 0 ;;
    esac

    # "--option=value": bash splits it at "=" into "--option", "=" and "value".
    if [ "$cur" = "=" ]; then
        _zelt_modbus_value "$program" "$command" "$prev" "" && return 0
    elif [ "$prev" = "=" ] && [ "$COMP_CWORD" -ge 3 ]; then
        _zelt_modbus_value "$program" "$command" "${COMP_WORDS[COMP_CWORD - 2]}" "$cur" && return 0
    elif [[ $prev == --* ]]; then
        _zelt_modbus_value "$program" "$command" "$prev" "$cur" && return 0
    fi

    if [[ $cur == -* || -z $cur ]]; then
        local options
        options=$(_zelt_modbus_option_lines "$program" "$command" | sed 's/ .*//')
        # An option given once already is not offered again.
        for ((i = 2; i < COMP_CWORD; i++)); do
            options=$(printf '%s\n' "$options" | grep -vxF -- "${COMP_WORDS[i]}")
        done
        mapfile -t COMPREPLY < <(compgen -W "$options --version" -- "$cur")
    fi
    return 0
}

complete -F _zelt_modbus zelt-modbus

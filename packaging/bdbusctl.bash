# SPDX-License-Identifier: LGPL-2.1-or-later
# Completion of bdbusctl for bash. Families, verbs and options come from the program's own help.

# The words that a help text offers: the options and, below "Subcommands:", the commands.
_bdbusctl_offers()
{
    "$@" --help 2>/dev/null | awk '
        /^Subcommands:/ { commands = 1; next }
        /^[^ ]/ { commands = 0 }
        commands && /^  [a-z]/ { print $1 }
        /^  -/ { gsub(",", " "); for (i = 1; i <= NF && $i ~ /^-/; i++) print $i }'
}

_bdbusctl()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} word path=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word == [a-z]* && ${#path[@]} -lt 2 ]] && path+=("$word")
    done
    compopt +o default
    case "$previous" in
    --json | =)
        COMPREPLY=($(compgen -W 'short pretty off' -- "${current#=}"))
        return
        ;;
    --output | -o | --oem)
        compopt -o default
        COMPREPLY=()
        return
        ;;
    esac
    local words
    words=$(_bdbusctl_offers "$1"; [[ ${#path[@]} -gt 0 ]] && _bdbusctl_offers "$1" "${path[@]}")
    [[ ${#path[@]} -gt 0 ]] && words=$(grep -e '^-' <<<"$words"; _bdbusctl_offers "$1" "${path[@]}")
    case "${path[*]}" in
    'config get' | 'config set')
        words+=' Firmware.Aux Firmware.Has_Signature Firmware.Major Firmware.Minor Generic.Device_Id Generic.Device_Name
            Generic.Device_Revision Generic.Manufacturer_Id Generic.Product_Id Generic_Index Hpm2.Dynamic_Credentials
            Hpm2.Dynamic_Credentials_Reuse Hpm2.Enabled Hpm2.Packet_Trace Hpm3.Enabled'
        ;;
    'hpm1 action')
        words+=' backup prepare upload'
        ;;
    'upgrade run' | 'image info' | 'image verify')
        [[ $current != -* ]] && compopt -o default && words=
        ;;
    esac
    COMPREPLY=($(compgen -W "$words" -- "$current"))
}

complete -F _bdbusctl bdbusctl

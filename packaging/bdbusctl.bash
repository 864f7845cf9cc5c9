# SPDX-License-Identifier: LGPL-2.1-or-later
# shellcheck shell=bash
# Completion of bdbusctl for bash. Families, verbs and options are read from the program's own help.

# What a help text offers: its options when the word begins with "-", else the families or verbs.
_bdbusctl_offers()
{
    local word=$1
    shift
    "$@" --help 2>/dev/null | awk -v options="${word:0:1}" '
        /^(Families|Verbs):/ { commands = 1; next }
        /^[^ ]/ { commands = 0 }
        options != "-" && commands && /^  [a-z]/ { print $1 }
        options == "-" && /^  -/ { gsub(",", " "); for (i = 1; i <= NF && $i ~ /^-/; i++) print $i }'
}

_bdbusctl()
{
    local program=$1 current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    local word words path=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word == [a-z]* && ${#path[@]} -lt 2 ]] && path+=("$word")
    done

    case $previous in
    --json | =)
        words='short pretty off'
        current=${current#=}
        ;;
    --output | -o | --oem | --password-file)
        compopt -o default
        ;;
    *)
        words=$(_bdbusctl_offers "$current" "$program" "${path[@]}")
        [[ $current == -* ]] && words+=" $(_bdbusctl_offers "$current" "$program")"
        ;;
    esac
    if [[ $current != -* && -z $words ]]; then
        case ${path[*]} in
        'config get' | 'config set')
            words='Firmware.Aux Firmware.Has_Signature Firmware.Major Firmware.Minor Generic.Device_Id
                Generic.Device_Name Generic.Device_Revision Generic.Manufacturer_Id Generic.Product_Id Generic_Index
                Hpm2.Dynamic_Credentials Hpm2.Dynamic_Credentials_Reuse Hpm2.Enabled Hpm2.Packet_Trace Hpm3.Enabled'
            ;;
        'hpm1 action')
            words='backup prepare upload'
            ;;
        'rstorage gadget')
            words='start stop'
            ;;
        'hpm1 properties')
            words='general current-version description rollback-version deferred-version'
            ;;
        'raid locate')
            words='vd pd start stop'
            ;;
        'raid spare')
            words='add remove'
            ;;
        'upgrade set-flash')
            words='bmc bios'
            ;;
        'upgrade set-version')
            words='bios nvram'
            ;;
        'upgrade notify')
            words='sensors-ready fpga-change bios-change nvram-change'
            ;;
        'upgrade run' | 'image info' | 'image verify' | 'sdr add')
            compopt -o default
            ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current" | sort -u)
}

complete -F _bdbusctl bdbusctl

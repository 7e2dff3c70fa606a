# bash completion for sk, the Skelvo command-line tool.
# Installed as share/bash-completion/completions/sk; bash-completion loads it on demand.

_sk_files()
{
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

_sk()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="list run move-action add-action remove-action set-icon list-action-types
        action-info list-running cancel add list-items rename remove lock unlock clear
        open-dropbar close-dropbar open close status list-grids switch-grid create-grid
        remove-grid grid-settings list-categories add-category remove-category
        list-addon-actions install-action uninstall-action update-actions monitor settings
        inspect-action
        request help"
    # The second words of the two-word commands.
    local settings_commands="get set reset"
    local monitor_commands="list add remove enable disable confirm log"
    local setting_keys="PlaySounds NotificationsEnabled SelectedGridId ScreenTopDragEnabled
        AutoClosePopOutDropBar AutoAddScreenshotsToDropBar ScreenshotsTargetGridId
        ScreenshotsActionId ScreenshotsKeepInDropBar ScreenshotsConfirmBeforeAction
        ScreenshotsFolder MonitoredFolders DevelopPreferredLanguage IncludeDevelopComments
        KeepTaskDescriptionFiles DisableSSLVerify GridPositionLoggingEnabled AssignedServiceKeys
        GridIconSize"

    # The command is the first word that is not an option given before it (--start).
    local i command= first=0
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} != -* ]]; then
            command=${COMP_WORDS[i]}
            first=$i
            break
        fi
    done
    if [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands --start --help --version" -- "$cur")
        return
    fi
    # A family's command is named by two words: "monitor add".
    if [[ $command == settings || $command == monitor ]]; then
        local family=${command}_commands
        if ((COMP_CWORD == first + 1)) && [[ $cur != -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "${!family}" -- "$cur")
            return
        fi
        local second=${COMP_WORDS[first + 1]}
        if [[ " ${!family} " == *" $second "* ]]; then
            command="$command $second"
        fi
    fi

    # Here --drop-bar takes a grid's name, not on or off.
    if [[ $command == "monitor add" && $prev == --drop-bar ]]; then
        return
    fi
    case $prev in
    --event)
        mapfile -t COMPREPLY < <(compgen -W "clicked dragged test_connection" -- "$cur")
        return
        ;;
    --modifier)
        mapfile -t COMPREPLY < <(compgen -W "option command shift control" -- "$cur")
        return
        ;;
    --drop-bar | --switcher)
        mapfile -t COMPREPLY < <(compgen -W "on off" -- "$cur")
        return
        ;;
    --icon)
        _sk_files "$cur"
        return
        ;;
    --grid | --from-grid | --category | --position | --text | --name | --new-name | \
        --stack-index | --cols | --size | --limit | --action)
        # A free value: nothing to offer.
        return
        ;;
    esac

    local options=
    case $command in
    list) options="--grid --json" ;;
    run) options="--event --modifier --text" ;;
    move-action) options="--category --grid --from-grid --position" ;;
    add-action) options="--grid --category --name --icon --options" ;;
    remove-action) options="--grid" ;;
    set-icon) options="--icon --reset --grid" ;;
    list-action-types) options="--json" ;;
    list-running) options="--json" ;;
    add) options="--text --stack --stack-index --name" ;;
    list-items) options="--json" ;;
    rename) options="--new-name --reset" ;;
    list-grids) options="--json" ;;
    grid-settings) options="--name --cols --size --drop-bar --switcher" ;;
    list-categories) options="--grid --json" ;;
    add-category) options="--grid" ;;
    remove-category) options="--grid" ;;
    list-addon-actions) options="--json" ;;
    install-action) options="--force" ;;
    inspect-action) options="--compact" ;;
    settings) options="--json" ;;
    "monitor list") options="--json" ;;
    "monitor add") options="--action --grid --drop-bar --confirm --catch-up" ;;
    "monitor log") options="--limit --json" ;;
    esac

    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options --help" -- "$cur")
        return
    fi
    case $command in
    run | add | set-icon | inspect-action) _sk_files "$cur" ;;
    help) mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur") ;;
    "monitor add" | "monitor remove" | "monitor enable" | "monitor disable" | "monitor confirm" | \
        "monitor log")
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
        ;;
    "settings get" | "settings set" | "settings reset")
        # The key is the word after the command's two.
        if ((COMP_CWORD == first + 2)); then
            mapfile -t COMPREPLY < <(compgen -W "$setting_keys" -- "$cur")
        fi
        ;;
    esac
}

complete -F _sk sk

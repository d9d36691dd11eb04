# Completion of kovactl for fish.

# The command so far, with its subcommand, such as "service start"; without options and their values.
function __kovactl_words
    set -l skip 0
    for word in (commandline -opc)[2..-1]
        if test $skip = 1
            set skip 0
            continue
        end
        switch $word
            case -H --host --bus --timeout --delay --hash --file --filename --field --name --old-file --new-file \
                    --to --from
                set skip 1
            case '-*'
            case '*'
                echo $word
        end
    end
end

# Whether the words so far are these, or begin with them.
function __kovactl_is
    test "$(__kovactl_words)" = "$(string join \n -- $argv)"
end
function __kovactl_begins
    set -l words (__kovactl_words)
    test (count $words) -ge (count $argv); and test "$words[1..$(count $argv)]" = "$argv"
end

# The candidates for a field of a request, and for its value.
function __kovactl_fields
    set -l words (__kovactl_words)
    set -l field (string match -r '^(.*?:?=)' -- (commandline -ct))[1]
    if test -n "$field"
        string replace -r '^' -- $field (kovactl __complete values $words[2] (string replace -r ':?=$' '' -- $field))
    else
        kovactl __complete fields $words[2]
    end
end

function __kovactl_settings
    if string match -q 'timezone=*' -- (commandline -ct)
        string replace -r '^' 'timezone=' (kovactl __complete zones)
    else
        printf '%s\n' name= timezone= region= timelapse=on timelapse=off sound-on-boot=on sound-on-boot=off
    end
end

complete -c kovactl -f
complete -c kovactl -s H -l host -x -a '(__fish_print_hostnames)' -d 'Camera to reach through ssh'
complete -c kovactl -l bus -x -d 'Address of the bus'
complete -c kovactl -l timeout -x -d 'How long to wait for an answer'
complete -c kovactl -l json -d 'Print JSON'
complete -c kovactl -s v -l verbose -d 'Print the messages of the bus library'
complete -c kovactl -s h -l help -d 'Print help'
complete -c kovactl -n '__kovactl_is' -s V -l version -d 'Print the version'

complete -c kovactl -n '__kovactl_is' -a stats -d 'Show memory, processor, network and other statistics'
complete -c kovactl -n '__kovactl_is' -a info -d 'Show model, versions and pending work'
complete -c kovactl -n '__kovactl_is' -a metrics -d 'Print metrics for Prometheus, as OpenMetrics text'
complete -c kovactl -n '__kovactl_is' -a settings -d 'Show or change settings such as name and time zone'
complete -c kovactl -n '__kovactl_is' -a timezones -d 'List the available time zones'
complete -c kovactl -n '__kovactl_is' -a reset-settings -d 'Reset name and time zone to their defaults'
complete -c kovactl -n '__kovactl_is' -a user -d "Show, change, enable or disable the administrator's account"
complete -c kovactl -n '__kovactl_is' -a service -d 'List, start or stop system services'
complete -c kovactl -n '__kovactl_is' -a save -d 'Save the configuration to flash'
complete -c kovactl -n '__kovactl_is' -a reboot -d 'Save the configuration and reboot'
complete -c kovactl -n '__kovactl_is' -a reset-defaults -d 'Erase the configuration and reboot with factory defaults'
complete -c kovactl -n '__kovactl_is' -a exit-service -d 'Stop the control server'
complete -c kovactl -n '__kovactl_is' -a put -d 'Have the camera fetch and install a logo or a sound'
complete -c kovactl -n '__kovactl_is' -a get -d 'Have the camera upload a picture or its support archive'
complete -c kovactl -n '__kovactl_is' -a firmware -d 'Have the camera fetch and install a firmware image'
complete -c kovactl -n '__kovactl_is' -a transfers -d "Show the camera's transfers and their outcomes"
complete -c kovactl -n '__kovactl_is' -a cancel -d 'Cancel a transfer'
complete -c kovactl -n '__kovactl_is' -a call -d 'Send any request and print its answer'
complete -c kovactl -n '__kovactl_is' -a monitor -d 'Print all messages on the bus'
complete -c kovactl -n '__kovactl_is' -a listen -d 'Register an endpoint and print what it receives'
complete -c kovactl -n '__kovactl_is' -a bridge -d 'Connect standard input and output with the bus'
complete -c kovactl -n '__kovactl_is' -a help -d 'Show the help of a command'

complete -c kovactl -n '__kovactl_begins stats' -a '(kovactl __complete sections)'
complete -c kovactl -n '__kovactl_begins stats' -l watch -d 'Repeat at this interval'
complete -c kovactl -n '__kovactl_begins settings' -a '(__kovactl_settings)'
complete -c kovactl -n '__kovactl_is user' -a 'show passwd enable disable'
complete -c kovactl -n '__kovactl_begins user' -l name -x -d 'New name of the account'
complete -c kovactl -n '__kovactl_begins user' -l old-file -r -F -d 'File with the old password'
complete -c kovactl -n '__kovactl_begins user' -l new-file -r -F -d 'File with the new password'
complete -c kovactl -n '__kovactl_begins user' -l stdin -d 'Read both passwords from standard input'
complete -c kovactl -n '__kovactl_is service' -a 'list start stop'
complete -c kovactl -n '__kovactl_is service start; or __kovactl_is service stop' -a '(kovactl __complete services)'
complete -c kovactl -n '__kovactl_begins save' -l sync -d 'Write at once and wait for completion'
complete -c kovactl -n '__kovactl_begins reboot' -l delay -x -d 'Wait before the reboot'
complete -c kovactl -n '__kovactl_begins reset-defaults' -s y -l yes -d 'Do not prompt'
complete -c kovactl -n '__kovactl_is put' -a 'logo sound'
complete -c kovactl -n '__kovactl_begins put' -l hash -x -d 'Digest that the file must have'
complete -c kovactl -n '__kovactl_begins put' -l file -r -F -d 'Local copy of the file'
complete -c kovactl -n '__kovactl_is get' -a 'snapshot support event-snapshot event-heatmap'
complete -c kovactl -n '__kovactl_begins get' -l filename -x -d 'Name of the event file'
complete -c kovactl -n '__kovactl_begins get' -l field -x -d 'Field of the form'
for command in put get firmware
    complete -c kovactl -n "__kovactl_begins $command" -l wait -d 'Show the progress and wait for the outcome'
    complete -c kovactl -n "__kovactl_begins $command" -l cancel -d 'Cancel the transfer on Ctrl-C'
end
complete -c kovactl -n '__kovactl_begins transfers' -l watch -d 'Go on until Ctrl-C'
complete -c kovactl -n '__kovactl_is cancel' -a '(kovactl transfers 2>/dev/null | string match -rg "^([0-9]+) ")'
complete -c kovactl -n '__kovactl_is call' -a '(kovactl __complete functions)'
complete -c kovactl -n '__kovactl_begins call; and not __kovactl_is call' -a '(__kovactl_fields)'
complete -c kovactl -n '__kovactl_begins call' -l to -x -a '(kovactl __complete endpoints)' -d 'Destination of the request'
complete -c kovactl -n '__kovactl_begins call' -l from -x -a '(kovactl __complete endpoints)' -d 'Sender of the request'
complete -c kovactl -n '__kovactl_begins call' -l no-reply -d 'Do not wait for an answer'
complete -c kovactl -n '__kovactl_is listen' -a '(kovactl __complete endpoints)'
complete -c kovactl -n '__kovactl_is help' -a '(kovactl __complete commands)'
complete -c kovactl -n '__kovactl_is help user' -a 'show passwd enable disable'
complete -c kovactl -n '__kovactl_is help service' -a 'list start stop'

# Tab completion of vornctl for fish.

# The names of the running launcher's nodes, without those given already. A busy
# launcher is not waited for.
function __vornctl_nodes
    set -l options
    set -l words (commandline -opc)
    set -l program (string replace -r '^~/' "$HOME/" -- $words[1])
    for option in --launch-file --socket
        if set -l index (contains -i -- $option $words)
            set -a options $option=$words[(math $index + 1)]
        end
        set -a options (string match -- "$option=*" $words)
    end
    set options (string replace -r '=~/' "=$HOME/" -- $options)
    set -a options (string match -- --trust-any-user $words)
    for name in ($program --connect-timeout 1s --timeout 1s $options names --null 2>/dev/null | string split0)
        # fish uses text after a tab as a description.
        string match -qr '[\t\n]' -- $name; and continue
        # A name that looks like an option is one without "--" before it.
        string match -q -- '-*' $name; and not contains -- -- $words; and continue
        contains -- $name $words[2..]; or printf '%s\n' $name
    end
end

function __vornctl_needs_command
    not __fish_seen_subcommand_from status start stop restart enable disable wait monitor top why history ps orphans logs health ping names report metrics apply check graph diff import doctor completion help
end

complete -c vornctl -f
complete -c vornctl -n __vornctl_needs_command -a status -d 'Show node status'
complete -c vornctl -n __vornctl_needs_command -a start -d 'Start nodes'
complete -c vornctl -n __vornctl_needs_command -a stop -d 'Stop nodes'
complete -c vornctl -n __vornctl_needs_command -a restart -d 'Restart nodes'
complete -c vornctl -n __vornctl_needs_command -a enable -d 'Allow nodes to be started'
complete -c vornctl -n __vornctl_needs_command -a disable -d 'Stop nodes and refuse their starts'
complete -c vornctl -n __vornctl_needs_command -a wait -d 'Wait for nodes to reach a state'
complete -c vornctl -n __vornctl_needs_command -a monitor -d 'Print a line for each change of a node'
complete -c vornctl -n __vornctl_needs_command -a top -d 'Show all nodes on the whole screen'
complete -c vornctl -n __vornctl_needs_command -a why -d 'Explain the state of a node'
complete -c vornctl -n __vornctl_needs_command -a history -d 'Print the starts and exits of nodes, from the log'
complete -c vornctl -n __vornctl_needs_command -a ps -d 'Show the processes of nodes'
complete -c vornctl -n __vornctl_needs_command -a orphans -d 'List processes of earlier launchers and runs of nodes'
complete -c vornctl -n __vornctl_needs_command -a logs -d 'Print the output of nodes'
complete -c vornctl -n __vornctl_needs_command -a health -d 'Check that all nodes run'
complete -c vornctl -n __vornctl_needs_command -a ping -d 'Check that a launcher answers'
complete -c vornctl -n __vornctl_needs_command -a names -d 'Print the names of the nodes'
complete -c vornctl -n __vornctl_needs_command -a report -d 'Write an HTML file about a problem'
complete -c vornctl -n __vornctl_needs_command -a metrics -d 'Print metrics for Prometheus'
complete -c vornctl -n __vornctl_needs_command -a apply -d 'Replace the launch file of a unit'
complete -c vornctl -n __vornctl_needs_command -a check -d 'Check launch files for errors'
complete -c vornctl -n __vornctl_needs_command -a graph -d 'Draw the nodes of a launch file'
complete -c vornctl -n __vornctl_needs_command -a diff -d 'Compare launch files'
complete -c vornctl -n __vornctl_needs_command -a import -d 'Convert files of other supervisors'
complete -c vornctl -n __vornctl_needs_command -a doctor -d 'Find errors in the installation'
complete -c vornctl -n __vornctl_needs_command -a completion -d 'Print a script for tab completion'
complete -c vornctl -n __vornctl_needs_command -a help -d 'Show the help'

complete -c vornctl -l launch-file -r -F -d 'Read the names of the nodes from this file'
complete -c vornctl -l log -r -F -d 'The log of the launcher'
complete -c vornctl -l timeout -x -d 'Time limit for each reply'
complete -c vornctl -l connect-timeout -x -d 'Time limit for the first answer'
complete -c vornctl -l socket -r -F -d 'The control socket of the launcher'
complete -c vornctl -l trust-any-user -d 'Connect to a launcher of any user'
complete -c vornctl -l color -x -a 'auto always never' -d Colours
complete -c vornctl -s q -l quiet -d 'Print errors only'
complete -c vornctl -s h -l help -d 'Show the help'
complete -c vornctl -n __vornctl_needs_command -l version -d 'Show the version'

complete -c vornctl -n '__fish_seen_subcommand_from status start stop restart enable disable wait monitor top why history ps logs' -a '(__vornctl_nodes)' -d Node
complete -c vornctl -n '__fish_seen_subcommand_from status monitor history ps orphans diff doctor' -l json -d 'Print JSON'
complete -c vornctl -n '__fish_seen_subcommand_from status' -l plain -d 'Print tabs between columns'
complete -c vornctl -n '__fish_seen_subcommand_from status' -l no-header -d 'Omit the column titles'
complete -c vornctl -n '__fish_seen_subcommand_from status' -l failed -d 'Show only failed nodes'
complete -c vornctl -n '__fish_seen_subcommand_from status' -s o -l columns -x -a '(__fish_append , node state pid uptime started policy required executable restarts last_exit cpu memory stale ready wide)' -d Columns
complete -c vornctl -n '__fish_seen_subcommand_from start stop restart enable disable' -l all -d 'All nodes'
complete -c vornctl -n '__fish_seen_subcommand_from start stop restart enable disable' -l reason -x -d 'The reason, for the record'
complete -c vornctl -n '__fish_seen_subcommand_from ps' -l ports -d 'Also show listening sockets'
complete -c vornctl -n '__fish_seen_subcommand_from orphans' -l kill -d 'Terminate the processes'
complete -c vornctl -n '__fish_seen_subcommand_from stop disable orphans' -s y -l yes -d 'Do not ask for confirmation'
complete -c vornctl -n '__fish_seen_subcommand_from logs' -s f -l follow -d 'Also print new lines'
complete -c vornctl -n '__fish_seen_subcommand_from history logs' -s n -l lines -x -d 'Number of lines or exits'
complete -c vornctl -n '__fish_seen_subcommand_from history logs' -l since -x -d 'Only lines since then'
complete -c vornctl -n '__fish_seen_subcommand_from logs' -l previous -d 'Only the last run that has ended'
complete -c vornctl -n '__fish_seen_subcommand_from enable' -l now -d 'Also start the nodes'
complete -c vornctl -n '__fish_seen_subcommand_from wait' -l state -x -a 'running ready stopped disabled restarted succeeded' -d 'State to wait for'
complete -c vornctl -n '__fish_seen_subcommand_from wait' -l for -x -d 'Time for which the state must last'
complete -c vornctl -n '__fish_seen_subcommand_from names' -s 0 -l null -d 'End each name with a NUL'
complete -c vornctl -n '__fish_seen_subcommand_from report metrics' -s o -l output -r -F -d 'The file'
complete -c vornctl -n '__fish_seen_subcommand_from report' -l since -x -d 'The start of the timeline'
complete -c vornctl -n '__fish_seen_subcommand_from report' -l with-environment -d 'Also include the values of variables'
complete -c vornctl -n '__fish_seen_subcommand_from apply' -l unit -x -d 'The unit to restart'
complete -c vornctl -n '__fish_seen_subcommand_from apply' -l hook -x -d 'A command that can refuse'
complete -c vornctl -n '__fish_seen_subcommand_from diff' -l running -d 'Compare the running processes with a file'
complete -c vornctl -n '__fish_seen_subcommand_from health apply' -l for -x -d 'Time that all nodes must run'
complete -c vornctl -n '__fish_seen_subcommand_from apply' -l unit -x -d 'The unit to restart'
complete -c vornctl -n '__fish_seen_subcommand_from apply' -l hook -x -d 'A command that can refuse'
complete -c vornctl -n '__fish_seen_subcommand_from diff' -l running -d 'Compare the running processes with a file'
complete -c vornctl -n '__fish_seen_subcommand_from health' -l format -x -a 'plain json nagios' -d 'Output format'
complete -c vornctl -n '__fish_seen_subcommand_from metrics' -l format -x -a 'prometheus openmetrics' -d 'Output format'
complete -c vornctl -n '__fish_seen_subcommand_from completion' -a 'bash zsh fish' -d Shell
complete -c vornctl -n '__fish_seen_subcommand_from import' -a 'supervisord systemd process-compose' -d Format
complete -c vornctl -n '__fish_seen_subcommand_from check graph diff import apply' -F
complete -c vornctl -n '__fish_seen_subcommand_from check' -l format -x -a 'text json sarif github' -d 'Output format'
complete -c vornctl -n '__fish_seen_subcommand_from graph' -l format -x -a 'dot mermaid svg' -d 'Output format'
complete -c vornctl -n '__fish_seen_subcommand_from check' -l fail-on -x -a 'error warning note' -d 'Lowest severity that makes the exit status 1'
complete -c vornctl -n '__fish_seen_subcommand_from check' -l print -x -a 'resolved timeline stop-timeout' -d 'Print this instead'
complete -c vornctl -n '__fish_seen_subcommand_from check' -l ignore -x -d 'Diagnostics to omit'
complete -c vornctl -n '__fish_seen_subcommand_from check' -l host -d 'Also check programs on this machine'
complete -c vornctl -n '__fish_seen_subcommand_from check' -l no-host -d 'Check only the file'
complete -c vornctl -n '__fish_seen_subcommand_from check' -l list -d 'Print all diagnostics'

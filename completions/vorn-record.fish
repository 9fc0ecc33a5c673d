# fish completion for vorn-record(1), made by completions/make-companions
set -l behind 'contains -- -- (commandline -opc)'
complete -c vorn-record -f
complete -c vorn-record -n "not $behind" -s h -l help -d 'print a summary of the options'
complete -c vorn-record -n "not $behind" -s o -r -F -d 'the file that is appended to (vorn.db); - prints lines'
complete -c vorn-record -n "not $behind" -l format -x -a 'json influx' -d 'of the lines: JSON objects (json), or the line protocol of InfluxDB'
complete -c vorn-record -n "not $behind" -l every -x -d 'start a run this often'
complete -c vorn-record -n "not $behind" -l count -x -d 'that many runs (1; with --every until stopped)'
complete -c vorn-record -n "not $behind" -l label -x -d 'a name for these runs, to choose them by'
complete -c vorn-record -n "not $behind" -l packets -d 'keep every packet of a stream (-c without -s), too'
complete -c vorn-record -n "not $behind" -l prune -x -d 'run nothing: forget what is older, for example 90d, and make the file smaller'
complete -c vorn-record -n "not $behind" -l version -d 'print the version'
complete -c vorn-record -n "$behind" -a '(complete -C "vorn "(commandline -ct))'

# fish completion for vorn-mesh(1), made by completions/make-companions
complete -c vorn-mesh -s h -l help -d 'print a summary of the options'
complete -c vorn-mesh -s i -r -F -d 'hosts, as Ansible knows them'
complete -c vorn-mesh -s o -r -F -d 'the file of records that is appended to'
complete -c vorn-mesh -l hosts -x -d 'only these hosts of the inventory'
complete -c vorn-mesh -l label -x -d 'a name for these runs, to choose them by (mesh)'
complete -c vorn-mesh -l echo -x -d 'of the echo test (-u -e100 -r50)'
complete -c vorn-mesh -l stream -x -d 'of the stream (--client -e100)'
complete -c vorn-mesh -l version -d 'print the version'

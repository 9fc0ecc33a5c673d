# fish completion for vorn(8). Values are glued to their option letter: -d1000, -fresults.csv.

function __vorn_options
  # made by completions/make
  printf '%s\t%s\n' -a 'echo requests that may be outstanding: requests (1, at most 65534)'
  printf '%s\t%s\n' -A 'running average over the last packets: packets (at most 65536)'
  printf '%s\t%s\n' -b 'show buffer consumption of each batch'
  printf '%s\t%s\n' -B 'do not show the bandwidth of each batch'
  printf '%s\t%s\n' -c 'send commands to a monitor'
  printf '%s\t%s\n' -d 'delay between packets: microseconds (100000)'
  printf '%s\t%s\n' -D 'debugging output'
  printf '%s\t%s\n' -e 'echo requests or commands to send: number (3; without end when left out)'
  printf '%s\t%s\n' -E 'packets the monitor sends for each command: packets (at most 65536)'
  printf '%s\t%s\n' -f 'append the results to a file: results file (.txt: TAB, else comma)'
  printf '%s\t%s\n' -F 'tag of the results row: tag'
  printf '%s\t%s\n' -i 'send without looking for responses'
  printf '%s\t%s\n' -l 'length of the IP packet: bytes (at most 65535)'
  printf '%s\t%s\n' -m 'no line for a time-out'
  printf '%s\t%s\n' -M 'run as a monitor in the background'
  printf '%s\t%s\n' -n 'address of the interface to use: address'
  printf '%s\t%s\n' -p 'TCP: port'
  printf '%s\t%s\n' -q 'type of service'
  printf '%s\t%s\n' -Q 'only the last line in command mode'
  printf '%s\t%s\n' -r 'packets each second: packets per second'
  printf '%s\t%s\n' -R 'host to report to: host'
  printf '%s\t%s\n' -s 'no line for a response'
  printf '%s\t%s\n' -S 'duration of the test: seconds'
  printf '%s\t%s\n' -t 'traceroute'
  printf '%s\t%s\n' -T 'time after which a request is lost: microseconds (100000)'
  printf '%s\t%s\n' -u 'UDP: port'
  printf '%s\t%s\n' -U 'one way, without responses'
  printf '%s\t%s\n' -v 'verbose batch lines with a graph'
  printf '%s\t%s\n' --server 'preset: serve as a monitor'
  printf '%s\t%s\n' --client 'preset: measure what a monitor sends'
  printf '%s\t%s\n' --blast 'preset: send as fast as possible, wait for nothing'
  printf '%s\t%s\n' --discover 'preset: ping all hosts of a range'
  printf '%s\t%s\n' --trace 'preset: fast traceroute'
  printf '%s\t%s\n' --lots 'preset: many echo requests at a time'
  printf '%s\t%s\n' --voice 'preset: simulated telephony'
  # end
end

function __vorn_service_types
  printf '%s\t%s\n' 0x08 background 0x20 background 0x00 'best effort' 0x18 'best effort'
  printf '%s\t%s\n' 0x28 video 0xa0 video 0x30 voice 0xe0 voice
end

# Whole words for the one at the cursor.
function __vorn_words
  set -l word (commandline -ct)
  switch $word
    case '-f*'
      printf '%s\n' -f(__fish_complete_path (string sub -s 3 -- $word))
    case '-n*'
      printf '%s\n' -n(ip -4 -o address show 2>/dev/null | string replace -rf '.* inet ([0-9.]+).*' '$1')
    case '-q*'
      printf '%s\n' -q(__vorn_service_types)
    case '-R*'
      printf '%s\n' -R(__fish_print_hostnames)
    case - '--*'
      __vorn_options
    case '-*' # a letter is left alone: fish would part it from its value
    case '*'
      # Two hosts are all that a test takes.
      test (commandline -opc | string match -rv '^-' | count) -le 2; and __fish_print_hostnames
  end
end

complete -c vorn -f -a '(__vorn_words)'

#include "app/usage.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "app/version.h"

namespace {

constexpr int largest_window_shown = 65536;

// "%s" stands for the program's name, "%d" for the largest window.
constexpr std::array<const char*, 90> usage_lines = {
    "%s [options] [start_host] end_host\n",
    " NOTE: All options except start_host and end_host do not care about order\n",
    "       Furthermore, multiple occurrences of the same option use the LAST one.\n",
    " <host> : If one host is present, it is the IP address to which we will send data\n",
    " <host> : If two hosts are present, they specify a range of IP addresses to send\n",
    "          data to. Basically it is a ping sweep. Very useful to find\n",
    "          what hosts exist on a network. Common options for a sweep:\n",
    "          %s <start_host> <end_host> -d0 -T1000000 -a200 -m\n",
    "          Note that by default WindowsXP service pack 2 firewall disables ICMP\n",
    "          which means you have to check your arp table after running this command.\n",
    "Options:\n",
    " -a#    - Number of echo requests that can be outstanding at any given time.\n",
    "          Defaults to 1. Do NOT use in command or monitor mode. Max %d\n",
    "          Note: large options here can overflow networking equipment buffers.\n",
    " -e#    - Number of echo requests to send. Defaults to 1. If no # given,\n",
    "          it is set to 2 billion\n",
    " -S#    - Approximate test Duration in Seconds -- mutually exclusive with -e#\n",
    " -t     - Enable traceroute. Probably want to use -e# with this option\n",
    " -d#    - Set the microseconds to delay between each echo transmission\n",
    "          Defaults to 100000 usecs. (1/10 second)\n",
    " -T#    - Set the microseconds after which an echo request is timed out\n",
    "          Defaults to 100000 usecs. (1/10 second)\n",
    " -l#    - Set the length of the IP portion of the packet. This number will\n",
    "          be 'padded up' to a minimum, depending on protocol. -l1500 generates\n",
    "          a maximum size ethernet frame.\n",
    " -s     - Suppress per-response packet reception messages. (silent mode)\n",
    " -m     - Suppress per-response timeout messages.\n",
    " -i     - Ignore responses. Sends traffic without even checking for responses.\n",
    " -A#    - Perform a running average over the last # packets. Max %d\n",
    " -U     - Sends traffic unidirectionally- no response required.\n",
    "          For ICMP traffic, this send echo responses instead of requests, which\n",
    "          may make some firewalls/intrusion detection systems trigger alarms\n",
    " -D     - Turn on debugging.\n",
    " -M     - Run in monitor mode- Listens for unidirectional traffic, including commands\n",
    " -r#    - Set packet rate to # packets/second. (same as -d, sorta)\n",
    "          Most systems sleep a minimum of 10ms, causing a staccato transmit rate.\n",
    " -u#    - Run in UDP mode. # is optional UDP port number\n",
    " -p#    - Run in TCP mode. # is optional TCP port number\n",
    " -b     - Display buffer consumption stats in --client mode\n",
    " -B     - Do not display bandwidth stats in --client mode\n",
    " -c     - Sends command to remote host.\n",
    "          You probably want to use --client to set most of these options for you\n",
    "          For each packet sent to the remote host (which must be in monitor mode)\n",
    "          the remote host sends one or more packets (-E#) back to the commanding\n",
    "          host at the specified rate (-d# or -r#). When the commanding host has seen\n",
    "          all these responses, or has timed them out (-T#), it repeats the command to\n",
    "          the remote host as many times as requests (-e#) Note that command mode only\n",
    "          really works in udp mode.\n",
    "          These options all apply only to this mode, or behave differently:\n",
    "          -e#     - Number of remote commands to send.\n",
    "          -d#     - Applies to remote host.\n",
    "          -r#     - Applies to remote host.\n",
    "          -T#     - Applies to local host.\n",
    "          -l#     - Applies to remote host.\n",
    "          -U      - Forced, and only applies to remote host.\n",
    "          -D      - Applies to local host.\n",
    "          -R      - Reports results seen by the local host\n",
    "          -u#     - Forced- change the port at will.\n",
    "          -E#     - Number of remote echoes to send for each of what we send.\n",
    " -q#    - Send frames with the 8 bit DSCP (TOS bits) set to the specified value.\n",
    "          NOTE: The frames coming back will NOT have these bits set, necessarily.\n",
    "          On WinXP, the following registry key must be REG_DWORD,\n",
    "          and ZERO to enable TOS bit setting: Local Machine\\System\\CurrentControlSet\\\n",
    "          Services\\Tcpip\\Parameters\\DisableUserTOSSetting\n",
    "          Common fields for Lowest  #: 0x08, 0x20: Background\n",
    "          Common fields for Low     #: 0x00, 0x18: Best Effort\n",
    "          Common fields for High    #: 0x28, 0xa0: Video\n",
    "          Common fields for Highest #: 0x30, 0xe0: Voice\n",
    "          Common fields for Unknown #: 0x88:       Video 2?\n",
    " -Q     - Suppress all but the last line of output in command or --client mode\n",
    " -n<IP> - Set the IP address of interface upon which we wish to send multicast.\n",
    " -v     - Verbose command mode. With -c or --client, displays way more information\n",
    "          per line, including the colored vertical data rate graph.\n",
    " --OPT  - Used to enable several options simultaneously.\n",
    "          Note: You can abbreviate these commands as much as you like.\n",
    "          Note: When the command is used, you will see what options it configures.\n",
    "          The following can be used:\n",
    "          --server   - Used to configure standard server functionality.\n",
    "          --client   - Used to configure standard client functionality.\n",
    "          --blast    - Used to configure a 8,000 packet/s blast at destination.\n",
    "          --discover - Used to ping all hosts between [start_host] and [end_host]\n",
    "          --trace    - Really fast traceroute. Works up to 20 hops (override with -e)\n",
    "          --lots     - Used to send bidirectional ICMP echoes- lots of them.\n",
    "          --voice    - Like --lots, but useful for testing simulated voip latency\n",
    " -f<NAME> Used to append results to a file named <NAME> when complete. ONLY useful\n",
    "          when in command mode (-c, or --client).\n",
    " -F<TAG>  Used to set a text tag in the file being written. Useful for labelling the\n",
    "          data set.\n",
    "\n",
    " NOTE: On windows, Vorn runs as a realtime priority task. You have been warned\n",
};

void print_line(const char* line, const char* program_name) {
  const char* mark = std::strchr(line, '%');
  if (mark == nullptr) {
    std::fputs(line, stderr);
    return;
  }
  const int before = static_cast<int>(mark - line);
  const char* after = mark + 2;
  if (mark[1] == 's') {
    std::fprintf(stderr, "%.*s%s%s", before, line, program_name, after);
  } else {
    std::fprintf(stderr, "%.*s%d%s", before, line, largest_window_shown, after);
  }
}

}  // namespace

void print_usage(const char* program_name) {
  std::fprintf(stderr, "vorn, version %d.%d, a network test tool for IPv4. MIT licence, no warranty.\n", version_major,
               version_minor);
  for (const char* line : usage_lines) print_line(line, program_name);
}

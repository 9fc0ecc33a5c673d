// Privileges: as few as possible, for as short as possible (capabilities(7)).
//
// A raw socket needs CAP_NET_RAW while it is opened and never again. Installed with the file capability
// cap_net_raw+p the program starts without any effective privilege and raises this one itself. Root keeps what it has.
#pragma once

// When the program was started setuid or setgid, goes back to the real user and group for good and keeps no capability
// but CAP_NET_RAW, not raised: the command line names files to open. Ends the process through cleanup_exit(1) when that
// fails.
void become_real_user();

// Raises CAP_NET_RAW if the process may; lowers it again. Without the right to it, or as root, nothing changes.
void raise_raw_socket_privilege();
void lower_raw_socket_privilege();

// Gives up all capabilities for good and forbids to regain any by running another program. Root keeps what it has.
void give_up_privileges();

// The host of a fuzz target that runs the command line: nothing is resolved, detached or left on the disk. The name of
// a host or a file says by its first letter what becomes of it.
#pragma once

#include <fcntl.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

inline int opened = 0;  // files in this run

extern "C" hostent* gethostbyname(const char* name) {
  static char address[4] = {10, 0, 0, 1};
  static char* addresses[2] = {address, nullptr};
  static hostent host = {};
  host.h_addrtype = name[0] == '6' ? AF_INET6 : AF_INET;
  host.h_length = 4;
  host.h_addr_list = name[0] == 'e' ? addresses + 1 : addresses;
  return name[0] == 'x' ? nullptr : &host;
}

extern "C" int daemon(int /*no_chdir*/, int /*no_close*/) noexcept {
  return opened > 3 ? -1 : 0;
}

extern "C" int open(const char* name, int flags, ...) {
  const bool is_there = name[0] == 'o' || name[0] == 'f';
  if (name[0] == 'x' || ((flags & O_CREAT) == 0 && !is_there) || ++opened > 9) return -1;
  if (name[0] == 'f') return static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/dev/full", O_RDWR));
  return memfd_create("results", MFD_CLOEXEC);
}

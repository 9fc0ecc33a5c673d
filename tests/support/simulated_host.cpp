// The host of a fuzz target: nothing is resolved, detached or left on the disk, and every way out of the program leads
// to world.on_exit. The name of a host or a file says by its first letter what becomes of it.
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "report/results_files.h"
#include "support/simulated_world.h"

extern "C" {

hostent* gethostbyname(const char* name) {
  static char address[4] = {10, 0, 0, 1};
  static char* addresses[2] = {address, nullptr};
  static hostent host = {};
  host.h_addrtype = name[0] == '6' ? AF_INET6 : AF_INET;
  host.h_length = 4;
  host.h_addr_list = name[0] == 'e' ? addresses + 1 : addresses;
  return name[0] == 'x' ? nullptr : &host;
}

// Fails where a results file is open, which a monitor has no use for.
int daemon(int /*no_chdir*/, int /*no_close*/) noexcept {
  return results_file != nullptr ? -1 : 0;
}

int open(const char* name, int flags, ...) {
  const bool is_counters = std::strcmp(name, "/proc/net/snmp") == 0;
  const char* real_file = is_counters ? name : name[0] == 'f' ? "/dev/full" : nullptr;
  if (real_file != nullptr) return static_cast<int>(syscall(SYS_openat, AT_FDCWD, real_file, flags, 0));
  const bool is_missing = (flags & O_CREAT) == 0 && name[0] != 'o';
  return is_missing || name[0] == 'x' ? -1 : memfd_create("results", MFD_CLOEXEC);
}

pid_t getpid() noexcept {
  return 70000;  // wider than an ICMP identifier
}

void exit(int status) noexcept {
  if (world.on_exit != nullptr) world.on_exit();
  reinterpret_cast<void (*)(int)>(dlsym(RTLD_NEXT, "exit"))(status);
  std::abort();
}

int raise(int /*signal*/) noexcept {
  std::exit(0);
}

// Of what was freed the sanitizer would keep 256 MB, of thousands of runs that have nothing to do with one another.
const char* __asan_default_options() noexcept {
  return "quarantine_size_mb=8:thread_local_quarantine_size_kb=64";
}

}  // extern "C"

#include "base/privileges.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>

#include "base/cleanup_exit.h"

namespace {

constexpr std::uint32_t net_raw_bit = 1U << CAP_NET_RAW;  // in the first of the two words

using capability_sets = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

__user_cap_header_struct this_process() {
  return {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
}

bool read_capabilities(capability_sets* sets) {
  __user_cap_header_struct header = this_process();
  return syscall(SYS_capget, &header, sets->data()) == 0;
}

bool write_capabilities(const capability_sets* sets) {
  __user_cap_header_struct header = this_process();
  return syscall(SYS_capset, &header, sets->data()) == 0;
}

bool is_root() {
  return geteuid() == 0;
}

void set_raw_socket_privilege(bool raised) {
  capability_sets sets = {};
  if (is_root() || !read_capabilities(&sets) || (sets[0].permitted & net_raw_bit) == 0) return;
  sets[0].effective = raised ? sets[0].effective | net_raw_bit : sets[0].effective & ~net_raw_bit;
  write_capabilities(&sets);
}

bool switch_to_real_user() {
  // Leaving user 0 would clear the permitted set too.
  if (prctl(PR_SET_KEEPCAPS, 1L, 0L, 0L, 0L) != 0) return false;
  if (setresgid(getgid(), getgid(), getgid()) != 0 || setresuid(getuid(), getuid(), getuid()) != 0) return false;
  capability_sets sets = {};
  if (is_root()) return true;
  if (!read_capabilities(&sets)) return false;
  const std::uint32_t kept = sets[0].permitted & net_raw_bit;
  sets = {};
  sets[0].permitted = kept;
  return write_capabilities(&sets);
}

}  // namespace

void become_real_user() {
  if (geteuid() == getuid() && getegid() == getgid()) return;
  if (switch_to_real_user()) return;
  std::fprintf(stderr, "Error- could not drop privileges\n");
  cleanup_exit(1);
}

void raise_raw_socket_privilege() {
  set_raw_socket_privilege(true);
}

void lower_raw_socket_privilege() {
  set_raw_socket_privilege(false);
}

void give_up_privileges() {
  if (is_root()) return;
  const capability_sets none = {};
  write_capabilities(&none);
  prctl(PR_SET_NO_NEW_PRIVS, 1L, 0L, 0L, 0L);
}

// Preloaded into the program under test: it sees a date that is set by SET_DATE_BY usec, SET_DATE_AFTER usec after it
// started, and so do the kernel's stamps of what comes and goes from then on. The machine's own date stays.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr std::int64_t nsec_per_second = 1000000000;

template <typename function>
function* next(const char* name) {
  return reinterpret_cast<function*>(dlsym(RTLD_NEXT, name));
}

std::int64_t true_date_nsec() {
  static auto* const clock = next<int(clockid_t, timespec*)>("clock_gettime");
  timespec now = {};
  clock(CLOCK_REALTIME, &now);
  return now.tv_sec * nsec_per_second + now.tv_nsec;
}

std::int64_t nsec_from(const char* variable) {
  const char* text = std::getenv(variable);
  return text == nullptr ? 0 : std::atoll(text) * 1000;
}

const std::int64_t set_at = true_date_nsec() + nsec_from("SET_DATE_AFTER");
const std::int64_t set_by = nsec_from("SET_DATE_BY");

timespec shown(std::int64_t date) {
  if (date >= set_at) date += set_by;
  return {.tv_sec = date / nsec_per_second, .tv_nsec = date % nsec_per_second};
}

void move_stamps(msghdr* message) {
  for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
    if (part->cmsg_level != SOL_SOCKET || (part->cmsg_type != SO_TIMESTAMPNS && part->cmsg_type != SO_TIMESTAMPING))
      continue;
    timespec stamp = {};
    std::memcpy(&stamp, CMSG_DATA(part), sizeof stamp);
    stamp = shown(stamp.tv_sec * nsec_per_second + stamp.tv_nsec);
    std::memcpy(CMSG_DATA(part), &stamp, sizeof stamp);
  }
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static auto* const real = next<int(clockid_t, timespec*)>("clock_gettime");
  if (clock != CLOCK_REALTIME) return real(clock, now);
  *now = shown(true_date_nsec());
  return 0;
}

extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
  const timespec date = shown(true_date_nsec());
  *now = {.tv_sec = date.tv_sec, .tv_usec = date.tv_nsec / 1000};
  return 0;
}

extern "C" ssize_t recvmsg(int socket, msghdr* message, int flags) {
  static auto* const real = next<ssize_t(int, msghdr*, int)>("recvmsg");
  const ssize_t got = real(socket, message, flags);
  if (got >= 0) move_stamps(message);
  return got;
}

extern "C" int recvmmsg(int socket, mmsghdr* messages, unsigned int count, int flags, timespec* timeout) {
  static auto* const real = next<int(int, mmsghdr*, unsigned int, int, timespec*)>("recvmmsg");
  const int got = real(socket, messages, count, flags, timeout);
  for (int i = 0; i < got; ++i) move_stamps(&messages[i].msg_hdr);
  return got;
}

// The whole program, from its command line to its exit, in a world that the input rules: what comes in when, what every
// call on a socket meets, the steps of the clock, the signals, the kernel's stamps.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <csignal>

#include "app/cleanup_exit.h"
#include "app/program.h"
#include "app/signals.h"
#include "fuzz/sealed_host.h"
#include "net/socket_wait.h"
#include "support/workbench.h"

namespace {

constexpr std::int32_t process_id = 70000;
constexpr int longest_run = 400;  // calls on sockets and yields; then a signal stops it

struct input_rules {
  int ours = -1;  // the sockets of the code and of its peer
  int peer = -1;
  int calls = 0;
  int calls_until_error = 0;
  int errors = 0;  // that follow, each `error`
  int error = 0;
  int read_error = 0;               // of the next read
  std::int64_t stamp_offset = 0;    // from now to the kernel's stamp; 0 = it stamps nothing
  std::int64_t answer_usec = -1;    // after which what is sent is answered; -1 = never
  std::uint8_t answer_variant = 0;  // bits: 1 = by an error, 2 = every third is lost, 4 = twice
};

input_rules rules;
bool icmp = false;
bool running = false;
bool stopped = false;
jmp_buf end_of_run;

void send_signal(int number) {
  if (stop_signal() != 0) return;  // a second one would end the process
  stopped = stopped || number != SIGQUIT;
  pthread_kill(pthread_self(), number);
}

void count_call() {
  if (++rules.calls > longest_run) send_signal(SIGTERM);
}

// True, with errno set, when a call on a socket is to fail.
bool is_refused() {
  count_call();
  if (rules.errors == 0 || rules.calls_until_error-- > 0) return false;
  --rules.errors;
  rules.calls_until_error = 0;
  errno = rules.error;
  return true;
}

int new_socket(int type) {
  int ends[2] = {-1, -1};
  if (is_refused() || socketpair(AF_UNIX, type, 0, ends) != 0) return -1;
  rules.ours = ends[0];
  rules.peer = ends[1];
  return rules.ours;
}

void write_to(int socket, const byte_vector& bytes) {  // an empty datagram too
  (void)syscall(SYS_sendto, socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0);
}

void fill_buffer() {
  static const byte_vector block(16384);
  for (int i = 0; i < 20; ++i) write_to(rules.ours, block);
}

void drain_buffer() {
  static char sink[65536];
  while (recv(rules.peer, sink, sizeof sink, MSG_DONTWAIT) > 0) {
  }
}

void answer_with(const byte_vector& frame, std::int64_t usec) {
  const int times = (rules.answer_variant & 4U) != 0 ? 2 : 1;
  if ((rules.answer_variant & 2U) != 0 && world.sent % 3 == 0) return;
  for (int i = 0; i < times; ++i) world.after(rules.answer_usec + usec, [frame] { write_to(rules.peer, frame); });
}

// A command asks for packets of a stream, the last of which may be missing; everything else for its reply.
void answer(const byte_vector& frame) {
  if (rules.answer_usec < 0 || frame.size() < 8) return;
  if (icmp && (rules.answer_variant & 1U) != 0) {
    answer_with(datagram(icmp_error(11, process_id, frame[6] << 8U | frame[7])), 0);
  } else if (icmp) {
    answer_with(datagram(with_checksum(patched(frame, 0, {0}))), 0);
  } else if (frame.size() == 164 && frame[3] == 4) {
    const std::int64_t count = std::min(frame[30] << 8U | frame[31], 60);
    for (std::int64_t i = 0; i < count; ++i)
      answer_with(message(3, process_id, frame[11], i, 40), i * (frame[39] + 100));
  } else {
    answer_with(patched(frame, 0, be32(2)), 0);
  }
}

byte_vector padded(byte_vector bytes, std::size_t length) {
  bytes.resize(std::max(bytes.size(), length));
  return bytes;
}

// Bytes that pass the first checks, so that the later ones are met too.
byte_vector made_plausible(const byte_vector& bytes) {
  if (!icmp) return patched(padded(bytes, 20), 4, raw(process_id));
  return datagram(with_checksum(patched(padded(bytes, 8), 4, raw(static_cast<std::uint16_t>(process_id)))));
}

// What is planned comes no sooner or later for it.
void set_clock(std::int64_t step) {
  world.now += step;
  for (auto& [time, event] : std::exchange(world.events, {})) world.events.emplace(time + step, event);
}

struct step {
  std::uint8_t kind;     // low half: what; high half: which
  std::uint16_t number;  // how much
  byte_vector bytes;
};

void take_step(const step& each) {
  static constexpr int errors[] = {EAGAIN, EPERM, EMSGSIZE, EINVAL, EACCES, EINTR, ENOBUFS, EINPROGRESS, EBADF};
  static constexpr int signals[] = {SIGQUIT, SIGTERM, SIGHUP, SIGINT};
  const unsigned which = each.kind >> 4U;
  const std::int64_t amount = static_cast<std::int16_t>(each.number);
  switch (each.kind & 15U) {
    case 0:
      return write_to(rules.peer, each.bytes);
    case 1:
      return write_to(rules.peer, made_plausible(each.bytes));
    case 2:
      rules.answer_usec = each.number * 10;
      rules.answer_variant = static_cast<std::uint8_t>(which);
      return;
    case 3:
      rules.error = errors[which % 9];
      rules.calls_until_error = each.number >> 8U;
      rules.errors = each.number & 255U;
      return;
    case 4:
      rules.read_error = errors[which % 9];
      return;
    case 5:
      rules.stamp_offset = amount * (which < 8 ? 1 : 1000000);
      return;
    case 6:
      return set_clock(amount * (which < 8 ? 1000 : 100000000));
    case 7:
      return send_signal(signals[which & 3U]);
    case 8:
      world.overshoot = each.number;
      return;
    case 9:
      shutdown(rules.peer, which < 8 ? SHUT_WR : SHUT_RDWR);
      return;
    case 10:
      return fill_buffer();
    default:
      return drain_buffer();
  }
}

// Each step: its kind, the time that passes before it, its number, which for kinds 0 and 1 is that of its bytes.
void plan_steps(const std::uint8_t* data, const std::uint8_t* end) {
  std::int64_t at = 0;
  while (end - data >= 4) {
    step next = {data[0], static_cast<std::uint16_t>(data[2] << 8U | data[3]), {}};
    at += std::int64_t{data[1]} * data[1] * 20;
    data += 4;
    const auto length = (next.kind & 15U) < 2 ? std::min<std::ptrdiff_t>(next.number, end - data) : 0;
    next.bytes.assign(data, data + length);
    data += length;
    const bool before_start = at == 0 && (next.kind & 15U) != 7;
    before_start ? take_step(next) : world.after(at, [next] { take_step(next); });
  }
  world.after(at + 20000000, [] { send_signal(SIGTERM); });
}

[[noreturn]] void end_run() {
  if (current_run_state != nullptr && current_run_state->packet_table != nullptr)
    munmap(current_run_state->packet_table, packet_table_slots * sizeof(packet_slot));
  current_run_state = nullptr;
  running = false;
  std::longjmp(end_of_run, 1);
}

void run_from_start_to_exit(std::vector<char*> arguments) {
  if (setjmp(end_of_run) != 0) return;
  running = true;
  cleanup_exit(run_program(static_cast<int>(arguments.size()), arguments.data()));
}

}  // namespace

extern "C" {

void exit(int status) noexcept {
  if (running) end_run();
  reinterpret_cast<void (*)(int)>(dlsym(RTLD_NEXT, "exit"))(status);
  __builtin_unreachable();
}

int raise(int /*signal*/) noexcept {
  end_run();
}

pid_t getpid() noexcept {
  return process_id;
}

int socket(int /*domain*/, int type, int /*protocol*/) noexcept {
  stopped = false;  // signals are caught anew
  icmp = (type & 15) == SOCK_RAW;
  return new_socket((type & 15) == SOCK_STREAM ? SOCK_STREAM : SOCK_DGRAM);
}

int connect(int /*socket*/, const sockaddr* /*to*/, socklen_t /*length*/) {
  return is_refused() ? -1 : 0;
}

int bind(int /*socket*/, const sockaddr* /*address*/, socklen_t /*length*/) noexcept {
  return is_refused() ? -1 : 0;
}

int listen(int /*socket*/, int /*backlog*/) noexcept {
  write_to(rules.peer, {1});  // somebody always connects
  return is_refused() ? -1 : 0;
}

int accept4(int /*socket*/, sockaddr* /*from*/, socklen_t* /*length*/, int /*flags*/) {
  if (rules.calls > 9) send_signal(SIGTERM);
  return new_socket(SOCK_STREAM);
}

int setsockopt(int /*socket*/, int /*level*/, int /*option*/, const void* /*value*/, socklen_t /*length*/) noexcept {
  return is_refused() ? -1 : 0;
}

ssize_t send(int /*socket*/, const void* bytes, size_t length, int /*flags*/) {
  if (is_refused()) return -1;
  ++world.sent;
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  answer({first, first + length});
  return static_cast<ssize_t>(rules.errors > 1 ? length / 2 : length);
}

// One datagram, and its stamp.
static ssize_t read_message(int socket, msghdr* message, int flags) {
  count_call();  // a pair that was shut down is readable for ever
  errno = std::exchange(rules.read_error, 0);
  const ssize_t length = errno != 0 ? -1 : recv(socket, message->msg_iov->iov_base, message->msg_iov->iov_len, flags);
  static_cast<sockaddr_in*>(message->msg_name)->sin_addr.s_addr = inet_addr("10.0.0.7");
  if (length < 0 || rules.stamp_offset == 0) {
    message->msg_controllen = 0;
    return length;
  }
  const std::int64_t time = world.now + rules.stamp_offset;
  const timeval stamp = {.tv_sec = time / 1000000, .tv_usec = time % 1000000};
  message->msg_controllen = CMSG_SPACE(sizeof stamp);
  cmsghdr* part = CMSG_FIRSTHDR(message);
  *part = {.cmsg_len = CMSG_LEN(sizeof stamp), .cmsg_level = SOL_SOCKET, .cmsg_type = SO_TIMESTAMP};
  std::memcpy(CMSG_DATA(part), &stamp, sizeof stamp);
  return length;
}

int recvmmsg(int socket, mmsghdr* messages, unsigned int count, int flags, timespec* /*timeout*/) {
  unsigned int got = 0;
  for (; got < count; ++got) {
    const ssize_t length = read_message(socket, &messages[got].msg_hdr, flags);
    if (length < 0) break;
    messages[got].msg_len = static_cast<unsigned int>(length);
  }
  return got != 0 ? static_cast<int>(got) : -1;
}

}  // extern "C"

// A line of arguments, then the steps.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int last_of_others = dup(0);  // descriptors above are the run's
  const std::uint8_t* end_of_line = std::find(data, data + size, '\n');
  std::istringstream words("vorn " + std::string(data, end_of_line));
  std::vector<std::string> texts(std::istream_iterator<std::string>(words), {});
  std::vector<char*> arguments;
  for (std::string& text : texts) arguments.push_back(text.data());

  world = {};
  world.on_yield = count_call;
  world.on_send = answer;
  world.send_error = [](bool /*side_by_side*/) { return is_refused() ? errno : 0; };
  rules = {};
  discard_read_ahead();
  bandwidth_samples.count = buffer_samples.count = 0;
  results_filename = results_tag = nullptr;
  answer_progress_with(nullptr, nullptr, nullptr, nullptr);
  call_at_exit(nullptr);
  std::signal(SIGQUIT, [](int) {});
  plan_steps(std::min(end_of_line + 1, data + size), data + size);
  run_from_start_to_exit(arguments);
  world = {};
  if (stop_signal() != 0 && !stopped) _exit(0);  // somebody wants this program to end
  if (results_file != nullptr) std::abort();
  close_range(static_cast<unsigned>(last_of_others) + 1, ~0U, 0);
  return 0;
}

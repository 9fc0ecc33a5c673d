// The whole program, from its command line to its exit, in a world that the input rules: what comes in when, what every
// call on a socket meets, the steps of the clock, the signals, the kernel's stamps.
#include <dlfcn.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <pthread.h>
#include <sys/time.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>

#include "app/program.h"
#include "base/cleanup_exit.h"
#include "base/signals.h"
#include "fuzz/sealed_host.h"
#include "net/socket_wait.h"
#include "support/workbench.h"

namespace {

constexpr std::int32_t process_id = 70000;
constexpr int longest_run = 400;    // calls on sockets, yields and writes of the peer; then a signal ends it
constexpr int end_signal = SIGHUP;  // any other stop signal is meant for the fuzz target

struct fuzzed_run {
  FuzzedDataProvider* events = nullptr;  // what happens, one after the other; nullptr = there is no run
  FuzzedDataProvider* calls = nullptr;   // what each call on a socket meets
  int calls_so_far = 0;
  int answers_of_four = 0;       // how many of four packets the peer answers
  std::int64_t answer_usec = 0;  // after which it does
  bool icmp = false;
  int ours = -1;  // the sockets of the code and of its peer
  int peer = -1;
};

fuzzed_run run;
jmp_buf end_of_run;

void send_signal(int number) {
  if (stop_signal() == 0) pthread_kill(pthread_self(), number);  // a second one would end the process
}

void count_call() {
  if (++run.calls_so_far > longest_run) send_signal(end_signal);
}

// True, with errno set, when a call on a socket is to fail.
bool is_refused() {
  static constexpr int errors[] = {0, EAGAIN, EPERM, EMSGSIZE, EINVAL, EACCES, EINTR, ENOBUFS, EINPROGRESS, EBADF};
  count_call();
  errno = run.calls->PickValueInArray(errors);
  return errno != 0;
}

int new_socket(int type) {
  int ends[2] = {-1, -1};
  if (is_refused() || socketpair(AF_UNIX, type, 0, ends) != 0) return -1;
  run.ours = ends[0];
  run.peer = ends[1];
  return run.ours;
}

// False when the socket is full or gone. An empty datagram is sent too.
bool write_to(int socket, const byte_vector& bytes) {
  count_call();
  return syscall(SYS_sendto, socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0) >= 0;
}

void write_to_code(const byte_vector& bytes, std::int64_t usec) {
  world.after(usec, [bytes] { write_to(run.peer, bytes); });
}

// A command asks for packets of a stream, the last of which may be missing; everything else for its reply.
void answer(const byte_vector& frame) {
  if (world.sent % 4 >= run.answers_of_four || frame.size() < 8) return;
  if (run.icmp) {
    write_to_code(datagram(with_checksum(patched(frame, 0, {0}))), run.answer_usec);
  } else if (frame.size() == 164 && frame[3] == 4) {
    const std::int64_t count = std::min(frame[30] << 8U | frame[31], 60);
    const std::int64_t gap_usec = frame[39] + 100;
    for (std::int64_t i = 0; i < count; ++i)
      write_to_code(message(3, process_id, frame[11], i, 40), run.answer_usec + i * gap_usec);
  } else {
    write_to_code(patched(frame, 0, be32(2)), run.answer_usec);
  }
}

// Bytes that pass the first checks, so that the later ones are met too.
byte_vector made_plausible(const byte_vector& bytes) {
  if (bytes.size() < 8) return bytes;
  if (!run.icmp) return patched(bytes, 4, raw(process_id));
  return datagram(with_checksum(patched(bytes, 4, raw(static_cast<std::uint16_t>(process_id)))));
}

void stop_reading(std::int64_t usec) {
  while (write_to(run.ours, byte_vector(16384))) {
  }
  world.after(usec, [] { discard_from(run.peer); });
}

void let_something_happen() {
  static constexpr std::int64_t clock_steps[] = {-3000000000000, -30000000, -2000, 2000, 30000000, 3000000000000};
  FuzzedDataProvider& input = *run.events;
  switch (input.ConsumeIntegralInRange(0, 4)) {
    case 0:
      write_to(run.peer, made_plausible(input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegral<std::uint16_t>())));
      return;
    case 1:
      world.set_by += input.PickValueInArray(clock_steps);
      world.send_stamps.emplace_back(static_cast<std::uint32_t>(world.sent - 1), world.now);
      return;
    case 2:
      return send_signal(input.PickValueInArray({SIGQUIT, end_signal}));
    case 3:
      shutdown(run.peer, SHUT_WR);
      return;
    default:
      return stop_reading(input.ConsumeIntegral<std::uint16_t>());
  }
}

void plan_next_event() {
  if (run.events->remaining_bytes() == 0) return world.after(20000000, [] { send_signal(end_signal); });
  const std::int64_t pause = run.events->ConsumeIntegral<std::uint8_t>();
  world.after(pause * pause * 20, [] {
    let_something_happen();
    plan_next_event();
  });
}

void run_from_start_to_exit(std::vector<char*> arguments) {
  if (setjmp(end_of_run) != 0) return;
  cleanup_exit(run_program(static_cast<int>(arguments.size()), arguments.data()));
}

// As the kernel does, which stamps what it received.
void complete(msghdr* message) {
  static_cast<sockaddr_in*>(message->msg_name)->sin_addr.s_addr = inet_addr("10.0.0.7");
  const std::int64_t age = run.calls->PickValueInArray({0, 30, 5000000, -30});
  if (age == 0) return;
  const std::int64_t time = world.now + world.set_by - age;
  const timespec stamp = {.tv_sec = time / 1000000, .tv_nsec = time % 1000000 * 1000};
  message->msg_controllen = CMSG_SPACE(sizeof stamp);
  cmsghdr* part = CMSG_FIRSTHDR(message);
  *part = {.cmsg_len = CMSG_LEN(sizeof stamp), .cmsg_level = SOL_SOCKET, .cmsg_type = SO_TIMESTAMPNS};
  std::memcpy(CMSG_DATA(part), &stamp, sizeof stamp);
}

}  // namespace

extern "C" {

void exit(int status) noexcept {
  if (run.events == nullptr) reinterpret_cast<void (*)(int)>(dlsym(RTLD_NEXT, "exit"))(status);
  if (current_run_state != nullptr && current_run_state->packet_table != nullptr)
    munmap(current_run_state->packet_table, packet_table_slots * sizeof(packet_slot));
  current_run_state = nullptr;
  std::longjmp(end_of_run, 1);
}

int raise(int /*signal*/) noexcept {
  std::exit(0);
}

pid_t getpid() noexcept {
  return process_id;
}

int socket(int /*domain*/, int type, int /*protocol*/) noexcept {
  run.icmp = (type & 15) == SOCK_RAW;
  return new_socket((type & 15) == SOCK_STREAM ? SOCK_STREAM : SOCK_DGRAM);
}

int connect(int /*socket*/, const sockaddr* /*to*/, socklen_t /*length*/) {
  return is_refused() ? -1 : 0;
}

int bind(int /*socket*/, const sockaddr* /*address*/, socklen_t /*length*/) noexcept {
  return is_refused() ? -1 : 0;
}

int listen(int /*socket*/, int /*backlog*/) noexcept {
  write_to(run.peer, {1});  // somebody always connects
  return is_refused() ? -1 : 0;
}

int accept4(int /*socket*/, sockaddr* /*from*/, socklen_t* /*length*/, int /*flags*/) {
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
  return static_cast<ssize_t>(run.calls->ConsumeBool() ? (length + 1) / 2 : length);
}

int recvmmsg(int socket, mmsghdr* messages, unsigned int count, int flags, timespec* timeout) {
  if (is_refused()) return -1;
  const auto got = static_cast<int>(syscall(SYS_recvmmsg, socket, messages, count, flags, timeout));
  for (int i = 0; i < got; ++i) complete(&messages[i].msg_hdr);
  return got;
}

}  // extern "C"

// A line of arguments, how the peer answers, what the calls on sockets meet, and what happens when.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int last_of_others = dup(0);  // descriptors above are the run's
  FuzzedDataProvider input(data, size);
  std::vector<std::string> arguments = words_of("vorn " + input.ConsumeRandomLengthString());
  run.answers_of_four = input.ConsumeIntegralInRange(0, 4);
  run.answer_usec = input.ConsumeIntegral<std::uint16_t>() * 10;
  const auto met_by_calls = input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegral<std::uint8_t>());
  FuzzedDataProvider calls(met_by_calls.data(), met_by_calls.size());
  run.calls = &calls;
  run.events = &input;

  world.overshoot = 1;  // a release is due once its time has passed; a wait that ends right then costs many calls
  world.on_yield = count_call;
  world.on_send = answer;
  world.send_error = [](bool /*side_by_side*/) { return is_refused() ? errno : 0; };
  results_filename = results_tag = nullptr;
  answer_progress_with(nullptr, nullptr, nullptr, nullptr);
  std::signal(SIGQUIT, [](int) {});
  std::signal(end_signal, SIG_DFL);  // caught below nohup too
  plan_next_event();
  run_from_start_to_exit(pointers_to(&arguments));
  if (stop_signal() != 0 && stop_signal() != end_signal) _exit(0);  // somebody wants this program to end
  if (results_file != nullptr) std::abort();
  begin_anew();
  run = {};
  close_range(static_cast<unsigned>(last_of_others) + 1, ~0U, 0);
  return 0;
}

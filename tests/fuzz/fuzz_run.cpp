// The whole program, from its command line to its exit, in a world that the input rules: what comes in when, what every
// call on a socket meets, the steps of the clock, the signals, the kernel's stamps.
#include <fuzzer/FuzzedDataProvider.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>

#include "app/program.h"
#include "base/cleanup_exit.h"
#include "base/signals.h"
#include "net/socket_wait.h"
#include "support/workbench.h"

namespace {

constexpr int longest_run = 140;    // calls on sockets and yields; then a signal ends it
constexpr int end_signal = SIGHUP;  // any other stop signal is meant for the fuzz target

struct fuzzed_run {
  FuzzedDataProvider* events = nullptr;  // what happens, one after the other
  FuzzedDataProvider* calls = nullptr;   // what each call on a socket meets
  int calls_so_far = 0;
  int answers_of_four = 0;       // how many of four packets the peer answers
  std::int64_t answer_usec = 0;  // after which it does
};

fuzzed_run run;
jmp_buf end_of_run;

// One that the program does not catch, not yet or no longer, would end the fuzz target.
void send_signal(int number) {
  struct sigaction action = {};
  if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL) pthread_kill(pthread_self(), number);
}

void count_call() {
  if (++run.calls_so_far > longest_run) send_signal(end_signal);
}

int error_of_call(call which) {
  static constexpr int errors[] = {0, EAGAIN, EPERM, EMSGSIZE, EINVAL, EACCES, EINTR, ENOBUFS, EINPROGRESS, EBADF};
  count_call();
  const int error = run.calls->PickValueInArray(errors);
  if (which == call::recvmmsg) world.arrival_age = run.calls->PickValueInArray({0, 30, 5000000, -30});
  if (which == call::send) world.sends_half = run.calls->ConsumeBool();
  return error;
}

// A command asks for packets of a stream, the last of which may be missing; everything else for its reply.
void answer(const byte_vector& frame) {
  if (world.sent % 4 >= run.answers_of_four || frame.size() < 8) return;
  if (world.type == SOCK_RAW) {
    world.deliver(run.answer_usec, datagram(with_checksum(patched(frame, 0, {0}))));
  } else if (frame.size() == 164 && frame[3] == 4) {
    const std::int64_t count = std::min(frame[30] << 8U | frame[31], 60);
    const std::int64_t gap_usec = frame[39] + 100;
    for (std::int64_t i = 0; i < count; ++i)
      world.deliver(run.answer_usec + i * gap_usec, message(3, getpid(), frame[11], i, 40));
  } else {
    world.deliver(run.answer_usec, patched(frame, 0, be32(2)));
  }
}

// Bytes that pass the first checks, so that the later ones are met too.
byte_vector made_plausible(const byte_vector& bytes) {
  if (bytes.size() < 8) return bytes;
  if (world.type != SOCK_RAW) return patched(bytes, 4, raw(getpid()));
  return datagram(with_checksum(patched(bytes, 4, raw(static_cast<std::uint16_t>(getpid())))));
}

void let_something_happen() {
  static constexpr std::int64_t clock_steps[] = {-3000000000000, -30000000, -2000, 2000, 30000000, 3000000000000};
  FuzzedDataProvider& input = *run.events;
  switch (input.ConsumeIntegralInRange(0, 4)) {
    case 0:
      return world.deliver(0, made_plausible(input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegral<std::uint16_t>())));
    case 1:
      world.set_by += input.PickValueInArray(clock_steps);
      world.send_stamps.emplace_back(static_cast<std::uint32_t>(world.sent - 1), world.now);
      return;
    case 2:
      return send_signal(input.PickValueInArray({SIGQUIT, end_signal}));
    case 3:
      shutdown(world.peer, SHUT_WR);
      return;
    default:
      world.fill();
      return world.after(input.ConsumeIntegral<std::uint16_t>(), [] { world.drain(); });
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

void leave_run() {
  const run_state* left = current_run_state;  // a run that was cut short, with its table
  if (left != nullptr && left->packet_table != nullptr)
    munmap(left->packet_table, left->packet_table_size * sizeof(packet_slot));
  current_run_state = nullptr;
  std::longjmp(end_of_run, 1);
}

}  // namespace

// A line of arguments, how the peer answers, what the calls on sockets meet, and what happens when.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int last_of_others = dup(0);  // descriptors above are the run's
  FuzzedDataProvider input(data, size);
  std::vector<std::string> words = words_of("vorn " + input.ConsumeRandomLengthString());
  std::vector<char*> arguments = pointers_to(&words);
  run.answers_of_four = input.ConsumeIntegralInRange(0, 4);
  run.answer_usec = input.ConsumeIntegral<std::uint16_t>() * 10;
  const auto met_by_calls = input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegral<std::uint8_t>());
  FuzzedDataProvider calls(met_by_calls.data(), met_by_calls.size());
  run.calls = &calls;
  run.events = &input;

  world.overshoot = 1;  // a release is due once its time has passed; a wait that ends right then costs many calls
  world.on_yield = count_call;
  world.on_exit = leave_run;
  world.on_send = answer;
  world.meets = error_of_call;
  results_filename = results_tag = nullptr;
  answer_progress_with(nullptr, nullptr, nullptr, nullptr);
  std::signal(SIGQUIT, [](int) {});
  std::signal(end_signal, SIG_DFL);  // caught below nohup too
  plan_next_event();
  if (setjmp(end_of_run) == 0) cleanup_exit(run_program(static_cast<int>(arguments.size()), arguments.data()));
  if (stop_signal() != 0 && stop_signal() != end_signal) _exit(0);  // somebody wants this program to end
  if (results_file != nullptr) std::abort();
  begin_anew();
  run = {};
  close_range(static_cast<unsigned>(last_of_others) + 1, ~0U, 0);
  return 0;
}

// A paced sender with a credit of microseconds: each pass sends one packet per PERIOD that the clock has moved on and
// keeps the remainder. MODE says how it sleeps between passes: "sleep" is a select without descriptors for one whole
// period and reads nothing; "wait" is a select on its socket until the next packet is due, in which it also reads the
// answers, of which at most WINDOW are awaited. The timer slack is 1 ns, the least that a process may ask for.
#include <sys/prctl.h>
#include <sys/select.h>

#include "bare_common.h"

static constexpr const char* usage = "CARRIER(udp|icmp) HOST PORT PACKET_BYTES RATE COUNT MODE(sleep|wait) WINDOW";
static constexpr std::int64_t first_burst_usec = 10000;
static constexpr std::int64_t longest_silence_usec = 100000;  // after it, what is unanswered is given up

struct paced_run {
  bool udp;
  bool waits;
  sockaddr_in destination;
  std::size_t packet_bytes;
  std::int64_t period_usec;
  std::uint32_t count;
  std::uint32_t window;
  int socket_fd;
  std::uint32_t sent;
  std::uint32_t unanswered;
  std::int64_t credit_usec;
  std::int64_t last_pass;  // usec
  std::int64_t last_send;  // usec
};

static std::uint8_t buffer[largest_packet_bytes];

static std::uint32_t packets_due(paced_run* run) {
  const std::int64_t now = clock_usec();
  const std::int64_t elapsed = run->sent == 0 ? first_burst_usec : now - run->last_pass;
  const std::int64_t credit = run->credit_usec + elapsed;
  auto due = static_cast<std::uint32_t>(credit / run->period_usec);
  if (due > run->count - run->sent) due = run->count - run->sent;
  if (run->waits && due > run->window - run->unanswered) due = run->window - run->unanswered;
  if (due != 0) {
    run->last_pass = now;
    run->credit_usec = credit % run->period_usec;
  }
  return due;
}

static void send_next(paced_run* run, std::uint8_t* packet) {
  const auto identifier = static_cast<std::uint16_t>(own_process_id);
  run->last_send = clock_usec();
  if (run->udp) {
    write_message_header(packet, run->waits ? echo_request : data, 0, run->sent, run->packet_bytes);
  } else {
    write_echo_frame(packet, run->waits ? ICMP_ECHO : ICMP_ECHOREPLY, identifier, run->sent);
  }
  send_packet(run->socket_fd, packet, run->packet_bytes, run->destination);
  ++run->sent;
  ++run->unanswered;
}

static void sleep_for(std::int64_t usec) {
  timeval rest = {usec / 1000000, usec % 1000000};
  select(0, nullptr, nullptr, nullptr, &rest);
}

static void read_answer(paced_run* run) {
  const ssize_t length = recvfrom(run->socket_fd, buffer, sizeof buffer, 0, nullptr, nullptr);
  if (length > 0 && run->unanswered != 0) --run->unanswered;
}

static bool window_is_full(const paced_run& run) {
  return run.unanswered >= run.window;
}

// Until the next packet is due; with a full window, until what is unanswered is given up.
static std::int64_t usec_to_wait(const paced_run& run) {
  return run.last_send + (window_is_full(run) ? longest_silence_usec : run.period_usec) - clock_usec();
}

static void read_until_due(paced_run* run) {
  for (std::int64_t left = usec_to_wait(*run); left > 0; left = usec_to_wait(*run)) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(run->socket_fd, &readable);
    timeval rest = {left / 1000000, left % 1000000};
    if (select(run->socket_fd + 1, &readable, nullptr, nullptr, &rest) > 0) read_answer(run);
  }
  if (window_is_full(*run)) run->unanswered = 0;
}

static paced_run read_arguments(int argc, char** argv) {
  paced_run run = {};
  run.window = static_cast<std::uint32_t>(number_argument(argc, argv, 8, usage));
  run.udp = std::strcmp(argv[1], "udp") == 0;
  run.waits = std::strcmp(argv[7], "wait") == 0;
  run.destination = address_of(argv[2], static_cast<std::uint16_t>(number_argument(argc, argv, 3, usage)));
  run.packet_bytes = static_cast<std::size_t>(number_argument(argc, argv, 4, usage));
  run.period_usec = static_cast<std::int64_t>(1000000 / number_argument(argc, argv, 5, usage));
  run.count = static_cast<std::uint32_t>(number_argument(argc, argv, 6, usage));
  return run;
}

int main(int argc, char** argv) {
  paced_run run = read_arguments(argc, argv);
  static std::uint8_t packet[largest_packet_bytes];
  run.socket_fd = run.udp ? open_udp_socket(0) : open_icmp_socket(run.waits ? 1U << ICMP_ECHOREPLY : 0);
  prctl(PR_SET_TIMERSLACK, 1);

  while (run.sent < run.count) {
    for (std::uint32_t due = packets_due(&run); due != 0; --due) send_next(&run, packet);
    if (run.waits) {
      read_until_due(&run);
    } else {
      sleep_for(run.period_usec);
    }
  }
  std::printf("sent %u\n", run.sent);
}

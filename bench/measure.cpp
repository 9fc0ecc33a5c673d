// Runs a program and writes what it cost, one line per run, to REPORT: wall, user and system time in seconds, peak
// resident memory in kB, exit status. Being small itself it keeps its own size out of the memory figure, which starts
// from that of the process that executed the program.
//   measure REPORT CPU RUNS STOP_AFTER PROGRAM [ARGUMENT...]
// CPU -1 leaves the choice to the kernel. STOP_AFTER other than 0 sends SIGINT after so many seconds, for programs
// that do not end on their own. SIGTERM is passed on, and ends the runs.
#include <sched.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

static constexpr int first_program_argument = 5;

static volatile pid_t child = 0;
static volatile std::sig_atomic_t told_to_end = 0;

static void interrupt_child(int /*signal*/) {
  if (child > 0) kill(child, SIGINT);
}

static void end_child(int /*signal*/) {
  told_to_end = 1;
  if (child > 0) kill(child, SIGTERM);
}

static void on_signal(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigaction(signal, &action, nullptr);
}

static double clock_seconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

static double seconds_of(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

static void pin_to(int cpu) {
  if (cpu < 0) return;
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  CPU_SET(static_cast<std::size_t>(cpu), &cpus);
  sched_setaffinity(0, sizeof cpus, &cpus);
}

static void stop_after(double seconds) {
  const auto whole = static_cast<time_t>(seconds);
  const itimerval alarm_time = {{}, {whole, static_cast<suseconds_t>((seconds - static_cast<double>(whole)) * 1e6)}};
  setitimer(ITIMER_REAL, &alarm_time, nullptr);
}

static void run_once(std::FILE* report, double stop_seconds, char** program) {
  const double start = clock_seconds();
  child = vfork();
  if (child == 0) {
    execvp(program[0], program);
    _exit(127);
  }
  stop_after(stop_seconds);
  int status = 0;
  rusage used = {};
  while (wait4(child, &status, 0, &used) < 0 && errno == EINTR) {
  }
  const double wall = clock_seconds() - start;
  child = 0;
  std::fprintf(report, "%.9f %.6f %.6f %ld %d\n", wall, seconds_of(used.ru_utime), seconds_of(used.ru_stime),
               used.ru_maxrss, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

int main(int argc, char** argv) {
  if (argc <= first_program_argument) {
    std::fprintf(stderr, "usage: %s REPORT CPU RUNS STOP_AFTER PROGRAM [ARGUMENT...]\n", argv[0]);
    return 2;
  }
  std::FILE* report = std::fopen(argv[1], "w");
  if (report == nullptr) {
    std::perror(argv[1]);
    return 1;
  }
  pin_to(std::atoi(argv[2]));
  on_signal(SIGALRM, interrupt_child);
  on_signal(SIGTERM, end_child);
  for (int runs = std::atoi(argv[3]); runs > 0 && told_to_end == 0; --runs) {
    run_once(report, std::atof(argv[4]), argv + first_program_argument);
  }
  std::fclose(report);
}

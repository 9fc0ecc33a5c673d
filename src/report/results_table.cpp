#include "report/results_table.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>

namespace {

constexpr mode_t mode_before_umask = 0666;
constexpr int most_attempts = 100;

bool is_fifo(const char* name) {
  struct stat state = {};
  return stat(name, &state) == 0 && S_ISFIFO(state.st_mode);
}

// A full disk may take the first part of a row: takes it back, unless another program has appended behind it.
void take_back(int descriptor, ssize_t written) {
  struct stat state = {};
  const off_t end = lseek(descriptor, 0, SEEK_CUR);
  if (written <= 0 || fstat(descriptor, &state) != 0 || !S_ISREG(state.st_mode) || state.st_size != end) return;
  [[maybe_unused]] const int result = ftruncate(descriptor, end - written);
}

// One write in append mode is one piece in the file, whoever else appends to it. False as well for a file that nobody
// can find any more, because its directory was removed meanwhile.
bool write_whole(int descriptor, const char* text, std::size_t length) {
  ssize_t written = 0;
  do {
    written = write(descriptor, text, length);
  } while (written < 0 && errno == EINTR);
  if (written != static_cast<ssize_t>(length)) {
    take_back(descriptor, written);
    return false;
  }
  struct stat state = {};
  return fstat(descriptor, &state) == 0 && state.st_nlink != 0;
}

// The name that an open file has now (proc(5)): the one it was opened by leads elsewhere once the process is a daemon.
// False when that cannot be known.
bool find_name(int descriptor, std::array<char, PATH_MAX>* name) {
  std::array<char, 32> link = {};
  std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", descriptor);
  return readlink(link.data(), name->data(), name->size() - 1) > 0;
}

// A run that removes the file has it locked for that moment. Whoever opens it just then would write to a file that
// nobody finds, and has to open it anew. False then; a file system without locks, or a lock that another program holds
// for longer, is no hindrance.
bool lock_as_user(int descriptor) {
  struct stat state = {};
  const bool locked = flock(descriptor, LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK;
  return locked && fstat(descriptor, &state) == 0 && state.st_nlink != 0;
}

int open_once(const char* name, bool fifo, int* is_new) {
  const int probe = open(name, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  *is_new = probe < 0 ? 1 : 0;
  if (probe >= 0) close(probe);
  return open(name, (fifo ? O_WRONLY : O_RDWR | O_CREAT) | O_APPEND | O_NONBLOCK | O_CLOEXEC, mode_before_umask);
}

// Unless it has been replaced by another file or was removed, and unless another run holds it.
void remove_if_unused(int descriptor) {
  std::array<char, PATH_MAX> name = {};
  struct stat open_file = {};
  struct stat named_file = {};
  if (flock(descriptor, LOCK_EX | LOCK_NB) != 0 || !find_name(descriptor, &name)) return;
  if (fstat(descriptor, &open_file) != 0 || stat(name.data(), &named_file) != 0) return;
  const bool same = open_file.st_dev == named_file.st_dev && open_file.st_ino == named_file.st_ino;
  if (same && S_ISREG(open_file.st_mode) && open_file.st_size == 0) unlink(name.data());
}

}  // namespace

std::FILE* open_results_table(const char* name, int* is_new) {
  const bool fifo = is_fifo(name);
  int descriptor = open_once(name, fifo, is_new);
  for (int attempt = 1; descriptor >= 0 && !lock_as_user(descriptor) && attempt < most_attempts; ++attempt) {
    close(descriptor);
    sched_yield();
    descriptor = open_once(name, fifo, is_new);
  }
  if (descriptor < 0) return nullptr;
  std::FILE* table = fdopen(descriptor, fifo ? "a" : "a+");
  if (table == nullptr) close(descriptor);
  return table;
}

bool append_to_table(std::FILE* table, const char* text, std::size_t length) {
  // A FIFO whose reader is gone must fail like a full disk, not end the program.
  const auto previous = std::signal(SIGPIPE, SIG_IGN);
  const bool appended = write_whole(fileno(table), text, length);
  std::signal(SIGPIPE, previous);
  return appended;
}

void close_results_table(std::FILE* table, int is_new) {
  if (is_new != 0) remove_if_unused(fileno(table));
  std::fclose(table);
}

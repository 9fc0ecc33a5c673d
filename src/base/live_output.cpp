#include "base/live_output.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace {

// A file or socket opened later would otherwise take the place of standard output and receive our lines.
void fill_closed_standard_descriptors() {
  int descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = open("/dev/null", O_RDWR);
  if (descriptor >= 0) close(descriptor);
}

// Where both go to one terminal or file, lines must keep their order, which a full buffer of one would break.
bool both_streams_lead_to_one_place() {
  struct stat out = {};
  struct stat err = {};
  if (fstat(STDOUT_FILENO, &out) != 0 || fstat(STDERR_FILENO, &err) != 0) return false;
  return out.st_dev == err.st_dev && out.st_ino == err.st_ino;
}

}  // namespace

void set_up_standard_streams() {
  fill_closed_standard_descriptors();
  std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow fails the write, like a full disk
  std::setvbuf(stdout, nullptr, both_streams_lead_to_one_place() ? _IOLBF : _IOFBF, BUFSIZ);
}

bool output_is_waiting() {
  return __fpending(stdout) != 0;
}

void flush_output() {
  std::fflush(stdout);
}

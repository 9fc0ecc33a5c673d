// The parser of the command line. It neither resolves, nor detaches, nor touches files.
#include <fcntl.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "support/bench.h"

static int opened = 0;

extern "C" hostent* gethostbyname(const char* name) {
  static char address[4] = {10, 0, 0, 1};
  static char* addresses[2] = {address, nullptr};
  static hostent host = {};
  host.h_addrtype = name[0] == '6' ? AF_INET6 : AF_INET;
  host.h_length = 4;
  host.h_addr_list = name[0] == 'e' ? addresses + 1 : addresses;
  return name[0] == 'x' ? nullptr : &host;
}

extern "C" int daemon(int /*no_chdir*/, int /*no_close*/) noexcept {
  return opened > 3 ? -1 : 0;
}

extern "C" int open(const char* name, int flags, ...) {
  if ((flags & O_CREAT) == 0 || name[0] == 'x' || ++opened > 1) return -1;  // one file a run
  return memfd_create("results", MFD_CLOEXEC);
}

// The arguments, each behind the one before and a NUL.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> texts = {"vorn"};
  std::istringstream words(std::string(data, data + size));
  for (std::string word; std::getline(words, word, '\0');) texts.push_back(word);
  std::vector<char*> arguments;
  for (std::string& text : texts) arguments.push_back(text.data());
  opened = 0;
  test_settings settings = {};
  const int result = parse_command_line(static_cast<int>(arguments.size()), arguments.data(), &settings);
  if (results_file != nullptr) std::fclose(std::exchange(results_file, nullptr));
  if (result != 0) return result == 1 ? 0 : (std::abort(), 0);
  const bool bounded = settings.delay_usec >= 1 && settings.max_outstanding >= 1 && settings.max_outstanding <= 65534 &&
                       settings.echo_count >= 1 && settings.remote_echoes <= 65536 && settings.ip_length <= 65535 &&
                       settings.tos <= 255;
  if (!bounded || (settings.udp != 0 && settings.tcp != 0) || (settings.start_host == 0 && settings.partner_mode == 0))
    std::abort();
  return 0;
}

// The parser of the command line. It neither resolves, nor detaches, nor touches files.
#include "support/workbench.h"

// The arguments, each behind the one before and a NUL.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> texts = {"vorn"};
  std::istringstream words(std::string(data, data + size));
  for (std::string word; std::getline(words, word, '\0');) texts.push_back(word);
  std::vector<char*> arguments = pointers_to(&texts);
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

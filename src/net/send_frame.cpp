#include "net/send_frame.h"

#include "base/run_records.h"
#include "base/settings.h"
#include "wire/icmp_echo.h"
#include "wire/messages.h"
#include "wire/remote_command.h"

namespace {

message_type type_of_message(const test_settings* settings) {
  if (is_commander(settings)) return message_operation;
  return settings->unidirectional != 0 ? message_data : message_echo_request;
}

}  // namespace

std::uint32_t frame_bytes(const test_settings* settings, const run_state* run) {
  return is_commander(settings) ? std::uint32_t{sizeof(operation_message)} : run->transmit_length;
}

std::uint32_t write_frame_header(const test_settings* settings, const run_state* run, std::uint32_t sequence,
                                 std::uint8_t* frame) {
  if (uses_icmp(settings)) {
    const icmp_echo echo = {
        .type = settings->unidirectional != 0 ? icmp_echo_reply : icmp_echo_request,
        .identifier = static_cast<std::uint16_t>(settings->process_id),
        .sequence = static_cast<std::uint16_t>(sequence),
    };
    write_icmp_echo(&echo, frame);
    return icmp_header_bytes;
  }
  const test_header header = {
      .type = type_of_message(settings),
      .process_id = settings->process_id,
      .batch = run->batch,
      .sequence = sequence,
      .length = frame_bytes(settings, run),
  };
  write_test_header(&header, frame);
  return test_header_bytes;
}

// What reading one frame came to.
#pragma once

enum frame_result : int {
  frame_failed = -1,     // the wait failed, a datagram was empty; on TCP the position in the stream is lost
  frame_none = 0,        // nothing came in time, or what came does not count
  frame_counted = 1,     // it settled a request or counted as a packet of a stream
  frame_ends_batch = 2,  // it was the last packet of a batch
};

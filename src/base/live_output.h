// When printed text reaches the outside.
//
// Standard error is unbuffered. Standard output is gathered between two waits and goes out before the next one; where
// both lead to one place, every line goes out at once, so that their order stays what was printed.
#pragma once

// Opens the null device on whichever of descriptors 0, 1 and 2 the program was started without, so that no socket or
// file takes their number, and sets the buffering of standard output. Call once, before anything is printed or opened.
void set_up_standard_streams();

// True when standard output has gathered something that is not out yet.
[[nodiscard]] bool output_is_waiting();

// Writes out what standard output has gathered. Called just before the program waits, sleeps, forks or ends.
void flush_output();

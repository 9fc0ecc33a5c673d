// One table on disk, to which every test appends a row.
#pragma once

#include <cstddef>
#include <cstdio>

// Opens a table for appending and creates it where it is missing; *is_new becomes 1 when there was none that can be
// read, else 0. Never waits: a FIFO opens only when somebody reads it. Holds a shared lock (flock(2)) while it is open,
// which tells other runs that it is in use; null when it cannot be opened.
[[nodiscard]] std::FILE* open_results_table(const char* name, int* is_new);

// Appends `text` whole, in one write, or not at all; false when that fails, as on a full disk.
[[nodiscard]] bool append_to_table(std::FILE* table, const char* text, std::size_t length);

// Closes a table. One that this run made (`is_new` as open_results_table said), that is still empty and that no other
// run has open is removed, so that the next run makes it again, with its header.
void close_results_table(std::FILE* table, int is_new);

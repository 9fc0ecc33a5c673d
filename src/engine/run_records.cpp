#include "engine/run_records.h"

run_state* current_run_state = nullptr;

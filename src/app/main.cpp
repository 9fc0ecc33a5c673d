#include "app/program.h"
#include "base/cleanup_exit.h"

// All of the program is in vorn_core, so that tests link what ships.
int main(int argc, char** argv) {
  cleanup_exit(run_program(argc, argv));
}

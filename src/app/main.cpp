#include "app/program.h"
#include "base/cleanup_exit.h"

int main(int argc, char** argv) {
  cleanup_exit(run_program(argc, argv));
}

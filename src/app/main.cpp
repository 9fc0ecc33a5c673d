#include "app/cleanup_exit.h"
#include "app/program.h"

int main(int argc, char** argv) {
  cleanup_exit(run_program(argc, argv));
}

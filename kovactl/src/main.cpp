#include "Program.h"

int main(int argc, char** argv) {
  return static_cast<int>(kova::ctl::Program().run(argc, argv));
}

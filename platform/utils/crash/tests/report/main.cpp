/// kova_crash_report FOLDER: crashes and leaves the report in FOLDER.

#include "CrashInternal.h"

namespace {

[[gnu::noinline]] int readNowhere() {
  volatile int* volatile nowhere = nullptr;
  return *nowhere;  // crashes here
}

[[gnu::noinline]] int callIt() {
  return readNowhere() + 1;  // called here
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || !kova::utils::installCrashDumpHandler(argv[1], "")) return 2;
  return callIt() - 1;
}

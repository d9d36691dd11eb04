// glibc takes large blocks from the system and gives them back, but with each one that is freed it
// raises the size from which it does so. The buffers of 2 MB that uploads use would then come to
// lie in the heap among long-lived blocks, and resident memory would grow by 0.5 KiB a transfer. A
// threshold that was set stays as it is, see mallopt(3).
#include <malloc.h>

#ifdef __GLIBC__
namespace {

constexpr int kLargeBlock = 128 * 1024;  // glibc's own threshold at first

[[maybe_unused]] const int thresholdFixed = mallopt(M_MMAP_THRESHOLD, kLargeBlock);

}  // namespace
#endif

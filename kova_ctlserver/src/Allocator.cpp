// glibc maps large blocks and unmaps them when they are freed, but raises the threshold each time
// it frees one. The 2 MB buffers of uploads would then land in the heap among long-lived blocks,
// and resident memory would grow by 0.5 KiB per transfer. Setting the threshold fixes it, see
// mallopt(3).
#include <malloc.h>

#ifdef __GLIBC__
namespace {

constexpr int kLargeBlock = 128 * 1024;  // glibc's initial threshold

[[maybe_unused]] const int kThresholdFixed = mallopt(M_MMAP_THRESHOLD, kLargeBlock);

}  // namespace
#endif

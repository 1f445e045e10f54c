// SPDX-License-Identifier: Apache-2.0
#include "platform/base/vm_clock.h"

#include <endian.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <utility>

namespace base {
inline namespace skorra_ntp {

namespace {

// Begins like the page. All fields are little-endian.
struct Page {
  uint32_t magic;
  uint32_t size_bytes;
  uint16_t version;
  uint8_t counter_id;
  uint8_t time_type;
  uint32_t sequence;
  uint64_t disruption_marker;
};
static_assert(offsetof(Page, disruption_marker) == 16 && sizeof(Page) == 24);

constexpr uint32_t kMagic = 0x4b4c4356;  // "VCLK"

// Maps a file that is long enough, or a character device, which has no length of its own. Null otherwise.
const Page* Map(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    return nullptr;
  }
  const bool is_long_enough = S_ISREG(status.st_mode) && status.st_size >= off_t{sizeof(Page)};
  if (!is_long_enough && !S_ISCHR(status.st_mode)) {
    return nullptr;
  }
  void* const page = mmap(nullptr, sizeof(Page), PROT_READ, MAP_SHARED, fd, 0);
  return page == MAP_FAILED ? nullptr : static_cast<const Page*>(page);
}

}  // namespace

std::unique_ptr<VmClock> VmClock::Open(const std::string& path) {
  // Without O_NONBLOCK a FIFO would wait for a writer.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    return nullptr;
  }
  const Page* const page = Map(fd);
  close(fd);
  if (page == nullptr) {
    return nullptr;
  }
  std::unique_ptr<VmClock> clock(new VmClock(page));
  return le32toh(page->magic) == kMagic && le32toh(page->size_bytes) >= sizeof(Page) ? std::move(clock)
                                                                                     : nullptr;
}

VmClock::~VmClock() { munmap(const_cast<void*>(page_), sizeof(Page)); }

uint64_t VmClock::disruption_marker() const {
  // The hypervisor writes it. std::atomic_ref takes no const object.
  return le64toh(__atomic_load_n(&static_cast<const Page*>(page_)->disruption_marker, __ATOMIC_RELAXED));
}

}  // namespace skorra_ntp
}  // namespace base

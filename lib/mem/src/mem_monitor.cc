// The memory-high check: reports, as an event, each rise of the process's
// memory past a share of the machine's memory.
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

#include "evlog/evlog.h"
#include "internal.h"
#include "mem/leak.h"
#include "platform/sysctl.h"

namespace {

task_mem_info info = [] {
  task_mem_info i{};
  i.task_pagesize = 4096;  // the unit of the vectors' page counts
  i.system_pagesize = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
  i.task_mem_high_percent = 50;
  i.task_mem_high_step = 5;
  return i;
}();

}  // namespace

task_mem_info *task_mem_info_get(void) { return &info; }

uint64_t task_get_available_mem_internal(void) {
  uint64_t chunks = 0;
  size_t len = sizeof chunks;
  if (sysctlbyname("hw.512bmem", &chunks, &len, nullptr, 0) != 0) {
    logging(LOG_ERR, "%s: sysctl(hw.512bmem): %m", __func__);
    return 0;
  }
  if (len == sizeof(uint32_t)) chunks &= 0xffffffffu;
  if (chunks == 0) {
    logging(LOG_ERR, "%s: sysctl(hw.512bmem) returned %u chunks", __func__, static_cast<unsigned>(chunks));
    return 0;
  }
  return chunks * 512;
}

void task_memory_timeout(void) {
  task_mem_status st{};
  if (!mem_vector->tmv_status || mem_vector->tmv_status(&st) != 0) return;
  info.task_pages_in_use = st.tms_pages;
  if (st.tms_pages <= info.task_pages_reported) return;
  uint64_t available = task_get_available_mem_internal();
  info.task_mem_available = available;
  if (available == 0) return;
  uint64_t bytes = st.tms_pages * info.task_pagesize;
  uint64_t percent = bytes * 100 / available;
  uint64_t floor = info.task_mem_high_percent;
  if (info.task_pages_reported && info.task_percent_reported + info.task_mem_high_step > floor)
    floor = info.task_percent_reported + info.task_mem_high_step;
  if (percent < floor) return;
  logging_event(LOG_WARNING, "ZTASK_OS_MEMHIGH", "ZTASK_OS_MEMHIGH: Using %u KB of memory, %u percent of available",
                static_cast<unsigned>(bytes / 1024), static_cast<unsigned>(percent));
  info.task_pages_reported = st.tms_pages;
  info.task_percent_reported = static_cast<unsigned>(percent);
}

// Opening, initialising, remapping and closing a mapped file.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"
#include "mmf/crashpoint.h"
#include "platform/path.h"

int mmf_open_errno;
int mmf_create_errno;

namespace {

constexpr key_t kSemKey = 0xDDD5;
// How long an opener waits for the semaphore's creator to mark it ready.
constexpr int kSemReadyPolls = 1000;  // of 1 ms
constexpr int kSemopRetries = 1000;   // EINTR retries before giving up

int64_t round_up(int64_t v, int64_t unit) { return (v + unit - 1) / unit * unit; }

// The creation semaphore. Created with IPC_EXCL and marked ready by the
// creator's first semop (sem_otime non-zero), so that a late opener can never
// reset a semaphore somebody holds.
int sem_id() {
  key_t key = tvx_path_key(kSemKey);
  int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0600);
  if (id >= 0) {
    sembuf op = {0, 1, 0};
    if (semop(id, &op, 1) != 0) return -1;
    return id;
  }
  if (errno != EEXIST) return -1;
  id = semget(key, 1, 0600);
  if (id < 0) return -1;
  for (int i = 0; i < kSemReadyPolls; i++) {
    semid_ds ds;
    union {
      int val;
      semid_ds *buf;
    } arg;
    arg.buf = &ds;
    if (semctl(id, 0, IPC_STAT, arg) != 0) return -1;
    if (ds.sem_otime != 0) return id;
    usleep(1000);
  }
  return id;  // the creator died before its first semop: use it as it is
}

void sem_op(int id, short delta) {
  sembuf op = {0, delta, SEM_UNDO};
  for (int i = 0; i < kSemopRetries; i++) {
    if (semop(id, &op, 1) == 0) return;
    if (errno != EINTR) break;
  }
  MMF_ASSERT(!"semop of the creation semaphore");
}

// The file is mapped at the start of a reservation of address space as large
// as the file may grow, so that a growth maps the new part in place: the base
// never moves while other threads of the process wait on the lock word in
// it, and pointers taken before a growth stay good.
bool map_whole(mmf *m, int64_t bytes) {
  int64_t reserve = std::max<int64_t>(round_up(bytes, m->page_size), m->max_bytes);
  void *base = mmap(nullptr, static_cast<size_t>(reserve), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                    -1, 0);
  if (base == MAP_FAILED) return false;
  void *p = mmap(base, static_cast<size_t>(bytes), PROT_READ | PROT_WRITE, m->mmap_flags | MAP_FIXED, m->fd, 0);
  if (p == MAP_FAILED) {
    munmap(base, static_cast<size_t>(reserve));
    return false;
  }
  m->shared_info = static_cast<mmf_shared_info_t *>(p);
  m->mapped_bytes = bytes;
  m->reserved_bytes = reserve;
  m->shared_info->mmap_calls++;
  m->shared_info->last_mapper_pid = static_cast<uint32_t>(mmf_pid());
  if (m->read_only && bytes > static_cast<int64_t>(m->page_size)) {
    // Readers still take the lock: only the heap is read-only.
    int64_t first = round_up(MMF_HEADER_SIZE, m->page_size);
    mprotect(static_cast<char *>(p) + first, static_cast<size_t>(bytes - first), PROT_READ);
  }
  return true;
}

// Maps [mapped_bytes, bytes) of the file in place, inside the reservation.
bool map_more(mmf *m, int64_t bytes) {
  int64_t from = m->mapped_bytes / m->page_size * m->page_size;
  int prot = m->read_only ? PROT_READ : PROT_READ | PROT_WRITE;
  if (from < static_cast<int64_t>(m->page_size)) prot = PROT_READ | PROT_WRITE;
  void *at = reinterpret_cast<char *>(m->shared_info) + from;
  void *p = mmap(at, static_cast<size_t>(bytes - from), prot, m->mmap_flags | MAP_FIXED, m->fd, from);
  if (p == MAP_FAILED) return false;
  m->mapped_bytes = bytes;
  m->shared_info->mmap_calls++;
  m->shared_info->last_mapper_pid = static_cast<uint32_t>(mmf_pid());
  return true;
}

// Region mode: the header alone, read-write so that readers can lock.
bool map_header_only(mmf *m) {
  int64_t bytes = round_up(MMF_HEADER_SIZE, m->page_size);
  void *p = mmap(nullptr, static_cast<size_t>(bytes), PROT_READ | PROT_WRITE, m->mmap_flags, m->fd, 0);
  if (p == MAP_FAILED) return false;
  m->shared_info = static_cast<mmf_shared_info_t *>(p);
  m->reserved_bytes = bytes;
  m->shared_info->mmap_calls++;
  m->shared_info->last_mapper_pid = static_cast<uint32_t>(mmf_pid());
  return true;
}

void unmap_whole(mmf *m) {
  if (!m->shared_info) return;
  m->shared_info->last_unmapper_pid = static_cast<uint32_t>(mmf_pid());
  m->shared_info->munmap_calls++;
  m->shared_info->munmap_ok++;
  munmap(m->shared_info, static_cast<size_t>(m->reserved_bytes));
  m->shared_info = nullptr;
  m->mapped_bytes = m->reserved_bytes = 0;
}

bool header_damaged(const mmf_shared_info_t *si) {
  uint32_t r = si->reserved[2];
  return r == si->magic || r > MMF_RESERVED_MAX || si->version != MMF_VERSION ||
         si->header_size != MMF_HEADER_SIZE;
}

// Maps the file and settles current_bytes; a damaged or resized file loses
// its ready magic here, so that it is initialised again.
bool map_header(mmf *m) {
  struct stat st;
  if (fstat(m->fd, &st) != 0) return false;
  bool fresh = st.st_size == 0;
  int64_t size = st.st_size;
  if (size < m->default_bytes) {
    if (!mmf_extend(m->fd, static_cast<uint64_t>(m->default_bytes))) return false;
    size = m->default_bytes;
  }
  if (size > m->max_bytes) m->max_bytes = size;
  if (m->single_mapping ? !map_whole(m, size) : !map_header_only(m)) return false;
  mmf_lock(m);
  // The size as it is now, under the lock: a process that grew the file
  // since the fstat above has stored its current_bytes as well, and is no
  // sign of damage. Judged by the stale size, the file would be rebuilt
  // under the feet of the processes using it.
  if (!fresh && fstat(m->fd, &st) == 0 && st.st_size > size) {
    if (m->single_mapping && !mmf_remap_to(m, st.st_size)) {
      mmf_unlock(m);
      return false;
    }
    size = st.st_size;
    if (size > m->max_bytes) m->max_bytes = size;
  }
  mmf_shared_info_t *si = m->shared_info;
  if (fresh) {
    si->magic = 0;
    si->current_bytes = static_cast<uint64_t>(size);
  } else if (header_damaged(si)) {
    si->magic = 0;
    si->invalid_count++;
    si->current_bytes = static_cast<uint64_t>(size);
  } else if (si->current_bytes != static_cast<uint64_t>(size)) {
    si->magic = 0;
    si->current_bytes = static_cast<uint64_t>(size);
  }
  mmf_unlock(m);
  return true;
}

bool program_is_rosterd() {
  return strcmp(program_invocation_short_name, "rosterd") == 0;
}

// Waits for another process's initialisation; clears its mark if it died.
void wait_for_initialiser(mmf *m) {
  mmf_shared_info_t *si = m->shared_info;
  double start = mmf_now(), limit = mmf_scaled(60), next_check = mmf_scaled(1);
  while (__atomic_load_n(&si->magic, __ATOMIC_ACQUIRE) == MMF_MAGIC_INIT) {
    double waited = mmf_now() - start;
    if (waited >= limit) break;
    if (waited >= next_check) {
      next_check += mmf_scaled(1);
      if (!mmf_holder_alive(m, static_cast<pid_t>(si->init_pid))) {
        si->magic = 0;
        si->init_pid = 0;
        break;
      }
    }
    usleep(1000);
  }
}

void initialise(mmf *m, uint32_t n, const uint32_t *sizes) {
  mmf_shared_info_t *si = m->shared_info;
  memset(si->reserved, 0, sizeof si->reserved);
  si->init_pid = static_cast<uint32_t>(mmf_pid());
  __atomic_store_n(&si->magic, MMF_MAGIC_INIT, __ATOMIC_RELEASE);
  TVX_CRASHPOINT("mmf_init_marked");
  si->version = MMF_VERSION;
  si->header_size = MMF_HEADER_SIZE;
  mmf_set_allocation_info(si, n, sizes);
  si->first_alloc_offset = static_cast<uint64_t>(round_up(MMF_HEADER_SIZE, m->page_size));
  si->common_offset = 0;
  si->common_len = 0;
  si->allocated_bytes = 0;
  si->alloc_count = si->free_count = 0;
  memset(si->allocs_by_class, 0, sizeof si->allocs_by_class);
  memset(si->frees_by_class, 0, sizeof si->frees_by_class);
  memset(si->free_heads, 0, sizeof si->free_heads);
  si->shared_flag = m->shared_flag;
  si->init_calls++;
  // The whole file, not only default_bytes: a file that had grown keeps its
  // size, and its walk must reach current_bytes.
  if (!(m->flags & MMF_FLAG_RAW_DATA)) mmf_add_free_space(m, si->first_alloc_offset, si->current_bytes);
  si->alloc_count = si->free_count = 0;
  TVX_CRASHPOINT("mmf_init_built");
  if (!m->single_mapping) mmf_unmap_regions(m);
  __atomic_store_n(&si->magic, MMF_MAGIC_READY, __ATOMIC_RELEASE);
}

bool init_shared_info(mmf *m, uint32_t n, const uint32_t *sizes) {
  if (!map_header(m)) return false;
  mmf_shared_info_t *si = m->shared_info;
  if (si->magic == MMF_MAGIC_READY) {
    mmf_lock(m);
    if (si->allocated_bytes == 0) mmf_set_allocation_info(si, n, sizes);
    mmf_unlock(m);
    if (!program_is_rosterd() && !(m->flags & MMF_FLAG_RAW_DATA) && !mmf_valid(m, false)) si->magic = 0;
    if (si->magic == MMF_MAGIC_READY) return true;
  }
  if (si->magic == MMF_MAGIC_INIT) wait_for_initialiser(m);
  mmf_lock(m);
  if (si->magic != MMF_MAGIC_READY) initialise(m, n, sizes);
  mmf_unlock(m);
  return m->shared_info != nullptr;
}

std::string real_path(const char *name) { return tvx_path(name); }

}  // namespace

bool mmf_extend(int fd, uint64_t bytes) {
  int err = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
  if (err == 0) return true;
  errno = err;
  return false;
}

void mmf_sem_remove(void) {
  int id = semget(tvx_path_key(kSemKey), 1, 0600);
  if (id >= 0) semctl(id, 0, IPC_RMID);
}

bool mmf_refresh(mmf *m) {
  if (!m->single_mapping || static_cast<int64_t>(m->shared_info->current_bytes) <= m->mapped_bytes) return true;
  return mmf_remap(m);
}

bool mmf_remap(mmf *m) { return mmf_remap_to(m, static_cast<int64_t>(m->shared_info->current_bytes)); }

bool mmf_remap_to(mmf *m, int64_t want) {
  if (!m->single_mapping) return true;  // regions are mapped on demand
  if (want == m->mapped_bytes) return true;
  // Never map past the end of the file: a touch there is SIGBUS.
  struct stat st;
  if (fstat(m->fd, &st) != 0 || want > st.st_size) return false;
  if (want > m->mapped_bytes && want <= m->reserved_bytes) {
    if (map_more(m, want)) return true;
    m->shared_info->mmap_failures++;
    return false;
  }
  if (want < m->mapped_bytes) {
    // The pages past the end stay mapped but are never touched.
    m->mapped_bytes = want;
    return true;
  }
  // Grown past this process's reservation (another process allowed more):
  // map anew elsewhere, the new mapping first so a failure keeps the old.
  mmf old = *m;
  m->max_bytes = std::max<int64_t>(m->max_bytes, want);
  if (!map_whole(m, want)) {
    m->shared_info = old.shared_info;
    m->mapped_bytes = old.mapped_bytes;
    m->reserved_bytes = old.reserved_bytes;
    m->shared_info->mmap_failures++;
    return false;
  }
  unmap_whole(&old);
  return true;
}

mmf *mmf_create(const char *name, int64_t max_bytes, int64_t default_bytes,
                int64_t grow_by_bytes, bool single_mapping, int64_t region_map_bytes,
                uint32_t max_mapped_regions, uint32_t num_alloc_sizes,
                const uint32_t *alloc_sizes, uint32_t flags, bool *created) {
  if (created) *created = false;
  MMF_ASSERT(num_alloc_sizes);
  MMF_ASSERT(num_alloc_sizes < MMF_MAX_CLASSES);
  mmf *m = static_cast<mmf *>(calloc(1, sizeof(mmf)));
  if (!m) return nullptr;
  m->fd = -1;
  m->fatal = 1;
  m->mmap_flags = MAP_SHARED;
  m->page_size = static_cast<uint32_t>(getpagesize());
  m->flags = flags;
  m->name = strdup(name);
  m->single_mapping = single_mapping;
  m->read_only = (flags & MMF_FLAG_READ_ONLY) != 0;
  m->shared_flag = (flags & MMF_FLAG_SHARED) ? 1 : 0;
  m->allocs_allowed = (flags & (MMF_NO_ALLOC_MASK | MMF_FLAG_RAW_DATA)) == 0;
  uint32_t largest = 0;
  for (uint32_t i = 0; i < num_alloc_sizes; i++) largest = alloc_sizes[i] > largest ? alloc_sizes[i] : largest;
  int64_t floor = round_up(MMF_HEADER_SIZE, m->page_size) + largest;
  if (max_bytes < floor) max_bytes = floor;
  int64_t unit = m->page_size;
  if (!single_mapping) {
    MMF_ASSERT(region_map_bytes > 0);
    MMF_ASSERT(max_bytes >= region_map_bytes);
    MMF_ASSERT(grow_by_bytes >= region_map_bytes);
    MMF_ASSERT((max_bytes % region_map_bytes) == 0);
    MMF_ASSERT((grow_by_bytes % region_map_bytes) == 0);
    // Any node (the top class included) fits in two adjacent regions.
    MMF_ASSERT((uint64_t)region_map_bytes >= (2 * (uint64_t(largest) + 1 + mmf_node_bytes)));
    region_map_bytes = round_up(region_map_bytes, m->page_size);
    if ((region_map_bytes & (region_map_bytes - 1)) == 0)
      for (uint32_t b = 0; b < 63; b++)
        if ((int64_t(1) << b) == region_map_bytes) m->region_shift = b;
    unit = region_map_bytes;
  }
  MMF_ASSERT(default_bytes <= max_bytes);
  MMF_ASSERT(grow_by_bytes <= max_bytes);
  m->max_bytes = round_up(max_bytes, unit);
  m->default_bytes = round_up(std::max(default_bytes, floor), unit);
  m->grow_by_bytes = round_up(grow_by_bytes, unit);
  if (m->default_bytes > m->max_bytes) m->max_bytes = m->default_bytes;
  if (single_mapping) {
    m->max_mapped_regions = 1;
  } else {
    m->region_map_bytes = region_map_bytes;
    m->max_mapped_regions = max_mapped_regions;
    MMF_ASSERT((region_map_bytes * (off_t)max_mapped_regions) <= m->max_bytes);
    m->regions = static_cast<uint64_t>(m->max_bytes / region_map_bytes);
    if (!mmf_regions_init(m)) {
      mmf_close(m);
      return nullptr;
    }
  }

  std::string path = real_path(name);
  size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) tvx_mkdirs(path.substr(0, slash).c_str(), 0755);
  bool made = false;
  m->fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (m->fd >= 0) {
    flock(m->fd, LOCK_EX);
    init_shared_info(m, num_alloc_sizes, alloc_sizes);
    flock(m->fd, LOCK_UN);
  } else if (errno == ENOENT) {
    int sem = sem_id();
    if (sem >= 0) sem_op(sem, -1);
    m->fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m->fd < 0) {
      mmf_create_errno = errno;
    } else {
      made = true;
      // An opener that found the file a moment after it appeared must not
      // initialise it beside us: it waits on the same flock.
      flock(m->fd, LOCK_EX);
      bool ok = init_shared_info(m, num_alloc_sizes, alloc_sizes);
      if (ok) {
        if (m->default_bytes && !m->shared_info->created_flag) {
          m->shared_info->created_flag = 1;
          if (created) *created = true;
        }
        if (m->shared_info->current_bytes < static_cast<uint64_t>(m->default_bytes)) mmf_grow(m);
      } else {
        mmf_create_errno = errno;
      }
      flock(m->fd, LOCK_UN);
    }
    if (sem >= 0) sem_op(sem, 1);
  } else {
    mmf_open_errno = errno;
  }
  if (!m->shared_info) {
    // Only a file this call made goes: an existing one keeps its data for
    // whoever can open it.
    mmf_close(m);
    if (made) unlink(path.c_str());
    return nullptr;
  }
  // Every open file has its record in the memory report; the report is
  // opened here, with no lock held, and never reports itself.
  if (strcmp(name, MEMINFO_NAME) == 0)
    m->meminfo_offset = -1;
  else if (meminfo_handle(true))
    meminfo_mmf_update(m);
  return m;
}

mmf *mmf_open_existing(const char *name) {
  std::string path = real_path(name);
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st;
  mmf_shared_info_t si;
  if (fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(sizeof si) ||
      pread(fd, &si, sizeof si, 0) != static_cast<ssize_t>(sizeof si) || si.version != MMF_VERSION ||
      si.header_size != MMF_HEADER_SIZE || si.num_alloc_sizes == 0 || si.num_alloc_sizes > MMF_MAX_CLASSES) {
    close(fd);
    errno = EINVAL;
    return nullptr;
  }
  mmf *m = static_cast<mmf *>(calloc(1, sizeof(mmf)));
  m->fd = fd;
  m->fatal = 0;  // a tool reports damage, it does not die of it
  m->meminfo_offset = -1;  // nor does a tool report
  m->mmap_flags = MAP_SHARED;
  m->page_size = static_cast<uint32_t>(getpagesize());
  m->name = strdup(name);
  m->single_mapping = 1;
  m->max_mapped_regions = 1;
  m->allocs_allowed = true;
  m->max_bytes = m->default_bytes = st.st_size;
  if (!map_whole(m, st.st_size)) {
    mmf_close(m);
    return nullptr;
  }
  return m;
}

void mmf_close(mmf *m) {
  if (!m) return;
  if (m->fd > 0) {
    m->closing_thread = pthread_self();
    m->closing = 1;
    while (m->shared_info && __atomic_load_n(&m->shared_info->lockerpid, __ATOMIC_ACQUIRE) ==
                                 static_cast<uint32_t>(mmf_pid()) &&
           m->locker_cnt && !pthread_equal(m->locker_thread, pthread_self()))
      usleep(10000);
    mmf_regions_free(m);
    unmap_whole(m);
    close(m->fd);
  }
  mmf_regions_free(m);
  free(m->name);
  memset(m, 0, sizeof *m);
  free(m);
}

int mmf_unlink(const char *name) {
  std::string path = real_path(name);
  return unlink(path.c_str()) == 0 ? 0 : errno;
}

void mmf_destroy(mmf *m) {
  if (!m) return;
  std::string name = m->name ? m->name : "";
  mmf_close(m);
  if (!name.empty()) mmf_unlink(name.c_str());
}

void mmf_reset(mmf *m) {
  mmf_shared_info_t *si = m->shared_info;
  uint32_t n = 0, sizes[MMF_MAX_CLASSES];
  mmf_get_allocation_info(m, &n, sizes);
  mmf_lock(m);
  si->magic = 0;
  initialise(m, n, sizes);
  mmf_unlock(m);
}

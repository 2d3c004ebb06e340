// The registry of open parameters: one shared block that names every
// database id of the machine, so that tools open a database by its id.
#include <sys/stat.h>

#include <cinttypes>

#include "internal.h"
#include "platform/path.h"

namespace {

mmf *reg_file;
mmdb_registry_t *reg;
std::string reg_root;
pthread_mutex_t reg_mu = PTHREAD_MUTEX_INITIALIZER;
bool reg_forced;   // an opener gave up waiting for the creator and wrote the header

std::string reg_name() {
  char name[128];
  snprintf(name, sizeof name, MMDB_REGISTRY_FMT, MMDB_DIR, static_cast<int>(MMDB_OPEN_PARAM_VERSION));
  return name;
}

// The registry, opened (and made) on first use.
mmdb_registry_t *registry(bool create) {
  if (reg && reg_file && reg_root == (tvx_path_root() ? tvx_path_root() : "")) return reg;
  reg = nullptr;
  bool created = false;
  auto *block = static_cast<mmdb_registry_t *>(
      mmdb_block_file(reg_name().c_str(), MMDB_REGISTRY_BYTES, create, &reg_file, &reg_root, &created));
  if (!block) return nullptr;
  auto write_header = [&] {
    mmf_lock(reg_file);
    memset(block, 0, MMDB_REGISTRY_BYTES);
    block->version = MMDB_OPEN_PARAM_VERSION;
    block->total_size = MMDB_REGISTRY_BYTES;
    block->mmdb_cnt = MMDB_MAX_IDS;
    __atomic_store_n(&block->magic, MMDB_OPEN_PARAM_MAGIC, __ATOMIC_RELEASE);
    mmf_unlock(reg_file);
  };
  if (created) {
    write_header();
  } else {
    double until = mmdb_now() + mmdb_scaled(3.01);
    while (__atomic_load_n(&block->magic, __ATOMIC_ACQUIRE) != MMDB_OPEN_PARAM_MAGIC && mmdb_now() < until)
      mmdb_sleep_us(10000);
    if (__atomic_load_n(&block->magic, __ATOMIC_ACQUIRE) != MMDB_OPEN_PARAM_MAGIC) {
      write_header();
      reg_forced = true;
    }
  }
  MMDB_ASSERT(block->magic == MMDB_OPEN_PARAM_MAGIC);
  reg = block;
  return reg;
}

}  // namespace

void *mmdb_block_file(const char *name, uint32_t bytes, bool create, mmf **file, std::string *root, bool *created) {
  const char *r = tvx_path_root();
  std::string now = r ? r : "";
  if (*file && now != *root) {
    mmf_close(*file);
    *file = nullptr;
  }
  if (!*file) {
    struct stat st;
    if (!create && stat(tvx_path(name).c_str(), &st) != 0) return nullptr;
    uint32_t cls = 0x80;
    const int64_t size = 0x10000;
    *file = mmf_create(name, size, size, size, true, 0, 1, 1, &cls, MMF_FLAG_COMMON_RESIZE, created);
    if (!*file) return nullptr;
    *root = now;
  }
  uint32_t len = bytes;
  off_t off;
  void *block = mmf_alloc_common(*file, &len, &off);
  MMDB_ASSERT(block && len == bytes);
  return block;
}

void mmdb_registry_store(const mmdb_params *p) {
  pthread_mutex_lock(&reg_mu);
  mmdb_registry_t *r = registry(true);
  if (r) {
    mmf_lock(reg_file);
    mmdb_registry_entry_t &e = r->entry[p->id];
    memset(&e, 0, sizeof e);
    e.id = p->id;
    e.flags = p->flags;
    e.bucket_count = p->bucket_count;
    e.max_bytes = p->max_bytes;
    e.default_bytes = p->default_bytes;
    e.grow_by_bytes = p->grow_by_bytes;
    e.mapped_span = p->mapped_span;
    e.max_mapped_regions = p->max_mapped_regions;
    e.num_alloc_sizes = p->num_alloc_sizes;
    e.reserved = p->reserved;
    e.max_key = p->max_key;
    e.max_data = p->max_data;
    e.max_replicated = p->max_replicated;
    e.key_prefix_len = p->key_prefix_len;
    e.key_match_len = p->key_match_len;
    e.filter_cb = 0;
    snprintf(e.name, sizeof e.name, "%s", p->name);
    memcpy(e.key_prefix, p->key_prefix, p->key_prefix_len);
    memcpy(e.alloc_sizes, p->alloc_sizes, sizeof e.alloc_sizes);
    e.extra = p->extra;
    mmf_unlock(reg_file);
  }
  pthread_mutex_unlock(&reg_mu);
}

int mmdb_get_create_params_by_id(uint32_t id, mmdb_params *p) {
  if (id >= MMDB_MAX_IDS || !p) return MMDB_INVALID_ARG;
  pthread_mutex_lock(&reg_mu);
  mmdb_registry_t *r = registry(false);
  int st = MMDB_NOT_FOUND;
  if (r && r->entry[id].id == id && id) {
    const mmdb_registry_entry_t &e = r->entry[id];
    memset(p, 0, sizeof *p);
    snprintf(p->name, sizeof p->name, "%s", e.name);
    p->id = e.id;
    p->flags = e.flags;
    p->bucket_count = e.bucket_count;
    p->max_bytes = e.max_bytes;
    p->default_bytes = e.default_bytes;
    p->grow_by_bytes = e.grow_by_bytes;
    p->mapped_span = e.mapped_span;
    p->max_mapped_regions = e.max_mapped_regions;
    p->num_alloc_sizes = e.num_alloc_sizes;
    memcpy(p->alloc_sizes, e.alloc_sizes, sizeof p->alloc_sizes);
    p->reserved = e.reserved;
    p->max_key = e.max_key;
    p->max_data = e.max_data;
    p->max_replicated = e.max_replicated;
    p->key_prefix_len = e.key_prefix_len;
    memcpy(p->key_prefix, e.key_prefix, sizeof p->key_prefix);
    p->key_match_len = e.key_match_len;
    p->extra = e.extra;
    st = MMDB_SUCCESS;
  }
  pthread_mutex_unlock(&reg_mu);
  return st;
}

const char *mmdb_get_path_by_id(uint32_t id) {
  if (id >= MMDB_MAX_IDS) return "";
  pthread_mutex_lock(&reg_mu);
  mmdb_registry_t *r = registry(false);
  const char *name = r && r->entry[id].id == id && id ? r->entry[id].name : "";
  pthread_mutex_unlock(&reg_mu);
  return name;
}

const mmdb_registry_t *mmdb_registry_peek(void) {
  pthread_mutex_lock(&reg_mu);
  mmdb_registry_t *r = registry(false);
  pthread_mutex_unlock(&reg_mu);
  return r;
}

void mmdb_registry_close(void) {
  pthread_mutex_lock(&reg_mu);
  if (reg_file) mmf_close(reg_file);
  reg_file = nullptr;
  reg = nullptr;
  pthread_mutex_unlock(&reg_mu);
}

// The memory report: one small shared file, "/mfs/var/meminfo/meminfo", in
// which every process keeps a record for each mapped file it has open (its
// size, mapping and lock figures), so that one look shows every mapped file in
// use on the machine. Records are keyed by type and name and stay after their
// writer has gone; `tvxmm meminfo` prints them.
//
// The report is itself a single-mapped mmf of 32,768 bytes whose common block
// holds a 0xD0-byte header and the records behind it. Offsets inside the
// report (the free offset, the chains of each type) count from the start of
// that common block. A report whose header or chains fail the check at a
// process's first use is reset, keeping the count of resets and the last ten
// reasons (the source line of the failed check and the pid).
//
// Writers: mmf_create writes a file's record when it opens it, mmf_grow after
// each growth, mmf_lock every 1,000,000 locks, and every 1000 locks a file
// whose record asks for it (meminfo_set_report). A full report drops updates.
#pragma once

#include <cstdint>

#include "mmf/mmf.h"

#define MEMINFO_NAME "/mfs/var/meminfo/meminfo"
#define MEMINFO_VERSION 1u
#define MEMINFO_FILE_BYTES 32768u
#define MEMINFO_HEADER_SIZE 0xD0u
#define MEMINFO_TYPES 5
#define MEMINFO_RESET_HISTORY 10
#define MEMINFO_NAME_BYTES 96
#define MEMINFO_MIN_RECORD 0xA4u        // the smallest payload (148) and the record header

// Record types and their payload sizes.
#define MEMINFO_TYPE_MMF 0u             // payload 156, meminfo_mmf_payload_t
#define MEMINFO_TYPE_MMDB 3u            // payload 176
// Flags byte of a payload (at offset 144).
#define MEMINFO_REC_REPORT 0x1u         // update this record every 1000 locks
#define MEMINFO_REC_HEADER_FLAG 0x2u    // and say so in the header's flags
#define MEMINFO_FLAG_CONTINUOUS 0x2u    // header: some record asks for continuous reports

#pragma pack(push, 4)
struct meminfo_reset_t {
  uint32_t line;                 // the check that failed
  uint32_t pid;                  // who reset
};

struct meminfo_header_t {
  uint32_t version;              // MEMINFO_VERSION
  uint32_t file_size;            // MEMINFO_FILE_BYTES
  uint32_t header_size;          // MEMINFO_HEADER_SIZE
  uint32_t common_len;           // the common block holding header and records
  uint32_t data_size;            // bytes for records
  uint32_t bytes_free;
  uint32_t next_free;            // where the next new record goes
  uint32_t resets;
  meminfo_reset_t reset_history[MEMINFO_RESET_HISTORY];  // newest first
  uint32_t record_count;
  uint32_t write_count;
  uint32_t reserved;
  uint32_t flags;                // MEMINFO_FLAG_*
  uint64_t first[MEMINFO_TYPES]; // each type's chain, 0 when empty
  uint64_t last[MEMINFO_TYPES];
};

struct meminfo_record_t {
  uint32_t length;               // payload + 16
  uint32_t type;                 // below MEMINFO_TYPES
  uint64_t next;                 // next record of this type, 0 at the end
  // the payload follows, starting with a zero-padded name of 96 bytes
};

struct meminfo_mmf_payload_t {
  char name[MEMINFO_NAME_BYTES];
  uint64_t current_bytes;
  uint64_t max_bytes;
  uint64_t mapped_bytes;         // by the last writer
  uint64_t lock_count;
  uint64_t contended_count;
  uint64_t wait_us;
  uint8_t flags;                 // MEMINFO_REC_*
  uint8_t pad[3];
  uint32_t mmap_calls;
  uint32_t pid;                  // the last writer
};
#pragma pack(pop)

// ---- Writer ---------------------------------------------------------------

// Writes the record of (type, name) with this payload (whose first 96 bytes
// are the name; its flags byte is kept as the report holds it). *cached, if
// given, is the record's offset from an earlier call, checked before use.
// False when the report cannot be opened or is full.
bool meminfo_update(uint32_t type, const char *name, const void *payload, uint32_t payload_len,
                    int64_t *cached);
// The record of an open mapped file, from its handle and header.
bool meminfo_mmf_update(mmf *m);
// The report's handle of this process (null until opened); opens it, or
// opens it anew after the root changed, when `open` is true.
mmf *meminfo_handle(bool open);
// Drops the process's handle of the report (tests, after changing root).
void meminfo_close(void);
// Sets or clears MEMINFO_REC_REPORT of a file's record; false when there is
// no such record.
bool meminfo_set_report(uint32_t type, const char *name, bool on);

// ---- Reader ---------------------------------------------------------------

// Reads the report as it stands (nothing is reset or created).
struct meminfo_reader {
  meminfo_reader *self;          // == itself while live
  mmf *file;
  meminfo_header_t *header;      // the common block
  uint64_t pos[MEMINFO_TYPES];   // the saved position of each type's walk
  bool started[MEMINFO_TYPES];
};
// Null (errno set) when the report is missing or not of this format.
meminfo_reader *meminfo_reader_create(void);
void meminfo_reader_delete(meminfo_reader *r);
// The next record of a type, null at the end of its chain (or at damage).
const meminfo_record_t *meminfo_reader_next(meminfo_reader *r, uint32_t type);
// The payload of a record.
inline const void *meminfo_payload(const meminfo_record_t *rec) { return rec + 1; }

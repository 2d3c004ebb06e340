// The queue header is shared between processes and builds: every field is
// pinned where other programs reading the file expect it.
#include <cstddef>

#include "mmcq/mmcq.h"

#define AT(field, off) static_assert(offsetof(mmcq_header_t, field) == (off), #field)
AT(version, 0x00);
AT(size, 0x04);
AT(magic, 0x08);
AT(creator_pid, 0x0c);
AT(receiver_pid, 0x10);
AT(reserved, 0x14);
AT(receiver_stopped, 0x18);
AT(rnw, 0x19);
AT(send_disabled, 0x1a);
AT(wakeups_sent, 0x1c);
AT(wakeup_bytes_sent, 0x20);
AT(wakeups_read, 0x24);
AT(wakeup_bytes_read, 0x28);
AT(max_msg_bytes, 0x2c);
AT(max_data_bytes, 0x30);
AT(min_data_offset, 0x34);
AT(max_data_offset, 0x38);
AT(put_offset, 0x3c);
AT(take_offset, 0x40);
AT(grower_pid, 0x44);
AT(reader_pid, 0x48);
AT(sent, 0x4c);
AT(high_fill, 0x5c);
#undef AT
static_assert(sizeof(mmcq_header_t) == MMCQ_HEADER_SIZE, "queue header size");
static_assert(sizeof(mmcq_msg_t) == 4, "message word");

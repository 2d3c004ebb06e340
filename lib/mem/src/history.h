// The allocation history ring, written on every allocation and free of the
// cookie and block paths while it exists.
#pragma once

#include <cstddef>
#include <cstdint>

void mem_history_record(const void *ptr, size_t size, char type, char cls, uint32_t id, int frames);

// What the socket I/O sources share with the rest of the kernel.
#pragma once

#include "task/io.h"

// Runs a hook's callback for a read event (skipped once it is deleted).
void task_io_hook_dispatch(task_io_hook *hp);

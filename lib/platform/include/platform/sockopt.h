// Socket options of the original platform that Linux lacks. IP_OUTPUT_L3 (send
// a raw packet on through the layer-3 output path) and the UDP-level option 2
// of the receive sockets succeed and do nothing here: Linux routes a raw
// packet by its destination and needs no such switch. Every other option goes
// to setsockopt unchanged.
#pragma once

#include <sys/socket.h>

#define IP_OUTPUT_L3 114
#define TVX_UDP_OPTION_2 2

int tvx_setsockopt(int fd, int level, int option, const void *value, socklen_t len);

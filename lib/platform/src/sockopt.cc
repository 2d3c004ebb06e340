#include "platform/sockopt.h"

#include <netinet/in.h>

int tvx_setsockopt(int fd, int level, int option, const void *value, socklen_t len) {
  if ((level == IPPROTO_IP && option == IP_OUTPUT_L3) || (level == IPPROTO_UDP && option == TVX_UDP_OPTION_2))
    return 0;
  return setsockopt(fd, level, option, value, len);
}

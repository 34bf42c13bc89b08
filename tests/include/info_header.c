#include <tolm/info.h>

const char* UseInfoHeader(void);

const char* UseInfoHeader(void) {
  int (*const user_agent)(const char*, char*, size_t) = TLIBTminfoUserAgentGet;
  char buffer[256];
  const int length = user_agent("product", buffer, sizeof buffer);
  if (length <= 0 || buffer[length] != '\0') {
    return "no user agent";
  }
  return user_agent("product", buffer, 3) < 0 ? 0 : "it fits everywhere";
}

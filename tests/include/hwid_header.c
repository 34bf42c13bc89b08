#include <tolm/hwid.h>

const char* UseHwidHeader(void);

const char* UseHwidHeader(void) {
  tolmcrypto_hwid* (*const init)(void) = tolmcrypto_hwid_init;
  int (*const text_of)(tolmcrypto_hwid*, int) = tolmcrypto_hwid_str;
  void (*const release)(tolmcrypto_hwid*) = tolmcrypto_hwid_free;
  tolmcrypto_hwid* const context = init();
  const char* wrong = 0;
  if (!context) {
    return "no context";
  }
  if (sizeof context->text != 65) {
    wrong = "another size of the text";
  } else if (text_of(context, 65) || context->text[0]) {
    wrong = "a text that is too long";
  }
  release(context);
  return wrong;
}

#include <tolm/plugin.h>

const char* UsePluginHeader(void);

const char* UsePluginHeader(void) {
  int (*const init)(const char*, const char*, void**) = TLIBPluginSDKInit;
  int (*const set)(void*, const char*, const char*) = TLIBPluginSetArg;
  int (*const act)(enum _tag_sdk_plugin_action_, void*) = TLIBPluginAction;
  void (*const release)(void*) = TLIBPluginExit;
  void* handle = 0;
  const char* wrong = 0;
  if (init("module", "no/plug-ins", &handle) != 0) {
    return "no handle";
  }
  if (set(handle, "KEY", "value") != 0 || set(handle, "", "value") == 0) {
    wrong = "arguments are not judged";
  } else if (act(SDK_PLUGIN_ACTION_PRE, handle) != 0 || act(SDK_PLUGIN_ACTION_POST, handle) != 0) {
    wrong = "no plug-ins are a failure";
  }
  release(handle);
  return wrong;
}

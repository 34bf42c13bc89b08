#include <tolm/exec.h>

const char* UseExecHeader(void);

const char* UseExecHeader(void) {
  int (*const run_list)(const char*, int, ...) = TLIBCExecl;
  int (*const run)(const char*, const char*, const char*, const char*, const char*) = TLIBCExec;
  void (*const cancel)(int) = TLIBCExecCancel;
  if (run_list("/bin/sh", 187, "-c", "exit 3", (char*)0) != 3) {
    return "TLIBCExecl gives another exit status";
  }
  if (run("/bin/sh", "-c", "exit 4", 0, 0) != 4) {
    return "TLIBCExec gives another exit status";
  }
  cancel(1);
  if (run("/bin/true", 0, 0, 0, 0) >= 0) {
    return "run although cancelled";
  }
  cancel(0);
  return run("/bin/true", 0, 0, 0, 0) == 0 ? 0 : "not run although allowed again";
}

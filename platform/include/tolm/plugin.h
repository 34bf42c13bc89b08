#ifndef TOLM_PLUGIN_H_
#define TOLM_PLUGIN_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The moments at which plug-ins run. The other values belong to the appliance and are refused here.
 */
enum _tag_sdk_plugin_action_ {
  SDK_PLUGIN_ACTION_PRE = 4, /* before a change */
  SDK_PLUGIN_ACTION_POST = 5 /* after it */
};

/*
 * Plug-ins are the executables in /usr/tolm/lib/plugins/<path>/. All functions may be called from
 * any thread, for one handle by one thread at a time. After a failure TLIBCErrGet() tells why.
 */

/*
 * Prepares the plug-ins registered under `path` (plain names with "/" between them, no "." or "..")
 * and stores a handle. `module` is the appliance's name for their owner and chooses nothing here.
 * Returns 0 on success, anything else on failure, with the stored handle null. The directory need
 * not exist. The caller releases the handle with TLIBPluginExit.
 */
TOLM_PLATFORM_API int TLIBPluginSDKInit(const char* module, const char* path, void** handle);

/*
 * Sets one named argument for every plug-in, replacing an earlier value. Returns 0 on success,
 * anything else for a null pointer or a key that cannot be one: empty, with a "=", ACTION, PATH, or
 * ending in "_FILE".
 */
TOLM_PLATFORM_API int TLIBPluginSetArg(void* handle, const char* key, const char* value);

/*
 * Runs the plug-ins one after the other in the byte order of their names and waits for each, five
 * minutes at most. All run even when one fails; every failure goes to the system log at warning
 * level. Returns 0 when every one succeeded or there is none, anything else otherwise; the last
 * error is then that of the first failure: EIO for an exit status other than 0, ETIMEDOUT, or why
 * it could not be run. TLIBCExecCancel does not touch plug-ins.
 */
TOLM_PLATFORM_API int TLIBPluginAction(enum _tag_sdk_plugin_action_ action, void* handle);

/* Releases the handle; null is ignored. */
TOLM_PLATFORM_API void TLIBPluginExit(void* handle);

#ifdef __cplusplus
}
#endif

#endif /* TOLM_PLUGIN_H_ */

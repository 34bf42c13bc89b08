#ifndef TOLM_PLUGIN_H_
#define TOLM_PLUGIN_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The moments at which plug-ins run. The other values belong to the appliance and are refused here. */
enum _tag_sdk_plugin_action_ {
  SDK_PLUGIN_ACTION_PRE = 4, /* before a change */
  SDK_PLUGIN_ACTION_POST = 5 /* after it */
};

/*
 * Prepares the plug-ins registered under `module` and `path` and stores a handle. Returns 0 on success,
 * anything else on failure, with the stored handle null.
 */
TOLM_PLATFORM_API int TLIBPluginSDKInit(const char *module, const char *path, void **handle);

/* Sets one named argument for every plug-in, replacing an earlier value. Returns 0 on success. */
TOLM_PLATFORM_API int TLIBPluginSetArg(void *handle, const char *key, const char *value);

/*
 * Runs the plug-ins one after the other and waits for each. All run even when one fails. Returns 0 when
 * every one succeeded (or there is none), anything else otherwise.
 */
TOLM_PLATFORM_API int TLIBPluginAction(enum _tag_sdk_plugin_action_ action, void *handle);

/* Releases the handle; null is ignored. */
TOLM_PLATFORM_API void TLIBPluginExit(void *handle);

#ifdef __cplusplus
}
#endif

#endif  /* TOLM_PLUGIN_H_ */

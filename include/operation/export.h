#ifndef TOLM_OPERATION_EXPORT_H_
#define TOLM_OPERATION_EXPORT_H_

/// Marks what the library exports; everything else in it is hidden.
#define TOLM_OPERATION_API __attribute__((visibility("default")))
/// Marks what is nested in an exported class and is not exported with it.
#define TOLM_OPERATION_PRIVATE __attribute__((visibility("hidden")))

#endif  // TOLM_OPERATION_EXPORT_H_

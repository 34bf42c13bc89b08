#ifndef TOLM_DATAUPDATE_EXPORT_H_
#define TOLM_DATAUPDATE_EXPORT_H_

/// Marks what the library exports; everything else in it is hidden.
#define TOLM_DATAUPDATE_API __attribute__((visibility("default")))

#endif  // TOLM_DATAUPDATE_EXPORT_H_

#ifndef TOLM_EXPORT_H_
#define TOLM_EXPORT_H_

/* Marks what the platform library exports; everything else in it is hidden. */
#define TOLM_PLATFORM_API __attribute__((visibility("default")))

#endif /* TOLM_EXPORT_H_ */

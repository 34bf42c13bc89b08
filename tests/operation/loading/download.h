#ifndef TOLM_TESTS_OPERATION_LOADING_DOWNLOAD_H_
#define TOLM_TESTS_OPERATION_LOADING_DOWNLOAD_H_

/// Says "built" when there is a service, and then why the download of the description has failed.
extern "C" __attribute__((visibility("default"))) int DownloadWatched();

#endif  // TOLM_TESTS_OPERATION_LOADING_DOWNLOAD_H_

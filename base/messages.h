#ifndef TOLM_BASE_MESSAGES_H_
#define TOLM_BASE_MESSAGES_H_

/// Failures that one component reports and another recognises by their text.
namespace tolm::messages {

inline constexpr char kDiskSpaceTooLow[] = "Disk space is too low";
inline constexpr char kNoFileSystem[] = "Invalid filesystem to testing space";
inline constexpr char kNoSpaceSeen[] = "Fail to get available space";
inline constexpr char kNoArchive[] = "Failed to extract package at tolmarchive_init";
inline constexpr char kNotReadForDigest[] = "Fail during reading for SHA digest";
inline constexpr char kFailToLock[] = "Fail to lock ";     // and the lock file
inline constexpr char kAnswerFrom[] = "the answer from ";  // and the URL, and what is amiss with it
inline constexpr char kDescriptionFrom[] = "the description from ";                  // and the URL
inline constexpr char kArchiveOpenFailed[] = "tolmarchive_open %s failed, ret: %d";  // path, code
inline constexpr char kArchiveExtractFailed[] =
    "tolmarchive_extract %s failed, ret: %d";  // path, code

}  // namespace tolm::messages

#endif  // TOLM_BASE_MESSAGES_H_

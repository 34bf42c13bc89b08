#ifndef TOLM_BASE_RULES_H_
#define TOLM_BASE_RULES_H_

#include <cstddef>
#include <cstdint>

/// The numbers by which the whole system goes, each with the words that are made of it.
namespace tolm::rules {

/// After an update more than this share of a file system's size is free.
inline constexpr double kFreeShare = 0.05;
/// The same as a part: one in so many.
inline constexpr std::uint64_t kFreePart = 20;
static_assert(kFreeShare * kFreePart == 1);
inline constexpr char kFreeShareText[] = "five per cent";
inline constexpr char kReserveText[] = "5 % reserve";

/// The server's description is asked for anew when the cached one is older.
inline constexpr int kCacheSeconds = 3600;
inline constexpr char kCacheText[] = "once an hour";

/// A description beyond one of these bounds is not parsed: parsing takes up to 300 bytes of memory
/// for each value. A publisher is warned from one part in so many on.
inline constexpr std::uint64_t kDescriptionBytes = 4 << 20;
inline constexpr std::uint64_t kDescriptionDepth = 16;
inline constexpr std::uint64_t kDescriptionValues = 200000;
inline constexpr std::uint64_t kDescriptionWarningPart = 4;

/// One whose time has been over for longer makes the device's own clock the probable reason.
inline constexpr std::int64_t kClockDoubtSeconds = 90 * 24 * 3600;

/// How long scheduled runs leave a server alone after one failure, at most, and after many in a
/// row.
inline constexpr std::int64_t kCoolDownFirstSeconds = 15 * 60;
inline constexpr std::int64_t kCoolDownLongestSeconds = 8 * 60 * 60;

/// How far in the future a cached description may have been downloaded, before the clock that it
/// was downloaded by counts as wrong.
inline constexpr int kClockToleranceSeconds = 60;

/// A download that gains less on average over so long a time is given up.
inline constexpr std::uint64_t kLeastBytesPerSecond = 1024;
inline constexpr int kPaceSeconds = 300;

/// What was received of a package is kept for so long since it has grown, and of so many packages
/// on a volume.
inline constexpr std::int64_t kPartialSeconds = 7 * 24 * 3600;
inline constexpr std::size_t kMostPartials = 8;
/// Not of smaller ones: they are downloaded again in less time than it takes to keep them safely.
inline constexpr std::uint64_t kLeastPartialBytes = 256 * 1024;
/// None is kept while a package is unpacked, unless there is room for so many times its size.
inline constexpr std::uint64_t kRoomToUnpack = 20;

/// A download that breaks off goes on in the same run, while every attempt brings something: so
/// often at most, after as many seconds as there were attempts and at most so many.
inline constexpr int kMostDownloadAttempts = 50;
inline constexpr int kMostSecondsBetweenAttempts = 10;

/// A server that has no description (404) is asked once more after so long.
inline constexpr int kSecondsBeforeSecondRequest = 2;

/// The least that the operator may allow a download in a second: well above what is too slow.
inline constexpr std::int64_t kLeastRateKib = 4;

/// So many redirects of one download are followed.
inline constexpr int kMostRedirects = 20;

/// How long the application of one binary delta or SQL script may take.
inline constexpr int kPatchSeconds = 3600;

/// How long an operation waits for a lock, and the pause between two attempts at it.
inline constexpr std::uint32_t kLockWaitSeconds = 600;
inline constexpr std::uint32_t kLockPollMicroseconds = 100000;

/// What the platform is told whenever a program is run.
inline constexpr int kExecOptions = 187;

/// So much of its identifier a device shows to others, in characters.
inline constexpr int kHardwareIdLength = 16;

/// Which of the platform's keys packages are signed by, and how the platform unpacks one.
inline constexpr int kPackageKeyType = 6;
inline constexpr int kExtractFlags = 4;

}  // namespace tolm::rules

#endif  // TOLM_BASE_RULES_H_

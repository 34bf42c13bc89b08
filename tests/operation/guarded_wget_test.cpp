#include "operation/guarded_wget.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/digest.h"
#include "base/paths.h"
#include "base/rules.h"
#include "offer/signed_offer.h"
#include "operation/device_trust.h"
#include "operation/interrupt.h"
#include "operation/own_ground.h"
#include "operation/partial_downloads.h"
#include "operation/road.h"
#include "operation/sources.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"
#include "tests/support/syslog_capture.h"

namespace {

std::atomic<std::int64_t> slept_microseconds{0};
std::atomic<bool> is_cancelled{false};
// The call that fails, of those below.
std::string failing_call;

bool Fails(const char* call) {
  if (failing_call == call) {
    errno = EMFILE;
    return true;
  }
  return false;
}

}  // namespace

// ---- In place of the system's and the platform's ----

// Nobody waits here, and every wait moves the clock on.
extern "C" int usleep(useconds_t microseconds) {
  slept_microseconds += microseconds;
  return 0;
}

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
  return time_point(hours(1) + microseconds(slept_microseconds));
}

extern "C" void TLIBCExecCancel(int cancelled) {
  is_cancelled = cancelled != 0;
}

// The watch of a program looks when that says something or ends, and not because time passes.
extern "C" int poll(pollfd* events, nfds_t count, int milliseconds) {
  constexpr int kIntervalOfTheWatch = 1000;
  const timespec length{milliseconds / 1000, milliseconds % 1000 * 1000000L};
  const bool is_endless = milliseconds < 0 || milliseconds == kIntervalOfTheWatch;
  const timespec* const most = is_endless ? nullptr : &length;
  return static_cast<int>(syscall(SYS_ppoll, events, count, most, nullptr, 0));
}

extern "C" int memfd_create(const char* name, unsigned flags) noexcept {
  return Fails("memfd_create") ? -1 : static_cast<int>(syscall(SYS_memfd_create, name, flags));
}

extern "C" int fchmod(int file, mode_t mode) noexcept {
  return Fails("fchmod") ? -1 : static_cast<int>(syscall(SYS_fchmod, file, mode));
}

extern "C" int access(const char* path, int mode) noexcept {
  if (std::strncmp(path, "/proc/", 6) == 0 && Fails("access")) {
    return -1;
  }
  return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using tolm::testing::ReadFile;
using tolm::testing::SyslogCapture;
using tolm::testing::WriteFile;

constexpr char kBase[] = "http://server.example:8080/data";
constexpr char kLink[] = "http://server.example:8080/data/packages/oui_v7";
constexpr char kFile[] = "/volume1/@tmp/data_update/oui_v7";
constexpr char kElsewhere[] = "/tmp/description";
constexpr char kRequest[] =
    "Connecting to server.example (server.example)|192.0.2.1|:8080... connected.\n"
    "HTTP request sent, awaiting response... \n";

constexpr int kCannotWrite = 3;
constexpr int kBrokenOff = 4;
constexpr int kServerError = 8;
constexpr int kTerminated = 128 + SIGTERM;
constexpr int kTooMuch = 128 + SIGXFSZ;

// What a test waits for comes at once; this is for when it never does.
bool Await(const std::function<bool()>& is_there) {
  for (int i = 0; i < 20000 && !is_there(); ++i) {
    poll(nullptr, 0, 1);
  }
  return is_there();
}

std::string Asked(const std::string& answer) {
  return kRequest + answer;
}
const std::string kNotFound = Asked("  HTTP/1.1 404 Not Found\n");
const std::string kRedirect = Asked("  HTTP/1.1 302 Found\n  Location: /data/other\n");

/// What one run of wget does.
struct Attempt {
  int exit_status = 0;
  std::string log{};      ///< What it writes of itself,
  std::string content{};  ///< and into the file, behind what is there.
  std::function<void()> then{};
};

// Stands where wget does, and does what it is told, the last of it again and again.
class FakeWget {
 public:
  explicit FakeWget(std::string file, std::vector<Attempt> attempts)
      : file_(std::move(file)), attempts_(std::move(attempts)) {}

  int operator()(const std::string& url) {
    const Attempt& attempt = attempts_[std::min(urls.size(), attempts_.size() - 1)];
    urls.push_back(url);
    settings = ReadFile(std::getenv("WGETRC"));
    mode = fs::status(std::getenv("WGETRC")).permissions();
    if (!attempt.content.empty()) {
      WriteFile(file_, (fs::exists(file_) ? ReadFile(file_) : "") + attempt.content);
    }
    Say(attempt.log);
    if (attempt.then) {
      attempt.then();
    }
    return attempt.exit_status;
  }

  /// It is written, and has been read when this returns.
  void Say(const std::string& text) const {
    constexpr char kName[] = "logfile = ";
    const std::size_t begin = settings.find(kName) + std::strlen(kName);
    const std::string name = settings.substr(begin, settings.find('\n', begin) - begin);
    const base::Descriptor log(open(name.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(log.IsOpen()) << name;
    ASSERT_EQ(write(log.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_TRUE(Await([&] {
      int left = 0;
      return ioctl(log.Get(), FIONREAD, &left) == 0 && left == 0;
    }));
  }

  std::vector<std::string> urls;
  std::string settings;
  fs::perms mode = fs::perms::none;

 private:
  const std::string file_;
  const std::vector<Attempt> attempts_;
};

void AwaitEnd() {
  EXPECT_TRUE(Await([] { return is_cancelled.load(); }));
}

class GuardedWgetTest : public ::testing::Test {
 protected:
  GuardedWgetTest() {
    slept_microseconds = 0;
    WriteFile(paths::kServiceDefaults,
              R"({"config": {"download_scheme": "http", "db_netloc": "server.example:8080",
                             "db_ver": "1"}})");
  }
  ~GuardedWgetTest() override {
    failing_call.clear();
    unsetenv("WGETRC");
  }

  static DownloadResult Run(FakeWget& wget, const std::string& url = kLink) {
    SyslogCapture::Clear();
    return RunGuarded(url, kElsewhere, std::ref(wget));
  }
};

// ---- One download ----

TEST_F(GuardedWgetTest, RedirectIsFollowedAndSaidInTheLogAndNothingElse) {
  FakeWget wget(kElsewhere, {{kServerError, kRedirect}, {0, kRequest, "hello"}});
  const DownloadResult result = Run(wget);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.received_bytes, 5u);
  EXPECT_EQ(result.failure.reason, "");
  EXPECT_THAT(wget.urls, ElementsAre(kLink, "http://server.example:8080/data/other"));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              Contains("redirected to http://server.example:8080/data/other"));
  EXPECT_THAT(SyslogCapture::Texts(LOG_NOTICE), IsEmpty());
  EXPECT_EQ(wget.mode, fs::perms(0600)) << "a password may be in it";
}

TEST_F(GuardedWgetTest, TwentyRedirectsAreFollowedAndNoMore) {
  FakeWget wget(kElsewhere, {{kServerError, kRedirect}});
  const DownloadResult result = Run(wget);
  EXPECT_EQ(wget.urls.size(), std::size_t{rules::kMostRedirects} + 1);
  EXPECT_EQ(result.exit_status, kServerError);
  EXPECT_EQ(result.reason, "more than 20 redirects");
  EXPECT_EQ(result.failure.reason, reasons::kLinkRefused);
  EXPECT_EQ(result.failure.text,
            "more than 20 redirects, the last to http://server.example:8080/data/other");
}

TEST_F(GuardedWgetTest, WhatIsNoRedirectIsNotFollowed) {
  FakeWget wget(kElsewhere, {{kBrokenOff, kRedirect}});
  EXPECT_EQ(Run(wget).exit_status, kBrokenOff);
  EXPECT_EQ(wget.urls.size(), 1u);
}

TEST_F(GuardedWgetTest, FailureIsToldAndWhatWgetSaidLastIsLogged) {
  FakeWget wget(kElsewhere, {{kServerError, kNotFound + "ERROR 404: Not Found.\n"}});
  const DownloadResult result = Run(wget);
  EXPECT_EQ(result.exit_status, kServerError);
  EXPECT_EQ(result.reason, "");
  EXPECT_EQ(result.received_bytes, 0u);
  EXPECT_EQ(result.failure.text, std::string("404 Not Found from ") + kLink);
  EXPECT_THAT(SyslogCapture::Texts(LOG_NOTICE),
              Contains(std::string(paths::kWget) + ": ERROR 404: Not Found."));
}

TEST_F(GuardedWgetTest, LinkThatIsNoAddressIsNotAskedFor) {
  FakeWget wget(kElsewhere, {{0}});
  const DownloadResult result = Run(wget, "-i/etc/passwd");
  EXPECT_EQ(result.exit_status, -1);
  EXPECT_EQ(result.reason, "its link is no address of http or https");
  EXPECT_EQ(result.failure.reason, reasons::kLinkRefused);
  EXPECT_THAT(wget.urls, IsEmpty());
}

TEST_F(GuardedWgetTest, OfADirectoryNoLinkIsRefused) {
  const std::string refusal = "its link is no address of http or https";
  EXPECT_EQ(RefusalOfLink("/media/stick/x"), refusal);
  {
    const Asking server({Source::Kind::kServer, "http://server.example:8080"});
    EXPECT_EQ(RefusalOfLink("/media/stick/x"), refusal);
  }
  const Asking directory({Source::Kind::kDirectory, "/media/stick"});
  EXPECT_EQ(RefusalOfLink("/media/stick/x"), "");
}

TEST_F(GuardedWgetTest, OperatorsSettingsComeFirstFromWhereWgetWouldReadThem) {
  WriteFile("/root/.wgetrc", "of = home\n");
  WriteFile("/tmp/wgetrc", "of = name\n");
  WriteFile("/tmp/empty", "");
  const std::string ours = "max_redirect = 0\n";
  FakeWget wget(kElsewhere, {{0}});
  for (const auto& [variable, begin] :
       std::initializer_list<std::pair<const char*, std::string>>{{nullptr, "of = home\n\n" + ours},
                                                                  {"", ours},
                                                                  {"/tmp/wgetrc", "of = name\n\n"},
                                                                  {"/tmp/empty", '\n' + ours}}) {
    if (variable != nullptr) {
      setenv("WGETRC", variable, 1);
    }
    EXPECT_EQ(Run(wget).exit_status, 0);
    EXPECT_THAT(wget.settings, StartsWith(begin));
    const char* const after = std::getenv("WGETRC");
    EXPECT_EQ(after == nullptr ? "" : std::string(after), variable == nullptr ? "" : variable);
  }
  unsetenv("WGETRC");
  fs::remove("/root/.wgetrc");
  EXPECT_EQ(Run(wget).exit_status, 0);
  EXPECT_THAT(wget.settings, StartsWith(ours));
  unsetenv("HOME");
  EXPECT_EQ(Run(wget).exit_status, 0);
  EXPECT_THAT(wget.settings, StartsWith(ours));
}

TEST_F(GuardedWgetTest, WithoutItsSettingsWgetIsNotRun) {
  struct Row {
    const char* call;
    const char* variable;
    const char* why;
  };
  for (const Row& row : std::initializer_list<Row>{
           {"", "/tmp/nowhere", "the settings for wget in /tmp/nowhere cannot be read"},
           {"memfd_create", "", "the settings for wget: Too many open files"},
           {"fchmod", "", "the settings for wget: Too many open files"},
           {"access", "", "the settings for wget, which need /proc: Too many open files"}}) {
    setenv("WGETRC", row.variable, 1);
    failing_call = row.call;
    FakeWget wget(kElsewhere, {{0}});
    const DownloadResult result = Run(wget);
    failing_call.clear();
    EXPECT_EQ(result.exit_status, -1) << row.call;
    EXPECT_EQ(result.reason, row.why);
    EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_ERR), ElementsAre(row.why));
    EXPECT_THAT(wget.urls, IsEmpty());
  }
}

// A download that gains nothing, or so much, for as long as the pace is measured.
class SlowGuardedWgetTest : public GuardedWgetTest {
 protected:
  DownloadResult RunFor(int exit_status, std::size_t bytes) {
    fs::remove(kElsewhere);
    FakeWget* running = nullptr;
    const auto wait = [&] {
      usleep(static_cast<useconds_t>(rules::kPaceSeconds) * 1000000);
      running->Say("a line\n");
      running->Say("another, before which the pace has been judged\n");
    };
    FakeWget wget(kElsewhere, {{exit_status, "", std::string(bytes, 'x'), wait}});
    running = &wget;
    return Run(wget);
  }
};

TEST_F(SlowGuardedWgetTest, OneThatGainsTooLittleIsEndedAndToldSo) {
  for (const int exit_status : {kTerminated, 1, kBrokenOff}) {
    const DownloadResult result = RunFor(exit_status, 1);
    EXPECT_EQ(result.exit_status, exit_status);
    EXPECT_EQ(result.reason, "the server sends less than 1024 bytes a second");
    EXPECT_EQ(result.failure.reason, reasons::kTooSlow);
    EXPECT_EQ(result.failure.text,
              "http://server.example:8080 sends less than 1024 bytes a second");
  }
}

TEST_F(SlowGuardedWgetTest, OneThatIsThereAtItsEndIsTaken) {
  const DownloadResult result = RunFor(0, 1);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.reason, "");
}

TEST_F(SlowGuardedWgetTest, OneThatGainsTheLeastIsNotEnded) {
  EXPECT_EQ(RunFor(1, rules::kLeastBytesPerSecond * rules::kPaceSeconds).reason, "");
}

// ---- The attempts at a package ----

class AttemptsTest : public GuardedWgetTest {
 protected:
  AttemptsTest() {
    const tolm::testing::Authority root;
    tolm::testing::CertificateOptions options;
    options.extended_usage = package::kDescriptionSigningOid;
    const package::Signer signer = root.NewSigner(options);
    WriteFile(KeyringFile(".pem"), root.Pem());
    offer::Offer offer = tolm::testing::SomeOffer();
    offer.base = kBase;
    base::Sha384 digest;
    digest.Add(content_.data(), content_.size());
    offer.databases["oui"].full = {"packages/oui_v7", content_.size(), digest.Hex()};
    Json::Value document(Json::objectValue);
    offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), signer));
    WriteFile(paths::kDatabaseInfo, Json::writeString(Json::StreamWriterBuilder(), document));
    ground_ = std::make_unique<OwnGround>("/volume1", "/volume1/@database/autoupdate/oui");
    EXPECT_TRUE(ground_->Make("/volume1/@tmp/data_update"));
  }

  /// With so much received before, and what stands in the file at the end.
  DownloadResult Attempts(FakeWget& wget, const std::string& before = "") {
    roads_.clear();
    const Road road([this](const std::string& line) { roads_.push_back(line); });
    if (!before.empty()) {
      const PartialDownload partial(kLink, kFile);
      WriteFile(kFile, before);
    }
    fs::remove(kFile);
    SyslogCapture::Clear();
    PartialDownload partial(kLink, kFile);
    EXPECT_EQ(partial.Received(), before.size());
    const DownloadResult result = RunGuarded(kLink, kFile, std::ref(wget), &partial);
    received_ = ReadFile(kFile);
    partial.Forget();
    return result;
  }

  std::string Part(std::size_t from, std::size_t bytes) const {
    return content_.substr(from, bytes);
  }
  std::string Rest(std::size_t from) const { return content_.substr(from); }

  const std::string content_ = std::string(700000, 'a') + std::string(300000, 'b');
  std::unique_ptr<OwnGround> ground_;
  std::vector<std::string> roads_;
  std::string received_;
};

TEST_F(AttemptsTest, DownloadThatBreaksOffGoesOnAfterLongerAndLongerPauses) {
  FakeWget wget(kFile, {{kBrokenOff, kRequest, Part(0, 100000)},
                        {kBrokenOff, kRequest, Part(100000, 50000)},
                        {0, kRequest, Rest(150000)}});
  const DownloadResult result = Attempts(wget);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.received_bytes, content_.size());
  EXPECT_EQ(received_, content_);
  EXPECT_EQ(wget.urls.size(), 3u);
  EXPECT_EQ(slept_microseconds, (1 + 2) * 1000000);
  const std::string breaks[] = {
      "http://server.example:8080 has broken off at 100 kB of 1.0 MB; "
      "the download goes on there",
      "http://server.example:8080 has broken off at 150 kB of 1.0 MB; "
      "the download goes on there"};
  EXPECT_THAT(roads_, ElementsAre(breaks[0], breaks[1]));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              AllOf(Contains(breaks[0]), Contains(breaks[1])));
}

TEST_F(AttemptsTest, ServerThatBringsSomethingEachTimeIsAskedFiftyTimes) {
  constexpr std::size_t kPiece = 12000;
  FakeWget wget(kFile, {{kBrokenOff, kRequest, std::string(kPiece, 'a')}});
  const DownloadResult result = Attempts(wget);
  EXPECT_EQ(result.exit_status, kBrokenOff);
  EXPECT_EQ(result.received_bytes, 50 * kPiece);
  EXPECT_EQ(wget.urls.size(), 50u);
  constexpr int kGrowing = 10 * 11 / 2;
  EXPECT_EQ(slept_microseconds, (kGrowing + 39 * 10) * std::int64_t{1000000});
  FakeWget byte(kFile, {{kBrokenOff, kRequest, "a"}, {0, kRequest, Rest(1)}});
  EXPECT_EQ(Attempts(byte).exit_status, 0) << "a byte is something";
}

struct EndRow {
  const char* what;
  Attempt attempt;
};

TEST_F(AttemptsTest, WhatNoFurtherAttemptMendsEndsAtOnceAndKeepsWhatThereWas) {
  const auto wait = [] { usleep(static_cast<useconds_t>(rules::kPaceSeconds) * 1000000); };
  for (const EndRow& row : std::initializer_list<EndRow>{
           {"nothing asked", {kBrokenOff}},
           {"nothing asked, by another status", {kServerError}},
           {"cannot write", {kCannotWrite, kRequest}},
           {"no room",
            {kServerError, kRequest + std::string("--\n--x\nNo space left on device\n")}},
           {"not run", {-1, kRequest}},
           {"no more room for it", {kTooMuch, kRequest, "bbb"}},
           {"protocol, with a gain", {7, kRequest, "bbb"}},
           {"redirect that is refused",
            {kServerError, Asked("  HTTP/1.1 302 Found\n  Location: ftp://h/x\n")}}}) {
    for (const std::size_t before : {std::size_t{1}, std::size_t{1000}}) {
      SCOPED_TRACE(row.what);
      FakeWget wget(kFile, {row.attempt});
      const DownloadResult result = Attempts(wget, Part(0, before));
      EXPECT_EQ(result.exit_status, row.attempt.exit_status);
      EXPECT_EQ(result.received_bytes, row.attempt.content.size());
      EXPECT_EQ(wget.urls.size(), 1u);
      EXPECT_EQ(received_, Part(0, before) + row.attempt.content);
      EXPECT_THAT(roads_, IsEmpty());
    }
  }
  EXPECT_EQ(slept_microseconds, 0);
  FakeWget* running = nullptr;
  FakeWget slow(kFile, {{kBrokenOff, kRequest, "b", [&] {
                           wait();
                           running->Say("a line\n");
                           AwaitEnd();
                         }}});
  running = &slow;
  EXPECT_EQ(Attempts(slow).reason, "the server sends less than 1024 bytes a second");
  EXPECT_EQ(slow.urls.size(), 1u);
}

TEST_F(AttemptsTest, SignalEndsThemThoughTheLastHasBroughtSomething) {
  const Interrupt interrupt;
  FakeWget wget(kFile, {{kBrokenOff, kRequest, Part(0, 1000), [] {
                           kill(getpid(), SIGTERM);
                           EXPECT_TRUE(Await([] { return Interrupt::Received() != 0; }));
                         }}});
  EXPECT_EQ(Attempts(wget).exit_status, kBrokenOff);
  EXPECT_EQ(wget.urls.size(), 1u);
  EXPECT_EQ(received_, Part(0, 1000));
}

TEST_F(AttemptsTest, ServerThatRefusesTheRestIsAskedFromZeroOnce) {
  for (const std::size_t before : {std::size_t{1}, std::size_t{1000}}) {
    FakeWget wget(kFile, {{kServerError, kNotFound}, {0, kRequest, content_}});
    const DownloadResult result = Attempts(wget, Part(0, before));
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.received_bytes, content_.size());
    EXPECT_EQ(received_, content_);
    EXPECT_EQ(wget.urls.size(), 2u);
    const std::string line =
        "http://server.example:8080 does not go on with what was received "
        "before, " +
        std::string(before == 1 ? "1 B" : "1.0 kB") + "; it is downloaded anew";
    EXPECT_THAT(roads_, ElementsAre(line));
    EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_NOTICE), Contains(line));
  }
}

TEST_F(AttemptsTest, LargerOfTwoIsThereAtTheEnd) {
  FakeWget wget(kFile, {{kServerError, kNotFound}, {kServerError, kNotFound, Part(0, 500)}});
  EXPECT_EQ(Attempts(wget, Part(0, 1000)).received_bytes, 500u);
  EXPECT_EQ(received_, Part(0, 1000)) << "another server goes on with it";
  EXPECT_EQ(wget.urls.size(), 2u);
}

TEST_F(AttemptsTest, ServerThatSendsAllFromTheFirstByteOnIsEndedAndAskedFromZero) {
  const std::string whole = Asked("  HTTP/1.1 200 OK\n");
  for (const std::size_t before : {std::size_t{1}, std::size_t{1000}}) {
    FakeWget wget(kFile, {{kTerminated, whole, "", AwaitEnd}, {0, whole, content_}});
    const DownloadResult result = Attempts(wget, Part(0, before));
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(received_, content_);
    EXPECT_EQ(wget.urls.size(), 2u);
  }
  // One that says so in the middle of a run is told as what it is: one that breaks off.
  FakeWget broken(kFile,
                  {{kBrokenOff, kRequest, Part(0, 1000)}, {kTerminated, whole, "", AwaitEnd}});
  EXPECT_EQ(Attempts(broken).exit_status, kBrokenOff);
  EXPECT_EQ(broken.urls.size(), 2u);
  // It may have been faster than its end.
  FakeWget fast(kFile, {{kBrokenOff, kRequest, Part(0, 1000)}, {0, whole, Rest(1000), AwaitEnd}});
  EXPECT_EQ(Attempts(fast).exit_status, 0);
  EXPECT_EQ(received_, content_);
  EXPECT_EQ(fast.urls.size(), 2u);
}

TEST_F(AttemptsTest, LastFailureIsTheOneThatIsTold) {
  FakeWget wget(kFile, {{kBrokenOff, kRequest, Part(0, 1000)}, {kServerError, kNotFound}});
  const DownloadResult result = Attempts(wget);
  EXPECT_EQ(result.exit_status, kServerError);
  EXPECT_EQ(result.failure.http_status, 404);
  EXPECT_EQ(result.received_bytes, 1000u);
  EXPECT_EQ(wget.urls.size(), 2u) << "what this run has received is no reason to begin anew";
}

TEST_F(AttemptsTest, WhatCameInPiecesIsComparedAndOtherwiseByWhoOpensIt) {
  for (const std::size_t before : {std::size_t{1}, std::size_t{1000}}) {
    FakeWget wrong(kFile, {{0, kRequest, Rest(before)}, {0, kRequest, content_}});
    EXPECT_EQ(Attempts(wrong, std::string(before, 'x')).exit_status, 0);
    EXPECT_EQ(received_, content_);
    EXPECT_EQ(wrong.urls.size(), 2u);
    EXPECT_THAT(
        roads_,
        ElementsAre(StartsWith("http://server.example:8080 does not have the rest of what was")));
  }
  FakeWget in_one(kFile, {{0, kRequest, std::string(content_.size(), 'x')}});
  EXPECT_EQ(Attempts(in_one).exit_status, 0);
  EXPECT_EQ(in_one.urls.size(), 1u);
  FakeWget anew(kFile, {{kServerError, kNotFound}, {0, kRequest, std::string(10, 'x')}});
  EXPECT_EQ(Attempts(anew, Part(0, 1000)).exit_status, 0);
  EXPECT_EQ(anew.urls.size(), 2u);
}

TEST_F(AttemptsTest, WhatIsThereWholeIsNotAskedForUnlessItIsWrong) {
  FakeWget right(kFile, {{0, kRequest, content_}});
  EXPECT_EQ(Attempts(right, content_).exit_status, 0);
  EXPECT_THAT(right.urls, IsEmpty());
  FakeWget wrong(kFile, {{0, kRequest, content_}});
  EXPECT_EQ(Attempts(wrong, std::string(content_.size(), 'x')).exit_status, 0);
  EXPECT_EQ(wrong.urls.size(), 1u);
  EXPECT_EQ(received_, content_);
}

TEST_F(AttemptsTest, WhereMoreComesThanThePackageHasAllIsWrong) {
  FakeWget wget(kFile, {{kTooMuch, kRequest, Rest(1000)}, {0, kRequest, content_}});
  EXPECT_EQ(Attempts(wget, Part(0, 1000)).exit_status, 0);
  EXPECT_EQ(received_, content_);
  EXPECT_EQ(wget.urls.size(), 2u);
  FakeWget from_zero(kFile, {{kTooMuch, kRequest, content_}});
  EXPECT_EQ(Attempts(from_zero).exit_status, kTooMuch);
  EXPECT_EQ(from_zero.urls.size(), 1u);
  EXPECT_EQ(received_, "") << "nothing is kept of it";
}

}  // namespace
}  // namespace tolm::operation

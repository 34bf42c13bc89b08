#include "publish/outside.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <exception>
#include <future>
#include <map>
#include <utility>

#include "base/descriptor.h"
#include "base/digest.h"
#include "base/percent.h"
#include "base/rules.h"
#include "package/error.h"
#include "publish/error.h"
#include "publish/remote.h"
#include "publish/web_fetch.h"

namespace tolm::publish {
namespace {

using base::Descriptor;

constexpr std::uint64_t kMostDescriptionBytes = 16 * rules::kDescriptionBytes;
constexpr std::size_t kPieceBytes = 64 * 1024;
constexpr int kOk = 200;
// As devices ask: servers and caches must let it pass and pay no heed.
constexpr char kQuery[] = "?os=check&dlid=0&db_list[check]=1";

std::string HeaderOf(const WebAnswer& answer, const char* name) {
  const auto found = answer.headers.find(name);
  return found == answer.headers.end() ? "" : found->second;
}

// The number behind "max-age="; nothing when there is none.
std::optional<std::int64_t> MaxAgeOf(const std::string& cache_control) {
  constexpr char kName[] = "max-age=";
  const std::size_t at = cache_control.find(kName);
  std::int64_t seconds = 0;
  if (at == std::string::npos ||
      std::from_chars(cache_control.data() + at + sizeof kName - 1,
                      cache_control.data() + cache_control.size(), seconds)
              .ec != std::errc()) {
    return std::nullopt;
  }
  return seconds;
}

class Web : public Outside {
 public:
  Web(const std::string& url, const Settings& settings)
      : base_(ParseBaseUrl(url).Text()), info_version_(settings.info_version) {}

  std::string Name() const override { return base_; }

  std::string Description() override {
    const std::string url = base_ + "/database_info/" + info_version_ + kQuery;
    std::string text;
    const WebAnswer answer = FetchFromWeb(url, [&text](const char* data, std::size_t size) {
      text.append(data, size);
      return text.size() <= kMostDescriptionBytes;
    });
    if (!answer.is_complete) {
      throw Error(url + ": " +
                  (text.size() > kMostDescriptionBytes ? "is far too large" : answer.problem));
    }
    LookAtDescription(answer);
    return text;
  }

  OutsidePackage Look(const std::string& link) override {
    const WebAnswer answer = LookAtWeb(link);
    if (!answer.is_complete || answer.status != kOk) {
      return {ProblemOf(answer), {}, ""};
    }
    LookAtPackage(link, answer);
    return {"", LengthOf(answer), ""};
  }

  OutsidePackage Measure(const std::string& link) override {
    base::Sha384 digest;
    std::uint64_t size_bytes = 0;
    const WebAnswer answer = FetchFromWeb(link, [&](const char* data, std::size_t size) {
      digest.Add(data, size);
      size_bytes += size;
      return true;
    });
    if (!answer.is_complete) {
      return {ProblemOf(answer), {}, ""};
    }
    LookAtPackage(link, answer);
    return {"", size_bytes, digest.Hex()};
  }

 private:
  static std::string ProblemOf(const WebAnswer& answer) {
    return answer.problem.empty() ? "cannot be had" : answer.problem;
  }

  static std::optional<std::uint64_t> LengthOf(const WebAnswer& answer) {
    const std::string text = HeaderOf(answer, "content-length");
    std::uint64_t length = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    return error == std::errc() && end == text.data() + text.size()
               ? std::optional<std::uint64_t>(length)
               : std::nullopt;
  }

  void LookAtEncoding(const std::string& what, const WebAnswer& answer) {
    const std::string encoding = HeaderOf(answer, "content-encoding");
    if (!encoding.empty() && encoding != "identity") {
      wrong.push_back(what + ": comes with Content-Encoding: " + encoding +
                      ", and devices keep it as it comes");
    }
  }

  void LookAtDescription(const WebAnswer& answer) {
    const std::string what = "the description";
    LookAtEncoding(what, answer);
    if (!HeaderOf(answer, "last-modified").empty()) {
      remarks.push_back(what +
                        ": comes with Last-Modified, which devices whose wget has other settings "
                        "than the shipped ones take for the age of their copy");
    }
    const std::optional<std::int64_t> age = MaxAgeOf(HeaderOf(answer, "cache-control"));
    if (age && *age > rules::kCacheSeconds) {
      remarks.push_back(what + ": caches may keep it for " + std::to_string(*age) +
                        " s, and devices get an old one meanwhile");
    }
    if (!LengthOf(answer)) {
      remarks.push_back(what + ": comes without Content-Length: one that was cut off looks whole");
    }
  }

  // Of all packages, each is said once.
  void LookAtPackage(const std::string& link, const WebAnswer& answer) {
    if (!HeaderOf(answer, "content-encoding").empty() && !std::exchange(was_encoded_, true)) {
      LookAtEncoding(link, answer);
    }
    if (!LengthOf(answer) && !std::exchange(had_no_length_, true)) {
      remarks.push_back(link + ": comes without Content-Length: one that was cut off looks whole");
    }
    if (HeaderOf(answer, "accept-ranges") != "bytes" && !std::exchange(had_no_ranges_, true)) {
      remarks.push_back(link +
                        ": no ranges of it are served (Accept-Ranges), so that a download "
                        "that was cut off begins anew");
    }
  }

  const std::string base_;
  const std::string info_version_;
  bool was_encoded_ = false;
  bool had_no_length_ = false;
  bool had_no_ranges_ = false;
};

// Reads the pipe to its end while somebody else fills it.
OutsidePackage MeasurePipe(int pipe) {
  base::Sha384 digest;
  std::uint64_t size_bytes = 0;
  std::array<char, kPieceBytes> piece{};
  for (;;) {
    const ssize_t count = ::read(pipe, piece.data(), piece.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return {"", size_bytes, digest.Hex()};
    }
    digest.Add(piece.data(), static_cast<std::size_t>(count));
    size_bytes += static_cast<std::uint64_t>(count);
  }
}

class Store : public Outside {
 public:
  Store(const std::string& remote, const Settings& settings)
      : remote_(remote),
        description_("database_info/" + settings.info_version),
        base_(settings.base_url.Text() + '/'),
        files_(remote_.List()) {}

  std::string Name() const override { return remote_.Name(); }

  std::string Description() override {
    const std::optional<std::string> text = remote_.Read(description_, kMostDescriptionBytes);
    if (!text) {
      throw Error(Name() + ": " + description_ + " is not there");
    }
    return *text;
  }

  OutsidePackage Look(const std::string& link) override {
    if (link.compare(0, base_.size(), base_) != 0) {
      return {"is not below " + base_, {}, ""};
    }
    const auto found = files_.find(base::PercentDecoded(link.substr(base_.size())));
    return found == files_.end() ? OutsidePackage{"is not there", {}, ""}
                                 : OutsidePackage{"", found->second, ""};
  }

  OutsidePackage Measure(const std::string& link) override {
    const OutsidePackage seen = Look(link);
    if (!seen.problem.empty()) {
      return seen;
    }
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw package::SystemError(package::Code::kInternal, "pipe", errno);
    }
    const Descriptor reader(ends[0]);
    const auto writer = std::make_shared<Descriptor>(ends[1]);
    std::future<void> reading = std::async(std::launch::async, [&, writer]() mutable {
      try {
        remote_.ReadInto(base::PercentDecoded(link.substr(base_.size())), writer->Get());
      } catch (...) {
        *writer = Descriptor();
        throw;
      }
      *writer = Descriptor();
    });
    OutsidePackage measured = MeasurePipe(reader.Get());
    try {
      reading.get();
    } catch (const std::exception& error) {
      return {error.what(), {}, ""};
    }
    return measured;
  }

 private:
  const Remote remote_;
  const std::string description_;
  const std::string base_;
  const std::map<std::string, std::uint64_t> files_;
};

}  // namespace

std::unique_ptr<Outside> OutsideOnWeb(const std::string& url, const Settings& settings) {
  return std::make_unique<Web>(url, settings);
}

std::unique_ptr<Outside> OutsideInStore(const std::string& remote, const Settings& settings) {
  return std::make_unique<Store>(remote, settings);
}

}  // namespace tolm::publish

#include "operation/bounded_downloads.h"

#include "dataupdate/error.h"
#include "operation/download_bounds.h"
#include "operation/interrupt.h"
#include "operation/lock_holder.h"
#include "operation/platform_calls.h"

namespace tolm::operation {
namespace {

class Observer : public StepObserver {
 public:
  bool MayGoOn() override { return Interrupt::Received() == 0; }
  bool MayDownload(const Step& step) override { return downloads_.Fits(step) && MayGoOn(); }
  std::optional<std::uint64_t> MostBytes() override { return downloads_.MostBytes(); }
  void Downloaded(const Step& step, const DownloadResult& result) override {
    downloads_.Ended(step, result);
  }
  ExplainedError Explain(const dataupdate::UpdateError& error) override {
    return ExplainedError(downloads_.WithReason(error.what()), error.code(),
                          downloads_.Explain(error));
  }
  void Refused(const PackageRefusal& refusal) override { downloads_.PackageRefused(refusal); }
  void Began(const Step&) override {}

  const DownloadBounds& downloads() const { return downloads_; }

 private:
  DownloadBounds downloads_;
};

}  // namespace

void WithBoundedDownloads(const std::function<void()>& action) {
  if (AreStepsWatched()) {
    action();  // A Run bounds them, counts them and says why one failed.
    return;
  }
  IgnoreFileSizeSignal();
  Observer observer;
  const WatchedSteps watched(observer);
  try {
    action();
  } catch (const dataupdate::UpdateError& error) {
    if (Interrupt::Received() != 0) {
      throw Interrupted();
    }
    throw ExplainedError(observer.downloads().WithReason(WithLockHolder(error.what())),
                         error.code(), observer.downloads().Explain(error));
  }
}

}  // namespace tolm::operation

#ifndef TOLM_PUBLISH_WORK_BUDGET_H_
#define TOLM_PUBLISH_WORK_BUDGET_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tolm::publish {

/// Bounds what works side by side: so many jobs at a time, and together no more memory than this.
/// May be used by several threads.
class WorkBudget {
 public:
  WorkBudget(int jobs, std::uint64_t memory_bytes);
  WorkBudget(const WorkBudget&) = delete;
  WorkBudget& operator=(const WorkBudget&) = delete;

  int jobs() const { return jobs_; }
  /// How many ask for a share at present and have none.
  std::uint64_t waiting();

  /// Thrown in place of a share.
  struct Stopped {};
  /// From now on nobody gets a share: who waits for one, and who asks for one later, is told
  /// Stopped at once. Those that are held are given back as ever.
  void Stop();

  /// What one job has taken; given back at the end of this object.
  class Share {
   public:
    /// Waits until there is a place and memory for it, in the order of asking: nobody waits for
    /// ever for what smaller ones take. What needs more than all the memory works alone. Throws
    /// Stopped.
    Share(WorkBudget& budget, std::uint64_t memory_bytes);
    ~Share();
    /// For what still works but needs none of it any more.
    void GiveBackMemory();
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

   private:
    WorkBudget& budget_;
    std::uint64_t memory_bytes_;
  };

 private:
  const int jobs_;
  const std::uint64_t memory_bytes_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t asked_ = 0;     // how many have
  std::uint64_t admitted_ = 0;  // how many of them have got it
  std::uint64_t waiting_ = 0;
  bool is_stopped_ = false;
  int working_ = 0;
  std::uint64_t taken_bytes_ = 0;
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_WORK_BUDGET_H_

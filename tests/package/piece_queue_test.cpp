#include "package/piece_queue.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

namespace tolm::testing {
namespace {

using package::PieceQueue;

// Takes everything down.
struct Notebook {
  std::string text;
  int ends = 0;

  PieceQueue::Taker Taker() {
    return [this](const std::string* piece) { piece == nullptr ? ++ends : (text += *piece, 0); };
  }
};

std::string PieceOf(int number) {
  return std::to_string(number) + ",";
}

TEST(PieceQueueTest, EveryTakerGetsEverythingInOrderAndTheEnd) {
  Notebook one;
  Notebook other;
  std::string expected;
  PieceQueue queue({one.Taker(), other.Taker()});
  for (int i = 0; i < 1000; ++i) {
    queue.Push(PieceOf(i));
    expected += PieceOf(i);
  }
  queue.Finish();
  EXPECT_EQ(one.text, expected);
  EXPECT_EQ(other.text, expected);
  EXPECT_EQ(one.ends, 1);
  EXPECT_EQ(other.ends, 1);
}

// Whether a thread of this process waits for something, or has ended.
bool IsIdle(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string number;
  std::string name;
  std::string state;
  return !(file >> number >> name >> state) || state != "R";
}

TEST(PieceQueueTest, WhoIsFastWaitsForWhoIsSlow) {
  constexpr int kPieces = 1000;
  std::promise<void> go;
  const std::shared_future<void> gone = go.get_future().share();
  std::atomic<int> fast{0};
  std::atomic<int> slow{0};
  std::atomic<int> pushed{0};
  std::atomic<pid_t> fast_thread{0};
  std::promise<pid_t> pushing_thread;
  PieceQueue queue({[&](const std::string* piece) {
                      gone.wait();
                      slow += piece != nullptr ? 1 : 0;
                    },
                    [&](const std::string* piece) {
                      fast_thread = gettid();
                      fast += piece != nullptr ? 1 : 0;
                    }});
  const auto pushing = std::async(std::launch::async, [&] {
    pushing_thread.set_value(gettid());
    for (int i = 0; i < kPieces; ++i) {
      queue.Push("x");
      ++pushed;
    }
  });
  const pid_t pusher = pushing_thread.get_future().get();
  // One is in the slow taker's hands and the queue is full behind it: that many come, and no more.
  constexpr int kAll = static_cast<int>(PieceQueue::kMostPieces) + 1;
  while (pushed < kAll || fast < kAll || !IsIdle(fast_thread) || !IsIdle(pusher)) {
    std::this_thread::yield();
  }
  EXPECT_EQ(pushed, kAll);
  EXPECT_EQ(fast, kAll);
  EXPECT_EQ(slow, 0);
  go.set_value();
  pushing.wait();
  queue.Finish();
  EXPECT_EQ(fast, kPieces);
  EXPECT_EQ(slow, kPieces);
}

TEST(PieceQueueTest, FailureOfATakerEndsTheStream) {
  Notebook other;
  PieceQueue queue({[](const std::string* piece) {
                      if (piece != nullptr && *piece == "5") {
                        throw std::runtime_error("no more");
                      }
                    },
                    other.Taker()});
  std::string what;
  try {
    for (int i = 0;; ++i) {
      queue.Push(std::to_string(i));
    }
  } catch (const std::runtime_error& error) {
    what = error.what();
  }
  EXPECT_EQ(what, "no more");
  EXPECT_THROW(queue.Finish(), std::runtime_error);
}

TEST(PieceQueueTest, FailureOfATakerEndsWaitingForIt) {
  std::promise<void> go;
  const std::shared_future<void> gone = go.get_future().share();
  PieceQueue queue({[&](const std::string*) {
    gone.wait();
    throw std::runtime_error("no more");
  }});
  std::promise<pid_t> pushing_thread;
  std::atomic<std::size_t> pushed{0};
  auto pushing = std::async(std::launch::async, [&] {
    pushing_thread.set_value(gettid());
    for (;; ++pushed) {
      queue.Push("x");
    }
  });
  const pid_t pusher = pushing_thread.get_future().get();
  // One is in the taker's hands and the queue is full behind it.
  while (pushed < PieceQueue::kMostPieces + 1 || !IsIdle(pusher)) {
    std::this_thread::yield();
  }
  go.set_value();
  EXPECT_THROW(pushing.get(), std::runtime_error);
}

TEST(PieceQueueTest, TakerThatWaitsForMoreIsEndedWithTheQueue) {
  std::atomic<pid_t> thread{0};
  int ends = 0;
  {
    PieceQueue queue({[&](const std::string* piece) {
      ends += piece == nullptr ? 1 : 0;
      thread = gettid();
    }});
    queue.Push("x");
    while (thread == 0 || !IsIdle(thread)) {
      std::this_thread::yield();
    }
  }
  EXPECT_EQ(ends, 0);
}

TEST(PieceQueueTest, FailureAtTheEndIsThrown) {
  PieceQueue queue({[](const std::string* piece) {
    if (piece == nullptr) {
      throw std::runtime_error("not closed");
    }
  }});
  queue.Push("x");
  EXPECT_THROW(queue.Finish(), std::runtime_error);
}

TEST(PieceQueueTest, WhatIsNotFinishedGetsNoEnd) {
  Notebook book;
  { PieceQueue({book.Taker()}).Push("x"); }
  EXPECT_EQ(book.ends, 0);
}

TEST(PieceQueueTest, TakersHearNoSignals) {
  sigset_t heard;
  sigemptyset(&heard);
  PieceQueue queue(
      {[&heard](const std::string*) { pthread_sigmask(SIG_SETMASK, nullptr, &heard); }});
  queue.Finish();
  EXPECT_EQ(sigismember(&heard, SIGINT), 1);
  EXPECT_EQ(sigismember(&heard, SIGTERM), 1);
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_EQ(sigismember(&own, SIGTERM), 0);
}

}  // namespace
}  // namespace tolm::testing

// Unit tests of the thread team: the values of Q5_THREADS, the shares of a
// range, every thread running once in the caller's floating-point mode,
// and the phase timers of threads merged into the run's.
#include <gtest/gtest.h>
#include <sched.h>
#include <xmmintrin.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "run/threads.h"
#include "run/timers.h"
#include "textio/textio.h"

TEST(ThreadCount, ValuesOfTheVariable) {
  cpu_set_t set;
  ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
  const int cores = CPU_COUNT(&set);
  const struct { const char* value; int count; } cases[] = {
      {nullptr, 1}, {"", 1}, {"1", 1}, {"2", 2}, {"16", 16}, {"256", 256}, {"007", 7}, {"0", cores}, {"000", cores},
      {"257", -1}, {"1000", -1}, {"0002", -1}, {"-1", -1}, {"+2", -1}, {" 2", -1}, {"2 ", -1}, {"1.5", -1},
      {"2x", -1}, {"abc", -1}, {"0x10", -1}};
  for (const auto& c : cases) EXPECT_EQ(parse_thread_count(c.value), c.count) << (c.value ? c.value : "(unset)");
}

// Consecutive ranges in thread order that cover every item once, sizes
// within one of each other, also with more threads than items.
TEST(ThreadRange, SharesCoverEveryItemOnce) {
  for (int count : {0, 1, 5, 16, 17, 1223})
    for (int T : {1, 2, 3, 7, 32}) {
      int expect_first = 0, smallest = count, largest = 0;
      for (int t = 0; t < T; ++t) {
        int first, end;
        thread_range(t, T, count, &first, &end);
        EXPECT_EQ(first, expect_first) << count << " " << T << " " << t;
        smallest = std::min(smallest, end - first);
        largest = std::max(largest, end - first);
        expect_first = end;
      }
      EXPECT_EQ(expect_first, count);
      EXPECT_LE(largest - smallest, 1);
    }
}

// Each thread of the task runs once, on a thread of its own, and in the
// flush-to-zero mode of the caller: a denormal result comes out 0 on every
// thread while the mode is set, and not once it is cleared. The team can be
// made anew with another size, and a task may use fewer threads.
TEST(ThreadTeam, EveryThreadOnceInTheCallersMode) {
  const unsigned int saved = _mm_getcsr();
  for (int T : {3, 2, 4}) {
    set_thread_count(T);
    EXPECT_EQ(thread_count(), T);
    for (int used : {T, 2}) {
      for (bool flush : {true, false}) {
        _mm_setcsr(flush ? (saved | 0x8040) : (saved & ~0x8040u));
        std::vector<int> runs(static_cast<std::size_t>(T), 0);
        std::vector<double> tiny(static_cast<std::size_t>(T), -1.0);
        std::vector<std::thread::id> ids(static_cast<std::size_t>(T));
        volatile double small = 1e-300;
        auto task = [&](int t) {
          ++runs[static_cast<std::size_t>(t)];
          tiny[static_cast<std::size_t>(t)] = small * 1e-10;  // denormal, or 0 when flushed
          ids[static_cast<std::size_t>(t)] = std::this_thread::get_id();
        };
        run_on_threads(used, task);
        for (int t = 0; t < T; ++t) {
          EXPECT_EQ(runs[static_cast<std::size_t>(t)], t < used ? 1 : 0) << T << " " << t;
          if (t >= used) continue;
          EXPECT_EQ(tiny[static_cast<std::size_t>(t)] == 0.0, flush) << T << " " << t;
          for (int u = 0; u < t; ++u) EXPECT_NE(ids[static_cast<std::size_t>(u)], ids[static_cast<std::size_t>(t)]);
        }
        EXPECT_EQ(ids[0], std::this_thread::get_id());
      }
    }
  }
  _mm_setcsr(saved);
  set_thread_count(1);
}

// A phase timed on several threads: the run counts every thread's calls and
// adds the longest time one thread spent in it, not the sum of all; calls
// taken back come off the count. Thread t makes t + 1 calls of 10 (t + 1)
// ms: the slowest spends 90 ms, all together 140 ms, and the stage lasts
// about 90 ms, so the phase takes close to all of the run's time and never
// more.
TEST(ThreadTeam, PhaseTimesOfThreadsMergeIntoTheRun) {
  set_thread_count(3);
  const std::string log = testing::TempDir() + "threads_test_Q5.out";
  tio_open(CH_LOG, log.c_str());
  timer("init");
  auto task = [](int t) {
    for (int k = 0; k <= t; ++k) {
      timer("for0");
      const double start = timer_clock();
      while (timer_clock() - start < 0.01 * (t + 1)) {
      }
      timer("for1");
    }
  };
  run_on_threads(3, task);
  EXPECT_EQ(timer_calls("for"), 6);
  timer_uncount("for", 2);
  EXPECT_EQ(timer_calls("for"), 4);
  EXPECT_EQ(timer_calls("ele"), 0);
  timer("stop");
  timer_report();
  tio_close(CH_LOG);
  set_thread_count(1);
  std::FILE* f = std::fopen(log.c_str(), "r");
  ASSERT_NE(f, nullptr);
  char line[200];
  double percent = -1.0;
  int calls = -1;
  while (std::fgets(line, sizeof line, f)) {
    std::sscanf(line, " Percent time taken solving forward  equations:%lf", &percent);
    std::sscanf(line, " Number of calls to solve forward equations: %d", &calls);
  }
  std::fclose(f);
  EXPECT_EQ(calls, 4);
  EXPECT_GE(percent, 60.0);
  EXPECT_LE(percent, 100.0);
}

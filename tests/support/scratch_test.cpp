// The in-process fixture: scratch working directories, channels closed after
// each test, and the guard that fails a test program whose test stops.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "support/support.h"
#include "textio/textio.h"

namespace {

// A stop ends the process with status 0, as a test program that ended well
// does: a stop inside a test that does not expect one fails it instead.
bool in_test = false, stop_expected = false;
const int exit_guard = std::atexit([] {
  if (in_test && !stop_expected) _exit(1);
});

}  // namespace

void ScratchTest::SetUp() {
  (void)exit_guard;
  saved_ = std::filesystem::current_path();
  dir_ = make_scratch_dir();
  ASSERT_FALSE(dir_.empty());
  std::filesystem::current_path(dir_);
  in_test = true;
}

void ScratchTest::TearDown() {
  in_test = false;
  tio_close_all();
  std::filesystem::current_path(saved_);
}

std::string console_of_child(bool stop, const std::function<void()>& body) {
  EXPECT_EXIT({
    stop_expected = true;
    if (!std::freopen("console.txt", "w", stdout)) std::abort();
    body();
    std::exit(stop ? 3 : 0);
  }, [stop](int st) { return WIFEXITED(st) && (WEXITSTATUS(st) == 0) == stop; }, "");
  return read_file("console.txt");
}

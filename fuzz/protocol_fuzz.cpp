// Fuzz target of protocol.dat: block heads and measurement lines as q5's
// jobs read them, after a fixed small Q5.in (an inverse job on a 5 x 3
// grid taking the errors from the file). A "%% Q5.in" section replaces the
// control file, so that the seeds also cover the forward job, the reference
// column of a difference run, log data and the qualitative type.
#include "harness.h"

namespace {

const char* kControl =
    "protocol fuzz\n1 4 3.0 0 0\n5 3\n0 1 2 3 4\n0 0 0 0 0\n0 1 2\n1\n1 8 100.0\n1 1\n"
    "1 0.0\n1 0\n1.0 5 0 1.0\n0.0 0.0 1e-6 1e9\n0\n4\n1 1 1\n2 2 1\n3 3 1\n4 4 1\n";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<FuzzFile> defaults = {{"Q5.in", kControl}};
  run_reading_road(split_input(data, size, "protocol.dat", defaults), true);
  return 0;
}

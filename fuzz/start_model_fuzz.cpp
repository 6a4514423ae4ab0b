// Fuzz target of the start model file: q5's road through a fixed inverse
// Q5.in on a 5 x 3 grid whose start model is the file start.dat (a
// "%% Q5.in" section may replace the control file).
#include "harness.h"

namespace {

// 5 x 3 grid (8 cells), start model from start.dat, 1 x 1 patches.
const char* kControl =
    "start fuzz\n1 4 2.0 0 0\n5 3\n0 1 2 3 4\n0 0 0 0 0\n0 1 2\n0\nstart.dat\n1 1\n"
    "1 0.0\n1 0\n1.0 5 0 1.0\n0.0 0.03 1e-6 1e9\n0\n4\n1 1 1\n2 2 1\n3 3 1\n4 4 1\n";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<FuzzFile> defaults = {{"Q5.in", kControl}};
  run_reading_road(split_input(data, size, "start.dat", defaults), false);
  return 0;
}

// Fuzz target of Q5.in: the whole control-file road of q5 (job, grid or
// mesh.dat, start model, inverse settings, polyline, electrodes) up to
// before any solve. The input is Q5.in; "%% mesh.dat" and "%% start.dat"
// sections may follow, and small valid ones stand in when they do not.
#include "harness.h"

namespace {

// Two triangles on a unit square, parameters 1 and 2, zone 1.
const char* kMesh = "2 4\n1 1 2 3 1 1\n2 1 3 4 2 1\n1 0 0\n2 1 0\n3 1 -1\n4 0 -1\n";
// x, y, resistivity for up to eight elements.
const char* kStart = "0 0 10\n0 0 20\n0 0 30\n0 0 40\n0 0 50\n0 0 60\n0 0 70\n0 0 80\n";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<FuzzFile> defaults = {{"mesh.dat", kMesh}, {"start.dat", kStart}};
  run_reading_road(split_input(data, size, "Q5.in", defaults), false);
  return 0;
}

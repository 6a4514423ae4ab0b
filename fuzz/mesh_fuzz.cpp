// Fuzz target of mesh.dat: the mesh_type 3 road of q5 (mesh, pattern, scale,
// start model, parameter map, polyline mask, electrodes, pinned node) with
// a fixed inverse Q5.in, which a "%% Q5.in" section may replace.
#include "harness.h"

namespace {

// Inverse job on mesh.dat: one region over element 1, linear filter,
// a polyline round the unit square and electrodes on nodes 1 to 4.
const char* kControl =
    "mesh fuzz\n1 3 3.0 1 1\n1.0\n1\n1 1 50.0\n1 0.0\n1 0\n1.0 5 0 1.0\n"
    "0.0 0.03 1e-6 1e9\n5\n-0.1 0.1\n1.1 0.1\n1.1 -1.1\n-0.1 -1.1\n-0.1 0.1\n"
    "4\n1 1\n2 2\n3 3\n4 4\n";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<FuzzFile> defaults = {{"Q5.in", kControl}};
  run_reading_road(split_input(data, size, "mesh.dat", defaults), false);
  return 0;
}

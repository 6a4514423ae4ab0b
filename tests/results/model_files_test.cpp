// The model file writers on small meshes against their expected text
// (expected/model_files_<case>.txt): the table, the VTK file with its
// appended maps, and the difference table.
#include <cmath>

#include "mesh/mesh_model.h"
#include "results/model_files.h"
#include "support/support.h"
#include "textio/textio.h"

namespace {

// Three triangles on six nodes: node 5 belongs to none, node 4 to the second.
const MeshModel kTriangles{6, 3, {0, 10, 5, 15, 99, 1.0 / 3}, {0, 0, -7.25, -3.5, 99, 2},
                           {1, 2, 3, 0, 2, 4, 3, 0, 1, 3, 6, 9, 1}, {}, {}};
// Two four-node elements in a row, y as depth.
const MeshModel kQuads{6, 2, {0, 0, 10, 10, 20, 20}, {0, 2, 0, 3, 0, 4}, {1, 3, 4, 2, 3, 5, 6, 4, 1}, {}, {}};

struct WriterCase {
  const char* name;
  const MeshModel* mesh;
  int nodes_per_element;
  OutputMask mask;
  std::vector<double> values;
  bool raw;  // resistivities as they stand, else log conductivity with the maps appended
};

// Raw values with every element written: VTK ids stay node - 1 though node 5
// is out; no log10 scalar; -2.5 has no logarithm: a table line of three
// fields. Otherwise ids count the written nodes before a node: with the
// middle triangle out node 6 has id 3; of the quads only the second is
// written, node 3 has id 0, and depths turn into heights.
const WriterCase kCases[] = {
    {"triangles_raw", &kTriangles, 3, {{1, 1, 1}, {1, 1, 1, 1, 0, 1}}, {4.0, -2.5, 0.001}, true},
    {"triangles_masked", &kTriangles, 3, {{1, 0, 1}, {1, 1, 1, 0, 0, 1}}, {-std::log(100.0), 0.0, 2.302585092994046}, false},
    {"quads_masked", &kQuads, 4, {{0, 1}, {0, 0, 1, 1, 1, 1}}, {0.5, -1.5}, false},
};

using ModelFiles = ScratchTest;

// Channels 14, 18 and 19 have no file: the writers fill fort.14, fort.18 and fort.19.
TEST_F(ModelFiles, TablesVtkFilesAndAppendedMaps) {
  for (const WriterCase& c : kCases) {
    const MeshModel& m = *c.mesh;
    std::vector<double> rho;
    for (double v : c.values) rho.push_back(c.raw ? v : std::exp(-v));
    write_model(c.values.data(), m, c.mask, c.nodes_per_element, c.raw, CH_MODEL, CH_MODEL_VTK, 0);
    if (!c.raw) {
      write_difference(rho.data(), m, c.mask, c.nodes_per_element);
      write_model(rho.data(), m, c.mask, c.nodes_per_element, true, CH_MAP, CH_MODEL_VTK, CONTENT_SENSITIVITY);
      write_model(rho.data(), m, c.mask, c.nodes_per_element, true, CH_MAP, CH_MODEL_VTK, CONTENT_RESOLUTION);
    }
    tio_close_all();
    expect_matches_file(std::string("results/expected/model_files_") + c.name + ".txt",
                        file_sections(dir_, {"fort.14", "fort.18", "fort.19"}));
    for (const char* f : {"fort.14", "fort.18", "fort.19"}) std::remove(f);
  }
}

}  // namespace

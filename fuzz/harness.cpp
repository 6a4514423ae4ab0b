// Shared parts of the fuzz targets: the input split into files, the stop
// hook that turns q5's exits into an exception caught per input, and the
// reading road of q5 up to the data blocks.
#include "harness.h"

#include <cstdlib>
#include <cstring>

#include "data/measurement_set.h"
#include "run/driver.h"
#include "run/memory_guard.h"
#include "run/timers.h"
#include "textio/textio.h"

namespace {

// What the stop hook throws: unwinding runs the destructors of every array
// the readers had, so a stop leaks nothing.
struct FuzzStop {
  int status;
};

[[noreturn]] void throw_stop(int status) { throw FuzzStop{status}; }

// The memory guard's limit under the fuzzer, as on a small machine: far
// below libFuzzer's -rss_limit_mb (2048), which the sanitizers' own share
// must also fit in, and small enough that the work of the largest mesh or
// parameter set the guards let through stays within the per-input timeout.
constexpr double kMemoryLimit = 64.0 * 1024.0 * 1024.0;

}  // namespace

std::vector<FuzzFile> split_input(const uint8_t* data, size_t size, const char* first_name,
                                  const std::vector<FuzzFile>& defaults) {
  std::vector<FuzzFile> files;
  const char* p = reinterpret_cast<const char*>(data);
  const char* end = p + size;
  std::string name = first_name;
  std::string text;
  auto keep = [&]() {
    for (FuzzFile& f : files) {
      if (f.name == name) {
        f.data = text;
        return;
      }
    }
    files.push_back({name, text});
  };
  while (p < end) {
    const char* nl = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
    const char* line_end = nl ? nl + 1 : end;
    if (line_end - p >= 3 && p[0] == '%' && p[1] == '%' && p[2] == ' ') {
      keep();
      name.assign(p + 3, nl ? nl : end);
      text.clear();
    } else {
      text.append(p, line_end);
    }
    p = line_end;
  }
  keep();
  for (const FuzzFile& d : defaults) {
    bool given = false;
    for (const FuzzFile& f : files) given = given || f.name == d.name;
    if (!given) files.push_back(d);
  }
  return files;
}

// Called by libFuzzer once before the first input: the stop hook and the
// memory limit of the harness.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tio_set_stop_hook(throw_stop);
  set_memory_limit(kMemoryLimit);
  return 0;
}

int run_in_memory(const std::vector<FuzzFile>& files, void (*step)(void* arg), void* arg) {
  std::vector<TioMemoryFile> table;
  for (const FuzzFile& f : files) table.push_back({f.name.c_str(), f.data.data(), f.data.size()});
  const bool echo = std::getenv("Q5_FUZZ_ECHO") != nullptr;
  tio_use_memory_files(table.data(), static_cast<int>(table.size()), echo);
  timer("init");
  int status = -1;
  try {
    step(arg);
  } catch (const FuzzStop& stop) {
    status = stop.status;
  }
  tio_use_memory_files(nullptr, 0, true);
  return status;
}

namespace {

// The steps of run_q5 before its jobs, without the banner, then the blocks.
void reading_road(void* arg) {
  const bool with_protocol = *static_cast<bool*>(arg);
  tio_open(CH_CONTROL, "Q5.in");
  tio_open(CH_PROTOCOL, "protocol.dat");
  tio_open(CH_ELECTRODES, "electrodes.dat");
  tio_open(CH_ELECTRODES_VTK, "electrodes.vtk");
  tio_open(CH_LOG, "Q5.out");
  RunState s{};  // zero-initialised, as q5's static state is
  read_control_and_build(&s);
  if (!with_protocol) return;
  MeasurementSet ms;
  for (;;) {
    int head = read_block_head();
    if (head == 0) return;
    begin_measurement_block(head, &ms);
    read_measurements(s.ctx, s.mesh, s.table, &ms);
    if (s.ctx.job_type == 0) return;
  }
}

}  // namespace

void run_reading_road(const std::vector<FuzzFile>& files, bool with_protocol) {
  run_in_memory(files, reading_road, &with_protocol);
}

// Memory guard: compares the size of the arrays a count asks for with the
// machine's physical memory (or a harness's smaller limit) before any of
// them is filled.
#include "run/memory_guard.h"

#include <unistd.h>

#include "textio/textio.h"

namespace {
double g_limit = 0.0;  // bytes; 0: the machine's physical memory
}  // namespace

void require_memory(double bytes, const char* what) {
  double physical = g_limit > 0.0
                        ? g_limit
                        : (double)sysconf(_SC_PHYS_PAGES) * (double)sysconf(_SC_PAGESIZE);
  if (physical > 0.0 && bytes > physical)
    fatal(CH_LOG, CH_CONSOLE, "1X, 'FATAL: not enough memory for ', A",
          {wv_text(what)});
}

void set_memory_limit(double bytes) { g_limit = bytes; }

// Memory guard: compares the size of the arrays a count asks for with the
// machine's physical memory before they are allocated.
#include "run/memory_guard.h"

#include <unistd.h>

#include "textio/textio.h"

void require_memory(double bytes, const char* what) {
  double physical = (double)sysconf(_SC_PHYS_PAGES) * (double)sysconf(_SC_PAGESIZE);
  if (physical > 0.0 && bytes > physical)
    fatal(CH_LOG, CH_CONSOLE, "1X, 'FATAL: not enough memory for ', A",
          {wv_text(what)});
}

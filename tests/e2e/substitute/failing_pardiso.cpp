// A substitute for the solver library's entry point, linked into the test
// program q5_failing_solver only: it passes every call to the real solver
// except the one whose number (counting from 1 over all phases) stands in
// the environment variable Q5_FAIL_SOLVER_CALL, which returns -4 without
// touching the solver. The shipped q5 keeps the real entry point.
#include <dlfcn.h>

#include <cstdlib>

typedef void (*pardiso_entry)(void*, const int*, const int*, const int*, const int*, const int*,
                              const void*, const int*, const int*, int*, const int*, int*,
                              const int*, void*, void*, int*);

// The library's own entry point, in the libraries loaded after the program.
static pardiso_entry real_entry() { return (pardiso_entry)dlsym(RTLD_NEXT, "pardiso"); }

extern "C" {

void pardiso(void* pt, const int* maxfct, const int* mnum, const int* mtype, const int* phase,
             const int* n, const void* a, const int* ia, const int* ja, int* perm, const int* nrhs,
             int* iparm, const int* msglvl, void* b, void* x, int* error) {
  static long calls = 0;
  static const char* chosen = std::getenv("Q5_FAIL_SOLVER_CALL");
  static pardiso_entry real = real_entry();
  ++calls;
  if (chosen && std::atol(chosen) == calls) {
    *error = -4;
    return;
  }
  real(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, msglvl, b, x, error);
}
}

// The solver entry point of q5_failing_solver (the shipped q5 keeps the real
// one): every call goes to the real solver but the one whose number, from 1
// over all phases, stands in Q5_FAIL_SOLVER_CALL; that one returns -4. Each
// thread counts its own calls, so that a run on several threads, whose
// threads always take the same wavenumbers, fails on the same ones each time.
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
  static thread_local long calls = 0;
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

// Allocation failures on demand, for tests that prove code fails cleanly when
// memory runs out. Link qrncam_sysutils::allocfault, a static library: it
// must go into the test program itself, because it replaces the global
// operator new and delete (for every library of the process), and it wraps
// malloc and calloc of the program's own objects (-Wl,--wrap=malloc,
// --wrap=calloc, which linking it adds). Calls to malloc from shared
// libraries are not wrapped; link code under test statically to reach them.
#pragma once

#include <stddef.h>

namespace qrnhost::testing {

// While alive, the nth allocation that this thread makes (counting every
// operator new, and malloc and calloc of the wrapped objects) fails: new
// throws std::bad_alloc, malloc and calloc return null. Other threads are
// not affected.
class AllocFault {
  public:
    explicit AllocFault(long nth);
    ~AllocFault();
    AllocFault(const AllocFault&) = delete;
    AllocFault& operator=(const AllocFault&) = delete;

    // Whether the nth allocation came (and failed).
    bool fired() const;
    // The size asked of the failed malloc or calloc, or 0 (none failed, or
    // the failed allocation was an operator new).
    size_t failedMallocSize() const;
    // Stops counting: allocations succeed again.
    void disarm();

    // False where something else owns operator new (valgrind replaces it),
    // so that new cannot be made to fail.
    static bool available();
};

}  // namespace qrnhost::testing

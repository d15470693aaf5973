// Allocation failures on demand, for the tests that prove the library fails
// cleanly when memory runs out. Linked into a test binary (not the support
// library) because it replaces the global operator new and delete, and wraps
// malloc and calloc of the objects linked with -Wl,--wrap=malloc,--wrap=calloc.
#pragma once

#include <stddef.h>

namespace qrntest {

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

}  // namespace qrntest

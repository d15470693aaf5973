#include <stdlib.h>

#include <qrnhost/allocfault.h>
#include <new>

extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t count, size_t size);

namespace {

thread_local long tFailAt = 0;  // 0: not armed
thread_local long tCount = 0;
thread_local bool tFired = false;
thread_local size_t tFailedMalloc = 0;

bool failNow() {
    if (tFailAt == 0 || ++tCount != tFailAt) return false;
    tFired = true;
    tFailAt = 0;
    return true;
}

void* allocate(size_t size) {
    if (failNow()) return nullptr;
    return __real_malloc(size == 0 ? 1 : size);
}

}  // namespace

extern "C" void* __wrap_malloc(size_t size) {
    if (failNow()) {
        tFailedMalloc = size;
        return nullptr;
    }
    return __real_malloc(size);
}

extern "C" void* __wrap_calloc(size_t count, size_t size) {
    if (failNow()) {
        tFailedMalloc = count * size;
        return nullptr;
    }
    return __real_calloc(count, size);
}

// Every form of new allocates with malloc and every delete frees with free,
// so that sanitizers see matching pairs. None is inlined: valgrind replaces
// them by name, and a pair must either both be replaced or neither. (gcc
// also takes the pairing of the replaced forms for a mismatch once it sees
// through them.)
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
#define QRN_REPLACED __attribute__((noinline))
QRN_REPLACED void* operator new(size_t size) {
    void* p = allocate(size);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
QRN_REPLACED void* operator new[](size_t size) {
    return operator new(size);
}
QRN_REPLACED void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
QRN_REPLACED void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
QRN_REPLACED void operator delete(void* p) noexcept {
    free(p);
}
QRN_REPLACED void operator delete[](void* p) noexcept {
    free(p);
}
QRN_REPLACED void operator delete(void* p, size_t) noexcept {
    free(p);
}
QRN_REPLACED void operator delete[](void* p, size_t) noexcept {
    free(p);
}
QRN_REPLACED void operator delete(void* p, const std::nothrow_t&) noexcept {
    free(p);
}
QRN_REPLACED void operator delete[](void* p, const std::nothrow_t&) noexcept {
    free(p);
}

namespace qrnhost::testing {

AllocFault::AllocFault(long nth) {
    tCount = 0;
    tFired = false;
    tFailedMalloc = 0;
    tFailAt = nth;
}

AllocFault::~AllocFault() {
    disarm();
}

bool AllocFault::fired() const {
    return tFired;
}

size_t AllocFault::failedMallocSize() const {
    return tFailedMalloc;
}

void AllocFault::disarm() {
    tFailAt = 0;
}

bool AllocFault::available() {
    AllocFault probe(1);
    try {
        ::operator delete(::operator new(16));  // a call, not a new expression the compiler may drop
    } catch (const std::bad_alloc&) {
        return true;
    }
    return false;
}

}  // namespace qrnhost::testing

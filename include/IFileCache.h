// Asynchronous file dumping. A cache collects copies of data blocks in
// memory, within a process-wide budget, and writes them to its file on the
// background queue once its last strong reference is dropped, so the caller
// never waits for storage.
//
// The budget is the property "vendor.debug.file_cache.storage_size" (int64,
// bytes, default 1073741824 = 1 GiB; a negative value lifts it), read by
// every open() for the whole process: it caps the bytes that all caches
// hold in memory and that no flush has written and released yet. The
// property "vendor.debug.file_cache.log" (int32, default 0), also read by
// every open(), turns on the INFO and DEBUG lines (tag "file_cache").
// Failures are ERROR lines with the file's name:
//  - write() beyond the budget: "<name> Storage size exceed <MB>MB/<MB>MB",
//    -1, nothing kept; out of memory: "<name> Fail to allocate memory", -1.
//  - the flush cannot open the file: "Fail to open physical file <name>";
//    a short write or a failed close: "<name> write error!!!". The blocks
//    are released and the budget credited all the same.
// A test on the host waits for the files with qrnhost::testing::
// waitForDumps() (qrnhost/testing.h).
#pragma once

#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <utility>
#include <vector>

namespace NSCam {

class IFileCache : public virtual android::RefBase {
  public:
    // Returns null when fileName is null. The file is created (or
    // truncated) only when the cache is flushed.
    static android::sp<IFileCache> open(const char* fileName);

    ~IFileCache() override;
    // Copies size bytes into a new block of the cache. Returns size, or -1
    // when the budget would be exceeded or memory is short.
    virtual int write(const void* data, unsigned int size) = 0;
};

}  // namespace NSCam

// The file caches' process-wide byte-count lock. It belongs to the library
// and is not exported: it is declared here only so that the order of the two
// locks can be stated beside mLock, for clang's -Wthread-safety to check.
extern android::Mutex* gCachedBytesLock;

class FileCache : public NSCam::IFileCache {
  public:
    explicit FileCache(const char* fileName);
    // Hands the blocks to a flush job on the background queue; does not
    // wait for it.
    ~FileCache() override;
    int write(const void* data, unsigned int size) override;
    void onFirstRef() override;

  private:
    // 256-byte block, set by the constructor and not changed after: read
    // without a lock. Owned by the flush job later.
    char* mFileName;
    // Blocks in write order; null without a name. The pointer is set by the
    // constructor; the vector's contents are guarded by mLock.
    std::vector<std::pair<void*, unsigned int>>* mChunks PT_GUARDED_BY(mLock);
    // Serialises write. Taken before the process-wide gCachedBytesLock, never
    // after it.
    android::Mutex mLock ACQUIRED_BEFORE(gCachedBytesLock);
};

// Posts the flush of chunks into fileName to the background queue and
// returns at once. Takes ownership of both: the job frees the name, every
// block and the vector, and credits the budget.
void writeToFile(char* fileName, std::vector<std::pair<void*, unsigned int>>* chunks);

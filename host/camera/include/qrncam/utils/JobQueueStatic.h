// Helpers of the camera standard-utilities library (libqrncam_stdutils) that
// the job queue uses.
#pragma once

#include <mutex>

namespace NSCam {

struct JobQueueStatic {
    // Locks a unique_lock that is tied to a mutex but does not own it yet.
    // Returns false instead of throwing when the lock cannot be taken.
    static bool lock(std::unique_lock<std::mutex>& l);
};

}  // namespace NSCam

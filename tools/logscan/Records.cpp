#include "Records.h"

#include <string.h>

namespace qrnlog {

namespace {

uint32_t u32(const unsigned char* p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

constexpr size_t kHeaderV4 = sizeof(logger_entry);
static_assert(kHeaderV4 == 28, "logd's current entry header");

}  // namespace

bool readRecordHeader(const unsigned char* p, size_t avail, RecordHeader& h) {
    uint16_t len, size;
    memcpy(&len, p, 2);
    memcpy(&size, p + 2, 2);
    if (size == 0) size = 20;  // the first header had padding where the size is now
    if (size != 20 && size != 24 && size != 28) return false;
    if (len < 3 || len > LOGGER_ENTRY_MAX_LEN - kHeaderV4) return false;
    h.len = len;
    h.size = size;
    if (avail >= 20) {
        memcpy(&h.pid, p + 4, 4);
        h.tid = u32(p + 8);
        h.sec = u32(p + 12);
        h.nsec = u32(p + 16);
    }
    h.lid = avail >= 24 && size >= 24 ? u32(p + 20) : 0;
    h.uid = avail >= 28 && size >= 28 ? static_cast<int32_t>(u32(p + 24)) : -1;
    return h.lid < LOG_ID_MAX;
}

bool plausibleRecord(const unsigned char* p, const RecordHeader& h) {
    if (h.pid < 0 || h.nsec >= 1000000000u) return false;
    if (binaryBuffer(h.lid)) return true;
    const unsigned char* payload = p + h.size;
    if (payload[0] > ANDROID_LOG_SILENT) return false;
    return memchr(payload + 1, '\0', h.len - 1) != nullptr;
}

std::string_view recordTag(const unsigned char* p, const RecordHeader& h) {
    const char* tag = reinterpret_cast<const char*>(p + h.size + 1);
    const void* end = memchr(tag, '\0', h.len - 1);
    return {tag, end != nullptr ? static_cast<size_t>(static_cast<const char*>(end) - tag) : h.len - 1u};
}

bool decodeRecord(const unsigned char* p, const RecordHeader& h, log_msg& scratch, AndroidLogEntry& out) {
    logger_entry& e = scratch.entry;
    e.len = h.len;
    e.hdr_size = kHeaderV4;
    e.pid = h.pid;
    e.tid = h.tid;
    e.sec = h.sec;
    e.nsec = h.nsec;
    e.lid = h.lid;
    e.uid = static_cast<uint32_t>(h.uid);
    memcpy(scratch.buf + kHeaderV4, p + h.size, h.len);
    return android_log_processLogBuffer(&e, &out) == 0;
}

}  // namespace qrnlog

// logd's entry records, as `adb logcat -B` writes them: a header (payload
// length, header size, pid, tid, seconds, nanoseconds, then log id and uid
// in later versions) and a payload of priority byte, tag and message.
#pragma once

#include <log/log_read.h>
#include <log/logprint.h>
#include <stddef.h>
#include <stdint.h>

#include <string_view>

namespace qrnlog {

struct RecordHeader {
    uint16_t len = 0;   // payload bytes
    uint16_t size = 0;  // header bytes: 20 (the first version, which wrote 0), 24 or 28
    int32_t pid = 0;
    uint32_t tid = 0, sec = 0, nsec = 0;
    uint32_t lid = 0;  // log id (0 main) where the header has one
    int32_t uid = -1;  // where the header has one
    size_t total() const { return size_t{size} + len; }
};

// Reads the header at p (avail bytes, at least 4). Returns false when the
// bytes cannot begin a record logd writes: an unknown header size, a
// payload too short for a priority and two terminators or longer than logd
// sends, or (when avail covers it) an unknown log id. avail may end before
// the header does (total() tells what is needed); the fields beyond avail
// are then left as they are.
bool readRecordHeader(const unsigned char* p, size_t avail, RecordHeader& h);

// Whether a whole record at p looks like one logd wrote for a text buffer
// or a binary one, stricter than readRecordHeader: used to find records
// again after damage and to recognise an input.
bool plausibleRecord(const unsigned char* p, const RecordHeader& h);

// Buffers whose payloads are binary events rather than priority, tag, text.
inline bool binaryBuffer(uint32_t lid) {
    return lid == LOG_ID_EVENTS || lid == LOG_ID_STATS || lid == LOG_ID_SECURITY;
}

// The tag of a text record, up to its terminator.
std::string_view recordTag(const unsigned char* p, const RecordHeader& h);

// Decodes a whole text record with liblog's own reader, which knows only the
// current header: the record is copied into scratch under that header first.
bool decodeRecord(const unsigned char* p, const RecordHeader& h, log_msg& scratch, AndroidLogEntry& out);

}  // namespace qrnlog

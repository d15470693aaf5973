// Arbitrary bytes as one input of the device-log reader: recognising what
// the input is, the line parsers of every logcat format, logd's records and
// a bug report's sections. The first byte picks the options (tags kept,
// printable, a year given). Beyond the sanitizers: the reader ends, hands
// out no more items than the input has bytes (unless a zip inflates it),
// keeps only the tags asked for, never counts more entries than it read
// lines or records, hands out nothing after an input it could not read, and
// its positions and time steps say what they claim.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <string>

#include "LogRead.h"

using namespace qrnlog;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    ReaderOptions options;
    if (data[0] & 1) options.tags = sessionTags();
    options.printable = static_cast<Printable>((data[0] >> 1 & 3) % 3);
    if (data[0] & 8) options.year = 2024;
    Reader reader(options);
    reader.addBytes("fuzz", std::string(reinterpret_cast<const char*>(data) + 1, size - 1), 1700000000);
    Item item;
    size_t items = 0;
    uint64_t position = 0;
    bool unreadable = false;
    while (reader.next(item)) {
        const bool zip = reader.inputs()[0].zip;
        if (++items > 2 * size + 8 && !zip) abort();
        if (item.kind == ItemKind::InputError) unreadable = !reader.inputs()[0].bugReport;
        if (item.kind == ItemKind::TimeBackwards && !(item.time < item.before)) abort();
        if (item.kind != ItemKind::Entry) continue;
        const Entry& e = item.entry;
        if (item.position < position) abort();
        position = item.position;
        if (unreadable || (!zip && (e.message.size() >= size || e.tag.size() >= size))) abort();
        if (e.priority < ANDROID_LOG_UNKNOWN || e.priority > ANDROID_LOG_SILENT) abort();
        const bool tagged = reader.inputs()[0].layout.format != Format::Thread;
        if (tagged && !options.tags.empty() &&
            std::find(options.tags.begin(), options.tags.end(), e.tag) == options.tags.end()) {
            abort();
        }
    }
    const InputInfo& info = reader.inputs()[0];
    if (info.entries + info.skipped > info.lines) abort();
    return 0;
}

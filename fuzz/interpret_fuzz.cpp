// Arbitrary messages of the library's tags, read back into camera sessions:
// the interpretation of the library's texts and call orders. Each line of
// the input is one message; its first byte picks the tag, the level and
// the thread, so that the fuzzer works on what the lines say rather than on
// logcat's prefix (logread_fuzz covers that). Beyond the sanitizers: every
// session is derived and written as JSON that reads back.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "Interpret.h"
#include "Json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kTags[] = {"Cam3CPUCtrl_util", "QrnCam/CpuCtrl", "file_cache",
                                        "ThermalInfo",      "chatty",         "init"};
    std::string log;
    size_t at = 0, line = 0;
    while (at < size) {
        size_t end = at;
        while (end < size && data[end] != '\n') ++end;
        if (end > at) {
            const uint8_t pick = data[at];
            char head[96];
            snprintf(head, sizeof head, "11-24 10:%02zu:%02zu.%03zu  1047  %4u  %4u %c %-8s: ", line / 3600 % 60,
                     line / 60 % 60, line % 1000, 1234u + (pick >> 7), 1234u + (pick >> 4 & 3), "VDIWEF"[pick % 6],
                     kTags[pick / 6 % 6]);
            log += head;
            log.append(reinterpret_cast<const char*>(data) + at + 1, end - at - 1);
            log += '\n';
            ++line;
        }
        at = end + 1;
    }
    qrnlog::ReaderOptions options;
    options.tags = qrnscan::tags();
    options.year = 2026;
    qrnlog::Reader reader(options);
    reader.addBytes("fuzz", log, 1700000000);
    qrnscan::Interpreter interpreter;
    qrnlog::Item item;
    while (reader.next(item)) interpreter.add(item);
    for (const qrnsession::Session& s : interpreter.finish(reader.inputs())) {
        qrnsession::Session back;
        std::string error;
        if (!qrnsession::fromJson(qrnsession::toJson(s), back, &error)) {
            fprintf(stderr, "a session's JSON does not read back: %s\n", error.c_str());
            abort();
        }
    }
    return 0;
}

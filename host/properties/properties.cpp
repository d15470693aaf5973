#include <cutils/properties.h>
#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include <qrnhost/locking.h>
#include <qrnhost/properties.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

struct Store {
    std::mutex lock;
    // Looked up by the caller's C string as it is: reading a property
    // allocates nothing.
    std::map<std::string, std::string, std::less<>> values QRNHOST_GUARDED_BY(lock);
    bool fileLoaded QRNHOST_GUARDED_BY(lock) = false;
};

Store& store() {
    // Never destroyed: properties may be read from exit handlers.
    static Store* s = new Store;
    return *s;
}

std::string trim(const std::string& s) {
    const char* ws = " \t\r\n";
    size_t b = s.find_first_not_of(ws);
    if (b == std::string::npos) return std::string();
    size_t e = s.find_last_not_of(ws);
    return s.substr(b, e - b + 1);
}

bool splitAssignment(const std::string& line, std::string* key, std::string* value) {
    size_t eq = line.find('=');
    if (eq == std::string::npos) return false;
    *key = trim(line.substr(0, eq));
    *value = trim(line.substr(eq + 1));
    return !key->empty() && value->size() < PROPERTY_VALUE_MAX;
}

int parseFile(const std::string& path, std::vector<std::pair<std::string, std::string>>* out, int* errorLine) {
    // A directory opens as a stream that reads nothing: refused as unreadable.
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) return -1;
    std::ifstream in(path);
    if (!in) return -1;
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        std::string t = trim(line);
        if (t.empty() || t[0] == '#') continue;
        std::string k, v;
        if (!splitAssignment(t, &k, &v)) {
            if (errorLine) *errorLine = number;
            return -1;
        }
        out->emplace_back(std::move(k), std::move(v));
    }
    return static_cast<int>(out->size());
}

// Loads the start-up file once, under the store's lock.
void ensureLoadedLocked(Store& s) QRNHOST_REQUIRES(s.lock) {
    if (s.fileLoaded) return;
    s.fileLoaded = true;
    // Read under the store's lock, and nothing in the process sets it.
    const char* path = getenv(qrnhost::properties::kFileEnv);  // NOLINT(concurrency-mt-unsafe)
    if (!path || !*path) return;
    std::vector<std::pair<std::string, std::string>> kv;
    int errorLine = 0;
    if (parseFile(path, &kv, &errorLine) < 0) {
        // Start-up configuration that silently does nothing is worse than a
        // loud message: say which file and line was refused.
        if (errorLine)
            fprintf(stderr, "qrnhost: %s:%d: expected key=value\n", path, errorLine);
        else
            fprintf(stderr, "qrnhost: cannot read property file %s\n", path);
        return;
    }
    for (auto& p : kv) s.values.insert_or_assign(p.first, p.second);
}

intmax_t getImax(const char* key, intmax_t lo, intmax_t hi, intmax_t def) {
    if (!key) return def;
    char buf[PROPERTY_VALUE_MAX] = {};
    if (property_get(key, buf, "") <= 0) return def;
    // libcutils' rule: base inferred, a leading number is enough ("12abc" is
    // 12), no digits at all or an overflow or an out-of-range value is the
    // default.
    int saved = errno;
    errno = 0;
    char* end = nullptr;
    intmax_t v = strtoimax(buf, &end, 0);
    bool overflow = (v == INTMAX_MIN || v == INTMAX_MAX) && errno == ERANGE;
    intmax_t result = (overflow || v < lo || v > hi || end == buf) ? def : v;
    errno = saved;
    return result;
}

}  // namespace

namespace {

int copyValue(char* value, const char* text, size_t size) {
    size_t len = size < PROPERTY_VALUE_MAX - 1 ? size : PROPERTY_VALUE_MAX - 1;
    memcpy(value, text, len);
    value[len] = '\0';
    return static_cast<int>(len);
}

}  // namespace

// These are C functions, and like the device's they never throw: short of
// memory (only loading the start-up file allocates), a property reads as
// unset and cannot be set.
extern "C" int property_get(const char* key, char* value, const char* default_value) {
    if (!value) return -1;
    if (key) {
        try {
            Store& s = store();
            std::lock_guard<std::mutex> g(s.lock);
            ensureLoadedLocked(s);
            auto it = s.values.find(key);
            if (it != s.values.end() && !it->second.empty())
                return copyValue(value, it->second.data(), it->second.size());
        } catch (const std::bad_alloc&) {
        }
    }
    if (!default_value) {
        value[0] = '\0';
        return 0;
    }
    return copyValue(value, default_value, strlen(default_value));
}

extern "C" int8_t property_get_bool(const char* key, int8_t default_value) {
    if (!key) return default_value;
    char buf[PROPERTY_VALUE_MAX] = {};
    int len = property_get(key, buf, "");
    if (len == 1) {
        char c = buf[0];
        if (c == '0' || c == 'n') return 0;
        if (c == '1' || c == 'y') return 1;
    } else if (len > 1) {
        if (!strcmp(buf, "no") || !strcmp(buf, "false") || !strcmp(buf, "off")) return 0;
        if (!strcmp(buf, "yes") || !strcmp(buf, "true") || !strcmp(buf, "on")) return 1;
    }
    return default_value;
}

extern "C" int64_t property_get_int64(const char* key, int64_t default_value) {
    return static_cast<int64_t>(getImax(key, INT64_MIN, INT64_MAX, default_value));
}

extern "C" int32_t property_get_int32(const char* key, int32_t default_value) {
    return static_cast<int32_t>(getImax(key, INT32_MIN, INT32_MAX, default_value));
}

extern "C" int property_set(const char* key, const char* value) {
    if (!key || !*key || !value) return -1;
    if (strlen(value) >= PROPERTY_VALUE_MAX) return -1;
    try {
        Store& s = store();
        std::lock_guard<std::mutex> g(s.lock);
        ensureLoadedLocked(s);
        auto it = s.values.find(key);
        if (it != s.values.end())
            it->second = value;
        else
            s.values.emplace(key, value);
        return 0;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

extern "C" int property_list(void (*fn)(const char*, const char*, void*), void* cookie) {
    if (!fn) return -1;
    std::map<std::string, std::string> copy;
    try {
        Store& s = store();
        std::lock_guard<std::mutex> g(s.lock);
        ensureLoadedLocked(s);
        copy.insert(s.values.begin(), s.values.end());
    } catch (const std::bad_alloc&) {
        return -1;
    }
    for (auto& p : copy) fn(p.first.c_str(), p.second.c_str(), cookie);
    return 0;
}

namespace qrnhost::properties {

void clear(const char* key) {
    if (!key) return;
    Store& s = store();
    std::lock_guard<std::mutex> g(s.lock);
    ensureLoadedLocked(s);
    s.values.erase(key);
}

void reset() {
    Store& s = store();
    std::lock_guard<std::mutex> g(s.lock);
    s.values.clear();
    s.fileLoaded = false;
}

int loadFile(const std::string& path, int* errorLine) {
    std::vector<std::pair<std::string, std::string>> kv;
    int n = parseFile(path, &kv, errorLine);
    if (n < 0) return -1;
    Store& s = store();
    std::lock_guard<std::mutex> g(s.lock);
    ensureLoadedLocked(s);
    for (auto& p : kv) s.values[p.first] = p.second;
    return n;
}

bool setFromAssignment(const std::string& assignment) {
    std::string k, v;
    if (!splitAssignment(assignment, &k, &v)) return false;
    return property_set(k.c_str(), v.c_str()) == 0;
}

}  // namespace qrnhost::properties

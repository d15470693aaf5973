// A file behind a fixed kernel path, rewritten with each fuzz input.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <qrnhost/kernelfs.h>
#include <string>

namespace qrnfuzz {

class FuzzFile {
  public:
    explicit FuzzFile(const char* fixedPath, const char* name) {
        const char* tmp = getenv("TMPDIR");
        std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/qrncam_fuzz_XXXXXX";
        if (mkdtemp(dir.data()) == nullptr) abort();
        mPath = dir + "/" + name;
        qrnhost::kernelfs::redirect(fixedPath, mPath);
    }

    void write(const uint8_t* data, size_t size) const {
        FILE* f = fopen(mPath.c_str(), "wb");
        if (f == nullptr) abort();
        if (size != 0 && fwrite(data, 1, size, f) != size) abort();
        fclose(f);
    }

    std::string read() const {
        std::string s;
        FILE* f = fopen(mPath.c_str(), "rb");
        if (f == nullptr) abort();
        char buf[256];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
        fclose(f);
        return s;
    }

    const std::string& path() const { return mPath; }

  private:
    std::string mPath;
};

}  // namespace qrnfuzz

// Host-only control of the in-process property store. Library code never
// includes this; tests and host programs do.
#pragma once

#include <string>

namespace qrnhost::properties {

// Name of the environment variable that names a file of "key=value" lines to
// load before the first property is read. Blank lines and lines starting with
// '#' are skipped; white space around key and value is trimmed.
inline constexpr const char* kFileEnv = "QRNCAM_PROPERTIES_FILE";

// Removes one property, so that readers see their default again.
void clear(const char* key);

// Removes every property and re-arms loading of the file named by kFileEnv at
// the next access.
void reset();

// Loads "key=value" lines from path; returns the number of properties set, or
// -1 when the file cannot be read. A malformed line is an error: errorLine
// receives its number and nothing of the file is applied.
int loadFile(const std::string& path, int* errorLine = nullptr);

// Parses one "key=value" argument (as given on a command line) and sets it.
bool setFromAssignment(const std::string& assignment);

}  // namespace qrnhost::properties

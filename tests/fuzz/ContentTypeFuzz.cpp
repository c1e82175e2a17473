// Fuzz target: content-type detection from a file name, as a scene's url hands it over (any
// bytes, no extension, dots only, a name that is all extension).
#include "LxDataSource.h"

#include <cstdint>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string name(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    LxFilenameDataSource source(name.c_str());
    const char* type = source.getContentName();
    const char* file = source.getLocalFileName();
    if (type == nullptr || file == nullptr || std::strcmp(file, name.c_str()) != 0) {
        __builtin_trap();  // every name has a content type and is kept as given
    }
    return 0;
}

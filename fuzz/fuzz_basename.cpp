// program_basename() on argv[0]-like names.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "core/program_name.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    char* name = strndup((const char*)data, size);
    size_t length = strlen(name);
    bool had_slash = memchr(name, '/', length) != nullptr;
    char* base = program_basename(name);
    if (base < name || base > name + length) abort();
    if (strchr(base, '/')) abort();
    if (!had_slash && strchr(base, '\\')) abort();
    if (strstr(base, ".exe")) abort();
    free(name);
    return 0;
}

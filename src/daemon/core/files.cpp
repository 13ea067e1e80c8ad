#include "core/files.h"

#include <stdio.h>
#include <sys/stat.h>

uint32_t file_size(const char* path) {
    FILE* f = fopen(path, "r");
    if (!f) return 0;
    fseek(f, 0, SEEK_END);
    uint32_t size = (uint32_t)ftell(f);
    fclose(f);
    return size;
}

bool path_exists(const char* path) {
    struct stat st;
    return stat(path, &st) == 0;
}

bool system_busy() { return path_exists("/tmp/busy"); }

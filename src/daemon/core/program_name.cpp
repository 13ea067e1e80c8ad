#include "core/program_name.h"

#include <string.h>

char* program_basename(char* name) {
    char* base = strrchr(name, '/');
    if (!base) base = strrchr(name, '\\');
    base = base ? base + 1 : name;
    char* ext = strstr(base, ".exe");
    if (!ext) ext = strstr(base, ".EXE");
    if (ext) *ext = '\0';
    return base;
}

#include "scripts.h"

#include <string.h>

const script_entry* script_by_number(int number) {
    for (const script_entry& s : script_table)
        if (s.number == number) return &s;
    return nullptr;
}

const script_entry* script_by_word(const char* word) {
    for (const script_entry& s : script_table)
        if (strcmp(s.word, word) == 0) return &s;
    return nullptr;
}

#include "result_text.h"

static const char* const messages[] = {
    "Action Failed",        "CODE_OK",          "File too large",         "File too small",
    "Action not supported", "No HDD available", "No such user was found",
};

const char* result_text(int code) {
    return code >= 0 && code < (int)(sizeof messages / sizeof messages[0]) ? messages[code] : "Unknown result";
}

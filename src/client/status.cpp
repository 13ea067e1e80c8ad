#include "status.h"

#include <utility>

namespace kelp {

status fail(error_kind kind, std::string message) {
    status s;
    s.kind = kind;
    s.message = std::move(message);
    return s;
}

const char* code_text(uint8_t code) {
    switch (code) {
    case 0: return "Action Failed";
    case 1: return "OK";
    case 2: return "File too large";
    case 3: return "File too small";
    case 4: return "Action not supported (or the device is busy)";
    case 5: return "No HDD available";
    case 6: return "No such user was found";
    }
    return "unknown result code";
}

status device_error(uint8_t code) {
    status s = fail(error_kind::device, "device answered " + std::to_string(code) + ": " + code_text(code));
    s.code = code;
    return s;
}

}  // namespace kelp

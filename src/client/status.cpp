#include "status.h"

#include <utility>

#include "core/result_text.h"

namespace kelp {

status fail(error_kind kind, std::string message) {
    status s;
    s.kind = kind;
    s.message = std::move(message);
    return s;
}

status device_error(uint8_t code) {
    status s = fail(error_kind::device, "device answered " + std::to_string(code) + ": " + result_text(code));
    s.code = code;
    return s;
}

}  // namespace kelp

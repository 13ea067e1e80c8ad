#include "status.h"

#include <string.h>

#include <utility>

#include "protocol.h"
#include "result_text.h"

namespace kelp {

status fail(error_kind kind, std::string message) {
    status s;
    s.kind = kind;
    s.message = std::move(message);
    return s;
}

status cannot(const std::string& what, const std::string& path, int err) {
    status s = fail(error_kind::local, "cannot " + what + " " + path + ": " + strerror(err));
    s.code = err;
    return s;
}

status device_error(uint8_t code) {
    std::string text = result_text(code);
    // The device's wording, plus what the operator needs: it answers 4 also
    // while another job (an upgrade, a restore) holds it.
    if (code == code_not_supported) text += " (or the device is busy)";
    status s = fail(error_kind::device, "device answered " + std::to_string(code) + ": " + text);
    s.code = code;
    return s;
}

}  // namespace kelp

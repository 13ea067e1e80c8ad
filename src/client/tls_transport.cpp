#include "tls_transport.h"

namespace kelp {

status start_tls(session&, const std::string&) { return fail(error_kind::certificate, "TLS is not available in this build"); }

}  // namespace kelp

// The result codes' messages, as the router logs them.
#pragma once

// "Action Failed", "CODE_OK", ... "No such user was found"; "Unknown result"
// for a code the router never sends.
const char* result_text(int code);

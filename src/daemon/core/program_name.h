#pragma once

// Last path component of name (after '/', else after '\'), cut in place at the
// first ".exe" (or, failing that, the first ".EXE").
char* program_basename(char* name);

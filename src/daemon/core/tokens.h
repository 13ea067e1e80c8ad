#pragma once

// Copies the token that starts at or after position into out (which must be
// as large as text) and returns the index of the character that ended it.
// A null delimiter set means the default set.
int next_token(const char* text, int position, char* out, const char* delimiters);

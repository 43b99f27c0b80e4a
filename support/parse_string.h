// Reading and writing of white-space separated, optionally quoted fields of a text line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Reads the next field at `cursor` into `buffer` (`size` bytes, terminated; a longer field is
// cut and the cursor is left where the cut fell). Single quotes take everything literally; double
// quotes know the escapes \" \' \\ \n \r \t \xHH and \ followed by up to three digits 0-7, which
// are accumulated in BASE 16: \101 is the byte 0x01. Existing map files rely on that arithmetic.
// Returns 0, or 1 when the line holds no further field.
int parse_getstring(const char*& cursor, char* buffer, std::size_t size);

// The text as it is written so that parse_getstring reads it back: quoted when `force` is set, or
// when it holds white space, a double quote or a backslash; an empty text becomes "".
std::string parse_string_makeescaped(std::string_view text, bool force);

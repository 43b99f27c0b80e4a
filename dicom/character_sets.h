// Conversion of text values out of the character set that a dataset names (PS3.3, C.12.1.1.2).
#pragma once

// Converts `text` from the character set named by `specificCharacterSet`, the whole value of
// Specific Character Set (0008,0005) with its backslashes, into `targetCharset`, an iconv name
// such as "UTF-8". Several values enable code extensions by escape sequences (PS3.5, 6.1.2.5);
// then a non-zero `personName` (VR PN) makes each component ("^") and each component group ("=")
// start in the default character set. A null `specificCharacterSet` counts as an empty one, a
// null `text` as an empty text; `text` must not be an earlier result.
//
// Returns a terminated text in one static buffer (valid until the next call; not re-entrant), or
// - null: no converter for the only value of `specificCharacterSet`;
// - ">>SCS fail": no converter for a segment of a text with code extensions;
// - "Incomplete iconv": such a segment holds a byte that its character set does not know;
// - "Unknown ESC": such a text holds an escape sequence of no known character set.
// The three messages take the place of the value, also in the study record.
//
// At most 2047 bytes are returned: the rest of a longer text is cut off behind a whole character.
// Of a text with code extensions no more than 65535 bytes are read.
// With a single character set the text also ends in front of the first byte that it does not
// know, and nothing reports that.
[[nodiscard]] const char* DCMTK_convertSCS(const char* text, const char* specificCharacterSet,
                                           int personName, const char* targetCharset);
